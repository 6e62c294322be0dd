// Abilities: what the example uses of the phone's kit.

import type { window } from './kit.ArkUI';

export interface ElementName {
  bundleName: string;
  abilityName: string;
  moduleName?: string;
}

export namespace bundleManager {
  export type ElementName = import('./kit.AbilityKit').ElementName;
}

export class Want {
  bundleName?: string;
  abilityName?: string;
  moduleName?: string;
}

export namespace AbilityConstant {
  interface LaunchParam {
    launchReason: number;
  }
}

export class UIAbility {
  onCreate(want: Want, launchParam: AbilityConstant.LaunchParam): void;
  onWindowStageCreate(windowStage: window.WindowStage): void;
  onForeground(): void;
  onBackground(): void;
}
