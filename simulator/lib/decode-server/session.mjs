// One conversation with a reader: which commands may come when, and what each of them is answered with.

import { fromHex } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { AUTHENTICATION } from './authentication.mjs';
import { CARD_COMMANDS } from './card-commands.mjs';
import { DECODE_COMMANDS } from './decode-commands.mjs';
import { HEADER, parseRequest } from './frames.mjs';
import { MONITOR } from './monitor.mjs';
import { resultOfStatus } from './status.mjs';

const COMMANDS = { ...AUTHENTICATION, ...CARD_COMMANDS, ...DECODE_COMMANDS, ...MONITOR };

/**
 * What may follow each command that was answered well. The monitor report may follow anything but the start.
 * After card authentication the application's read mode decides between 0x6002 and 0x6102.
 */
const NEXT = {
  start: ['0x7500'],
  '0x7500': ['0x5001'],
  '0x5001': ['0x5012', '0x5032'],
  '0x5012': ['0x5022'],
  '0x5022': ['0x6002', '0x6102'],
  '0x5032': ['0x6002', '0x6102'],
  '0x6002': ['0x6113'],
  '0x6102': [],
  '0x6113': [],
};
const kFirstDecode = { 0: '0x6002', 1: '0x6102' }; // by read mode flag
const kPathOf = { fast: '0x5032', slow: '0x5012' };
const kUnknownFlag = -35006;
const kResults = ['0x6102', '0x6113'];

export class Session {
  #allowed = NEXT.start;
  #outcome = 'failed'; // a read that ends early has failed
  #monitored = false;
  #answered = false;
  #began = Date.now();

  /** @param {object} config see config.mjs */
  constructor(config) {
    this.config = config;
    this.persona = { ...config.persona }; // what is not known beforehand is filled in from 0x7500
    this.cardKey = fromHex(config.card.cardKey);
    this.at = 'start';
  }

  /** Milliseconds since the conversation began. */
  age() {
    return Date.now() - this.#began;
  }

  /** The result code that the reader should report: a number, 'failed' (some negative code), undefined (unknown). */
  outcome() {
    return this.#outcome;
  }

  /** True once the monitor report has come. */
  get monitored() {
    return this.#monitored;
  }

  /** True once a server authentication has been answered well. */
  get authenticated() {
    return this.#answered;
  }

  /**
   * Reads one request.
   * @returns {{command: string, fields: object, reply: object}}
   * Throws a Difference.
   */
  handle(bytes) {
    const request = parseRequest(bytes, HEADER.identityCard);
    const { command } = request;
    this.at = command;
    this.#checkOrder(command);
    const fields = COMMANDS[command].read(this, request);
    const reply = COMMANDS[command].reply(this, fields);
    if (command === '0x7219') this.#monitored = true;
    return { command, fields, reply };
  }

  #checkOrder(command) {
    if (this.#monitored) throw new Difference(command, 'command', 'nothing after the monitor report', command);
    const allowed = this.#answered ? [...this.#allowed, '0x7219'] : this.#allowed;
    if (!allowed.includes(command)) {
      throw new Difference(command, 'command', allowed.join(' or ') || 'nothing more', command);
    }
  }

  /**
   * Tells the conversation how a command was answered, since that decides what may follow.
   * @param {Buffer} status   the three status bytes sent
   * @param {boolean} spoiled the answer was made wrong or was not sent at all; what the reader makes of it is
   *   not known here
   */
  answered(command, status, spoiled) {
    if (command === '0x7219') return;
    const failed = status.some((byte) => byte !== 0);
    if (command === '0x7500' && (failed || spoiled)) {
      this.#allowed = [];
      this.#answered = spoiled && !failed;
      this.#outcome = undefined;
      if (this.#answered) this.#allowed = this.#following(command);
      return;
    }
    this.#answered = true;
    if (spoiled) {
      this.#allowed = [...this.#following(command), ...(command === '0x6102' ? ['0x6113'] : [])];
      this.#outcome = undefined;
    } else if (failed) {
      this.#allowed = command === '0x6102' ? ['0x6113'] : [];
      this.#outcome = command === '0x6102' ? 'failed' : resultOfStatus(status);
    } else {
      this.#allowed = this.#following(command);
      if (kResults.includes(command)) this.#outcome = this.#outcomeOfResult(command);
    }
  }

  #following(command) {
    const next = NEXT[command];
    if (command === '0x5001' && this.config.path) return next.filter((name) => name === kPathOf[this.config.path]);
    if (command === '0x5022' || command === '0x5032') return [kFirstDecode[this.readMode]];
    return next;
  }

  #outcomeOfResult(command) {
    const { flag = 1, tags = [], data } = this.config.answers[command] ?? {};
    if (flag > 2) return kUnknownFlag;
    return flag === 1 && (data !== undefined || tags.some((tag) => tag.raw !== undefined)) ? undefined : 0;
  }
}
