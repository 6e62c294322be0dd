// A piece of a message, for people: { name, hex, words, inside }. `words` say what it means, `inside` are its parts; parts
// marked `opened` are what was found under encryption.

import { hex } from '../../../simulator/lib/bytes.mjs';

export const field = (name, bytes, words = '', inside = undefined) => ({ name, hex: hex(bytes), words, ...(inside && { inside }) });

/** Parts that are not in the message as it went, but under its encryption. */
export const opened = (name, bytes, words, inside) => ({ ...field(name, bytes, words, inside), opened: true });

/** Cuts a message into fields from front to back; whatever is left stays for `rest`. */
export class Cutter {
  #bytes;
  #at = 0;
  fields = [];

  constructor(bytes) {
    this.#bytes = bytes;
  }

  get left() {
    return this.#bytes.length - this.#at;
  }

  /** The next `count` bytes, or what there is of them. `words` may be a function of the bytes. */
  take(name, count, words = '', inside = undefined) {
    const bytes = this.#bytes.subarray(this.#at, this.#at + Math.max(0, count));
    this.#at += bytes.length;
    if (bytes.length === 0) return bytes;
    const told = typeof words === 'function' ? words(bytes) : words;
    const short = bytes.length < count ? `cut short, ${count} bytes expected` : '';
    this.fields.push(field(name, bytes, [told, short].filter(Boolean).join('; '), inside?.(bytes)));
    return bytes;
  }

  /** Everything but the last `behind` bytes. */
  rest(name, words, inside, behind = 0) {
    return this.take(name, this.left - behind, words, inside);
  }
}

/** A number in so many bytes, big-endian, in words. */
export const asNumber = (unit = '') => (bytes) => `${BigInt(`0x${hex(bytes) || '0'}`)}${unit && ` ${unit}`}`;
export const asText = (bytes) => `“${bytes.toString('utf8')}”`;
