// One conversation with a reader: which commands may come when, and what each of them is answered with.

import { fromHex } from '../bytes.mjs';
import { randomFrom } from '../crypto.mjs';
import { Difference } from '../difference.mjs';
import { AUTHENTICATION } from './authentication.mjs';
import { CARD_COMMANDS } from './card-commands.mjs';
import { DECODE_COMMANDS } from './decode-commands.mjs';
import { HEADER, parseRequest } from './frames.mjs';
import { MONITOR } from './monitor.mjs';
import { PASSPORT_COMMANDS } from './passport-commands.mjs';
import { resultOfStatus } from './status.mjs';

const COMMANDS = { ...AUTHENTICATION, ...CARD_COMMANDS, ...DECODE_COMMANDS, ...PASSPORT_COMMANDS, ...MONITOR };

/**
 * What may follow each command that was answered well. The monitor report may follow anything but the start. The kind of
 * document decides what follows 0x7500; after card authentication the application's read mode decides between 0x6002 and
 * 0x6102. After 0x7201 the reader hangs up, and what follows comes on a new connection.
 */
const NEXT = {
  start: ['0x7500'],
  '0x7500': { [HEADER.identityCard]: ['0x5001'], [HEADER.passport]: ['0x7201'] },
  '0x5001': ['0x5012', '0x5032'],
  '0x5012': ['0x5022'],
  '0x5022': ['0x6002', '0x6102'],
  '0x5032': ['0x6002', '0x6102'],
  '0x6002': ['0x6113'],
  '0x6102': [],
  '0x6113': [],
  '0x7201': ['0x7202'],
  '0x7202': [],
};
const kFirstDecode = { 0: '0x6002', 1: '0x6102' }; // by read mode flag
const kPathOf = { fast: '0x5032', slow: '0x5012' };
const kUnknownFlag = -35006;
const kResults = ['0x6102', '0x6113', '0x7202'];
const kNoToken = Buffer.alloc(16);

export class Session {
  #allowed = NEXT.start;
  #outcome = 'failed'; // a read that ends early has failed
  #monitored = false;
  #answered = false;
  #began = Date.now();
  #connections = 1;
  #attached = true; // the reader is connected
  #starting = 'not begun'; // how 0x7201 was answered: 'well', 'spoiled' or 'badly'

  /** @param {object} config see config.mjs */
  constructor(config) {
    this.config = config;
    this.persona = { ...config.persona }; // what is not known beforehand is filled in from 0x7500
    this.cardKey = fromHex(config.card.cardKey);
    this.random = randomFrom(config.random);
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

  /** True while a passport's reader should come back. */
  get awaited() {
    return this.#starting === 'well' && !this.#monitored;
  }

  /** Has the reader got a token, as far as can be told? */
  get mayReturn() {
    return ['well', 'spoiled'].includes(this.#starting);
  }

  /** The reader has hung up. */
  left() {
    this.#attached = false;
  }

  /** The reader has come back on a new connection with this conversation's token. */
  resume(command) {
    if (this.#attached) throw new Difference(command, 'connection', 'new after the old one is closed', 'one more');
    this.#attached = true;
    this.#connections += 1;
  }

  /** What may stand in front of the monitor report: the token of 0x7201, or zeros without one. */
  get reportPrefixes() {
    const prefixes = { well: [this.token], spoiled: [this.token, kNoToken] };
    return prefixes[this.#starting] ?? [kNoToken];
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
    const request = parseRequest(bytes, this.#headerFor(bytes[0]));
    const { command } = request;
    this.at = command;
    this.#checkOrder(command);
    this.header ??= bytes[0];
    const fields = COMMANDS[command].read(this, request);
    const reply = COMMANDS[command].reply(this, fields);
    if (command === '0x7219') this.#monitored = true;
    return { command, fields, reply };
  }

  /** The same request, answered with what `config.judge` makes of the files in it. */
  async judged({ command, fields }) {
    const info = await this.config.judge(fields.received);
    return { command, fields, reply: COMMANDS[command].reply(this, { ...fields, info }) };
  }

  /** The header byte that a request must have: the first one decides, when the kind of document is not configured. */
  #headerFor(first) {
    if (this.header !== undefined) return this.header;
    if (this.config.document) return HEADER[this.config.document];
    return first === HEADER.passport ? HEADER.passport : HEADER.identityCard;
  }

  #checkOrder(command) {
    if (this.#starting === 'well' && this.#connections === 1) {
      throw new Difference(command, 'command', 'nothing more before the reader has connected again', command);
    }
    if (this.#monitored) throw new Difference(command, 'command', 'nothing after the monitor report', command);
    const next = this.#allowed.filter((name) => name !== '0x7202' || this.#connections > 1);
    const allowed = this.#answered ? [...next, '0x7219'] : next;
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
    if (command === '0x7201') this.#starting = failed ? 'badly' : spoiled ? 'spoiled' : 'well';
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
    const next = command === '0x7500' ? NEXT[command][this.header] : NEXT[command];
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
