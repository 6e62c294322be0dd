// Errors, callbacks and device information of the phone's kits, as far as the example uses them.

export interface BusinessError<T = void> extends Error {
  code: number;
  data: T;
}

export interface Callback<T> {
  (data: T): void;
}

export interface AsyncCallback<T, E = void> {
  (err: BusinessError<E>, data: T): void;
}

export namespace deviceInfo {
  const sdkApiVersion: number;
}
