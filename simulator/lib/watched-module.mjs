// The native module, watched: what the library hands to the application is checked byte for byte, and so is that the
// application answers each command exactly once, in order, with the command's own number. One answer to no command is as it
// should be: that which makes the library skip a data group whose READ the passport has refused.

import { EventEmitter } from 'node:events';
import { Difference } from './difference.mjs';
import { parseCommandText, parseResultText } from './host-texts.mjs';
import { parseMonitorRecord } from './monitor-record.mjs';

const kMostAnswer = 300;
const kSelectGroup = 7; // numbers of a passport's steps
const kReadGroup = 8;
const kRefusal = /^(?!.*9000(00)?$)([0-9A-F]{2})+$/;

/**
 * Has the native module's functions. Events:
 *   'command'     { serial, command }        before the card function is called
 *   'answer'      { serial, data, status, skips }  the application has handed over an answer; `skips`: to skip a data group
 *   'monitor'     { raw, record }, 'result' { code, flag, data, raw }
 *   'difference'  a Difference
 */
export class WatchedModule extends EventEmitter {
  #module;
  #unanswered = []; // commands
  #kind = null; // name of the handler of the running read
  #cancelled = false;
  #woken = false;
  #refusedGroup = false; // the last answer refused the READ of a data group

  constructor(module) {
    super();
    this.#module = module;
    this.differences = [];
    for (const name of Object.getOwnPropertyNames(module)) this[name] ??= (...args) => module[name](...args);
  }

  /** The command that is to be answered next. */
  get oldest() {
    return this.#unanswered[0];
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
      this.#unanswered.push(command);
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
      if (result) this.emit('result', { ...result, raw });
      callback(raw);
    });
  }

  #started(kind, start) {
    const code = start();
    if (code === 0) {
      this.#kind = kind;
      this.#unanswered = [];
      this.#cancelled = false;
      this.#woken = false;
      this.#refusedGroup = false;
    }
    return code;
  }

  #answered(kind, [data, serial, status]) {
    const command = this.#unanswered.shift();
    const refuses = kind === 'passportHandler' && status === 0 && kRefusal.test(data) && data.length <= 2 * kMostAnswer;
    const skips = command === undefined && this.#refusedGroup && refuses && serial === kSelectGroup;
    this.#refusedGroup = command?.serial === kReadGroup && refuses;
    // A cancelled read may be woken, once, with an answer that no command asked for.
    if (command === undefined && !skips) {
      const woken = this.#cancelled && !this.#woken;
      this.#woken = true;
      if (!woken) this.#differ(new Difference('answer', 'command that it answers', 'one', 'none'));
    } else if (!skips) {
      const fit = kind === this.#kind && serial === command.serial;
      const wellFormed = /^([0-9A-F]{2})*$/.test(data) && data.length <= 2 * kMostAnswer && [0, -1].includes(status);
      if (!fit) this.#differ(new Difference('answer', 'handler and number', `${this.#kind} ${command.serial}`, `${kind} ${serial}`));
      if (!wellFormed) this.#differ(new Difference('answer', 'data and status', 'hexadecimal, 0 or -1', `${data}, ${status}`));
    }
    this.emit('answer', { serial, data, status, skips });
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
