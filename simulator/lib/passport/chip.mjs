// A simulated passport chip: application and elementary files (ISO/IEC 7816-4), Basic Access Control, PACE, secure
// messaging and Active Authentication (ICAO Doc 9303-11), and a strict watch over the commands that come.

import { EventEmitter } from 'node:events';
import { randomBytes } from 'node:crypto';
import { fromHex, hex, u8 } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { RuleList } from '../rules.mjs';
import { accessKeys, activeSignature, mutualAuthentication } from './access-control.mjs';
import { parseCommand } from './apdu.mjs';
import { readElement } from './der.mjs';
import { FILE_ID, fileName } from './lds.mjs';
import { CHIP_ACTIONS, misbehave } from './misbehaviour.mjs';
import { PACE_ACTIONS, Pace, PaceError, nameOfStep } from './pace.mjs';
import { ReadingOrder } from './reading-order.mjs';
import { ChannelError } from './secure-messaging.mjs';
import { issuePassport } from './specimen.mjs';

export { PACE_STEPS, PASSPORT_STEPS, stepOf } from './reading-order.mjs';

/** A realistic pace for a `CardLink`: milliseconds of every command, and of every byte in either direction. */
export const PASSPORT_PACE = Object.freeze({ delay: 8.4, perByte: 0.112 });

const AID = 'A0000002471001';
const SW = Object.freeze({ // ISO/IEC 7816-4 section 5.1.3
  success: '9000', endOfFile: '6282', notAuthentic: '6300', wrongLength: '6700', securityStatus: '6982',
  conditions: '6985', noFileSelected: '6986', fileNotFound: '6A82', wrongParameters: '6A86', dataNotFound: '6A88',
  wrongOffset: '6B00', exactLength: '6C', unknownInstruction: '6D00', unknownClass: '6E00', secureMessaging: '6988',
});
const kOddRead = 0xb1;
const INSTRUCTIONS = { 0xa4: 'SELECT', 0x84: 'GET CHALLENGE', 0x82: 'EXTERNAL AUTHENTICATE', 0xb0: 'READ', [kOddRead]: 'READ',
  0x88: 'INTERNAL AUTHENTICATE', 0x22: 'MSE SET AT', 0x86: 'GENERAL AUTHENTICATE' };
const kActions = [...CHIP_ACTIONS, ...PACE_ACTIONS];
const kNothing = Buffer.alloc(0);
const kChallenge = 8;
const kMostData = { 8: 231, 16: 223 }; // what fits, protected, into an answer of 256 bytes; by bytes of a block
const kMostPlain = 256;
const MASTER_FILE = '3F00';

/** What `#execute` gives: a status, and data with it; `because` is the difference that led to a refusal. */
const reply = (status, data = kNothing, because = undefined) => ({ status, data, because });

/**
 * One chip.
 *
 * Emits 'difference' with a Difference; all of them are in `differences`.
 */
export class PassportChip extends EventEmitter {
  #passport;
  #settings;
  #keys;
  #rules;
  #order;
  #open = false; // the application is selected
  #pace = null; // a run that has begun
  #challenge = null;
  #channel = null;
  #selected = null; // identifier of the current file

  /**
   * @param {object} [passport]          what `issuePassport` gives
   * @param {object} [settings]
   * @param {object[]} [settings.rules]  misbehaviour of the chip, see misbehaviour.mjs
   * @param {'documented'|'any'} [settings.order]  whether order, step numbers and forms of the commands are watched
   * @param {number} [settings.readMode] 1: the reader leaves the portrait out; 2: it reads it; not given: either
   * @param {string} [settings.rndIc]    the chip's challenge (8 bytes, hexadecimal) instead of random ones
   * @param {string} [settings.kIc]      its key material (16 bytes, hexadecimal)
   * @param {string} [settings.endOfFile] status of a READ that asks for more than there is: '6282' or '9000' with what
   *   there is, '6C' for 6Cxx without data, or any other without data
   * @param {'counted'|'uncounted'|'none'} [settings.oddRead]  READ BINARY with odd instruction: whether the expected length
   *   counts the header of DO53, or that there is no such command
   * @param {object} [settings.pace]     numbers of PACE that are random otherwise, see `Pace`
   */
  constructor(passport = issuePassport(), settings = {}) {
    super();
    this.#passport = passport;
    this.#settings = { rules: [], order: 'documented', endOfFile: SW.endOfFile, oddRead: 'counted', ...settings };
    this.#keys = accessKeys(passport);
    this.#order = new ReadingOrder(this.#settings.readMode);
    this.differences = [];
    this.setRules(this.#settings.rules);
  }

  /** What `do` may be in the chip's own rules. */
  get actions() {
    return kActions;
  }

  setRules(rules) {
    this.#rules = new RuleList(rules, kActions);
  }

  get passport() {
    return this.#passport;
  }

  /** The send sequence counter, a BigInt; undefined without a session. A test may set it. */
  get counter() {
    return this.#channel?.counter;
  }

  set counter(value) {
    if (!this.#channel) throw new Error('the chip has no session');
    this.#channel.counter = value;
  }

  /**
   * The chip's answer to a command, status bytes included.
   * @param {Buffer} command
   * @param {number} [serial]  the step number that came with it; checked when given
   * @returns {{name: string, answer: Buffer}}
   */
  respond(command, serial) {
    const request = this.#receive(command);
    const { name, refusal } = request;
    if (name === 'SELECT APPLICATION' && !request.channel) this.#reset();
    this.#watch(request, serial);
    const rules = this.#rules.matching(name, serial);
    const result = refusal ?? this.#execute(request, new Map(rules.map((rule) => [rule.do, rule])));
    if (result.because) this.#refused(name, result.because);
    const answer = this.#send(request, result, rules.filter((rule) => CHIP_ACTIONS.includes(rule.do)));
    return { name, answer };
  }

  /** Tells the chip that the reader did not get its last answer as it was (`CardLink` does). */
  spoiled(name, reached, lost = false) {
    this.#order.spoil(lost || this.#channel !== null);
  }

  /** Reports something that is not as it should be. */
  report(difference) {
    this.differences.push(difference);
    this.emit('difference', difference);
  }

  #reset() {
    this.#open = false;
    this.#pace = null;
    this.#challenge = null;
    this.#endSession();
    this.#order.start();
  }

  #endSession() {
    this.#channel = null;
    this.#selected = null;
  }

  /** Takes a command apart and opens it when it is protected. */
  #receive(command) {
    const apdu = parseCommand(command);
    const text = hex(command);
    const refuse = (status, what, expected, actual) =>
      ({ name: this.#nameOf(apdu), text, refusal: reply(status, kNothing, { what, expected, actual }) });
    if (!apdu) return refuse(SW.wrongLength, 'command', 'a command of ISO/IEC 7816-4 in its short form', text);
    const [cla, instruction] = apdu.header;
    const chained = cla === 0x10 && INSTRUCTIONS[instruction] === 'GENERAL AUTHENTICATE';
    if (cla !== 0x00 && cla !== 0x0c && !chained) return refuse(SW.unknownClass, 'class', '00 or 0C', hex(u8(cla)));
    if (cla !== 0x0c) {
      const request = { ...apdu, name: this.#nameOf(apdu), text };
      const startsAgain = ['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE', 'MSE SET AT'].includes(request.name);
      if (!this.#channel || startsAgain) return request;
      const refused = refuse(SW.securityStatus, 'class', '0C within a session', text);
      this.#endSession(); // a plain command ends it
      return { ...refused, ended: true };
    }
    if (!this.#channel) return refuse(SW.secureMessaging, 'class', '00 without a session', text);
    try {
      const plain = this.#channel.open(apdu);
      return { ...plain, name: this.#nameOf(plain), text: textOf(plain), channel: this.#channel };
    } catch (error) {
      if (!(error instanceof ChannelError)) throw error;
      const name = this.#nameOf({ ...apdu, data: this.#channel.glimpse(apdu) });
      this.#endSession();
      return { name, text, refusal: reply(error.status, kNothing, error), ended: true };
    }
  }

  /** The name of a command: its step and the file that it selects or reads. */
  #nameOf(apdu) {
    if (!apdu) return 'unknown command';
    const { header: [, instruction, p1], data } = apdu;
    const name = INSTRUCTIONS[instruction] ?? `instruction ${hex(u8(instruction))}`;
    if (name === 'SELECT') {
      if (p1 === 0x04) return 'SELECT APPLICATION';
      if (p1 === 0x00 && (data.length === 0 || hex(data) === MASTER_FILE)) return 'SELECT MF';
      return data.length === 2 ? `SELECT ${fileName(data.readUInt16BE())}` : 'SELECT';
    }
    if (name === 'GENERAL AUTHENTICATE') return nameOfStep(data);
    if (name !== 'READ') return name;
    return this.#selected === null ? 'READ without a file' : `READ ${fileName(this.#selected)}`;
  }

  /** Order, step number and form of a command that could be opened. */
  #watch({ name, text, refusal }, serial) {
    if (this.#settings.order === 'any') return;
    const difference = refusal ? undefined : this.#order.check(name, text, serial);
    if (difference) this.report(difference);
    this.#order.taken(name);
  }

  #refused(name, { what, expected, actual }) {
    if (this.#order.state !== 'lost') this.report(new Difference(name, what, expected, actual));
  }

  #execute(request, faults) {
    const { name, header, channel } = request;
    const refuse = (status, what, expected, actual) => reply(status, kNothing, { what, expected, actual });
    const { pace, withoutBac } = this.#passport;
    const ofPace = ['MSE SET AT', 'GENERAL AUTHENTICATE'].includes(INSTRUCTIONS[header[1]]);
    const kind = ofPace && !pace ? undefined : INSTRUCTIONS[header[1]];
    if (!kind) return refuse(SW.unknownInstruction, 'instruction', 'one that the chip knows', hex(header));
    if (withoutBac?.on === name && !channel) return reply(withoutBac.status);
    if (name === 'SELECT APPLICATION') return this.#selectApplication(request, refuse);
    if (name === 'SELECT MF') return this.#selectMasterFile();
    if (kind === 'MSE SET AT') return this.#beginPace(request, refuse);
    if (kind === 'GENERAL AUTHENTICATE') return this.#continuePace(request, refuse, faults);
    if (!this.#open && kind === 'SELECT') return this.#selectFile(request, refuse);
    if (!this.#open && kind === 'READ') return this.#readBinary(request, refuse);
    if (!this.#open) return refuse(SW.conditions, 'state', 'SELECT APPLICATION first', 'not selected');
    switch (kind) {
      case 'GET CHALLENGE': return this.#getChallenge(request, refuse);
      case 'EXTERNAL AUTHENTICATE': return this.#externalAuthenticate(request, refuse, faults);
      default:
    }
    if (!channel) return refuse(SW.securityStatus, 'state', 'a protected command', 'not authenticated');
    switch (kind) {
      case 'SELECT': return this.#selectFile(request, refuse);
      case 'READ': return this.#readBinary(request, refuse);
      default: return this.#internalAuthenticate(request, refuse);
    }
  }

  #selectApplication({ header, data, text, channel }, refuse) {
    if (header[3] !== 0x0c || (channel && this.#open)) return refuse(SW.wrongParameters, 'command', '00A4040C', text);
    if (hex(data) !== AID) return refuse(SW.fileNotFound, 'application', AID, hex(data));
    this.#open = true;
    this.#selected = null;
    return reply(SW.success);
  }

  #selectMasterFile() {
    this.#open = false;
    this.#selected = null;
    return reply(SW.success);
  }

  #beginPace({ header, data, text }, refuse) {
    if (header[2] !== 0xc1 || header[3] !== 0xa4) return refuse(SW.wrongParameters, 'command', '0022C1A4', text);
    this.#endSession();
    this.#pace = null;
    return this.#guarded(refuse, () => {
      this.#pace = new Pace(this.#passport.pace, data, this.#passport, this.#settings.pace);
      return reply(SW.success);
    });
  }

  #continuePace({ header, data, le, text }, refuse, faults) {
    if (header[2] !== 0 || header[3] !== 0) return refuse(SW.wrongParameters, 'command', '860000', text);
    if (le !== 0) return refuse(SW.wrongLength, 'Le', '00', text);
    const pace = this.#pace;
    if (!pace) return refuse(SW.conditions, 'state', 'MSE:Set AT first', 'no PACE under way');
    this.#pace = null;
    return this.#guarded(refuse, () => {
      const { channel, refusedByReader, ...answer } = pace.step({ header, data }, faults);
      if (channel) this.#channel = channel;
      else this.#pace = pace;
      return { ...reply(SW.success, answer.data), refusedByReader };
    });
  }

  #guarded(refuse, act) {
    try {
      return act();
    } catch (error) {
      if (!(error instanceof PaceError) && !(error instanceof RangeError)) throw error;
      return refuse(error.status ?? '6A80', error.what ?? error.message, error.expected, error.actual);
    }
  }

  #getChallenge({ header, data, le, text }, refuse) {
    if (header[2] !== 0 || header[3] !== 0) return refuse(SW.wrongParameters, 'command', '00840000', text);
    if (data.length > 0) return refuse(SW.wrongLength, 'data', 'none', hex(data));
    if (le !== kChallenge) return refuse(SW.exactLength + hex(u8(kChallenge)), 'Le', '08', text);
    this.#challenge = this.#settings.rndIc ? fromHex(this.#settings.rndIc) : randomBytes(kChallenge);
    return reply(SW.success, this.#challenge);
  }

  #externalAuthenticate({ header, data, le, text }, refuse, faults) {
    if (header[2] !== 0 || header[3] !== 0) return refuse(SW.wrongParameters, 'command', '00820000', text);
    if (data.length !== 40 || (le !== 40 && le !== 0)) return refuse(SW.wrongLength, 'lengths', '28 and Le 28', text);
    const challenge = this.#challenge;
    if (!challenge) return refuse(SW.conditions, 'state', 'GET CHALLENGE first', 'no challenge');
    this.#challenge = null;
    this.#endSession();
    const kIc = this.#settings.kIc ? fromHex(this.#settings.kIc) : randomBytes(16);
    const { failed, answer, channel } = mutualAuthentication(this.#keys, challenge, kIc, data, {
      wrongRndIc: faults.has('wrongRndIc'), wrongRndIfd: faults.has('wrongRndIfd'), wrongMac: faults.has('wrongMac'),
    });
    if (failed) return refuse(SW.notAuthentic, failed.what, hex(failed.expected), hex(failed.actual));
    this.#channel = channel;
    return { ...reply(SW.success, answer), refusedByReader: faults.has('wrongRndIc') || faults.has('wrongRndIfd') };
  }

  /** In the application its files, above it EF.CardAccess. */
  #selectFile({ header, data, text }, refuse) {
    if (header[2] !== 0x02 || header[3] !== 0x0c) return refuse(SW.wrongParameters, 'command', '00A4020C', text);
    if (data.length !== 2) return refuse(SW.wrongLength, 'file identifier', '2 bytes', hex(data));
    return this.#choose(data.readUInt16BE());
  }

  #choose(id) {
    this.#selected = null;
    if (!this.#passport.files.has(id) || (id === FILE_ID.CARD_ACCESS) === this.#open) return reply(SW.fileNotFound);
    const refusal = this.#passport.refused.get(id);
    if (refusal?.on === 'select') return reply(refusal.status);
    this.#selected = id;
    return reply(SW.success);
  }

  /** Where a READ begins, { offset }, or the refusal. Short identifiers choose a file. */
  #placeOf({ header: [, instruction, p1, p2], data, text }, refuse) {
    if (instruction === kOddRead) {
      if (this.#settings.oddRead === 'none') return reply(SW.unknownInstruction);
      if (p1 || p2) return refuse(SW.wrongParameters, 'command', '00B10000', text);
      const { tag, value, end } = readElement(data);
      if (tag === 0x54 && end === data.length && value.length < 4) return { offset: Number(`0x${hex(value)}`) };
      return refuse(SW.wrongLength, 'data', 'DO54', hex(data));
    }
    if (data.length > 0) return refuse(SW.wrongLength, 'command', 'DO97 alone', text);
    if (!(p1 & 0x80)) return { offset: p1 * 256 + p2 };
    if (p1 & 0x60) return reply(SW.wrongParameters);
    const { status } = p1 & 0x1f ? this.#choose(0x0100 + (p1 & 0x1f)) : reply(SW.success);
    return status === SW.success ? { offset: p2 } : reply(status);
  }

  #readBinary(request, refuse) {
    const { header, le, text, channel } = request;
    if (le === undefined) return refuse(SW.wrongLength, 'command', 'DO97', text);
    const { offset, ...refused } = this.#guarded(refuse, () => this.#placeOf(request, refuse));
    if (offset === undefined) return refused;
    if (this.#selected === null) return refuse(SW.noFileSelected, 'state', 'a selected file', 'none');
    const refusal = this.#passport.refused.get(this.#selected);
    if (refusal?.on === 'read') return reply(refusal.status);
    const file = this.#passport.files.get(this.#selected);
    if (offset >= file.length) return refuse(SW.wrongOffset, 'offset', `below ${file.length}`, offset);
    const most = channel ? kMostData[channel.suite.block] : kMostPlain;
    if (le > most) return refuse(SW.wrongLength, 'Le', `at most ${most}`, le);
    const odd = header[1] === kOddRead;
    const room = le === 0 ? most : le;
    const wanted = odd && this.#settings.oddRead === 'counted' ? room - (room < 130 ? 2 : 3) : room; // without DO53's header
    const chunk = file.subarray(offset, offset + wanted);
    if (chunk.length === wanted || le === 0) return { ...reply(SW.success, chunk), odd };
    const { endOfFile } = this.#settings;
    if (endOfFile === SW.exactLength) return reply(SW.exactLength + hex(u8(chunk.length)));
    return [SW.success, SW.endOfFile].includes(endOfFile) ? { ...reply(endOfFile, chunk), odd } : reply(endOfFile);
  }

  #internalAuthenticate({ header, data, le, text }, refuse) {
    if (header[2] !== 0 || header[3] !== 0) return refuse(SW.wrongParameters, 'command', '00880000', text);
    if (data.length !== kChallenge || le === undefined) {
      return refuse(SW.wrongLength, 'lengths', '8 bytes and DO97', text);
    }
    if (!this.#passport.aaKey || !this.#passport.files.has(0x010f)) return reply(SW.dataNotFound);
    return { ...reply(SW.success, activeSignature(this.#passport.aaKey, data, randomBytes)), signature: true };
  }

  /** Brings a reply into its form, right or wrong, and notes what the reader makes of it. */
  #send({ name, channel, le, ended = false }, result, rules) {
    const { status } = result;
    const good = status === SW.success || status === SW.endOfFile;
    const isProtected = channel !== undefined && (good || this.#passport.refusals === 'protected');
    const { answer, understood, status: sent, inStep, ends } = misbehave({ ...result, isProtected }, rules, channel, le);
    if (ends) this.#endSession();
    if (!inStep || ended) this.#order.spoil(true);
    this.#order.answered(name, understood, sent);
    return answer;
  }
}

/** A plain command in hexadecimal: header, length and data, Le. */
function textOf({ header, data, le }) {
  const body = data.length > 0 ? hex(Buffer.concat([u8(data.length), data])) : '';
  return hex(header) + body + (le === undefined ? '' : hex(u8(le)));
}
