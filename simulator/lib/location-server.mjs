// The location server: HTTPS with a certificate of its own making. It checks every byte of a request and says where the
// NFC antenna of the phone sits. One request per connection.

import { EventEmitter } from 'node:events';
import { createServer } from 'node:net';
import { createSecureContext } from 'node:tls';
import { fromHex } from './bytes.mjs';
import { serverIdentity } from './certificate.mjs';
import { Connection } from './location-server/connection.mjs';
import { Misbehaviour } from './location-server/misbehaviour.mjs';

const kDefaults = {
  host: '127.0.0.1', // where to listen
  port: 0, //           0: any free port
  keys: {}, //          the location server's keys by environment code: { 268: 16 bytes or 32 digits, ... }
  envIdCode: 268,
  expected: {}, //      of the request: host, port, appid (20 characters), type, manufacturer, model, times (readings of
  //                    the reader's clock); what is undefined is checked in its structure only
  location: 3, //       the answer: 0 to 255, or a function of the request's fields
  sessionId: 'SIMULATED-SESSION-0001',
  chunks: {}, //        how the response is cut: size, upperCase, prefix, extension
  ciphers: 'AES128-SHA256:AES128-SHA',
  delay: 0, //          milliseconds before every answer
  rules: [], //         misbehaviour, see location-server/misbehaviour.mjs
};

function completeConfig(partial) {
  const unknown = Object.keys(partial).find((name) => !(name in kDefaults));
  if (unknown) throw new TypeError(`the location server has no setting "${unknown}"`);
  const given = Object.fromEntries(Object.entries(partial).filter(([, value]) => value !== undefined));
  const config = { ...kDefaults, ...given };
  const { location } = config;
  if (typeof location !== 'function' && !(Number.isInteger(location) && location >= 0 && location <= 255)) {
    throw new TypeError(`no location from 0 to 255: ${location}`);
  }
  return config;
}

function keyOf({ keys, envIdCode }) {
  const key = typeof keys[envIdCode] === 'string' ? fromHex(keys[envIdCode]) : keys[envIdCode];
  if (key?.length !== 16) throw new TypeError(`no 16-byte key for environment ${envIdCode}`);
  return key;
}

let identity; // of this process

/**
 * Records: `exchanges`, `differences`. Events, with the same objects:
 *   'exchange'    { connection, cipher, request, fields, response, rules, receivedAt, answeredAt }; request and response
 *                 are texts, `response` is null when none was sent
 *   'difference'  a Difference (see difference.mjs) with the number of its `connection`
 *   'connection'  { connection, state: 'open' | 'closed', remote }
 */
export class LocationServer extends EventEmitter {
  #listener = null;
  #sockets = new Set();
  #count = 0;

  constructor(config = {}) {
    super();
    this.config = completeConfig(config);
    this.key = keyOf(this.config);
    this.misbehaviour = new Misbehaviour(this.config.rules);
    this.clear();
  }

  /** Changes some settings for the connections that follow; new rules start counting anew. */
  update(partial) {
    this.config = completeConfig({ ...this.config, ...partial });
    this.key = keyOf(this.config);
    if (partial.rules) this.misbehaviour = new Misbehaviour(partial.rules);
  }

  clear() {
    this.exchanges = [];
    this.differences = [];
  }

  /** What a connection's TLS is to be like. */
  get secureContext() {
    const versions = { minVersion: 'TLSv1.2', maxVersion: 'TLSv1.2' };
    return createSecureContext({ ...identity, ...versions, ciphers: this.config.ciphers });
  }

  /** Starts listening; the first server of a process makes up its key pair first. @returns {Promise<{host: string, port: number}>} */
  start() {
    identity ??= serverIdentity({ subject: 'Specimen Location Server' });
    this.#listener = createServer((socket) => {
      this.#count += 1;
      this.#sockets.add(socket);
      socket.on('close', () => this.#sockets.delete(socket));
      return new Connection(socket, this, this.#count);
    });
    return new Promise((resolve, reject) => {
      this.#listener.once('error', reject);
      this.#listener.listen(this.config.port, this.config.host, () => resolve({ host: this.config.host, port: this.port }));
    });
  }

  get port() {
    return this.#listener?.address()?.port;
  }

  async stop() {
    for (const socket of this.#sockets) socket.destroy();
    if (!this.#listener) return;
    await new Promise((resolve) => this.#listener.close(resolve));
    this.#listener = null;
  }

  /** Where the connections report to. */
  report(event, subject) {
    ({ exchange: this.exchanges, difference: this.differences })[event]?.push(subject);
    this.emit(event, subject);
  }
}
