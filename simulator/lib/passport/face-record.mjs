// The portrait of the specimen: a mosaic drawn by arithmetic, as a JPEG (ITU-T T.81), in a face record of ISO/IEC
// 19794-5 within the biometric templates of ICAO Doc 9303-10 section 4.7.2. The same size gives the same bytes.

import { u8, u16, u32 } from '../bytes.mjs';
import { DER } from './der.mjs';

const kBlocksAcross = 110; // blocks of 8 by 8 pixels
const kBlocksDown = 140;
const kWidth = kBlocksAcross * 8;
const kHeight = kBlocksDown * 8;

const segment = (marker, ...parts) => {
  const body = Buffer.concat(parts);
  return Buffer.concat([Buffer.of(0xff, marker), u16(body.length + 2), body]);
};

/** Brightness of a block, in steps of 8: background, shoulders, hair, face, eyes and mouth, and some grain. */
function brightness(column, row) {
  const x = (column / kBlocksAcross - 0.5) * 2;
  const y = (row / kBlocksDown - 0.45) * 2;
  const within = (centreX, centreY, width, height) => ((x - centreX) / width) ** 2 + ((y - centreY) / height) ** 2 < 1;
  const grain = (column * 7 + row * 13 + ((column * row) % 11)) % 5;
  if (within(-0.2, -0.12, 0.08, 0.035) || within(0.2, -0.12, 0.08, 0.035)) return 30 + grain;
  if (within(0, 0.3, 0.17, 0.035)) return 70 + grain;
  if (within(0, 0, 0.45, 0.52)) return 165 + grain - Math.round(20 * x * x);
  if (within(0, -0.12, 0.55, 0.6)) return 50 + grain;
  if (y > 0.55 && within(0, 1.2, 0.95, 0.65)) return 95 + grain;
  return 215 + grain;
}

/** Entropy-coded blocks: the difference of each block's mean to that of the block before, then "end of block". */
function scanData() {
  const bytes = [];
  let pending = 0;
  let count = 0;
  const put = (value, length) => {
    for (let bit = length - 1; bit >= 0; bit -= 1) {
      pending = (pending << 1) | ((value >> bit) & 1);
      count += 1;
      if (count < 8) continue;
      bytes.push(pending);
      if (pending === 0xff) bytes.push(0); // stuffed, so that no marker appears
      pending = 0;
      count = 0;
    }
  };
  let before = 128;
  for (let row = 0; row < kBlocksDown; row += 1) {
    for (let column = 0; column < kBlocksAcross; column += 1) {
      const mean = brightness(column, row);
      const difference = mean - before;
      before = mean;
      const category = difference === 0 ? 0 : 32 - Math.clz32(Math.abs(difference));
      put(category, 4); // category n has the code n
      put(difference < 0 ? difference + (1 << category) - 1 : difference, category);
      put(0, 1);
    }
  }
  if (count > 0) put(0xff, 8 - count);
  return Buffer.from(bytes);
}

/** A Huffman table whose codes all have `length` bits. */
function codeTable(id, length, symbols) {
  const counts = Buffer.alloc(16);
  counts[length - 1] = symbols.length;
  return segment(0xc4, u8(id), counts, Buffer.from(symbols));
}

/** A grey JPEG of exactly `size` bytes; what the picture does not need is comment. */
export function portrait(size) {
  const start = Buffer.concat([
    Buffer.of(0xff, 0xd8),
    segment(0xe0, Buffer.from('JFIF\0', 'latin1'), Buffer.of(1, 2, 0, 0, 1, 0, 1, 0, 0)),
    segment(0xdb, u8(0), Buffer.alloc(64, 8)), // one step of a mean is one step of brightness
    segment(0xc0, u8(8), u16(kHeight), u16(kWidth), Buffer.of(1, 1, 0x11, 0)), // baseline, one component
    codeTable(0x00, 4, [...Array(12).keys()]),
    codeTable(0x10, 1, [0]),
  ]);
  const end = Buffer.concat([segment(0xda, Buffer.of(1, 1, 0, 0, 63, 0)), scanData(), Buffer.of(0xff, 0xd9)]);
  return Buffer.concat([start, comments(size - start.length - end.length), end]);
}

/** Comment segments of `size` bytes in all. */
function comments(size) {
  const parts = [];
  for (let left = size; left > 0;) {
    const take = left - 65000 > 4 ? 65000 : left;
    if (take < 4) throw new RangeError(`the portrait cannot be ${size < 0 ? 'that small' : 'of just this size'}`);
    parts.push(segment(0xfe, Buffer.alloc(take - 4, 'SPECIMEN UTOPIA ', 'ascii')));
    left -= take;
  }
  return Buffer.concat(parts);
}

/** ISO/IEC 19794-5: record header, one facial information block without feature points, image information, image. */
export function faceRecord(image) {
  const face = Buffer.concat([
    u32(20 + 12 + image.length), u16(0), // block length, feature points
    Buffer.from('020304', 'hex'), // female, brown eyes, brown hair
    Buffer.alloc(3), Buffer.alloc(2), Buffer.alloc(6), // properties, expression, pose and its uncertainty: not given
    Buffer.of(1, 0), u16(kWidth), u16(kHeight), // full frontal, JPEG
    Buffer.of(0, 0), u16(0), u16(0), // colour space, source, device, quality: not given
    image,
  ]);
  return Buffer.concat([Buffer.from('FAC\x00010\x00', 'latin1'), u32(14 + face.length), u16(1), face]);
}

/** The templates of DG2 around one face record (ISO/IEC 7816-11, CBEFF). */
export function biometricTemplates(record, { type = 0x02, format = 0x0008, encrypted = 0x5f2e } = {}) {
  const { tlv } = DER;
  const header = tlv(0xa1,
    tlv(0x80, u16(0x0101)), tlv(0x81, u8(type)), tlv(0x82, u8(0)),
    tlv(0x87, u16(0x0101)), tlv(0x88, u16(format)));
  return tlv(0x7f61, tlv(0x02, u8(1)), tlv(0x7f60, header, tlv(encrypted, record)));
}
