// The chip's side of secure messaging (ICAO Doc 9303-11 section 9.8) with two-key triple DES or AES, and the primitives
// below it, made of the ciphers of Node.js.

import { createCipheriv, createDecipheriv, createHash } from 'node:crypto';
import { fromHex, hex, u8 } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { readElements, writer } from './der.mjs';

const kBlock = 8;
const kNoVector = Buffer.alloc(kBlock);
const kCountersTried = 3n; // to each side, when a MAC does not fit: was it made with another counter?

const whole = (cipher, data) => Buffer.concat([cipher.setAutoPadding(false).update(data), cipher.final()]);
const threeKeys = (first, second) => Buffer.concat([first, second, first]);
const twoKeys = (key) => threeKeys(key.subarray(0, 8), key.subarray(8, 16));

/** Two-key triple DES in CBC mode over whole blocks; the vector is zero. */
export const encrypt = (key, data) => whole(createCipheriv('des-ede3-cbc', twoKeys(key), kNoVector), data);
export const decrypt = (key, data) => whole(createDecipheriv('des-ede3-cbc', twoKeys(key), kNoVector), data);

/** ISO/IEC 9797-1 padding method 2: 80 and as many zeros as it takes. */
export function pad(data, block = kBlock) {
  return Buffer.concat([data, u8(0x80), Buffer.alloc(block - 1 - (data.length % block))]);
}

/** What was padded, or undefined when the padding is not right. */
export function unpad(padded, block = kBlock) {
  const end = padded.findLastIndex((byte) => byte !== 0);
  return end >= 0 && padded[end] === 0x80 && padded.length - end <= block ? padded.subarray(0, end) : undefined;
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

const aes = (make, mode, key, vector) => make(`aes-${key.length * 8}-${mode}`, key, vector);
const aesBlock = (key, block) => whole(aes(createCipheriv, 'ecb', key, null), block);

/** CMAC with AES (NIST SP 800-38B), cut to eight bytes. */
export function aesCmac(key, data) {
  const double = (block) => {
    const value = BigInt(`0x${block.toString('hex')}`) << 1n;
    const reduced = value >> 128n ? (value ^ 0x87n) & ((1n << 128n) - 1n) : value;
    return Buffer.from(reduced.toString(16).padStart(32, '0'), 'hex');
  };
  const whole16 = data.length > 0 && data.length % 16 === 0;
  const padded = whole16 ? Buffer.from(data) : pad(data, 16);
  const once = double(aesBlock(key, Buffer.alloc(16)));
  const mask = whole16 ? once : double(once);
  for (let i = 0; i < 16; i += 1) padded[padded.length - 16 + i] ^= mask[i];
  return whole(aes(createCipheriv, 'cbc', key, Buffer.alloc(16)), padded).subarray(-16, -8);
}

const counterBytes = (counter, size) => Buffer.from(counter.toString(16).padStart(2 * size, '0'), 'hex');

/** The two ciphers of secure messaging: bytes of a block (and of the counter), encryption and MAC of padded data. */
export const SUITES = Object.freeze({
  tripleDes: { block: 8, encrypt: (key, _counter, data) => encrypt(key, data), decrypt: (key, _counter, data) => decrypt(key, data),
    mac: (key, counter, data) => retailMac(key, Buffer.concat([counter, data])) },
  aes: { block: 16,
    encrypt: (key, counter, data) => whole(aes(createCipheriv, 'cbc', key, aesBlock(key, counter)), data),
    decrypt: (key, counter, data) => whole(aes(createDecipheriv, 'cbc', key, aesBlock(key, counter)), data),
    mac: (key, counter, data) => aesCmac(key, pad(Buffer.concat([counter, data]), 16)) },
});

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

  constructor({ enc, mac, counter, suite = SUITES.tripleDes }) {
    this.suite = suite;
    this.enc = enc;
    this.mac = mac;
    this.counter = counter;
  }

  get counter() {
    return this.#counter;
  }

  set counter(value) {
    this.#counter = BigInt.asUintN(8 * this.suite.block, value);
  }

  #counterField(counter) {
    return counterBytes(BigInt.asUintN(8 * this.suite.block, counter), this.suite.block);
  }

  #macWith(counter, data) {
    return this.suite.mac(this.mac, this.#counterField(counter), data);
  }

  /**
   * Checks and opens a protected command and counts it.
   * @param {{header: Buffer, data: Buffer, le: number|undefined}} apdu  class 0C
   * @returns {{header: Buffer, data: Buffer, le: number|undefined}} the plain command, class 00
   * @throws {ChannelError}
   */
  open({ header, data, le }) {
    this.counter += 1n;
    const objects = this.#objectsOf(data, header[1]);
    if (le !== 0) throw incorrect('Le of the protected command', '00', le === undefined ? 'missing' : hex(u8(le)));
    this.#checkMac(header, objects);
    const expected = objects.get(0x97);
    if (expected && expected.length !== 1) throw incorrect('DO97', 'one byte', hex(expected.value));
    return {
      header: Buffer.concat([Buffer.of(0), header.subarray(1)]),
      data: this.#dataOf(objects),
      le: expected?.value[0],
    };
  }

  /** The data of a command whose MAC does not fit, as far as they can be made out; for its name in reports. */
  glimpse({ header, data }) {
    try {
      return this.#dataOf(this.#objectsOf(data, header[1]));
    } catch {
      return Buffer.alloc(0);
    }
  }

  /** The data objects by tag. Instructions with odd numbers carry theirs in DO85, the others in DO87. */
  #objectsOf(data, instruction) {
    let elements;
    try {
      elements = readElements(data);
    } catch (error) {
      throw incorrect('data objects', 'whole elements', `${hex(data)} (${error.message})`);
    }
    const order = [instruction % 2 ? 0x85 : 0x87, 0x97, 0x8e];
    const places = elements.map(({ tag }) => order.indexOf(tag));
    if (places.includes(-1) || places.some((place, i) => i > 0 && place <= places[i - 1])) {
      throw incorrect('data objects', `${order.map((tag) => `DO${hex(u8(tag))}`).join(', ')} in this order`, hex(data));
    }
    if (places.at(-1) !== 2) throw new ChannelError(kObjectsMissing, 'DO8E', 'a MAC', 'missing');
    const long = elements.find((element) => !writer().tlv(element.tag, element.value).equals(element.bytes));
    if (long) throw incorrect(`length of DO${hex(u8(long.tag))}`, 'its shortest form', hex(long.bytes.subarray(0, 4)));
    return new Map(elements.map((element) => [element.tag, element]));
  }

  #checkMac(header, objects) {
    const sealed = [0x85, 0x87, 0x97].map((tag) => objects.get(tag)).filter(Boolean).map(({ bytes }) => bytes);
    const data = Buffer.concat([pad(header, this.suite.block), ...sealed]);
    const actual = objects.get(0x8e).value;
    const expected = this.#macWith(this.counter, data);
    if (expected.equals(actual)) return;
    for (let by = -kCountersTried; by <= kCountersTried; by += 1n) {
      if (!this.#macWith(this.counter + by, data).equals(actual)) continue;
      throw incorrect('send sequence counter', this.counter, `${this.counter + by} (the MAC fits that one)`);
    }
    throw incorrect('MAC (DO8E)', hex(expected), hex(actual));
  }

  #dataOf(objects) {
    if (objects.has(0x85)) return this.#decrypted('DO85', objects.get(0x85).value);
    if (!objects.has(0x87)) return Buffer.alloc(0);
    const { value } = objects.get(0x87);
    if (value[0] !== 1) throw incorrect('DO87', '01 and whole blocks', hex(value));
    return this.#decrypted('DO87', value.subarray(1));
  }

  #decrypted(what, cryptogram) {
    const { block } = this.suite;
    if (cryptogram.length < block || cryptogram.length % block !== 0) throw incorrect(what, 'whole blocks', hex(cryptogram));
    const padded = this.suite.decrypt(this.enc, this.#counterField(this.counter), cryptogram);
    const data = unpad(padded, block);
    if (!data) throw incorrect('padding of the data', '80 and zeros', hex(padded));
    return data;
  }

  /**
   * Counts and protects an answer.
   * @param {Buffer} data    nothing of it is sent when it is empty
   * @param {string} status  four hexadecimal digits
   * @param {object} [faults] what to do wrong: wrongMac, noMac, noStatusObject (booleans), innerStatus (in DO99 only),
   *   form of the data object's length, tail (bytes that are encrypted behind the data instead of the padding), sealed
   *   (bytes in the data object instead of what belongs there), skip (the counter); odd: the data go into DO85
   * @returns {Buffer} with the status behind it
   */
  seal(data, status, faults = {}) {
    this.counter += 1n + BigInt(faults.skip ?? 0);
    const { tlv } = writer(faults.form);
    const objects = Buffer.concat([
      ...(data.length > 0 || faults.tail || faults.sealed ? [tlv(faults.odd ? 0x85 : 0x87, this.#sealed(data, faults))] : []),
      ...(faults.noStatusObject ? [] : [writer().tlv(0x99, fromHex(faults.innerStatus ?? status))]),
    ]);
    const mac = this.#macWith(this.counter, objects);
    if (faults.wrongMac) mac[7] ^= 1;
    return Buffer.concat([objects, ...(faults.noMac ? [] : [writer().tlv(0x8e, mac)]), fromHex(status)]);
  }

  #sealed(data, { odd, tail, sealed }) {
    if (sealed) return sealed;
    const cryptogram = this.suite.encrypt(this.enc, this.#counterField(this.counter), this.padded(data, tail));
    return odd ? cryptogram : Buffer.concat([u8(1), cryptogram]);
  }

  /** The data with 80 and zeros behind them, or with `tail` and zeros. */
  padded(data, tail = u8(0x80)) {
    const bytes = Buffer.concat([data, tail]);
    return Buffer.concat([bytes, Buffer.alloc((this.suite.block - (bytes.length % this.suite.block)) % this.suite.block)]);
  }
}
