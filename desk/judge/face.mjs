// DG2: the holder's face, in the encodings that documents use: ISO/IEC 19794-5 of 2005 and 2011, and ISO/IEC 39794-5, each
// within the biometric templates of ICAO Doc 9303-10 section 4.7.2.

import { readElement, readElements } from '../../simulator/lib/passport/der.mjs';

const kTemplates = 0x7f61;
const kTemplate = 0x7f60;
const kOldRecord = 0x5f2e;
const kNewRecord = 0x7f2e;
const kMostDepth = 12;

const kStarts = [
  ['image/jpeg', Buffer.from('FFD8FF', 'hex')],
  ['image/jp2', Buffer.from('0000000C6A5020200D0A870A', 'hex')],
  ['image/jp2', Buffer.from('FF4FFF51', 'hex')], // the bare code stream
  ['image/png', Buffer.from('89504E470D0A1A0A', 'hex')],
];

const kSex = { 1: 'male', 2: 'female' };
const kEyes = { 1: 'black', 2: 'blue', 3: 'brown', 4: 'grey', 5: 'green', 6: 'of several colours', 7: 'pink' };
const kHair = { 1: 'bald', 2: 'black', 3: 'blond', 4: 'brown', 5: 'grey', 6: 'white', 7: 'red', 8: 'green', 9: 'blue' };

/** Kind of an image by its first bytes. */
export const imageType = (bytes) => kStarts.find(([, start]) => bytes.subarray(0, start.length).equals(start))?.[0];

/** The image that begins first in some bytes. */
function imageWithin(bytes) {
  const places = kStarts.map(([type, start]) => ({ type, at: bytes.indexOf(start) })).filter(({ at }) => at >= 0);
  if (places.length === 0) throw new Error('no JPEG, JPEG 2000 or PNG begins in it');
  const { type, at } = places.reduce((first, each) => (each.at < first.at ? each : first));
  return { type, bytes: bytes.subarray(at) };
}

/** ISO/IEC 19794-5: a header, then a block for each face; of the edition of 2005 the description is taken as well. */
function oldRecord(record) {
  if (record.toString('latin1', 0, 4) !== 'FAC\0') return [{ encoding: 'a plain image', ...imageWithin(record) }];
  const version = record.toString('latin1', 4, 7);
  const of2005 = version === '010';
  const faces = [];
  let at = of2005 ? 14 : 17;
  for (let left = record.readUInt16BE(12); left > 0; left -= 1) {
    const block = record.subarray(at, at + record.readUInt32BE(at));
    if (block.length < 32) throw new Error('a face record is cut short');
    const description = of2005 && {
      sex: kSex[block[6]], eyes: kEyes[block[7]], hair: kHair[block[8]],
    };
    const from = of2005 ? 20 + 8 * block.readUInt16BE(4) + 12 : 0;
    faces.push({ encoding: `ISO/IEC 19794-5:${of2005 ? 2005 : 2011}`, ...description, ...imageWithin(block.subarray(from)) });
    at += block.length;
  }
  return faces;
}

/** ISO/IEC 39794-5: the image is a value somewhere in a tree of elements. */
function newRecord(value, depth = 0) {
  if (depth > kMostDepth) return [];
  return readElements(value).flatMap((element) => {
    if (element.constructed) return newRecord(element.value, depth + 1);
    return imageType(element.value) ? [{ encoding: 'ISO/IEC 39794-5', type: imageType(element.value), bytes: element.value }] : [];
  });
}

/**
 * All faces in DG2.
 * @returns {object[]} each { encoding, type, bytes } and where it is told sex, eyes, hair
 */
export function readFaces(file) {
  const outer = readElements(readElement(file).value).find(({ tag }) => tag === kTemplates);
  if (!outer) throw new Error('DG2 has no biometric templates');
  const faces = readElements(outer.value).filter(({ tag }) => tag === kTemplate).flatMap(({ value }) => {
    const record = readElements(value).find(({ tag }) => tag === kOldRecord || tag === kNewRecord);
    if (!record) return [];
    return record.tag === kNewRecord ? newRecord(record.value) : oldRecord(record.value);
  });
  if (faces.length === 0) throw new Error('DG2 has no face');
  return faces;
}
