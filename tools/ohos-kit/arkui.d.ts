// The page's components and decorators, as far as the example uses them. The names of the components stand in
// check-arkts.mjs as well.

declare type Length = string | number;

declare const Entry: ClassDecorator;
declare const Component: ClassDecorator;
declare const State: PropertyDecorator;

/** What a component's struct inherits. */
declare class CustomComponent {
  aboutToAppear?(): void;
  aboutToDisappear?(): void;
  onPageShow?(): void;
  onPageHide?(): void;
  build(): void;
}

declare class CommonMethod<T> {
  width(value: Length): T;
  height(value: Length): T;
  padding(value: Length): T;
  layoutWeight(value: number): T;
  enabled(value: boolean): T;
  onClick(event: () => void): T;
}

declare class ColumnAttribute extends CommonMethod<ColumnAttribute> {}
interface ColumnInterface {
  (value?: { space?: Length }): ColumnAttribute;
}
declare const Column: ColumnInterface;
declare const ColumnInstance: ColumnAttribute;

declare class RowAttribute extends CommonMethod<RowAttribute> {}
interface RowInterface {
  (value?: { space?: Length }): RowAttribute;
}
declare const Row: RowInterface;
declare const RowInstance: RowAttribute;

declare class ScrollAttribute extends CommonMethod<ScrollAttribute> {}
interface ScrollInterface {
  (): ScrollAttribute;
}
declare const Scroll: ScrollInterface;
declare const ScrollInstance: ScrollAttribute;

declare class TextAttribute extends CommonMethod<TextAttribute> {
  fontSize(value: Length): TextAttribute;
}
interface TextInterface {
  (content?: string): TextAttribute;
}
declare const Text: TextInterface;
declare const TextInstance: TextAttribute;

declare class ButtonAttribute extends CommonMethod<ButtonAttribute> {}
interface ButtonInterface {
  (label: string): ButtonAttribute;
}
declare const Button: ButtonInterface;
declare const ButtonInstance: ButtonAttribute;

declare class TextInputAttribute extends CommonMethod<TextInputAttribute> {
  onChange(callback: (value: string) => void): TextInputAttribute;
}
interface TextInputInterface {
  (value?: { placeholder?: string, text?: string }): TextInputAttribute;
}
declare const TextInput: TextInputInterface;
declare const TextInputInstance: TextInputAttribute;

declare enum ProgressType {
  Linear
}
declare class ProgressAttribute extends CommonMethod<ProgressAttribute> {}
interface ProgressInterface {
  (options: { value: number, total?: number, type?: ProgressType }): ProgressAttribute;
}
declare const Progress: ProgressInterface;
declare const ProgressInstance: ProgressAttribute;
