// The reader application: does with libtqreader.so what an application on a phone does with it. It loads the
// module, calls `initSdk`, registers the four callbacks, carries card commands to a card and the answers back,
// and collects results and monitor records.

import { EventEmitter } from 'node:events';
import { constants } from 'node:os';
import { fileURLToPath } from 'node:url';
import { hex } from './bytes.mjs';
import { CardLink } from './card-link.mjs';
import { now } from './clock.mjs';
import { Difference } from './difference.mjs';
import { parseCommandText, parseResultText } from './host-texts.mjs';
import { parseMonitorRecord } from './monitor-record.mjs';
import { DEFAULT_IDENTITY } from './persona.mjs';

/** Where the repository's own build leaves the library. */
export const DEFAULT_LIBRARY = fileURLToPath(new URL('../../build/host/libtqreader.so', import.meta.url));

const loaded = new Map();

/** The module's exports; the library is loaded once per path and process. */
export function loadLibrary(path = DEFAULT_LIBRARY) {
  if (!loaded.has(path)) {
    const module = { exports: {} };
    process.dlopen(module, path, constants.dlopen.RTLD_NOW | constants.dlopen.RTLD_LOCAL);
    loaded.set(path, module.exports);
  }
  return loaded.get(path);
}

/** `initSdk`'s arguments in their order, from the names used everywhere else. */
export function initArguments(identity) {
  const { appid, decodeMode, readMode, envIdCode, filePath, packageName, terId, ip, port, reqidType, sn } = identity;
  return [appid, decodeMode, readMode, envIdCode, filePath, packageName, terId, ip, port, reqidType, sn];
}

/**
 * A reader application.
 *
 * Events:
 *   'command'     { name, serial, command, at }            a command is on its way to the card
 *   'rules'       { name, rules, at }                      misbehaviour that was asked for has been applied to it
 *   'step'        { name, serial, command, answer, at, ms } and the card's answer has been handed over
 *   'monitor'     { raw, record }                          the monitor function has been called
 *   'result'      { code, flag, data, raw }                the result function has been called
 *   'difference'  a Difference: a text from the library that is not as it should be
 * Records of the whole life: `differences`, `times` (every reading of the clock that the library was given).
 */
export class Reader extends EventEmitter {
  #link;
  #current = null;
  #clock;
  #monitorAnswer;

  /**
   * @param {object} options
   *   `library` (string): path of libtqreader.so;
   *   `card`: the document in the field, an IdentityCard, a PassportChip, or whatever responds like one;
   *   `link` (CardLink): the link to it, for delays and misbehaviour, made from `card` otherwise;
   *   `clock` (() => number): the time function, Date.now if not given;
   *   `monitorAnswer` ((text) => any): what the monitor function returns, the text it got if not given
   */
  constructor({ library, card, link, clock = Date.now, monitorAnswer = (text) => text } = {}) {
    super();
    this.module = loadLibrary(library);
    this.#link = link ?? (card && new CardLink(card));
    this.#clock = clock;
    this.#monitorAnswer = monitorAnswer;
    this.differences = [];
    this.times = [];
  }

  /** Registers the four callbacks. @returns {object} the code of each registration */
  register() {
    return {
      card: this.module.registerCardCallback((text) => this.#onCommand(text)),
      monitor: this.module.registerMonitorCallback((text) => this.#onMonitor(text)),
      time: this.module.registerTimestampCallback(() => this.#onTime()),
      result: this.module.registerResultCallback((text) => this.#onResult(text)),
    };
  }

  /** Calls `initSdk` with the default identity and what is given here on top of it. @returns {number} its code */
  init(identity = {}) {
    return this.module.initSdk(...initArguments({ ...DEFAULT_IDENTITY, ...identity }));
  }

  /** Lays another card, or the same through another link, on the phone. */
  useLink(link) {
    this.#link = link;
  }

  /**
   * Starts a read. Configuration and callbacks must be in place.
   * @param {object} [passport]  documentNumber, birthDate and expiryDate (YYMMDD) of the passport that is read; without
   *   it the read is one of an identity card
   * @returns {{code: number, steps: object[], monitors: object[], result: Promise<object>}} `code` is what
   *   `getIdInfo` or `getPassportInfo` returned; `result` settles when the result function is called, so
   *   never for a read that ends without one
   */
  start(passport) {
    const handler = passport ? 'passportHandler' : 'idCardHandler';
    const read = { steps: [], monitors: [], startedAt: Date.now(), handler, open: 0 };
    read.result = new Promise((resolve) => {
      read.settle = resolve;
    });
    this.#current = read;
    if (passport) {
      const { documentNumber, birthDate, expiryDate } = passport;
      read.code = this.module.getPassportInfo(documentNumber, birthDate, expiryDate);
    } else {
      read.code = this.module.getIdInfo();
    }
    return read;
  }

  /**
   * Configures (when an identity is given), registers (once) and performs one read.
   * @param {object} [options]
   * @param {object} [options.identity]   arguments for `initSdk`, see `init`
   * @param {object} [options.passport]   the passport to read, see `start`
   * @param {number} [options.timeoutMs]  how long to wait for the result
   * @returns {Promise<{code: number, flag: number, data: any, raw: string|null, monitor: object|null,
   *   steps: object[], ms: number}>} Without a started read (the code of `initSdk`, a registration or the start
   *   is not 0) `raw` is null. Rejects when no result comes in time; the error carries the `steps`.
   */
  async read({ identity, passport, timeoutMs = 60000 } = {}) {
    const code = this.#prepare(identity);
    const refused = (failure) => ({ code: failure, flag: 0, data: '', raw: null, monitor: null, steps: [], ms: 0 });
    if (code !== 0) return refused(code);
    const read = this.start(passport);
    if (read.code !== 0) return refused(read.code);
    const result = await this.#within(timeoutMs, read);
    return { ...result, monitor: read.monitors.at(-1) ?? null, steps: read.steps, ms: Date.now() - read.startedAt };
  }

  /** Breaks off: 0 for the identity card, 1 for the passport. */
  cancel(type = 0) {
    return this.module.cancelCard(type);
  }

  #prepare(identity) {
    if (identity) {
      const code = this.init(identity);
      if (code !== 0) return code;
    }
    if (this.registered) return 0;
    const failed = Object.values(this.register()).find((code) => code !== 0) ?? 0;
    this.registered = failed === 0;
    return failed;
  }

  #within(timeoutMs, read) {
    return new Promise((resolve, reject) => {
      const late = setTimeout(() => {
        const error = new Error(`no result within ${timeoutMs} ms`);
        reject(Object.assign(error, { steps: read.steps, monitors: read.monitors }));
      }, timeoutMs);
      read.result.then((result) => {
        clearTimeout(late);
        resolve(result);
      });
    });
  }

  /** Runs a check of a text; a difference is recorded and gives undefined. */
  #checked(parse, text) {
    try {
      return parse(text);
    } catch (error) {
      if (!(error instanceof Difference)) throw error;
      this.#differ(error);
      return undefined;
    }
  }

  #differ(difference) {
    this.differences.push(difference);
    this.emit('difference', difference);
  }

  #onCommand(text) {
    const parsed = this.#checked(parseCommandText, text);
    if (!parsed) return 0;
    const { command, serial } = parsed;
    const at = now();
    const read = this.#current;
    this.#countOut(read, serial);
    const { name, rules } = this.#link.transmit(command, serial, (delivery) => {
      const step = { name, serial, command: hex(command), answer: hex(delivery.data), at, ms: Math.round(now() - at) };
      read?.steps.push(step);
      if (read) read.open -= 1;
      this.emit('step', step);
      this.module[read?.handler ?? 'idCardHandler'](hex(delivery.data), delivery.serial, delivery.status);
    });
    this.emit('command', { name, serial, command: hex(command), at });
    if (rules.length > 0) this.emit('rules', { name, rules, at });
    return 0;
  }

  /** A read that waits has one command with the application; answers that are too many only make it fewer. */
  #countOut(read, serial) {
    if (!read) return;
    read.open += 1;
    if (read.open > 1) this.#differ(new Difference('card callback', 'command', 'none before the last one is answered', serial));
  }

  #onMonitor(raw) {
    const monitor = { raw, record: this.#checked((text) => parseMonitorRecord(text, 'monitor callback'), raw) ?? null };
    this.#current?.monitors.push(monitor);
    this.emit('monitor', monitor);
    return this.#monitorAnswer(raw);
  }

  #onTime() {
    const now = this.#clock();
    this.times.push(now);
    return now;
  }

  #onResult(raw) {
    const parsed = this.#checked(parseResultText, raw) ?? { code: null, flag: null, data: null };
    const result = { ...parsed, raw };
    this.#current?.settle(result);
    this.emit('result', result);
  }
}
