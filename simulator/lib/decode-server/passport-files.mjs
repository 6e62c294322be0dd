// The files of a passport as the reader has to hand them over: which there are, what each of them should hold, and the
// text that tells how reading each of them went.

import { fromHex, hex } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { elementAt, readElement } from '../passport/der.mjs';
import { DATA_GROUP_TAGS } from '../passport/lds.mjs';
import { hashList } from './passport-signature.mjs';

const kDataGroups = Array.from({ length: 16 }, (_, i) => `DG${i + 1}`);

/** The slots of the 0x7202 request, in their order; EF.COM follows apart. */
export const SLOTS = [...kDataGroups, 'EF.SOD'];

const kReadFirst = ['DG15', 'DG11', 'DG1', 'DG2'];

const kNames = { 'EF.SOD': 'sod_str', 'EF.COM': 'com_str',
  ...Object.fromEntries(kDataGroups.map((name) => [name, `${name.toLowerCase()}_str`])) };
const kGood = '9000';
const kLongText = 245; // characters; no row is added to a text that is longer
const kMostText = 255; // nor one that would make it longer than this

/** Data groups that EF.COM lists, in its order; nothing when it cannot be read. */
function listOfCom(file) {
  try {
    return [...elementAt(file, 0, 2).value].map((tag) => kDataGroups[DATA_GROUP_TAGS.indexOf(tag) - 1]).filter(Boolean);
  } catch {
    return [];
  }
}

function listOfSod(file) {
  try {
    return hashList(file).hashes.map(({ number }) => kDataGroups[number - 1]).filter(Boolean);
  } catch {
    return [];
  }
}

/**
 * The data groups that the reader goes through, in its order.
 * @param {object} files    bytes by name; EF.COM says which there are, and EF.SOD when it does not
 * @param {number} readMode 1: DG2 is left out
 */
export function readingOrder(files, readMode) {
  let listed = listOfCom(files['EF.COM'] ?? Buffer.alloc(0));
  if (listed.length === 0) listed = listOfSod(files['EF.SOD'] ?? Buffer.alloc(0));
  const first = kReadFirst.filter((name) => listed.includes(name));
  return [...new Set([...first, ...listed])].filter((name) => readMode !== 1 || name !== 'DG2');
}

/** The data group after which INTERNAL AUTHENTICATE comes. */
export const lastCoreFile = (readMode) => (readMode === 1 ? 'DG1' : 'DG2');

/**
 * A function that gives the bytes that a slot must hold: none for a file that the passport does not give or the reader
 * does not ask for, and undefined when it is not known which passport is read.
 */
export function expectedFiles(passport, readMode) {
  if (!passport) return () => undefined;
  const asked = [...readingOrder(passport.files, readMode), 'EF.SOD', 'EF.COM'];
  return (name) => (asked.includes(name) ? passport.files[name] : undefined) ?? Buffer.alloc(0);
}

/** Has a file all the bytes that its own header promises? */
function isWhole(file) {
  try {
    return readElement(file).end === file.length;
  } catch {
    return false;
  }
}

const kFirstBytes = 4; // what a reader asks for to learn the size

/**
 * A file comes whole or not at all. Its size is that of its header, a tag of one byte and a length in short, 81- or 82-form;
 * of a file whose header claims less than the first bytes hold, or tells nothing, these are the whole.
 */
export function checkWhole(name, file, at) {
  if (file.length === 0) return;
  const start = Buffer.concat([file.subarray(0, kFirstBytes), Buffer.alloc(kFirstBytes)]);
  const form = start[1];
  const size = form < 0x80 ? 2 + form : form === 0x81 ? 3 + start[2] : form === 0x82 ? 4 + start.readUInt16BE(2) : 2;
  const good = size >= kFirstBytes ? file.length === size : file.length >= size && file.length <= kFirstBytes;
  if (!good) throw new Difference(at, `length of ${name}`, `${size}, as its header says, or none at all`, file.length);
}

/**
 * The rows that the status text must have for files that came: { name, status, optional }. A status that is not known
 * is undefined; that file has failed, with whatever status.
 */
function expectedRows({ files, readMode }, statuses = {}) {
  const rowOf = (name) => {
    const present = files[name]?.length > 0;
    const known = statuses[name] ?? (present && isWhole(files[name]) ? kGood : undefined);
    return { name: kNames[name], status: known, failed: !present, optional: name === 'EF.COM' && known === undefined };
  };
  return ['EF.COM', 'EF.SOD', ...readingOrder(files, readMode)].map(rowOf);
}

/**
 * Checks the per-file status text of a monitor record, e.g. "dg15_str:6A82;dg1_str:9000".
 * @param {object|null} received  files and read mode of the 0x7202 request; without one the text is empty
 * @param {object} [statuses]     what is known of the last statuses, by file
 */
export function checkStatusText(text, received, statuses, at) {
  const differ = (expected, actual) => new Difference(at, '"sod_file"', expected, actual);
  if (!received) {
    if (text !== '') throw differ('empty, since no files came', text);
    return;
  }
  const parts = text === '' ? [] : text.split(';');
  let length = 0;
  for (const { name, status, failed, optional } of expectedRows(received, statuses)) {
    const part = parts[0] ?? 'nothing';
    const [, gotName, gotStatus] = /^([a-z0-9_]+):([0-9A-F]*)$/.exec(part) ?? [];
    if (optional && gotName !== name) continue;
    if (length > kLongText || length + `;${name}:${status ?? ''}`.length > kMostText) break;
    const wanted = `${name}:${status ?? (failed ? 'the status of a failure' : 'a status')}`;
    const fits = gotName === name && (status === undefined ? !failed || gotStatus !== kGood : gotStatus === status);
    if (!fits) throw differ(`${wanted} at character ${length}`, part);
    length += (length > 0 ? 1 : 0) + part.length;
    parts.shift();
  }
  if (parts.length > 0) throw differ('no further row', parts.join(';'));
}

/** Did reading these files end with an answer that was not a good one? Only then may a good read name an error. */
export function endedBadly({ files, readMode, answered }, text) {
  const last = readingOrder(files, readMode).at(-1);
  return !answered || !(files[last]?.length > 0) || !text.endsWith(`:${kGood}`);
}

/**
 * A passport that is expected, from its loose form: `files` that the chip gives, by name (bytes or hexadecimal text), and
 * also by name the `statuses` with which reading ends where that is not known from the files.
 */
export function completePassport(given) {
  if (!given) return undefined;
  const known = [...SLOTS, 'EF.COM'];
  const stranger = [...Object.keys(given.files), ...Object.keys(given.statuses ?? {})].find((name) => !known.includes(name));
  if (stranger) throw new TypeError(`a passport has no file ${stranger}; there are ${known.join(', ')}`);
  const asBytes = (value) => (typeof value === 'string' ? fromHex(value) : Buffer.from(value));
  const changed = (object, change) => Object.fromEntries(Object.entries(object).map(([name, value]) => [name, change(value)]));
  const files = changed(given.files, asBytes);
  const statuses = changed(given.statuses ?? {}, (text) => text.toUpperCase());
  return { ...given, files, statuses, authority: given.authority && asBytes(given.authority) };
}

/** Files in hexadecimal, for reports; those that did not come are left out. */
export function filesAsText(files) {
  const present = Object.entries(files).filter(([, bytes]) => bytes.length > 0);
  return Object.fromEntries(present.map(([name, bytes]) => [name, hex(bytes)]));
}
