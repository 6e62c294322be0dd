// Elements of tag, length and value: DER (ITU-T X.690) for security object, keys and certificates, and the BER-TLV
// of ISO/IEC 7816-4 and ICAO Doc 9303-10 for everything else. Tags are numbers of one to three bytes: 0x61, 0x7F61.

import { u8 } from '../bytes.mjs';

/** Bytes of a tag number. */
function tagBytes(tag) {
  const bytes = [];
  for (let rest = tag; rest > 0; rest = Math.floor(rest / 256)) bytes.unshift(rest % 256);
  return Buffer.from(bytes.length > 0 ? bytes : [0]);
}

/**
 * A length field. `form` '81' or '82' asks for at least one or two bytes behind the first, which BER allows and
 * DER forbids for small lengths; 'der' is the shortest.
 */
export function lengthBytes(length, form = 'der') {
  const least = { der: 0, 81: 1, 82: 2 }[form];
  if (least === undefined) throw new TypeError(`no such form of a length: ${form}`);
  if (least === 0 && length < 0x80) return u8(length);
  const digits = tagBytes(length);
  const field = Buffer.concat([Buffer.alloc(Math.max(0, least - digits.length)), digits]);
  return Buffer.concat([u8(0x80 | field.length), field]);
}

/** A writer whose lengths all have one form; `DER` is the usual one. */
export function writer(form = 'der') {
  /** One element around its parts, which are bytes. */
  const tlv = (tag, ...parts) => {
    const value = Buffer.concat(parts);
    return Buffer.concat([tagBytes(tag), lengthBytes(value.length, form), value]);
  };
  return {
    tlv,
    sequence: (...parts) => tlv(0x30, ...parts),
    /** DER wants the elements of a SET OF in the order of their bytes. */
    set: (...parts) => tlv(0x31, ...parts.sort(Buffer.compare)),
    explicit: (number, ...parts) => tlv(0xa0 | number, ...parts),
    /** A non-negative integer, from a number or from big-endian bytes. */
    integer: (value) => {
      let bytes = Buffer.isBuffer(value) ? value : tagBytes(value);
      while (bytes.length > 1 && bytes[0] === 0) bytes = bytes.subarray(1);
      return tlv(0x02, bytes[0] & 0x80 ? Buffer.concat([u8(0), bytes]) : bytes);
    },
    oid: (text) => tlv(0x06, oidBytes(text)),
    octets: (...parts) => tlv(0x04, ...parts),
    /** A bit string of whole bytes, or one that leaves out the last `unused` bits. */
    bits: (bytes, unused = 0) => tlv(0x03, u8(unused), bytes),
    boolean: (value) => tlv(0x01, u8(value ? 0xff : 0)),
    nothing: () => tlv(0x05),
    utf8: (text) => tlv(0x0c, Buffer.from(text, 'utf8')),
    printable: (text) => tlv(0x13, Buffer.from(text, 'ascii')),
    /** A point in time, for the years from 1950 to 2049. */
    utcTime: (date) => tlv(0x17, Buffer.from(`${date.toISOString().replace(/[-:T]/g, '').slice(2, 14)}Z`, 'ascii')),
  };
}

export const DER = writer();

function oidBytes(text) {
  const [first, second, ...rest] = text.split('.').map(Number);
  return Buffer.from([first * 40 + second, ...rest].flatMap((arc) => {
    const digits = [arc & 0x7f];
    for (let left = arc >>> 7; left > 0; left >>>= 7) digits.unshift(0x80 | (left & 0x7f));
    return digits;
  }));
}

/** The dotted text of an object identifier's value. */
export function oidText(value) {
  const arcs = [];
  let arc = 0;
  for (const byte of value) {
    arc = arc * 128 + (byte & 0x7f);
    if (byte & 0x80) continue;
    arcs.push(arc);
    arc = 0;
  }
  const first = Math.min(2, Math.floor(arcs[0] / 40));
  return [first, arcs[0] - first * 40, ...arcs.slice(1)].join('.');
}

/**
 * The element at `offset`. Lengths of any definite form are understood; one that runs past the end throws.
 * @returns {{tag: number, constructed: boolean, start: number, headerLength: number, length: number, end: number,
 *   value: Buffer, bytes: Buffer}} `bytes` is the whole element, `end` the offset behind it
 */
export function readElement(data, offset = 0) {
  let at = offset;
  const next = () => {
    if (at >= data.length) throw new RangeError(`an element that starts at ${offset} is cut short`);
    return data[at++];
  };
  const first = next();
  let tag = first;
  if ((first & 0x1f) === 0x1f) {
    let byte;
    do {
      byte = next();
      tag = tag * 256 + byte;
    } while (byte & 0x80);
  }
  let length = next();
  if (length === 0x80 || length > 0x84) throw new RangeError(`an element at ${offset} has the length field ${length}`);
  if (length > 0x80) {
    let count = length & 0x7f;
    for (length = 0; count > 0; count -= 1) length = length * 256 + next();
  }
  const end = at + length;
  if (end > data.length) throw new RangeError(`an element at ${offset} ends at ${end} of ${data.length} bytes`);
  return {
    tag, constructed: (first & 0x20) !== 0, start: offset, headerLength: at - offset, length, end,
    value: data.subarray(at, end), bytes: data.subarray(offset, end),
  };
}

/** All elements that stand one behind the other in `data`. */
export function readElements(data) {
  const elements = [];
  for (let at = 0; at < data.length; at = elements.at(-1).end) elements.push(readElement(data, at));
  return elements;
}

/** The element that `path` leads to: at each level the place (a number) or the tag (as text, '5F1F') to enter. */
export function elementAt(data, ...path) {
  let element;
  let inside = data;
  for (const step of path) {
    const elements = readElements(inside);
    element = typeof step === 'number' ? elements[step] : elements.find(({ tag }) => tag === Number.parseInt(step, 16));
    if (!element) throw new RangeError(`no element ${path.join(' / ')}`);
    inside = element.value;
  }
  return element;
}
