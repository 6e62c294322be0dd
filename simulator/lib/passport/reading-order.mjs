// The documented dialogue of a passport read: which command may come next, with which step number, and with which
// bytes. It follows what the reader has got so far, from the chip's answers as the reader understands them.

import { hex } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { elementAt } from './der.mjs';
import { DATA_GROUP_TAGS, FILE_ID, dataGroupId, fileName } from './lds.mjs';

/** Names of the steps; the place of each is the number that travels with its commands. */
export const PASSPORT_STEPS = Object.freeze(['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE',
  'SELECT EF.COM', 'READ EF.COM', 'SELECT EF.SOD', 'READ EF.SOD', 'SELECT DG', 'READ DG', 'INTERNAL AUTHENTICATE']);

/** The steps of PACE, where there is no Basic Access Control, numbered from 10 on; the application is selected after them. */
export const PACE_STEPS = Object.freeze(['SELECT MF', 'SELECT EF.CardAccess', 'READ EF.CardAccess', 'MSE SET AT', 'PACE NONCE',
  'PACE MAPPING', 'PACE KEY AGREEMENT', 'PACE TOKEN']);
const kPaceFrom = 10;

/** The step number of a command by its name ("READ DG11" has that of "READ DG"), or undefined. */
export function stepOf(name) {
  const step = PASSPORT_STEPS.indexOf(name.replace(/DG\d+$/, 'DG'));
  return step < 0 ? undefined : step;
}

/** Statuses with which a chip says that it has no Basic Access Control. */
const kNotWithoutPace = ['6982', '6985', '6988', '6A88', '6D00', '6E00'];

/** Plain form of each command but READ: header, length and data, Le. Hexadecimal; "x" is any digit. */
const FORMS = {
  'SELECT APPLICATION': '00A4040C07A0000002471001',
  'GET CHALLENGE': '0084000008',
  'EXTERNAL AUTHENTICATE': `0082000028${'x'.repeat(80)}`,
  'INTERNAL AUTHENTICATE': `0088000008${'x'.repeat(16)}`,
  'SELECT MF': '00A4000C(023F00)?',
  'SELECT EF.CardAccess': '00A4020C02011C',
  'MSE SET AT': '0022C1A4xx800A04007F00070202040[26]0[1-4]830101(8401xx)?',
  'PACE NONCE': '10860000027C0000',
  'PACE MAPPING': '10860000(xx)+00',
  'PACE KEY AGREEMENT': '10860000(xx)+00',
  'PACE TOKEN': `008600000C7C0A8508${'x'.repeat(16)}00`,
};
const kUsualLe = { 'EXTERNAL AUTHENTICATE': '28', 'INTERNAL AUTHENTICATE': '00' };
const kFirstChunk = 4;
const kChunk = 212;
const kSmallerChunks = [192, 160, 128]; // when the chip takes a length for too large
const kMostEmpty = 8; // answers without data, one after the other
const kOddFrom = 0x8000;
const kFirstGroups = [15, 11, 1, 2].map((number) => `DG${number}`);

/**
 * Bytes of a file by its header: a tag of one byte and a short, an 81- or an 82-form length; 0 for another form, and
 * undefined while the header is not all there.
 */
function sizeOf(first) {
  const length = first[1];
  const header = { 0x81: 3, 0x82: 4 }[length] ?? 2;
  if (first.length < header) return undefined;
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
    this.chunk = kChunk;
    this.once = undefined; // bytes that this one READ asks for
    this.asked = 0; // bytes that the last READ asked for
    this.empty = 0; // answers without data so far
    this.les = { ...kUsualLe };
    this.paced = undefined; // 'begun' or 'done', when Basic Access Control is not there
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
    const ofPace = this.paced === 'begun' || PACE_STEPS.includes(name);
    if (step === undefined && !ofPace) return undefined;
    const wanted = ofPace ? kPaceFrom + [...PACE_STEPS, 'SELECT APPLICATION'].indexOf(name) : step;
    if (serial !== undefined && serial !== wanted) return new Difference(name, 'serial number', wanted, serial);
    const form = this.state === 'kept' || !name.startsWith('READ') ? this.#form(name) : undefined;
    if (form === undefined || new RegExp(`^${form.replaceAll('x', '[0-9A-F]')}$`).test(text)) return undefined;
    return new Difference(name, 'command', form, text);
  }

  #form(name) {
    if (FORMS[name]) return FORMS[name] + (this.les[name] ?? '');
    const [verb, file] = name.split(' ');
    if (file === 'EF.CardAccess') return '00B0[0-7]xxxxx';
    if (verb === 'SELECT') return `00A4020C02${hex(idBytes(file))}`;
    const { received: { length } } = this.#soFar(file);
    const count = this.#count(file);
    const offset = hex(Buffer.of(length >> 8, length & 0xff));
    if (length < kOddFrom) return `00B0${offset}${hex(Buffer.of(count))}`;
    return `00B10000045402${offset}`.replace('04', length > 0xffff ? '05' : '04') + hex(Buffer.of(count + (count < 0x80 ? 2 : 3)));
  }

  #soFar(file) {
    return this.files.get(file) ?? { received: Buffer.alloc(0), total: undefined };
  }

  /** The bytes that the next READ of this file asks for. */
  #count(file) {
    const { received, total } = this.#soFar(file);
    const missing = (total ?? kFirstChunk) - received.length;
    return Math.min(missing, this.once ?? this.chunk);
  }

  /**
   * Notes an answer as the reader understands it.
   * @param {string} name
   * @param {Buffer|null} data  its plain data; null when the reader takes it for a failure
   * @param {string} status     as it was sent
   */
  answered(name, data, status) {
    if (this.#withoutBac(name, data, status) || this.#duringPace(name, data)) return;
    const [verb, file] = name.split(' ');
    const step = stepOf(name);
    if (step === undefined) return;
    if (name === 'INTERNAL AUTHENTICATE') this.next = this.#signed(data, status);
    else if (step < 3) this.next = this.#opening(step, data, status);
    else if (verb === 'SELECT') this.next = data ? this.#selected(file) : this.#notSelected(file);
    else this.next = this.#read(file, data, status);
  }

  #opening(step, data, status) {
    const again = PASSPORT_STEPS[step] === 'EXTERNAL AUTHENTICATE' && status === '6700' && this.les['EXTERNAL AUTHENTICATE'] === '28';
    if (again) this.les['EXTERNAL AUTHENTICATE'] = '00';
    if (again) return ['GET CHALLENGE'];
    return data ? [PASSPORT_STEPS[step + 1]] : [];
  }

  /** A chip that refuses like this may have PACE instead. */
  #withoutBac(name, data, status) {
    if (data || this.paced || !(stepOf(name) < 3) || !kNotWithoutPace.includes(status)) return false;
    this.paced = 'begun';
    this.next = name === 'SELECT APPLICATION' ? ['SELECT EF.CardAccess', 'SELECT MF'] : ['SELECT MF'];
    return true;
  }

  #duringPace(name, data) {
    if (this.paced !== 'begun') return false;
    const place = PACE_STEPS.indexOf(name);
    const following = place < 0 || place + 1 === PACE_STEPS.length ? 'SELECT APPLICATION' : PACE_STEPS[place + 1];
    this.next = data ? [following] : [];
    if (name === 'READ EF.CardAccess') this.next = data ? [name, following] : [name];
    if (name !== 'SELECT APPLICATION') return true;
    this.paced = 'done';
    this.next = data ? ['SELECT EF.COM'] : [];
    return true;
  }

  #signed(data, status) {
    if (!data && /^6C/.test(status) && this.les['INTERNAL AUTHENTICATE'] === '00' && status !== '6C00') {
      this.les['INTERNAL AUTHENTICATE'] = status.slice(2);
      return ['INTERNAL AUTHENTICATE'];
    }
    return this.#nextFile();
  }

  #selected(file) {
    this.empty = 0;
    return [`READ ${file}`];
  }

  #notSelected(file) {
    if (file === 'EF.COM') return ['SELECT EF.SOD'];
    if (['EF.SOD', 'DG1', 'DG2'].includes(file)) return [];
    this.rows.add(file);
    return this.#nextFile();
  }

  #notRead(file) {
    this.rows.add(file);
    this.files.delete(file);
    this.once = undefined;
    if (file === 'EF.COM') return ['SELECT EF.SOD'];
    return ['EF.SOD', 'DG1', 'DG2'].includes(file) ? [] : this.#nextFile();
  }

  #read(file, data, status) {
    this.asked = this.#count(file);
    if (!data) return this.#lessAtOnce(status) ? [`READ ${file}`] : this.#notRead(file);
    const before = this.#soFar(file);
    const received = Buffer.concat([before.received, data.subarray(0, this.asked)]);
    const total = before.total ?? sizeOf(received);
    this.once = undefined;
    this.empty = data.length > 0 ? 0 : this.empty + 1;
    if (this.empty === kMostEmpty) return this.#notRead(file);
    this.files.set(file, { received, total });
    this.rows.add(file);
    return total === undefined || received.length < total ? [`READ ${file}`] : this.#complete(file, received);
  }

  /** After 6700 or 6Cxx: is there a smaller number of bytes to ask for? */
  #lessAtOnce(status) {
    const exact = /^6C/.test(status) ? Number.parseInt(status.slice(2), 16) : 0;
    if (exact > 0 && exact < this.asked && this.once === undefined) {
      if (this.asked === this.chunk) this.chunk = exact;
      this.once = exact;
      return true;
    }
    const smaller = kSmallerChunks.find((count) => count < this.asked);
    if (!/^(6700|6C..)$/.test(status) || smaller === undefined) return false;
    this.chunk = smaller;
    return true;
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
