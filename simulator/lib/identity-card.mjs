// A simulated resident identity card: what its chip answers to each command, and a strict watch over the
// commands: their bytes, their order and their serial numbers.

import { EventEmitter } from 'node:events';
import { randomBytes } from 'node:crypto';
import { fromHex, hex } from './bytes.mjs';
import { cardProof, serverProof } from './card-authentication.mjs';
import { randomFrom } from './crypto.mjs';
import { Difference } from './difference.mjs';
import { DEVELOPMENT_CARD_KEY, FIXED_BY_READER } from './persona.mjs';

/**
 * The dialogue, in its order: name, serial number that the reader gives the step, and the command. A command
 * that ends in ".." goes on with bytes that are checked by their meaning. READs of the files repeat until the
 * whole file has been read; after file 6012 the reader may have all it needs.
 */
const DIALOGUE = [
  { name: 'REQB', serial: 0, command: '050000' }, // ISO/IEC 14443-3
  { name: 'ATTRIB', serial: 1, command: '1D0000000000080108' },
  { name: 'SELECT 6002', serial: 2, command: '00A40000026002' }, // ISO/IEC 7816-4 and the card's own class 80
  { name: 'READ 6002', serial: 3, command: '80B0000020' },
  { name: 'INTERNAL AUTHENTICATE', serial: 4, command: '008800520AF000..' },
  { name: 'GET CHALLENGE', serial: 5, command: '0084000008' },
  { name: 'EXTERNAL AUTHENTICATE', serial: 6, command: '008200520AF001..' },
  { name: 'SELECT 6011', serial: 7, command: '00A40000026011' },
  { name: 'READ 6011', serial: 8, command: '80B0..' },
  { name: 'SELECT 6012', serial: 9, command: '00A40000026012' },
  { name: 'READ 6012', serial: 10, command: '80B0..' },
  { name: 'SELECT 6013', serial: 11, command: '00A40000026013' },
  { name: 'READ 6013', serial: 12, command: '80B0..' },
];

/** Names of the steps, in order; the place of each is its serial number. */
export const STEPS = DIALOGUE.map(({ name }) => name);

const FILE_SIZES = { 6002: 32, 6011: 214, 6012: 256, 6013: 1024 };
const kInstruction = { 0xa4: 'SELECT', 0xb0: 'READ', 0x88: 'INTERNAL AUTHENTICATE', 0x84: 'GET CHALLENGE',
  0x82: 'EXTERNAL AUTHENTICATE' };

const SW = {
  success: fromHex('9000'),
  wrongLength: fromHex('6700'),
  securityStatus: fromHex('6982'),
  notAllowed: fromHex('6986'),
  conditions: fromHex('6985'),
  verification: fromHex('6300'),
  fileNotFound: fromHex('6A82'),
  wrongOffset: fromHex('6B00'),
  unknownInstruction: fromHex('6D00'),
};
const kAtqb = fromHex('50 00000000 00000000 000081'); // PUPI, application data, protocol info
const kAttribAnswer = fromHex('08');

/** One card. Files, management data and card key are random unless they are given. */
export class IdentityCard extends EventEmitter {
  #files;
  #selected = null;
  #challenge = null;
  #serverChallenge = null;
  #authenticated = false;
  #next = ['REQB'];
  #read = 0; // bytes of the selected file that have been handed out; null: not known
  // 'kept'; 'loose' after a spoiled answer: the reader may stop, or repeat itself; 'lost' after answers that nobody
  // asked for: the reader may be at any step
  #order = 'kept';

  /**
   * @param {object} [secrets]  cardKey, managementData, file6011, file6012, file6013 as hexadecimal text or bytes
   *   (what `secrets()` of another card gives), and proofLength: 8 or 18 bytes for INTERNAL AUTHENTICATE's answer;
   *   random: a text from which its challenges come, always the same ones
   */
  constructor(secrets = {}) {
    super();
    const bytesOf = (value, size) => {
      const given = typeof value === 'string' ? fromHex(value) : value;
      const bytes = Buffer.from(given ?? randomBytes(size));
      if (bytes.length !== size) throw new TypeError(`a card file has ${bytes.length} bytes instead of ${size}`);
      return bytes;
    };
    this.cardKey = bytesOf(secrets.cardKey ?? DEVELOPMENT_CARD_KEY, 16);
    this.proofLength = secrets.proofLength ?? 8;
    this.random = randomFrom(secrets.random);
    this.#files = Object.fromEntries(Object.entries(FILE_SIZES).map(([id, size]) =>
      [id, bytesOf(id === '6002' ? secrets.managementData : secrets[`file${id}`], size)]));
    this.differences = [];
  }

  /** What a decode server has to know about this card; all but the number is hexadecimal text. */
  secrets() {
    return {
      cardKey: hex(this.cardKey), proofLength: this.proofLength, managementData: hex(this.#files[6002]),
      file6011: hex(this.#files[6011]), file6012: hex(this.#files[6012]), file6013: hex(this.#files[6013]),
    };
  }

  /** The name of a command, for reports: the step it belongs to when the card is as it is now. */
  nameOf(command) {
    const text = hex(command);
    const fixed = DIALOGUE.find((step) => step.command === text);
    if (fixed && fixed.name !== 'READ 6002') return fixed.name;
    if (command.length < 4) return `command ${text}`;
    const name = kInstruction[command[1]];
    return name === 'READ' ? `READ ${this.#selected ?? 'without a file'}` : name ?? `command ${text}`;
  }

  /**
   * The card's answer to a command, status bytes included.
   * @param {Buffer} command
   * @param {number} [serial]  the serial number that came with it; checked when given
   * @returns {{name: string, answer: Buffer}}
   */
  respond(command, serial) {
    const name = this.nameOf(command);
    if (name === 'REQB') this.#reset();
    this.#watch(name, command, serial);
    const answer = this.#execute(name, command);
    this.#advance(name, answer);
    return { name, answer };
  }

  /**
   * Tells the card that the reader did not get its last answer as it was: up to the next REQB the reader may end
   * the dialogue at any time. Its next READ goes on from offset `reached`, when that is known.
   * @param {string} name       the step
   * @param {number} [reached]
   * @param {boolean} [lost]    the reader got more than one answer, so its steps no longer keep to their order
   */
  spoiled(name, reached, lost = false) {
    if (this.#order !== 'lost') this.#order = lost ? 'lost' : 'loose';
    if (!name.startsWith('READ')) return;
    this.#read = reached === undefined ? null : Math.min(reached, FILE_SIZES[this.#selected] ?? 0);
    this.#advance(name, SW.success);
  }

  /** Reports something that is not as it should be. */
  report(difference) {
    this.differences.push(difference);
    this.emit('difference', difference);
  }

  #reset() {
    this.#selected = null;
    this.#challenge = null;
    this.#serverChallenge = null;
    this.#authenticated = false;
    this.#next = ['REQB'];
    this.#read = 0;
    this.#order = 'kept';
  }

  /** Order, serial number and bytes of a command. */
  #watch(name, command, serial) {
    const step = DIALOGUE.find((entry) => entry.name === name);
    if (this.#order === 'lost') return;
    if (!this.#next.includes(name) && this.#order === 'kept') {
      this.report(new Difference(name, 'command', this.#next.join(' or ') || 'nothing more', hex(command)));
    }
    if (!step) return;
    if (serial !== undefined && serial !== step.serial) {
      this.report(new Difference(name, 'serial number', step.serial, serial));
    }
    const [start, open] = step.command.split('..');
    const text = hex(command);
    if (open === undefined ? text !== start : !text.startsWith(start)) {
      this.report(new Difference(name, 'command', step.command, text));
    }
  }

  #execute(name, command) {
    if (name === 'REQB') return kAtqb;
    if (name === 'ATTRIB') return kAttribAnswer;
    switch (kInstruction[command[1]]) {
      case 'SELECT': return this.#select(name, command);
      case 'READ': return this.#readBinary(name, command);
      case 'INTERNAL AUTHENTICATE': return this.#internalAuthenticate(name, command);
      case 'GET CHALLENGE': return this.#getChallenge(name, command);
      case 'EXTERNAL AUTHENTICATE': return this.#externalAuthenticate(name, command);
      default:
        return this.#refuse(name, 'command', 'a command that the card knows', hex(command), SW.unknownInstruction);
    }
  }

  #select(name, command) {
    const id = hex(command.subarray(5));
    if (command.length !== 7 || command[4] !== 2) {
      return this.#refuse(name, 'command', '00A4000002 and a file', hex(command), SW.wrongLength);
    }
    if (!(id in FILE_SIZES)) return this.#refuse(name, 'file', Object.keys(FILE_SIZES).join(', '), id, SW.fileNotFound);
    this.#selected = id;
    this.#read = 0;
    return SW.success;
  }

  #readBinary(name, command) {
    const file = this.#files[this.#selected];
    if (!file) return this.#refuse(name, 'state', 'a selected file', 'none', SW.notAllowed);
    if (this.#selected !== '6002' && !this.#authenticated) {
      return this.#refuse(name, 'state', 'EXTERNAL AUTHENTICATE first', 'not authenticated', SW.securityStatus);
    }
    if (command.length !== 5) return this.#refuse(name, 'length of the command', 5, command.length, SW.wrongLength);
    const offset = command.readUInt16BE(2);
    const count = command[4];
    if (offset >= file.length) return this.#refuse(name, 'offset', `below ${file.length}`, offset, SW.wrongOffset);
    if (count === 0 || offset + count > file.length) {
      return this.#refuse(name, 'length', `1 to ${file.length - offset}`, count, SW.wrongLength);
    }
    const wanted = Math.min(file.length - offset, FIXED_BY_READER.readChunkSize);
    if (this.#read !== null && offset !== this.#read && this.#order !== 'lost') {
      this.report(new Difference(name, 'offset', this.#read, offset));
    } else if (count !== wanted && this.#order !== 'lost') this.report(new Difference(name, 'length', wanted, count));
    this.#read = offset + count;
    return Buffer.concat([file.subarray(offset, offset + count), SW.success]);
  }

  #internalAuthenticate(name, command) {
    if (command.length !== 15) return this.#refuse(name, 'length of the command', 15, command.length, SW.wrongLength);
    this.#serverChallenge = Buffer.from(command.subarray(7));
    const proof = cardProof(this.cardKey, this.#files[6002], this.#serverChallenge, this.proofLength);
    return Buffer.concat([proof, SW.success]);
  }

  #getChallenge() {
    this.#challenge = this.random(8);
    return Buffer.concat([this.#challenge, SW.success]);
  }

  #externalAuthenticate(name, command) {
    if (command.length !== 15) return this.#refuse(name, 'length of the command', 15, command.length, SW.wrongLength);
    if (!this.#challenge || !this.#serverChallenge) {
      return this.#refuse(name, 'state', 'both challenges', 'one is missing', SW.conditions);
    }
    const wanted = serverProof(this.cardKey, this.#serverChallenge, this.#challenge);
    this.#challenge = null;
    if (!wanted.equals(command.subarray(7))) {
      return this.#refuse(name, 'server\'s proof', hex(wanted), hex(command.subarray(7)), SW.verification);
    }
    this.#authenticated = true;
    return SW.success;
  }

  #refuse(name, what, expected, actual, status) {
    if (this.#order !== 'lost') this.report(new Difference(name, what, expected, actual));
    return status;
  }

  /** What may come next: the following step, the same READ again, or a new dialogue. */
  #advance(name, answer) {
    const place = STEPS.indexOf(name);
    if (place < 0) return;
    const failed = place > 1 && !answer.subarray(-2).equals(SW.success);
    const unfinished = name.startsWith('READ') && this.#read < (FILE_SIZES[this.#selected] ?? 0);
    if (failed) this.#next = [];
    else this.#next = unfinished ? [name] : STEPS.slice(place + 1, place + 2);
  }
}
