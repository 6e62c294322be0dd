// Decode server and reader in processes of their own, so that neither waits for the other's event loop.

import { fork } from 'node:child_process';
import { EventEmitter, once } from 'node:events';
import { fileURLToPath } from 'node:url';

const pathOf = (name) => fileURLToPath(new URL(`children/${name}.mjs`, import.meta.url));

/** A child process whose messages { event, subject } are this object's events. */
class Child extends EventEmitter {
  #process;

  constructor(name, stdio) {
    super();
    this.#process = fork(pathOf(name), [], { serialization: 'advanced', stdio });
    this.#process.on('message', ({ event, subject }) => this.emit(event, subject));
    this.exited = once(this.#process, 'exit').then(([code, signal]) => ({ code, signal }));
  }

  send(message) {
    if (this.#process.connected) this.#process.send(message);
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
 * Asks latency server and location server once each in a child process.
 * @param {object} options  library; delay and location: arguments, see children/services.mjs
 * @param {number|string} [output]  as for startReaderProcess
 * @returns {Child & {answers: Promise<{delay: object, location: object}>}} of each { at, result, ms }; for the location
 *   also `times`, what the time function has said; `release()` lets it end
 */
export function startServicesProcess(options, output = 'ignore') {
  const child = new Child('services', ['ignore', output, output, 'ipc']);
  const answers = ['delay', 'location'].map((event) => child.first(event, 'application'));
  child.answers = Promise.all(answers).then(([delay, location]) => ({ delay, location }));
  child.send({ ask: options });
  return child;
}
