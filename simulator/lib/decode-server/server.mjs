// The decode server: listens, gives every connection a session of its own, and keeps a record of what it saw.

import { EventEmitter } from 'node:events';
import { createServer } from 'node:net';
import { completeConfig } from './config.mjs';
import { commandName, hex } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { Connection } from './connection.mjs';
import { tokenOf } from './frames.mjs';
import { Misbehaviour } from './misbehaviour.mjs';

const kMostKept = 1000; // conversations whose reader may still come back

/**
 * A decode server for resident identity cards and passports.
 *
 * Records: `exchanges`, `monitors`, `verifications`, `differences`, `connections`. Events, with the same objects:
 *   'exchange'    { connection, index, command, request, response, receivedAt, answeredAt, fields, answer, rules }
 *                 request and response are bytes; `response` is null when none was sent; `fields` and `answer` are what they
 *                 hold in plain, by name
 *   'monitor'     { connection, raw, record }: the text as it came, and parsed
 *   'verification' { connection, passiveAuthentication, activeAuthentication, signature, signer, hashes } of a passport,
 *                 see passport-verification.mjs
 *   'difference'  a Difference (see difference.mjs) with the number of its `connection`
 *   'connection'  { connection, state: 'open' | 'closed', ... }; of a closed one, whether its conversation has been
 *                 `monitored`, and whether its reader is `awaited` on another
 */
export class DecodeServer extends EventEmitter {
  #listener = null;
  #open = new Set();
  #count = 0;
  #kept = new Map(); // conversations about passports, by token

  /** @param {object} config  settings as described in config.mjs */
  constructor(config) {
    super();
    this.config = completeConfig(config);
    this.misbehaviour = new Misbehaviour(this.config.rules);
    this.clear();
  }

  /** Changes some settings for the connections that follow; new rules start counting anew. */
  update(partial) {
    this.config = completeConfig({ ...this.config, ...partial });
    if (partial.rules) this.misbehaviour = new Misbehaviour(partial.rules);
  }

  /** Forgets everything recorded so far. */
  clear() {
    this.exchanges = [];
    this.monitors = [];
    this.verifications = [];
    this.differences = [];
    this.connections = [];
  }

  /** Starts listening. @returns {Promise<{host: string, port: number}>} */
  start() {
    this.#listener = createServer((socket) => {
      this.#count += 1;
      const connection = new Connection(socket, this, this.#count);
      this.#open.add(connection);
      socket.on('close', () => this.#open.delete(connection));
    });
    return new Promise((resolve, reject) => {
      this.#listener.once('error', reject);
      this.#listener.listen(this.config.port, this.config.host, () => resolve(this.address));
    });
  }

  get address() {
    const { address, port } = this.#listener.address();
    return { host: address, port };
  }

  /** Closes every connection and stops listening. */
  async stop() {
    for (const connection of this.#open) connection.destroy();
    if (!this.#listener) return;
    await new Promise((resolve) => this.#listener.close(resolve));
    this.#listener = null;
  }

  /** Keeps a conversation for the connection on which its reader comes back. */
  keep(session) {
    this.#kept.set(hex(session.token), session);
    if (this.#kept.size > kMostKept) this.#kept.delete(this.#kept.keys().next().value);
  }

  /**
   * The conversation that the first request of a connection goes on with: its token says which. Nothing for a request
   * that begins a new one. Throws a Difference.
   */
  continued(request) {
    const found = tokenOf(request);
    if (!found) return undefined;
    const { code, token } = found;
    const session = this.#kept.get(hex(token));
    if (!session) throw new Difference(commandName(code), 'token', 'one that 0x7201 has handed out', hex(token));
    session.resume(commandName(code));
    return session;
  }

  /** Where the connections report to. */
  report(event, subject, connection) {
    const kept = { exchange: this.exchanges, monitor: this.monitors, verification: this.verifications,
      difference: this.differences, connection: this.connections }[event];
    if (event === 'difference') subject.connection = connection;
    kept.push(subject);
    this.emit(event, subject);
  }
}
