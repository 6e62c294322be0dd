// The decode server: listens, gives every connection a session of its own, and keeps a record of what it saw.

import { EventEmitter } from 'node:events';
import { createServer } from 'node:net';
import { completeConfig } from './config.mjs';
import { Connection } from './connection.mjs';
import { Misbehaviour } from './misbehaviour.mjs';

/**
 * A decode server for resident identity cards.
 *
 * Records: `exchanges`, `monitors`, `differences`, `connections`. Events, with the same objects:
 *   'exchange'    { connection, index, command, request, response, receivedAt, answeredAt, fields, rules }
 *                 request and response are bytes; `response` is null when none was sent
 *   'monitor'     { connection, raw, record }: the text as it came, and parsed
 *   'difference'  a Difference (see difference.mjs) with the number of its `connection`
 *   'connection'  { connection, state: 'open' | 'closed', ... }
 */
export class DecodeServer extends EventEmitter {
  #listener = null;
  #open = new Set();
  #count = 0;

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

  /** Where the connections report to. */
  report(event, subject, connection) {
    const kept = { exchange: this.exchanges, monitor: this.monitors, difference: this.differences,
      connection: this.connections }[event];
    if (event === 'difference') subject.connection = connection;
    kept.push(subject);
    this.emit(event, subject);
  }
}
