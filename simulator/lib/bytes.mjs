// Byte helpers shared by every simulator: hexadecimal text, sums, and a cursor that checks as it reads.

import { Difference } from './difference.mjs';

/** Upper-case hexadecimal text of some bytes. */
export function hex(bytes) {
  return Buffer.from(bytes).toString('hex').toUpperCase();
}

/** Bytes of a hexadecimal text (either case, blanks allowed between digits); throws on anything else. */
export function fromHex(text) {
  const digits = String(text).replace(/\s+/g, '');
  if (digits.length % 2 !== 0 || !/^[0-9a-fA-F]*$/.test(digits)) {
    throw new TypeError(`not hexadecimal text: ${JSON.stringify(text)}`);
  }
  return Buffer.from(digits, 'hex');
}

/** Low eight bits of the sum of the bytes, the checksum of every framing. */
export function sum8(bytes) {
  let sum = 0;
  for (const byte of bytes) sum += byte;
  return sum & 0xff;
}

export const u8 = (value) => Buffer.of(value & 0xff);
export const u16 = (value) => Buffer.of((value >> 8) & 0xff, value & 0xff);
export const u32 = (value) => Buffer.concat([u16(value >>> 16), u16(value)]);

/** Command code as it is written everywhere: "0x7500". */
export const commandName = (code) => `0x${code.toString(16).toUpperCase().padStart(4, '0')}`;

/**
 * Walks bytes front to back. Whatever does not fit or is not as expected throws a Difference that says
 * where (`at`, for instance "0x5001") and what was being read.
 */
export class FieldReader {
  #bytes;
  #position = 0;

  constructor(bytes, at) {
    this.#bytes = bytes;
    this.at = at;
  }

  get position() {
    return this.#position;
  }

  get left() {
    return this.#bytes.length - this.#position;
  }

  /** The next `count` bytes. */
  take(what, count) {
    if (count > this.left) {
      throw new Difference(this.at, what, `${count} bytes`, `cut short: only ${this.left} bytes are left`);
    }
    const taken = this.#bytes.subarray(this.#position, this.#position + count);
    this.#position += count;
    return taken;
  }

  u8(what) {
    return this.take(what, 1)[0];
  }

  u16(what) {
    return this.take(what, 2).readUInt16BE();
  }

  u32(what) {
    return this.take(what, 4).readUInt32BE();
  }

  /** The next bytes must be exactly these (bytes or hexadecimal text). */
  expect(what, expected) {
    const wanted = typeof expected === 'string' ? fromHex(expected) : Buffer.from(expected);
    const start = this.#position;
    const actual = this.take(what, wanted.length);
    if (!actual.equals(wanted)) throw Difference.ofBytes(this.at, what, wanted, actual, start);
    return actual;
  }

  /** As `expect`, but any bytes of the given length will do when nothing particular is expected. */
  expectIfKnown(what, expected, length) {
    return expected === undefined || expected === null ? this.take(what, length) : this.expect(what, expected);
  }

  /** A checksum byte over everything from offset `from` up to here. */
  checksum(what, from) {
    this.expect(what, u8(sum8(this.#bytes.subarray(from, this.#position))));
  }

  /** Nothing may be left. */
  done(what = 'end') {
    if (this.left !== 0) {
      throw new Difference(this.at, what, 'nothing more', `followed by ${hex(this.#bytes.subarray(this.#position))}`);
    }
  }
}
