// The reader application: does on Linux what an application on a phone does. It reads through the package's `TqReader`
// and lays a simulated card or passport on the phone.

import { EventEmitter } from 'node:events';
import { hex } from './bytes.mjs';
import { now } from './clock.mjs';
import { CancelHandle, TqError, TqReader } from './package.mjs';
import { DEFAULT_IDENTITY } from './persona.mjs';
import { loadLibrary } from './reader.mjs';
import { WatchedModule } from './watched-module.mjs';

const kFailed = -1;

/** `TqReader`'s configuration, from the names used everywhere else. */
export function configOf(identity) {
  const { appid, decodeMode, readMode, envIdCode, packageName, terId, ip, port, reqidType, sn } =
    { ...DEFAULT_IDENTITY, ...identity };
  return { appid, environment: envIdCode, host: ip, port, packageName, terminalId: terId, serialNumber: sn, readMode,
    decodeMode, reqidType };
}

/** A connection to the card at the end of a CardLink. */
class LinkConnection {
  #link;
  #serialOfNext;
  #onStep;
  #onRules;

  constructor(link, serialOfNext, onStep, onRules) {
    this.#link = link;
    this.#serialOfNext = serialOfNext;
    this.#onStep = onStep;
    this.#onRules = onRules;
  }

  transmit(bytes) {
    const command = Buffer.from(bytes);
    const serial = this.#serialOfNext();
    const at = now();
    return new Promise((resolve, reject) => {
      const { name, rules } = this.#link.transmit(command, serial, ({ data, status }) => {
        this.#onStep({ name, serial, command: hex(command), answer: hex(data), at, ms: Math.round(now() - at) });
        if (status === kFailed) reject(new Error('the card is gone'));
        else resolve(new Uint8Array(data));
      });
      if (rules.length > 0) this.#onRules({ name, rules, at });
    });
  }
}

/**
 * Events:
 *   'step'        { name, serial, command, answer, at, ms }  the card has answered a command
 *   'rules'       { name, rules, at }                         misbehaviour that was asked for has been applied to a command
 *   'progress'    what `TqReader` says of its progress
 *   'monitor'     { raw, record }                            the read's monitor record
 *   'difference'  a Difference: a text from the library, or an answer to it, that is not as it should be
 */
export class Application extends EventEmitter {
  #link;

  /**
   * @param {object} options  `library` (string): path of libtqreader.so; `link` (CardLink): the card or passport
   */
  constructor({ library, link } = {}) {
    super();
    this.#link = link;
    this.module = new WatchedModule(loadLibrary(library));
    this.module.on('difference', (difference) => this.emit('difference', difference));
    this.module.on('monitor', (monitor) => this.emit('monitor', monitor));
    this.reader = new TqReader(this.module);
  }

  /** Lays another card or passport, or the same through another link, on the phone. */
  useLink(link) {
    this.#link = link;
  }

  get differences() {
    return this.module.differences;
  }

  /** A connection to the card or passport. */
  connection(onStep = (step) => this.emit('step', step)) {
    return new LinkConnection(this.#link, () => this.module.open?.serial, onStep,
      (rules) => this.emit('rules', rules));
  }

  /**
   * Configures and performs one read.
   * @param {object} [options]
   * @param {object} [options.identity]   see `configOf`
   * @param {object} [options.passport]   documentNumber, birthDate and expiryDate of the passport; an identity card is read
   *   without it
   * @param {number} [options.timeoutMs]  when to cancel
   * @returns {Promise<{code: number, flag: number, data: any, raw: string|null, error: object|null, monitor: object|null,
   *   steps: object[], progress: object[], ms: number}>} `data` as in the result's own text; `error` { name, message,
   *   businessId } of a read that failed; `raw` is null when the library has reported nothing
   */
  async read({ identity, passport, timeoutMs = 60000 } = {}) {
    const seen = { raw: null, flag: 0, monitor: null, steps: [], progress: [] };
    const onStep = (step) => seen.steps.push(step);
    const onResult = ({ raw, flag }) => Object.assign(seen, { raw, flag });
    const onMonitor = (monitor) => Object.assign(seen, { monitor });
    this.on('step', onStep);
    this.module.on('monitor', onMonitor).on('result', onResult);
    const cancel = new CancelHandle();
    const late = setTimeout(() => cancel.cancel(), timeoutMs);
    const began = Date.now();
    const options = { connection: this.connection(), cancel, onProgress: (progress) => {
      seen.progress.push({ ...progress });
      this.emit('progress', progress);
    } };
    const came = (outcome) => ({ error: null, ...seen, ...outcome, ms: Date.now() - began });
    try {
      this.reader.configure(configOf(identity));
      const { code, businessId, info, bytes } =
        await (passport ? this.reader.readPassport(passport, options) : this.reader.readIdentityCard(options));
      const data = seen.flag === 1 ? { reqid: businessId, ...(info && { info }) } : hex(Buffer.from(bytes));
      return came({ code, data });
    } catch (error) {
      if (!(error instanceof TqError)) throw error;
      const { code, name, message, businessId } = error;
      return came({ code, data: businessId, error: { name, message, businessId } });
    } finally {
      clearTimeout(late);
      this.off('step', onStep);
      this.module.off('monitor', onMonitor).off('result', onResult);
    }
  }
}
