// The documented dialogue of a passport read: which command may come next, with which step number, and with which
// bytes. It follows what the reader has got so far, from the chip's answers as the reader understands them.

import { hex } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { elementAt } from './der.mjs';
import { DATA_GROUP_TAGS, FILE_ID, dataGroupId, fileName } from './lds.mjs';

/** Names of the steps; the place of each is the number that travels with its commands. */
export const PASSPORT_STEPS = Object.freeze(['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE',
  'SELECT EF.COM', 'READ EF.COM', 'SELECT EF.SOD', 'READ EF.SOD', 'SELECT DG', 'READ DG', 'INTERNAL AUTHENTICATE']);

/** The step number of a command by its name ("READ DG11" has that of "READ DG"), or undefined. */
export function stepOf(name) {
  const step = PASSPORT_STEPS.indexOf(name.replace(/DG\d+$/, 'DG'));
  return step < 0 ? undefined : step;
}

/** Plain form of each command but READ: header, length and data, Le. Hexadecimal; "x" is any digit. */
const FORMS = {
  'SELECT APPLICATION': '00A4040C07A0000002471001',
  'GET CHALLENGE': '0084000008',
  'EXTERNAL AUTHENTICATE': `0082000028${'x'.repeat(80)}28`,
  'INTERNAL AUTHENTICATE': `0088000008${'x'.repeat(16)}00`,
};
const kFirstChunk = 4;
const kChunk = 212;
const kFirstGroups = [15, 11, 1, 2].map((number) => `DG${number}`);

/** Bytes of a file by its header: a tag of one byte and a short, an 81- or an 82-form length. */
function sizeOf(first) {
  const length = first[1];
  if (length < 0x80) return 2 + length;
  if (length === 0x81) return 3 + first[2];
  return length === 0x82 ? 4 + first.readUInt16BE(2) : 0;
}

/** Names of the data groups that EF.COM lists; none when it is malformed. */
function groupsOfCom(com) {
  try {
    return [...elementAt(com, 0, 2).value].map((tag) => DATA_GROUP_TAGS.indexOf(tag))
      .filter((number) => number > 0).map((number) => `DG${number}`);
  } catch {
    return [];
  }
}

/** Names of the data groups whose hashes EF.SOD holds. */
function groupsOfSod(sod) {
  try {
    const list = elementAt(sod, 0, 0, 1, 0, 2, 1, 0, 0, 2).value;
    const names = [];
    for (let at = 0; at < list.length; at = elementAt(list.subarray(at), 0).end + at) {
      names.push(fileName(dataGroupId(elementAt(list.subarray(at), 0, 0).value[0])));
    }
    return names;
  } catch {
    return [];
  }
}

/**
 * The watch over one read. `state` is 'kept'; 'loose' after a spoiled answer, when the reader may end or go on as it
 * likes; 'lost' when it may be at any step and its send sequence counter is not known.
 */
export class ReadingOrder {
  /** @param {number} [readMode]  1: the portrait is left out; 2: it is read; not given: either */
  constructor(readMode) {
    this.readMode = readMode;
    this.start();
  }

  /** A new dialogue. */
  start() {
    this.state = 'kept';
    this.next = ['SELECT APPLICATION'];
    this.files = new Map(); // by name: { received, total }
    this.rows = new Set(); // names of the files that the reader keeps a row for
    this.groups = null; // the names still to be read, once the list is known
    this.authenticated = false; // INTERNAL AUTHENTICATE has been asked for
    this.withLe = false; // EF.SOD is selected with an expected length
  }

  /** The reader did not get the chip's answer as the chip knows it. */
  spoil(lost) {
    if (this.state !== 'lost') this.state = lost ? 'lost' : 'loose';
  }

  /**
   * The first difference between a command and what is documented to come next, or undefined.
   * @param {string} name
   * @param {string} text      the plain command in hexadecimal
   * @param {number} [serial]  looked at when given
   */
  check(name, text, serial) {
    if (this.state === 'lost') return undefined;
    if (this.state === 'kept' && !this.next.includes(name)) {
      return new Difference(name, 'command', this.next.join(' or ') || 'nothing more', `${name} (${text})`);
    }
    const step = stepOf(name);
    if (step === undefined) return undefined;
    if (serial !== undefined && serial !== step) return new Difference(name, 'serial number', step, serial);
    const form = this.state === 'kept' || !name.startsWith('READ') ? this.#form(name) : undefined;
    if (form === undefined || new RegExp(`^${form.replaceAll('x', '[0-9A-F]')}$`).test(text)) return undefined;
    return new Difference(name, 'command', form, text);
  }

  #form(name) {
    if (FORMS[name]) return FORMS[name];
    const [verb, file] = name.split(' ');
    if (verb === 'SELECT') {
      const id = hex(idBytes(file));
      return `00A4020C02${id}${this.withLe && file === 'EF.SOD' ? id.slice(2) : ''}`;
    }
    const { received, total } = this.files.get(file) ?? { received: Buffer.alloc(0), total: kFirstChunk };
    const missing = Math.min(total - received.length, kChunk);
    return `00B0${hex(Buffer.of(received.length >> 8, received.length & 0xff, missing & 0xff))}`;
  }

  /**
   * Notes an answer as the reader understands it.
   * @param {string} name
   * @param {Buffer|null} data  its plain data; null when the reader takes it for a failure
   */
  answered(name, data) {
    const [verb, file] = name.split(' ');
    const step = stepOf(name);
    if (step === undefined) return;
    if (name === 'INTERNAL AUTHENTICATE') this.next = this.#nextFile();
    else if (step < 3) this.next = data ? [PASSPORT_STEPS[step + 1]] : [];
    else if (verb === 'SELECT') this.next = data ? [`READ ${file}`] : this.#notSelected(file);
    else this.next = data ? this.#chunk(file, data) : this.#notRead(file);
  }

  #notSelected(file) {
    if (file === 'EF.COM') { // it sends two commands at once, and counts both before any answer
      this.spoil(true);
      return ['SELECT EF.SOD'];
    }
    if (['EF.SOD', 'DG1', 'DG2'].includes(file)) return [];
    this.rows.add(file);
    return this.#nextFile();
  }

  #notRead(file) {
    this.rows.add(file);
    this.withLe = file === 'EF.COM';
    if (file === 'EF.COM') return ['SELECT EF.SOD'];
    // after another group the reader waits, and goes on when it is told of the refusal once more
    return ['EF.SOD', 'DG1', 'DG2'].includes(file) ? [] : this.#nextFile();
  }

  #chunk(file, data) {
    const before = this.files.get(file);
    const wanted = before ? Math.min(before.total - before.received.length, kChunk) : kFirstChunk;
    const received = Buffer.concat([before?.received ?? Buffer.alloc(0), data.subarray(0, wanted)]);
    // a header that is cut short tells no size
    const total = before?.total ?? (received.length >= kFirstChunk ? sizeOf(received) : 0);
    this.files.set(file, { received, total });
    this.rows.add(file);
    if (!before && received.length > 0 && received.length < kFirstChunk) this.spoil(false);
    if (data.length > 0 && received.length < total) return [`READ ${file}`];
    return this.#complete(file, received);
  }

  #complete(file, content) {
    if (file === 'EF.COM') {
      this.groups = groupsOfCom(content);
      return ['SELECT EF.SOD'];
    }
    if (file === 'EF.SOD') {
      this.groups = this.#inReadingOrder(this.groups?.length > 0 ? this.groups : groupsOfSod(content));
      return this.#nextFile();
    }
    const closesCore = this.readMode === 1 ? file === 'DG1' : file === 'DG2' || (file === 'DG1' && !this.readMode);
    if (!closesCore || !this.rows.has('DG15') || this.authenticated) return this.#nextFile();
    const only = file === 'DG2' || this.readMode === 1;
    return ['INTERNAL AUTHENTICATE', ...(only ? [] : this.#nextFile().slice(0, 1))];
  }

  #inReadingOrder(listed) {
    const groups = [...new Set(listed)];
    const first = kFirstGroups.filter((name) => groups.includes(name));
    const all = [...first, ...groups.filter((name) => !kFirstGroups.includes(name))];
    return this.readMode === 1 ? all.filter((name) => name !== 'DG2') : all;
  }

  /** SELECT of the next group; without a known mode the portrait may be left out. */
  #nextFile() {
    const [next, after] = this.groups ?? [];
    const names = next === 'DG2' && !this.readMode ? [next, after] : [next];
    return names.filter(Boolean).map((name) => `SELECT ${name}`);
  }

  /** A command has come: what it says about the choices that were open. */
  taken(name) {
    if (name === 'INTERNAL AUTHENTICATE') {
      this.authenticated = true;
      if (!this.files.has('DG2')) this.groups = this.groups?.filter((group) => group !== 'DG2');
    }
    const [verb, file] = name.split(' ');
    const place = verb === 'SELECT' ? (this.groups ?? []).indexOf(file) : -1;
    if (place >= 0) this.groups = this.groups.slice(place + 1);
  }
}

/** The two bytes of a file's identifier, from its name. */
function idBytes(file) {
  const id = { 'EF.COM': FILE_ID.COM, 'EF.SOD': FILE_ID.SOD }[file] ?? dataGroupId(Number(file.slice(2)));
  return Buffer.of(id >> 8, id & 0xff);
}
