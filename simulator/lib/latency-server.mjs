// The latency server: answers each greeting of a probe as soon as it has come.

import { EventEmitter } from 'node:events';
import { createServer } from 'node:net';
import { setTimeout as sleep } from 'node:timers/promises';
import { hex } from './bytes.mjs';
import { Difference } from './difference.mjs';
import { RuleList } from './rules.mjs';

/** Where every probe knocks. */
export const LATENCY_PORT = 9999;

const kGreeting = Buffer.from('HELLWORD', 'ascii');
const kMaxRounds = 5;
const kActions = ['silence', 'close', 'reset', 'delay', 'answer'];

/**
 * Settings: host, port, delay (milliseconds before every answer), rules. A rule is { on: 'connect' or 'greeting', nth, do }:
 * 'silence', 'close', 'reset', 'delay' (`ms` more) or 'answer' (`bytes`, hexadecimal; greetings only).
 *
 * Records: `probes`, `differences`. Events, with the same objects:
 *   'probe'       { connection, remote, rounds, ms }, at the end of a connection
 *   'difference'  a Difference with the number of its `connection`
 */
export class LatencyServer extends EventEmitter {
  #listener = null;
  #sockets = new Set();
  #rules;
  #count = 0;

  constructor({ host = '127.0.0.1', port = LATENCY_PORT, delay = 0, rules = [] } = {}) {
    super();
    this.config = { host, port, delay };
    this.setRules(rules);
    this.probes = [];
    this.differences = [];
  }

  setRules(rules) {
    this.#rules = new RuleList(rules, kActions);
  }

  /** Starts listening. @returns {Promise<{host: string, port: number}>} */
  start() {
    this.#listener = createServer((socket) => this.#accept(socket));
    return new Promise((resolve, reject) => {
      this.#listener.once('error', reject);
      this.#listener.listen(this.config.port, this.config.host, () => {
        const { address, port } = this.#listener.address();
        resolve({ host: address, port });
      });
    });
  }

  async stop() {
    for (const socket of this.#sockets) socket.destroy();
    if (!this.#listener) return;
    await new Promise((resolve) => this.#listener.close(resolve));
    this.#listener = null;
  }

  #accept(socket) {
    this.#count += 1;
    const probe = { connection: this.#count, remote: `${socket.remoteAddress}:${socket.remotePort}`, rounds: 0, ms: 0 };
    const began = Date.now();
    let received = Buffer.alloc(0);
    let deaf = false;
    this.#sockets.add(socket);
    socket.setNoDelay(true);
    socket.on('error', () => {});
    socket.on('close', () => {
      this.#sockets.delete(socket);
      if (received.length > 0 && !deaf) this.#note(probe, new Difference('greeting', 'end', 'nothing more', hex(received)));
      probe.ms = Date.now() - began;
      this.probes.push(probe);
      this.emit('probe', probe);
    });
    const follow = async (event) => {
      let answer = event === 'connect' ? null : kGreeting;
      for (const rule of this.#rules.matching(event, event)) {
        if (rule.do === 'delay') await sleep(rule.ms);
        else if (rule.do === 'answer') answer = Buffer.from(rule.bytes, 'hex');
        else {
          deaf = true;
          if (rule.do === 'close') socket.end();
          if (rule.do === 'reset') socket.resetAndDestroy();
          return;
        }
      }
      if (answer === null) return;
      if (this.config.delay > 0) await sleep(this.config.delay);
      if (!socket.destroyed) socket.write(answer);
    };
    follow('connect');
    socket.on('data', (bytes) => {
      if (deaf) return;
      received = Buffer.concat([received, bytes]);
      if (received.length < kGreeting.length && kGreeting.subarray(0, received.length).equals(received)) return;
      const greeting = received;
      received = Buffer.alloc(0);
      if (!greeting.equals(kGreeting)) {
        this.#note(probe, new Difference('greeting', 'text', hex(kGreeting), hex(greeting)));
        deaf = true;
        socket.end();
        return;
      }
      probe.rounds += 1;
      if (probe.rounds > kMaxRounds) this.#note(probe, new Difference('greeting', 'number of rounds', 'at most 5', probe.rounds));
      follow('greeting');
    });
  }

  #note({ connection }, difference) {
    difference.connection = connection;
    this.differences.push(difference);
    this.emit('difference', difference);
  }
}
