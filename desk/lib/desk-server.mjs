// The desk's page and what it asks for. It listens on 127.0.0.1 alone, and answers nobody but the page that was opened with the
// address of the terminal: the token in that address is good once, and gives a key that stays in the page.

import { createHash, randomBytes, timingSafeEqual } from 'node:crypto';
import { readFileSync, readdirSync } from 'node:fs';
import { createServer } from 'node:http';
import { extname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { reportOf } from './report.mjs';
import { traceOf } from './trace.mjs';

const kPage = fileURLToPath(new URL('../page/', import.meta.url));
const kHost = '127.0.0.1';
const kTypes = { '.html': 'text/html', '.css': 'text/css', '.mjs': 'text/javascript', '.svg': 'image/svg+xml' };
const kMostBody = 1 << 14;
const kAlive = 15000; // milliseconds between signs of life

const HEADERS = {
  'Content-Security-Policy': [`default-src 'none'`, `script-src 'self'`, `style-src 'self'`, `img-src 'self' data:`, `connect-src 'self'`,
    `form-action 'none'`, `frame-ancestors 'none'`, `base-uri 'none'`, `require-trusted-types-for 'script'`].join('; '),
  'X-Content-Type-Options': 'nosniff', 'Referrer-Policy': 'no-referrer', 'Cache-Control': 'no-store',
  'Cross-Origin-Opener-Policy': 'same-origin', 'Cross-Origin-Resource-Policy': 'same-origin',
  'Permissions-Policy': 'camera=(), geolocation=(), microphone=()',
};

const secret = () => randomBytes(24).toString('base64url');
const digest = (text) => createHash('sha256').update(String(text)).digest();
const same = (a, b) => timingSafeEqual(digest(a), digest(b));

/** A refusal: status and words. */
class Refusal extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

export class DeskServer {
  #desk;
  #files;
  #listener;
  #token = null;
  #keys = [];

  /** @param {object} desk  store; state(): what the page begins with; start(choice): a new read; cancel(id) */
  constructor(desk) {
    this.#desk = desk;
    const names = readdirSync(kPage).filter((name) => extname(name) in kTypes);
    this.#files = new Map(names.map((name) => [`/${name}`, { type: kTypes[extname(name)], bytes: readFileSync(join(kPage, name)) }]));
    this.#files.set('/', this.#files.get('/index.html'));
  }

  async start(port = 0) {
    this.#listener = createServer((request, response) => this.#answer(request, response));
    await new Promise((resolve, reject) => {
      this.#listener.once('error', reject).listen(port, kHost, resolve);
    });
    this.port = this.#listener.address().port;
    return this;
  }

  /** An address that opens the page, once. Any earlier one that has not been used is void. */
  newAddress() {
    this.#token = secret();
    return `http://${kHost}:${this.port}/#token=${this.#token}`;
  }

  async stop() {
    this.#listener.close();
    this.#listener.closeAllConnections();
  }

  async #answer(request, response) {
    for (const [name, value] of Object.entries(HEADERS)) response.setHeader(name, value);
    try {
      if (request.headers.host !== `${kHost}:${this.port}`) throw new Refusal(421, 'this desk has another address');
      const [pathname] = request.url.split('?', 1);
      if (pathname.startsWith('/api/')) await this.#api(request, response, pathname.slice(5));
      else this.#file(request, response, pathname);
    } catch (error) {
      if (response.headersSent) response.destroy();
      else this.#send(response, error.status ?? 500, { error: error.message });
    }
  }

  #file(request, response, pathname) {
    const file = this.#files.get(pathname);
    if (!file || !['GET', 'HEAD'].includes(request.method)) throw new Refusal(404, 'there is nothing here');
    response.writeHead(200, { 'Content-Type': `${file.type}; charset=utf-8` }).end(request.method === 'HEAD' ? undefined : file.bytes);
  }

  #send(response, status, value) {
    response.writeHead(status, { 'Content-Type': 'application/json; charset=utf-8' }).end(JSON.stringify(value));
  }

  async #api(request, response, path) {
    const { origin } = request.headers;
    if (origin !== undefined && origin !== `http://${kHost}:${this.port}`) throw new Refusal(403, 'another page may not ask this');
    if (path === 'session' && request.method === 'POST') return this.#send(response, 200, { key: this.#open(await bodyOf(request)) });
    const given = /^Bearer (.+)$/.exec(request.headers.authorization ?? '')?.[1];
    if (given === undefined || !this.#keys.some((key) => same(key, given))) throw new Refusal(401, 'open the address that the terminal shows');
    const { store } = this.#desk;
    if (path === 'events') return this.#stream(request, response);
    if (path === 'state') return this.#send(response, 200, { ...this.#desk.state(), reads: store.summaries, lastEvent: store.lastEvent });
    if (path === 'reads' && request.method === 'POST') return this.#send(response, 201, await this.#desk.start(await bodyOf(request)));
    const [, id, what] = /^reads\/(\d+)(?:\/(.+))?$/.exec(path) ?? [];
    const record = store.get(Number(id));
    if (!record) throw new Refusal(404, 'there is no such read any more');
    return this.#read(request, response, record, what);
  }

  #read(request, response, record, what) {
    const step = /^steps\/(\d+)$/.exec(what ?? '');
    if (step) {
      const parts = record.apart(Number(step[1]));
      if (!parts) throw new Refusal(404, 'there is no such step');
      return this.#send(response, 200, parts);
    }
    if (what === undefined && request.method === 'DELETE') {
      if (record.running) throw new Refusal(409, 'the read is running');
      this.#desk.store.forget(record.id);
      return this.#send(response, 200, {});
    }
    if (what === undefined) return this.#send(response, 200, record.detail);
    if (what === 'cancel' && request.method === 'POST') {
      this.#desk.cancel(record.id);
      return this.#send(response, 200, {});
    }
    if (what === 'report') return response.writeHead(200, { 'Content-Type': 'text/html; charset=utf-8' }).end(reportOf(record));
    if (what === 'trace') return this.#send(response, 200, traceOf(record));
    throw new Refusal(404, 'there is nothing here');
  }

  #open({ token }) {
    if (this.#token === null || typeof token !== 'string' || !same(token, this.#token)) {
      throw new Refusal(403, 'This address is not good, or has been used. Press Enter in the terminal for a new one.');
    }
    this.#token = null;
    const key = secret();
    this.#keys.push(key);
    return key;
  }

  /** Server-sent events, from the one that the page has seen last. */
  #stream(request, response) {
    const { store } = this.#desk;
    response.writeHead(200, { 'Content-Type': 'text/event-stream; charset=utf-8' });
    const write = ({ id, name, data }) => response.write(`id: ${id}\nevent: ${name}\ndata: ${JSON.stringify(data)}\n\n`);
    const missed = store.since(Number(request.headers['last-event-id'] ?? store.lastEvent));
    if (missed) missed.forEach(write);
    else response.write('event: reset\ndata: {}\n\n');
    const alive = setInterval(() => response.write(': \n\n'), kAlive);
    store.on('event', write);
    response.on('close', () => {
      clearInterval(alive);
      store.off('event', write);
    });
    response.write(': \n\n');
  }
}

async function bodyOf(request) {
  let text = '';
  for await (const part of request) {
    text += part;
    if (text.length > kMostBody) throw new Refusal(413, 'too much');
  }
  try {
    return Object(JSON.parse(text));
  } catch {
    throw new Refusal(400, 'not JSON');
  }
}
