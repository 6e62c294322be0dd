// NFC: what the example uses of the phone's kit.

import type { ElementName } from './kit.AbilityKit';
import type { AsyncCallback, Callback } from './kit.BasicServicesKit';

export namespace nfcController {
  enum NfcState {
    STATE_OFF = 1,
    STATE_TURNING_ON = 2,
    STATE_ON = 3,
    STATE_TURNING_OFF = 4
  }

  function isNfcOpen(): boolean;
  function on(type: 'nfcStateChange', callback: Callback<NfcState>): void;
  function off(type: 'nfcStateChange', callback?: Callback<NfcState>): void;
}

export namespace tag {
  const NFC_A: number;
  const NFC_B: number;
  const ISO_DEP: number;

  interface TagInfo {
    uid: number[];
    /** Technologies that the tag supports, the one in use included. */
    technology: number[];
  }

  /** A connection to a tag. All of these throw a BusinessError: 201, 3100201 or 3100204. */
  interface TagSession {
    connect(): void;
    resetConnection(): void;
    isConnected(): boolean;
    /** Milliseconds that an exchange may take. */
    setTimeout(timeout: number): void;
    transmit(data: number[]): Promise<number[]>;
  }
  interface NfcBTag extends TagSession {
    getRespAppData(): number[];
  }
  interface IsoDepTag extends TagSession {
    isExtendedApduSupported(): Promise<boolean>;
  }

  /** Null when the tag does not have the technology. */
  function getNfcB(tagInfo: TagInfo): NfcBTag | null;
  function getIsoDep(tagInfo: TagInfo): IsoDepTag | null;
  /** These two throw a BusinessError: 201, 801, 3100201, 3100202 or 3100203. */
  function on(type: 'readerMode', elementName: ElementName, discTech: number[], callback: AsyncCallback<TagInfo>): void;
  function off(type: 'readerMode', elementName: ElementName, callback?: AsyncCallback<TagInfo>): void;
}
