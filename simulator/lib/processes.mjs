// Decode server and reader in processes of their own, so that neither waits for the other's event loop.

import { fork } from 'node:child_process';
import { EventEmitter, once } from 'node:events';
import { fileURLToPath } from 'node:url';

const pathOf = (name) => fileURLToPath(new URL(`children/${name}.mjs`, import.meta.url));

/** A child process whose messages { event, subject, sentAt } are this object's events, with the subject and the time. */
class Child extends EventEmitter {
  #process;
  #pings = [];

  constructor(name, stdio) {
    super();
    this.#process = fork(pathOf(name), [], { serialization: 'advanced', stdio });
    this.#process.on('message', ({ event, subject, sentAt, pong }) => {
      if (pong === undefined) this.emit(event, subject, sentAt);
      else this.#pings.shift()();
    });
    this.#process.on('disconnect', () => this.#pings.splice(0).forEach((resolve) => resolve()));
    this.exited = once(this.#process, 'exit').then(([code, signal]) => ({ code, signal }));
  }

  send(message) {
    if (this.#process.connected) this.#process.send(message, () => {});
  }

  /** Resolves when everything that has happened in the child by now has been told. */
  caughtUp() {
    if (!this.#process.connected) return Promise.resolve();
    return new Promise((resolve) => {
      this.#pings.push(resolve);
      this.#process.send({ ping: true }, () => {});
    });
  }

  /** Cuts the connection; a child with nothing left to do then ends by itself. */
  release() {
    if (this.#process.connected) this.#process.disconnect();
  }

  kill() {
    this.#process.kill('SIGKILL');
  }

  /** The subject of the first `event`; rejects when the child fails or ends before. */
  first(event, what) {
    return new Promise((resolve, reject) => {
      this.once(event, resolve);
      this.once('failed', (message) => reject(new Error(`${what}: ${message}`)));
      this.exited.then(({ code, signal }) => {
        reject(new Error(`${what} ended early (${signal ?? `exit code ${code}`})`));
      });
    });
  }
}

/**
 * One order, by time, for what several processes tell: an event is passed on when all the others have told everything that
 * came before it.
 */
export class Timeline {
  #children = [];
  #entries = []; // not passed on yet
  #waits = [];

  /** @param {Object<string, (subject: object) => void>} listeners  for the child's events, by name */
  add(child, listeners) {
    this.#children.push(child);
    for (const [event, listener] of Object.entries(listeners)) {
      child.on(event, (subject, sentAt) => {
        const entry = { at: subject.receivedAt ?? (typeof subject.at === 'number' ? subject.at : sentAt), ready: false };
        entry.pass = () => listener(subject);
        this.#entries.push(entry);
        const others = this.#children.filter((other) => other !== child).map((other) => other.caughtUp());
        this.#waits.push(Promise.all(others).then(() => {
          entry.ready = true;
          this.#passOn();
        }));
      });
    }
  }

  /** Resolves when everything that has happened by now has been passed on. */
  async caughtUp() {
    await Promise.all(this.#children.map((child) => child.caughtUp()));
    await Promise.all(this.#waits.splice(0));
  }

  #passOn() {
    this.#entries.sort((one, other) => one.at - other.at);
    while (this.#entries[0]?.ready) this.#entries.shift().pass();
  }
}

/**
 * Starts a decode server in a child process; resolves when it listens.
 * @param {object} config  as for DecodeServer, but without functions
 * @returns {Promise<Child & {host: string, port: number, update: Function, stop: Function}>} emits 'connection',
 *   'exchange', 'monitor' and 'difference' with the server's own subjects
 */
export async function startServerProcess(config) {
  const child = new Child('decode-server', ['ignore', 'inherit', 'inherit', 'ipc']);
  const listening = child.first('listening', 'decode server');
  child.send({ start: config });
  Object.assign(child, await listening);
  child.update = (partial) => child.send({ update: partial });
  child.stop = () => {
    child.send({ stop: true });
    return child.exited;
  };
  return child;
}

/**
 * Performs one read in a child process.
 * @param {object} options  library; identity (for `initSdk`, address included); card (secrets) or passport (in plain form,
 *   see passport-persona.mjs) and, when it differs, what the application claims to know of it (`claimed`, see `Reader`);
 *   cardDelay and perByte (see card-link.mjs), cardRules, timeoutMs
 * @param {number|string} [output]  where the child's standard output and error go: a file descriptor, 'inherit'
 *   or 'ignore'
 * @returns {Child & {result: Promise<object>}} emits 'started', 'command', 'step', 'monitor', 'card-difference',
 *   'reader-difference' and 'result'; `release()` lets it end
 */
export function startReaderProcess(options, output = 'ignore') {
  const child = new Child('reader', ['ignore', output, output, 'ipc']);
  child.result = child.first('result', 'reader');
  child.send({ read: options });
  return child;
}

/**
 * Asks latency server, location server or both in a child process.
 * @param {object} options  library; delay and location, see children/services.mjs
 * @param {number|string} [output]  as for startReaderProcess
 * @returns {Child & {answers: Promise<{delay: object, location: object}>}} of each that was asked { at,
 *   result, ms }, `result` being a value or the code of a failure; for the location also `times`, what the time function has said; `release()` lets it end
 */
export function startServicesProcess(options, output = 'ignore') {
  const child = new Child('services', ['ignore', output, output, 'ipc']);
  const asked = ['delay', 'location'].filter((name) => options[name]);
  child.answers = Promise.all(asked.map((event) => child.first(event, 'application')))
    .then((answers) => Object.fromEntries(answers.map((answer, i) => [asked[i], answer])));
  child.send({ ask: options });
  return child;
}
