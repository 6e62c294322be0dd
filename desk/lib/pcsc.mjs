// PC/SC readers, and the card in one of them as a connection that the application package reads through. The service is
// asked by a program of its own (pcsc/tqreader_pcsc.c).

import { spawn } from 'node:child_process';
import { EventEmitter, once } from 'node:events';
import { existsSync } from 'node:fs';
import { createInterface } from 'node:readline';
import { fileURLToPath } from 'node:url';

const kProgram = fileURLToPath(new URL('../../build/desk/tqreader-pcsc', import.meta.url));

/** What goes wrong with PC/SC (pcsclite.h), in words for the person at the reader. */
const ERRORS = {
  '8010001D': ['NO_SERVICE', 'The PC/SC service is not running. Start it with "systemctl start pcscd", or install pcscd.'],
  '8010001E': ['NO_SERVICE', 'The PC/SC service has been stopped. Start it again with "systemctl start pcscd".'],
  '80100013': ['NO_SERVICE', 'The PC/SC service does not answer any more. Start it again with "systemctl restart pcscd".'],
  '8010002E': ['NO_READER', 'There is no card reader. Plug one in; a contactless one (ISO/IEC 14443) for passports.'],
  '80100009': ['NO_READER', 'There is no such card reader any more.'],
  '80100017': ['READER_GONE', 'The card reader is gone. Plug it in again.'],
  '8010000C': ['NO_CARD', 'There is no card on the reader. Lay the passport open on it, the page with the chip down.'],
  '80100069': ['CARD_REMOVED', 'The card was taken away. Leave it where it is until the read is over.'],
  '8010000B': ['READER_IN_USE', 'Another program is using the card reader. Close it and try again.'],
  '80100066': ['CARD_SILENT', 'The card does not answer. Turn it over, or move it on the reader.'],
  '80100067': ['CARD_SILENT', 'The card has no power. Turn it over, or move it on the reader.'],
  '80100068': ['CARD_RESET', 'Another program has reset the card. Close it and try again.'],
  '8010006A': ['NOT_ALLOWED', 'This user may not use the card reader. Ask for access to PC/SC (polkit), or run as root.'],
  '80100016': ['EXCHANGE_FAILED', 'The reader lost the card in the middle of a command. Move it less, or turn it over.'],
  '8010002F': ['EXCHANGE_FAILED', 'The reader lost the card in the middle of a command. Move it less, or turn it over.'],
  ended: ['PCSC', 'What asks the PC/SC service has ended (build/desk/tqreader-pcsc). Build it anew, and start again.'],
};
const kNotBuilt = 'The desk is not built yet. "./run desk" and "./run read-passport" build it.';

/** Why a reader or its card cannot be used: `name` is one of those above, `message` says what to do. */
export class PcscError extends Error {
  constructor(code) {
    const [name, message] = ERRORS[code] ?? ['PCSC', `The card reader cannot be used (PC/SC error ${code}).`];
    super(message);
    Object.assign(this, { name, code });
  }
}

/** The program, started: an emitter of 'line' and, once, 'end'. */
class Program extends EventEmitter {
  #process;

  constructor(args) {
    super();
    if (!existsSync(kProgram)) throw new Error(kNotBuilt);
    this.#process = spawn(kProgram, args, { stdio: ['pipe', 'pipe', 'ignore'] });
    for (const each of [this.#process, this.#process.stdin]) each.on('error', () => {}); // it has ended; 'end' follows
    const lines = createInterface({ input: this.#process.stdout });
    lines.on('line', (line) => this.emit('line', line.split('\t')));
    lines.on('close', () => this.emit('end'));
  }

  send(line) {
    this.#process.stdin.write(`${line}\n`);
  }

  /** Ends it: at once with `now`, else as soon as the card has answered. */
  async close(now = false) {
    if (this.#process.exitCode !== null || this.#process.signalCode !== null) return;
    const ended = once(this.#process, 'exit');
    if (now) this.#process.kill('SIGKILL');
    else this.#process.stdin.end();
    await ended;
  }
}

/**
 * Watches the readers. Emits 'readers' with a list of { name, state }, state being 'empty', 'card', 'used' (another program
 * has the card) or 'mute' (the card does not answer), and 'failed' with a PcscError while there is no service; both now and
 * at every change.
 */
export class ReaderWatch extends EventEmitter {
  #program = new Program(['watch']);

  constructor() {
    super();
    this.readers = [];
    this.error = null;
    this.#program.on('line', ([what, ...rest]) => (what === 'failed' ? this.#fail(rest[0]) : this.#tell(rest)));
    this.#program.on('end', () => this.#fail('ended'));
  }

  close() {
    return this.#program.close(true);
  }

  #tell(fields) {
    this.error = null;
    this.readers = fields.map((field) => {
      const [state] = field.split(':', 1);
      return { state, name: field.slice(state.length + 1) };
    });
    this.emit('readers', this.readers);
  }

  #fail(code) {
    this.readers = [];
    this.error = new PcscError(code);
    this.emit('failed', this.error);
  }

  /**
   * The reader to use once a card lies on it: the one whose name holds `wanted`, or the first that has a card.
   * @param {object} [options]
   * @param {string} [options.wanted]
   * @param {number} [options.waitMs]   how long to wait for reader and card
   * @param {(error: PcscError) => void} [options.onWait]  is told what is waited for, at every change
   * @returns {Promise<string>} its name; rejects with a PcscError
   */
  readerWithCard({ wanted = '', waitMs = 0, onWait = () => {} } = {}) {
    return new Promise((resolve, reject) => {
      let missing = null;
      let deadline = null;
      const finish = (settle, value) => {
        clearTimeout(deadline);
        this.off('readers', look).off('failed', look);
        settle(value);
      };
      const look = () => {
        const those = this.readers.filter(({ name }) => name.includes(wanted));
        const ready = those.find(({ state }) => state === 'card') ?? those.find(({ state }) => state !== 'empty');
        if (ready) return finish(resolve, ready.name);
        const reason = this.error ?? new PcscError(those.length === 0 ? '8010002E' : '8010000C');
        if (reason.code !== missing?.code) onWait(reason);
        missing = reason;
        deadline ??= setTimeout(() => finish(reject, missing), waitMs);
        return undefined;
      };
      this.on('readers', look).on('failed', look);
      if (this.readers.length > 0 || this.error) look();
    });
  }
}

/** The card in a reader, alone with us until `close`: a `CardConnection` of the application package. */
export class PcscCard {
  #program;
  #waiting = null; // the exchange that has no answer yet
  #error = null;

  /** Connects to the card in this reader. Rejects with a PcscError. */
  static async connect(reader) {
    const card = new PcscCard(new Program(['card', reader]));
    card.atr = Buffer.from(await card.#next(), 'hex');
    return card;
  }

  /** @private */
  constructor(program) {
    this.#program = program;
    program.on('line', ([what, rest]) => {
      if (what === 'failed') this.#fail(new PcscError(rest));
      else this.#settle('resolve', rest ?? what);
    });
    program.on('end', () => this.#fail(new PcscError('8010002F')));
  }

  /** Why the connection has ended, or null. */
  get error() {
    return this.#error;
  }

  /** @param {Uint8Array} command @returns {Promise<Uint8Array>} the answer, status word included */
  async transmit(command) {
    if (this.#error) throw this.#error;
    const answer = this.#next();
    this.#program.send(Buffer.from(command).toString('hex'));
    return new Uint8Array(Buffer.from(await answer, 'hex'));
  }

  /** Gives the card back; also in the middle of a command. */
  close() {
    return this.#program.close(this.#waiting !== null);
  }

  #next() {
    return new Promise((resolve, reject) => {
      this.#waiting = { resolve, reject };
    });
  }

  #settle(how, value) {
    const waiting = this.#waiting;
    this.#waiting = null;
    waiting?.[how](value);
  }

  #fail(error) {
    this.#error ??= error;
    this.#settle('reject', this.#error);
  }
}
