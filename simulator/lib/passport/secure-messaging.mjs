// The chip's side of secure messaging (ICAO Doc 9303-11 section 9.8) with two-key triple DES, and the primitives
// below it, made of the ciphers of Node.js.

import { createCipheriv, createDecipheriv, createHash } from 'node:crypto';
import { fromHex, hex, u8 } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { readElements, writer } from './der.mjs';

const kBlock = 8;
const kNoVector = Buffer.alloc(kBlock);
const kCounterRange = 1n << 64n;
const kCountersTried = 3n; // to each side, when a MAC does not fit: was it made with another counter?

const whole = (cipher, data) => Buffer.concat([cipher.setAutoPadding(false).update(data), cipher.final()]);
const threeKeys = (first, second) => Buffer.concat([first, second, first]);
const twoKeys = (key) => threeKeys(key.subarray(0, 8), key.subarray(8, 16));

/** Two-key triple DES in CBC mode over whole blocks; the vector is zero. */
export const encrypt = (key, data) => whole(createCipheriv('des-ede3-cbc', twoKeys(key), kNoVector), data);
export const decrypt = (key, data) => whole(createDecipheriv('des-ede3-cbc', twoKeys(key), kNoVector), data);

/** ISO/IEC 9797-1 padding method 2: 80 and as many zeros as it takes. */
export function pad(data) {
  return Buffer.concat([data, u8(0x80), Buffer.alloc(kBlock - 1 - (data.length % kBlock))]);
}

/** What was padded, or undefined when the padding is not right. */
export function unpad(padded) {
  const end = padded.findLastIndex((byte) => byte !== 0);
  return end >= 0 && padded[end] === 0x80 && padded.length - end <= kBlock ? padded.subarray(0, end) : undefined;
}

/** ISO/IEC 9797-1 MAC algorithm 3: single DES with the first key half, triple DES for the last block. Pads. */
export function retailMac(key, data) {
  const padded = pad(data);
  const first = key.subarray(0, 8);
  const single = createCipheriv('des-ede3-cbc', threeKeys(first, first), kNoVector);
  const chained = Buffer.concat([kNoVector, whole(single, padded.subarray(0, -kBlock))]).subarray(-kBlock);
  return whole(createCipheriv('des-ede3-cbc', twoKeys(key), chained), padded.subarray(-kBlock));
}

const oddParity = (byte) => {
  let ones = 0;
  for (let bits = byte >> 1; bits > 0; bits >>= 1) ones += bits & 1;
  return (byte & 0xfe) | (ones % 2 === 0 ? 1 : 0);
};

/** Encryption and MAC key of a seed (ICAO Doc 9303-11 section 9.7.1). */
export function deriveKeys(seed) {
  const key = (number) => {
    const digest = createHash('sha1').update(seed).update(Buffer.of(0, 0, 0, number)).digest();
    return Buffer.from(digest.subarray(0, 16).map(oddParity));
  };
  return { enc: key(1), mac: key(2) };
}

/** A protected command that the chip does not accept; `status` is what it answers, in plain. */
export class ChannelError extends Error {
  constructor(status, what, expected, actual) {
    super(what);
    Object.assign(this, { status, what, expected, actual });
  }

  at(name) {
    return new Difference(name, this.what, this.expected, this.actual);
  }
}

const kObjectsMissing = '6987';
const kObjectsIncorrect = '6988';
const incorrect = (what, expected, actual) => new ChannelError(kObjectsIncorrect, what, expected, actual);

/** One session. `counter` is the send sequence counter as a BigInt. */
export class SecureChannel {
  #counter;

  constructor({ enc, mac, counter }) {
    this.enc = enc;
    this.mac = mac;
    this.counter = counter;
  }

  get counter() {
    return this.#counter;
  }

  set counter(value) {
    this.#counter = ((value % kCounterRange) + kCounterRange) % kCounterRange;
  }

  #macWith(counter, data) {
    const field = Buffer.alloc(8);
    field.writeBigUInt64BE(((counter % kCounterRange) + kCounterRange) % kCounterRange);
    return retailMac(this.mac, Buffer.concat([field, data]));
  }

  /**
   * Checks and opens a protected command and counts it.
   * @param {{header: Buffer, data: Buffer, le: number|undefined}} apdu  class 0C
   * @returns {{header: Buffer, data: Buffer, le: number|undefined}} the plain command, class 00
   * @throws {ChannelError}
   */
  open({ header, data, le }) {
    this.counter += 1n;
    const objects = this.#objectsOf(data);
    if (le !== 0) throw incorrect('Le of the protected command', '00', le === undefined ? 'missing' : hex(u8(le)));
    this.#checkMac(header, objects);
    const sealed = objects.get(0x87);
    const expected = objects.get(0x97);
    if (expected && expected.length !== 1) throw incorrect('DO97', 'one byte', hex(expected.value));
    return {
      header: Buffer.concat([Buffer.of(0), header.subarray(1)]),
      data: sealed ? this.#decrypted(sealed) : Buffer.alloc(0),
      le: expected?.value[0],
    };
  }

  /** The data of a command whose MAC does not fit, as far as they can be made out; for its name in reports. */
  glimpse({ data }) {
    try {
      return this.#decrypted(this.#objectsOf(data).get(0x87));
    } catch {
      return Buffer.alloc(0);
    }
  }

  #objectsOf(data) {
    let elements;
    try {
      elements = readElements(data);
    } catch (error) {
      throw incorrect('data objects', 'whole elements', `${hex(data)} (${error.message})`);
    }
    const order = [0x87, 0x97, 0x8e];
    const places = elements.map(({ tag }) => order.indexOf(tag));
    if (places.includes(-1) || places.some((place, i) => i > 0 && place <= places[i - 1])) {
      throw incorrect('data objects', 'DO87, DO97, DO8E in this order', hex(data));
    }
    if (places.at(-1) !== 2) throw new ChannelError(kObjectsMissing, 'DO8E', 'a MAC', 'missing');
    const long = elements.find((element) => !writer().tlv(element.tag, element.value).equals(element.bytes));
    if (long) throw incorrect(`length of DO${hex(u8(long.tag))}`, 'its shortest form', hex(long.bytes.subarray(0, 4)));
    return new Map(elements.map((element) => [element.tag, element]));
  }

  #checkMac(header, objects) {
    const protectedObjects = [objects.get(0x87), objects.get(0x97)].filter(Boolean).map(({ bytes }) => bytes);
    const data = Buffer.concat([pad(header), ...protectedObjects]);
    const actual = objects.get(0x8e).value;
    const expected = this.#macWith(this.counter, data);
    if (expected.equals(actual)) return;
    for (let by = -kCountersTried; by <= kCountersTried; by += 1n) {
      if (!this.#macWith(this.counter + by, data).equals(actual)) continue;
      throw incorrect('send sequence counter', this.counter, `${this.counter + by} (the MAC fits that one)`);
    }
    throw incorrect('MAC (DO8E)', hex(expected), hex(actual));
  }

  #decrypted({ value }) {
    if (value[0] !== 1 || value.length < 1 + kBlock || value.length % kBlock !== 1) {
      throw incorrect('DO87', '01 and whole blocks', hex(value));
    }
    const padded = decrypt(this.enc, value.subarray(1));
    const data = unpad(padded);
    if (!data) throw incorrect('padding of the data', '80 and zeros', hex(padded));
    return data;
  }

  /**
   * Counts and protects an answer.
   * @param {Buffer} data    nothing of it is sent when it is empty
   * @param {string} status  four hexadecimal digits
   * @param {object} [faults] what to do wrong: wrongMac, noMac, noStatusObject (booleans), innerStatus (in DO99 only),
   *   form of DO87's length, padded (bytes that are encrypted instead of the padded data), skip (the counter)
   * @returns {Buffer} with the status behind it
   */
  seal(data, status, faults = {}) {
    this.counter += 1n + BigInt(faults.skip ?? 0);
    const { tlv } = writer(faults.form);
    const padded = faults.padded ?? (data.length > 0 ? pad(data) : undefined);
    const objects = Buffer.concat([
      ...(padded ? [tlv(0x87, u8(1), encrypt(this.enc, padded))] : []),
      ...(faults.noStatusObject ? [] : [writer().tlv(0x99, fromHex(faults.innerStatus ?? status))]),
    ]);
    const mac = this.#macWith(this.counter, objects);
    if (faults.wrongMac) mac[7] ^= 1;
    return Buffer.concat([objects, ...(faults.noMac ? [] : [writer().tlv(0x8e, mac)]), fromHex(status)]);
  }
}
