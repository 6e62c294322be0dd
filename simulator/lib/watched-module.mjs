// The native module, watched: what the library hands to the application is checked byte for byte; that it has never more than
// one command with the application, and none when it reports a result; and that the application answers each command once, with
// the command's own number.

import { EventEmitter } from 'node:events';
import { Difference } from './difference.mjs';
import { parseCommandText, parseResultText } from './host-texts.mjs';
import { parseMonitorRecord } from './monitor-record.mjs';

const kMostAnswer = 300;

/**
 * Has the native module's functions. Events:
 *   'command'     { serial, command }        before the card function is called
 *   'answer'      { serial, data, status }   the application has handed over an answer
 *   'monitor'     { raw, record }, 'result' { code, flag, data, raw }
 *   'difference'  a Difference
 */
export class WatchedModule extends EventEmitter {
  #module;
  #open = null; // the command that is with the application
  #kind = null; // name of the handler of the running read
  #cancelled = false;

  constructor(module) {
    super();
    this.#module = module;
    this.differences = [];
    for (const name of Object.getOwnPropertyNames(module)) this[name] ??= (...args) => module[name](...args);
  }

  /** The command that is to be answered next. */
  get open() {
    return this.#open;
  }

  getIdInfo() {
    return this.#started('idCardHandler', () => this.#module.getIdInfo());
  }

  getPassportInfo(...mrz) {
    return this.#started('passportHandler', () => this.#module.getPassportInfo(...mrz));
  }

  cancelCard(type) {
    this.#cancelled = true;
    return this.#module.cancelCard(type);
  }

  idCardHandler(...answer) {
    this.#answered('idCardHandler', answer);
  }

  passportHandler(...answer) {
    this.#answered('passportHandler', answer);
  }

  registerCardCallback(callback) {
    return this.#module.registerCardCallback((text) => {
      const command = this.#checked(parseCommandText, text);
      if (!command) return;
      if (this.#open) this.#differ(new Difference('card callback', 'command', `none before ${this.#open.serial} is answered`, command.serial));
      this.#open = command;
      this.emit('command', command);
      callback(text);
    });
  }

  registerMonitorCallback(callback) {
    return this.#module.registerMonitorCallback((raw) => {
      const record = this.#checked((text) => parseMonitorRecord(text, 'monitor callback'), raw) ?? null;
      this.emit('monitor', { raw, record });
      return callback(raw);
    });
  }

  registerResultCallback(callback) {
    return this.#module.registerResultCallback((raw) => {
      const result = this.#checked(parseResultText, raw);
      if (this.#open && !this.#cancelled) this.#differ(new Difference('result callback', 'command without an answer', 'none', this.#open.serial));
      if (result) this.emit('result', { ...result, raw });
      callback(raw);
    });
  }

  #started(kind, start) {
    const code = start();
    if (code === 0) {
      this.#kind = kind;
      this.#open = null;
      this.#cancelled = false;
    }
    return code;
  }

  #answered(kind, [data, serial, status]) {
    const command = this.#open;
    this.#open = null;
    if (!command) {
      this.#differ(new Difference('answer', 'command that it answers', 'one', 'none'));
    } else {
      const fit = kind === this.#kind && serial === command.serial;
      const wellFormed = /^([0-9A-F]{2})*$/.test(data) && data.length <= 2 * kMostAnswer && [0, -1].includes(status);
      if (!fit) this.#differ(new Difference('answer', 'handler and number', `${this.#kind} ${command.serial}`, `${kind} ${serial}`));
      if (!wellFormed) this.#differ(new Difference('answer', 'data and status', 'hexadecimal, 0 or -1', `${data}, ${status}`));
    }
    this.emit('answer', { serial, data, status });
    this.#module[kind](data, serial, status);
  }

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
}
