// One TCP connection of the decode server: cuts the stream into requests, has each of them read and answered,
// and delivers the answers as the rules of misbehaviour would have it.

import { setTimeout as sleep } from 'node:timers/promises';
import { commandName, fromHex, hex } from '../bytes.mjs';
import { now } from '../clock.mjs';
import { Difference } from '../difference.mjs';
import { codeOf, encodeReply, replyFields, requestLength } from './frames.mjs';
import { applyRules } from './misbehaviour.mjs';
import { Session } from './session.mjs';

export class Connection {
  #socket;
  #server;
  #received = Buffer.alloc(0);
  #index = 0;
  #busy = false;
  #deaf = false; // nothing that comes is looked at any more
  #hungUp = false; // the reader has closed its side
  #ended = new AbortController();

  /**
   * @param {net.Socket} socket
   * @param {object} server  the DecodeServer: its config, its rules, and where to report to
   * @param {number} number  1 for the server's first connection
   */
  constructor(socket, server, number) {
    this.#socket = socket;
    this.#server = server;
    this.number = number;
    this.session = new Session(server.config);
    socket.setNoDelay(true);
    socket.on('data', (bytes) => this.#receive(bytes));
    socket.on('end', () => {
      this.#hangUp();
      this.#checkLeftover();
    });
    socket.on('error', () => {}); // a reader may reset its connection; 'close' follows
    socket.on('close', () => {
      this.#ended.abort();
      this.#hangUp();
      const { monitored, awaited } = this.session;
      server.report('connection', { connection: number, state: 'closed', monitored, awaited });
    });
    const remote = `${socket.remoteAddress}:${socket.remotePort}`;
    const rules = server.misbehaviour.matching('connect', { connection: number });
    server.report('connection', { connection: number, state: 'open', remote, rules: rules.map((rule) => rule.do) });
    this.#greet(rules);
  }

  destroy() {
    this.#socket.destroy();
  }

  async #greet(rules) {
    for (const rule of rules) {
      if (rule.do === 'delay') {
        this.#busy = true;
        await this.#pause(rule.ms);
        this.#busy = false;
      } else if (rule.do === 'silence') {
        this.#deaf = true;
      } else {
        this.#finish(rule.do);
      }
    }
    this.#work();
  }

  #receive(bytes) {
    if (this.#deaf) return;
    this.#received = Buffer.concat([this.#received, bytes]);
    this.#work();
  }

  /** Answers whole requests one after the other. */
  async #work() {
    if (this.#busy) return;
    this.#busy = true;
    while (!this.#deaf && !this.#socket.destroyed) {
      const bytes = this.#nextRequest();
      if (!bytes) break;
      await this.#exchange(bytes);
    }
    this.#busy = false;
  }

  #nextRequest() {
    try {
      const length = requestLength(this.#received);
      if (length === 0 || this.#received.length < length) return null;
      const bytes = this.#received.subarray(0, length);
      this.#received = this.#received.subarray(length);
      return bytes;
    } catch (error) {
      if (!(error instanceof Difference)) throw error;
      this.#refuse(error, null, this.#received);
      return null;
    }
  }

  async #exchange(request) {
    const exchange = {
      connection: this.number, index: this.#index, command: commandName(codeOf(request)),
      request: Buffer.from(request), response: null, receivedAt: now(), answeredAt: null, fields: null, answer: null, rules: [],
    };
    this.#index += 1;
    if (this.#received.length > 0) {
      const extra = `followed by ${hex(this.#received)}`;
      this.#note(new Difference(exchange.command, 'request', 'alone until it has been answered', extra));
    }
    let handled;
    try {
      if (exchange.index === 0) this.session = this.#server.continued(request) ?? this.session;
      handled = this.session.handle(request);
      if (handled.fields.received && this.session.config.judge) handled = await this.session.judged(handled);
    } catch (error) {
      if (!(error instanceof Difference)) throw error;
      this.#refuse(error, exchange, request);
      return;
    }
    exchange.command = handled.command;
    exchange.fields = handled.fields;
    await this.#answer(exchange, handled);
  }

  async #answer(exchange, { command, fields, reply }) {
    const rules = this.#server.misbehaviour.matching(command, { index: exchange.index, connection: this.number });
    const plan = applyRules(rules, reply);
    exchange.rules = rules.map((rule) => rule.kind ?? rule.do);
    exchange.answer = replyFields(plan.reply);
    const wire = encodeReply(plan.reply, reply.key, plan.change);
    this.session.answered(command, plan.reply.status ?? Buffer.alloc(3), plan.spoiled);
    if (command === '0x7219') {
      this.#server.report('monitor', { connection: this.number, raw: fields.raw, record: fields.record });
    }
    if (command === '0x7201' && this.session.mayReturn) this.#server.keep(this.session);
    if (fields.verification) this.#server.report('verification', { connection: this.number, ...fields.verification });
    const sent = await this.#deliver(wire, plan.delivery);
    exchange.response = sent;
    exchange.answeredAt = sent ? now() : null;
    this.#server.report('exchange', exchange);
    if (plan.delivery.then) this.#finish(plan.delivery.then);
  }

  /** Sends an answer; gives the bytes that went out, or null. */
  async #deliver(wire, { delay, silent, pieces, extra }) {
    await this.#pause(this.#server.config.delay + delay);
    if (silent || this.#socket.destroyed) return null;
    const bytes = extra ? Buffer.concat([wire, extra]) : wire;
    if (!pieces) {
      this.#socket.write(bytes);
      return bytes;
    }
    let at = 0;
    for (; at < bytes.length && !this.#socket.destroyed; at += pieces.size) {
      if (at > 0) await this.#pause(pieces.everyMs);
      if (this.#socket.destroyed) break;
      this.#socket.write(bytes.subarray(at, at + pieces.size));
    }
    return bytes.subarray(0, at);
  }

  #hangUp() {
    if (!this.#hungUp) this.session.left();
    this.#hungUp = true;
  }

  #pause(ms) {
    return ms > 0 ? sleep(ms, undefined, { signal: this.#ended.signal }).catch(() => {}) : undefined;
  }

  #note(difference) {
    this.#server.report('difference', difference, this.number);
  }

  /** What is done about a request that is not as it should be. */
  #refuse(difference, exchange, request) {
    this.#note(difference);
    const [what, status] = this.#server.config.onDifference.split(':');
    let response = null;
    this.#received = Buffer.alloc(0); // where the next request begins is no longer certain
    if (what === 'status' && request.length >= 7) {
      response = encodeReply({ code: codeOf(request), header: request[0], status: fromHex(status) });
      this.#socket.write(response);
    } else {
      this.#deaf = true;
      if (what !== 'silence') this.#finish(what);
    }
    if (exchange) {
      this.#server.report('exchange', { ...exchange, response, difference, answeredAt: response ? now() : null });
    } else {
      this.#deaf = true;
    }
  }

  #checkLeftover() {
    if (this.#received.length > 0 && !this.#deaf) {
      const got = `${hex(this.#received)} and then the end of the connection`;
      this.#note(new Difference('request', 'last request', 'a whole frame', got));
    }
  }

  #finish(how) {
    this.#deaf = true;
    if (how === 'reset') this.#socket.resetAndDestroy();
    else this.#socket.end();
  }
}
