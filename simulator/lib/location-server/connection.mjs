// One connection of the location server: TLS, one request, its answer, delivered as the rules of misbehaviour would have it.

import { setTimeout as sleep } from 'node:timers/promises';
import { TLSSocket } from 'node:tls';
import { hex } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { encodeResponse } from './answer.mjs';
import { applyRules } from './misbehaviour.mjs';
import { readRequest, requestLength } from './request.mjs';

const kPlainText = 'HTTP/1.1 400 Bad Request\r\n\r\n';

export class Connection {
  #socket;
  #tls = null;
  #server;
  #received = Buffer.alloc(0);
  #answered = false;

  /**
   * @param {net.Socket} socket
   * @param {object} server  the LocationServer: config, key, misbehaviour, port, secureContext, report()
   * @param {number} number  1 for the server's first connection
   */
  constructor(socket, server, number) {
    this.#socket = socket;
    this.#server = server;
    this.number = number;
    socket.setNoDelay(true);
    socket.on('error', () => {}); // a reader may reset its connection; 'close' follows
    const remote = `${socket.remoteAddress}:${socket.remotePort}`;
    socket.on('close', () => server.report('connection', { connection: number, state: 'closed', remote }));
    server.report('connection', { connection: number, state: 'open', remote });
    this.#greet(server.misbehaviour.matching('connect'));
  }

  async #greet(rules) {
    for (const { ms } of rules.filter((rule) => rule.do === 'delay')) await sleep(ms);
    const last = rules.find((rule) => rule.do !== 'delay');
    if (last) {
      this.#socket.resume();
      if (last.do !== 'silence') this.#finish(last.do);
      return;
    }
    if (this.#socket.destroyed) return;
    this.#tls = new TLSSocket(this.#socket, { isServer: true, secureContext: this.#server.secureContext });
    this.#tls.on('error', () => this.#socket.destroy());
    this.#tls.on('end', () => this.#tls.end());
    this.#tls.on('data', (bytes) => this.#receive(bytes));
  }

  async #receive(bytes) {
    this.#received = Buffer.concat([this.#received, bytes]);
    try {
      const length = requestLength(this.#received);
      if (length === 0 || this.#received.length < length) return;
      if (this.#answered || this.#received.length > length) {
        const more = `followed by ${hex(this.#received.subarray(length))}`;
        throw new Difference('POST', 'request', 'alone on its connection', more);
      }
      this.#answered = true;
      await this.#answer(this.#received);
    } catch (error) {
      if (!(error instanceof Difference)) throw error;
      error.connection = this.number;
      this.#server.report('difference', error);
      this.#tls.end();
    }
  }

  async #answer(request) {
    const { config, key, port, misbehaviour } = this.#server;
    const fields = readRequest(request, key, { port, ...config.expected });
    const exchange = { connection: this.number, cipher: this.#tls.getCipher().name, request: request.toString('latin1'),
      fields, response: null, rules: [], receivedAt: Date.now(), answeredAt: null };
    const rules = misbehaviour.matching('request');
    exchange.rules = rules.map((rule) => rule.kind ?? rule.do);
    const location = typeof config.location === 'function' ? config.location(fields) : config.location;
    const plan = applyRules(rules, { location, sessionId: config.sessionId, chunks: config.chunks });
    const response = encodeResponse(plan.reply, key, plan.change) + (plan.delivery.extra ?? '');
    await sleep(config.delay + plan.delivery.delay);
    if (!plan.delivery.silent) Object.assign(exchange, { response, answeredAt: Date.now() });
    this.#server.report('exchange', exchange); // whoever has seen the answer finds the record
    if (!plan.delivery.silent) await this.#deliver(response, plan.delivery);
    this.#finish(plan.delivery.then);
  }

  async #deliver(response, { pieces, endless }) {
    if (endless) {
      for (; !this.#tls.destroyed; await sleep(endless.everyMs)) await this.#write('x');
      return;
    }
    const size = pieces?.size ?? response.length;
    for (let at = 0; at < response.length; at += size) {
      if (at > 0 && pieces.everyMs > 0) await sleep(pieces.everyMs);
      await this.#write(response.slice(at, at + size));
    }
  }

  #write(text) {
    return new Promise((resolve) => {
      if (this.#tls.destroyed) resolve();
      else this.#tls.write(Buffer.from(text, 'latin1'), resolve);
    });
  }

  /** Ends the connection: with close_notify ('close'), without ('hangup'), rudely ('reset'), in another protocol. */
  #finish(how) {
    if (how === 'plainText') this.#socket.end(kPlainText);
    else if (how === 'reset') this.#socket.resetAndDestroy();
    else if (how === 'hangup') this.#socket.destroySoon();
    else if (how === 'close') (this.#tls ?? this.#socket).end();
  }
}
