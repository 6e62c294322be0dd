// Windows: what the example uses of the phone's kit.

export namespace window {
  interface WindowStage {
    loadContent(path: string): Promise<void>;
  }
}
