// Listens to a reader and the chip of a passport. Who knows the printed data can follow Basic Access Control to the keys of
// the session (ICAO Doc 9303-11 section 4.3) and see what went under secure messaging (section 9.8). After PACE nobody but
// the two ends can: then commands are told by their step, and what is encrypted stays so.

import { createHash } from 'node:crypto';
import { hex } from '../../../simulator/lib/bytes.mjs';
import { parseCommand } from '../../../simulator/lib/passport/apdu.mjs';
import { accessKeys } from '../../../simulator/lib/passport/access-control.mjs';
import { oidText, readElements } from '../../../simulator/lib/passport/der.mjs';
import { fileName } from '../../../simulator/lib/passport/lds.mjs';
import { decrypt, deriveKeys, retailMac, unpad } from '../../../simulator/lib/passport/secure-messaging.mjs';
import { field, opened } from './field.mjs';
import { statusWords } from './status-words.mjs';

/** What each command is for. */
const PURPOSES = {
  'SELECT APPLICATION': 'Are you a passport?', 'SELECT MASTER FILE': 'Back to where the general files are',
  'GET CHALLENGE': 'Give me eight random bytes', 'EXTERNAL AUTHENTICATE': 'I know what is printed; agree on new keys',
  'INTERNAL AUTHENTICATE': 'Sign my challenge: are you the original?',
  'MSE SET AT': 'Which way of access control we take', 'GENERAL AUTHENTICATE': 'A step of access control (PACE)',
};
const kSelect = { 'EF.COM': 'Open the list of contents', 'EF.SOD': 'Open the signed list of hashes',
  'EF.CardAccess': 'Open what tells how the chip may be opened', DG1: 'Open the machine-readable zone', DG2: 'Open the portrait',
  DG3: 'Open the finger prints', DG11: 'Open details about the holder', DG12: 'Open details about the document',
  DG14: 'Open the keys of access control', DG15: 'Open the chip’s public key' };
const kSteps = ['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE', 'SELECT EF.COM', 'READ EF.COM', 'SELECT EF.SOD',
  'READ EF.SOD', 'SELECT a data group', 'READ a data group', 'INTERNAL AUTHENTICATE'];
const kInstructions = { 0xa4: 'SELECT', 0x84: 'GET CHALLENGE', 0x82: 'EXTERNAL AUTHENTICATE', 0xb0: 'READ BINARY',
  0xb1: 'READ BINARY (odd)', 0x88: 'INTERNAL AUTHENTICATE', 0x22: 'MSE SET AT', 0x86: 'GENERAL AUTHENTICATE' };
const kObjects = { 0x87: 'Encrypted data', 0x85: 'Encrypted data', 0x97: 'Expected length', 0x99: 'Status word', 0x8e: 'MAC' };
/** Data objects of access control with PACE (ICAO Doc 9303-11 section 4.4.4), by instruction. */
const kPaceObjects = {
  0x22: { 0x80: 'Protocol', 0x83: 'Password', 0x84: 'Domain parameters' },
  0x86: { 0x7c: 'Dynamic authentication data', 0x80: 'Encrypted nonce', 0x81: 'The reader’s mapping key', 0x82: 'The chip’s mapping key',
    0x83: 'The reader’s public key', 0x84: 'The chip’s public key', 0x85: 'The reader’s token', 0x86: 'The chip’s token',
    0x8a: 'Encrypted chip authentication data' },
};
const kNothing = Buffer.alloc(0);
const kCounters = 1n << 64n;

const attempt = (read, otherwise) => {
  try {
    return read();
  } catch {
    return otherwise;
  }
};

/** Bytes of a file by its first ones; 0 when they do not tell. */
function sizeOf(first) {
  const head = 1 + Number((first[0] & 0x1f) === 0x1f);
  const length = first[head];
  if (length < 0x80) return head + 1 + length;
  const count = (length ?? 0x80) & 0x7f;
  return count > 0 && count < 4 && first.length > head + count ? head + 1 + count + first.readUIntBE(head + 1, count) : 0;
}

function paceFields(instruction, data) {
  const names = kPaceObjects[instruction];
  const read = (bytes) => readElements(bytes).map((element) => field(names[element.tag] ?? 'Object', element.bytes,
    element.tag === 0x80 && instruction === 0x22 ? oidText(element.value) : '', element.tag === 0x7c ? read(element.value) : undefined));
  return attempt(() => read(data), undefined);
}

export class PassportListener {
  #access;
  #challenge = null;
  #keys = null; // of the session: { enc, mac, counter }
  #current = null; // the command that has no answer yet
  #file = null; // { name, bytes, total }

  /** @param {{documentNumber: string, birthDate: string, expiryDate: string}} printed */
  constructor(printed) {
    this.#access = attempt(() => accessKeys(printed), null);
  }

  /**
   * A command on its way to the chip.
   * @returns {{name: string, purpose: string, fields: object[]}}
   */
  command(bytes, serial) {
    const apdu = parseCommand(bytes);
    if (!apdu) return this.#remember({ name: 'unknown command', purpose: '', fields: [field('Command', bytes)] });
    const isProtected = (apdu.header[0] & 0x0c) === 0x0c;
    const plain = isProtected ? this.#openCommand(apdu) : apdu;
    const name = this.#nameOf(apdu.header, plain, serial);
    const [verb, file] = name.split(' ');
    const about = kSelect[file] ?? (verb === 'SELECT' ? 'Open a file' : '');
    const purpose = PURPOSES[name] ?? (verb === 'SELECT' ? about : verb === 'READ' ? this.#readPurpose(plain) : '');
    return this.#remember({ name, purpose, fields: this.#commandFields(apdu, plain, isProtected), apdu, plain, isProtected });
  }

  /**
   * The answer to it.
   * @returns {{status: string, words: string, wrong: boolean, fields: object[], file: object|null}} wrong: it cannot be trusted; file: the one that is being read, with
   *   the bytes that have come and, when it is known, how many there are
   */
  answer(bytes) {
    const status = hex(bytes.subarray(-2));
    const { name = '', plain, apdu, isProtected } = this.#current ?? {};
    const end = field('Status word', bytes.subarray(-2), statusWords(status));
    const body = bytes.subarray(0, -2);
    let fields = body.length > 0 ? [field('Data', body)] : [];
    let data = body;
    let wrong = '';
    if (isProtected && body.length > 0) ({ fields, data, wrong } = this.#openAnswer(body));
    else if (name === 'GET CHALLENGE') this.#challenge = Buffer.from(body.subarray(0, 8));
    else if (name === 'GENERAL AUTHENTICATE') fields = paceFields(0x86, body) ?? fields;
    else if (name === 'EXTERNAL AUTHENTICATE' && body.length >= 32) fields = this.#agreeOnKeys(apdu, body);
    this.#followFile(name, plain, data, status);
    return { status, words: bytes.length === 0 ? 'no answer' : wrong || statusWords(status), wrong: wrong !== '', fields: [...fields, end],
      file: this.#file && { ...this.#file } };
  }

  #remember(current) {
    this.#current = current;
    return { name: current.name, purpose: current.purpose, fields: current.fields };
  }

  #nameOf(header, plain, serial) {
    const [, instruction, p1] = header;
    const verb = kInstructions[instruction];
    if (instruction === 0xa4 && p1 === 0x04) return 'SELECT APPLICATION';
    if (instruction === 0xa4 && plain?.data.length === 2) {
      const id = plain.data.readUInt16BE();
      if (id === 0x3f00) return 'SELECT MASTER FILE';
      return `SELECT ${id === 0x011c ? 'EF.CardAccess' : fileName(id)}`;
    }
    if (instruction === 0xa4) return header[0] === 0 ? 'SELECT MASTER FILE' : kSteps[serial] ?? 'SELECT a file';
    if (verb?.startsWith('READ')) return this.#file ? `READ ${this.#file.name}` : kSteps[serial] ?? 'READ';
    return verb ?? `instruction ${hex(Buffer.of(instruction))}`;
  }

  #readPurpose(plain) {
    if (!plain) return 'Read on';
    const offset = plain.header.readUInt16BE(2);
    return offset === 0 && plain.le <= 4 ? 'How long is it?' : `Read ${plain.le || 256} bytes from ${offset} on`;
  }

  // --- secure messaging ---

  #next(data) {
    if (!this.#keys) return null;
    this.#keys.counter = (this.#keys.counter + 1n) % kCounters;
    return this.#macOver(this.#keys.counter, data);
  }

  #macOver(counter, data) {
    const bytes = Buffer.alloc(8);
    bytes.writeBigUInt64BE(counter);
    return retailMac(this.#keys.mac, Buffer.concat([bytes, data]));
  }

  #plainOf(object) {
    if (!object || !this.#keys) return null;
    const sealed = object.tag === 0x87 ? object.value.subarray(1) : object.value;
    return attempt(() => unpad(decrypt(this.#keys.enc, sealed)) ?? null, null);
  }

  #openCommand({ header, data }) {
    const objects = attempt(() => readElements(data), []);
    const find = (...tags) => objects.find(({ tag }) => tags.includes(tag));
    const counted = Buffer.concat([header, Buffer.from('80000000', 'hex'),
      ...objects.filter(({ tag }) => tag !== 0x8e).map(({ bytes }) => bytes)]);
    const wanted = this.#next(counted);
    const sealed = find(0x87, 0x85);
    const inside = sealed ? this.#plainOf(sealed) : kNothing;
    if (inside === null) return null;
    const expected = find(0x97)?.value;
    return { header: Buffer.concat([Buffer.of(0), header.subarray(1)]), data: inside, objects,
      le: expected && (expected.length === 1 ? expected[0] : expected.readUInt16BE()), mac: wanted };
  }

  #objectFields(objects, wanted, aboutData) {
    return objects.map((object) => {
      const label = `${kObjects[object.tag] ?? 'Object'} (DO${object.tag.toString(16).toUpperCase()})`;
      if (object.tag === 0x8e) {
        const words = !wanted ? 'not checked: the session’s keys are not known'
          : wanted.equals(object.value) ? 'right' : `wrong; ${hex(wanted)} would be right`;
        return field(label, object.bytes, words);
      }
      if (object.tag === 0x99) return field(label, object.bytes, statusWords(hex(object.value)));
      if (object.tag === 0x97) return field(label, object.bytes, `${Number.parseInt(hex(object.value), 16) || 256} bytes`);
      const plain = this.#plainOf(object);
      return field(label, object.bytes, plain ? '' : 'cannot be opened here', plain && [opened('Decrypted', plain, aboutData)]);
    });
  }

  #commandFields({ header, data, le }, plain, isProtected) {
    const [cla, instruction] = header;
    const about = instruction === 0xb0 ? `offset ${header.readUInt16BE(2)}` : '';
    const aboutData = instruction === 0xa4 && plain?.data.length === 2 ? `file ${this.#nameOf(header, plain).slice(7)}` : '';
    const fields = [
      field('Class', header.subarray(0, 1), isProtected ? 'under secure messaging' : cla === 0 ? 'as it is' : ''),
      field('Instruction', header.subarray(1, 2), kInstructions[instruction] ?? ''),
      field('P1 P2', header.subarray(2, 4), about),
    ];
    if (data.length > 0) {
      const inside = isProtected ? this.#objectFields(attempt(() => readElements(data), []), plain?.mac, aboutData) : this.#plainParts(instruction, data);
      fields.push(field('Lc', Buffer.of(data.length), `${data.length} bytes`), field('Data', data, isProtected ? '' : aboutData, inside));
    }
    if (le !== undefined) fields.push(field('Le', Buffer.of(le), le === 0 ? 'as many as there are, up to 256' : `${le} bytes`));
    return fields;
  }

  #plainParts(instruction, data) {
    if (kPaceObjects[instruction]) return paceFields(instruction, data);
    if (instruction !== 0x82 || data.length !== 40 || !this.#access) return undefined;
    const plain = decrypt(this.#access.enc, data.subarray(0, 32));
    return [field('Encrypted data', data.subarray(0, 32), '', [
      opened('RND.IFD', plain.subarray(0, 8), 'the reader’s random bytes'),
      opened('RND.IC', plain.subarray(8, 16), plain.subarray(8, 16).equals(this.#challenge ?? kNothing) ? 'the chip’s challenge' : 'not the chip’s challenge'),
      opened('K.IFD', plain.subarray(16), 'the reader’s half of the keys')]),
    field('MAC', data.subarray(32), retailMac(this.#access.mac, data.subarray(0, 32)).equals(data.subarray(32)) ? 'right' : 'wrong')];
  }

  /** Both halves of the keys have been exchanged. */
  #agreeOnKeys(apdu, body) {
    if (!this.#access) return [field('Data', body)];
    const ours = decrypt(this.#access.enc, apdu.data.subarray(0, 32));
    const theirs = decrypt(this.#access.enc, body.subarray(0, 32));
    const seed = Buffer.from(ours.subarray(16, 32).map((byte, i) => byte ^ theirs[16 + i]));
    const counter = Buffer.concat([theirs.subarray(4, 8), theirs.subarray(12, 16)]).readBigUInt64BE();
    this.#keys = { ...deriveKeys(seed), counter };
    return [field('Encrypted data', body.subarray(0, 32), '', [
      opened('RND.IC', theirs.subarray(0, 8), 'the chip’s challenge'), opened('RND.IFD', theirs.subarray(8, 16), 'the reader’s random bytes'),
      opened('K.IC', theirs.subarray(16), 'the chip’s half of the keys')]), field('MAC', body.subarray(32))];
  }

  #openAnswer(body) {
    const objects = attempt(() => readElements(body), null);
    if (!objects) return { fields: [field('Data', body, 'no data objects')], data: kNothing, wrong: 'its data objects are malformed' };
    const wanted = this.#next(Buffer.concat(objects.filter(({ tag }) => tag !== 0x8e).map(({ bytes }) => bytes)));
    const sealed = objects.find(({ tag }) => tag === 0x87 || tag === 0x85);
    const mac = objects.find(({ tag }) => tag === 0x8e)?.value;
    const wrong = !mac ? 'it has no MAC' : wanted && !wanted.equals(mac) ? 'its MAC is wrong' : '';
    return { fields: this.#objectFields(objects, wanted, ''), data: (sealed && this.#plainOf(sealed)) ?? kNothing, wrong };
  }

  // --- files ---

  #followFile(name, plain, data, status) {
    const [verb] = name.split(' ');
    if (verb === 'SELECT') {
      const isFile = status === '9000' && /^(EF|DG|file|a )/.test(name.slice(7));
      this.#file = isFile ? { name: name.slice(7), bytes: 0, total: 0 } : null;
    } else if (verb === 'READ' && this.#file && plain && data.length === 0 && status === '9000') {
      this.#file.bytes = Math.max(this.#file.bytes, plain.header.readUInt16BE(2) + (plain.le || 256)); // it came, and cannot be opened
    } else if (verb === 'READ' && this.#file && plain && data.length > 0) {
      const offset = plain.header[1] === 0xb0 ? plain.header.readUInt16BE(2) : this.#file.bytes;
      if (offset === 0) this.#file.total = sizeOf(data);
      this.#file.bytes = Math.max(this.#file.bytes, offset + data.length);
    }
  }
}
