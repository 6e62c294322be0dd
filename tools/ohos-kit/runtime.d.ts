// What every ArkTS program has, beside the language's own library.

declare function setTimeout(handler: () => void, delay?: number): number;
declare function clearTimeout(timeoutID?: number): void;
declare function canIUse(syscap: string): boolean;
