// A TLS 1.2 server for one connection that can be told to do anything wrong, and that checks every byte of the client
// meanwhile. Written from RFC 5246 on Node's hashes and AES; RC4 is here because Node has it no more.
//
// What the server sends is a list of items:
//   Buffer                     a handshake message
//   { type, content, ... }     a record, protected like the others (see record and Protection.seal); sent `twice`, or `lost`;
//                              `whole` is the handshake message that it ends
//   { raw }                    bytes
//   'keys'                     turns on the protection of what follows
//   'finished', { wrongFinished: n }   the Finished message that belongs here, and with its byte n changed
//   { fin }, { reset }         the end of the TCP stream, and by a reset
// A plan changes it: suite, key, chain, hello (fields of the ServerHello), requestCertificate, first and closing (functions
// from the usual items of the two flights to others), cut (longest fragment of handshake messages, which are joined
// first), segment (bytes of a TCP segment), started and after (functions of the server, when it starts and behind its
// Finished; the latter may be async), lastWords (items sent when the client has closed).

import assert from 'node:assert/strict';
import { createCipheriv, createDecipheriv, createHash, createHmac, randomBytes } from 'node:crypto';
import { setImmediate as nextTurn } from 'node:timers/promises';

export const kCcs = 20, kAlert = 21, kHandshake = 22, kData = 23;
export const kWarning = 1, kFatal = 2;
export const kSuites = {
  0x3c: { cipher: 'aes', hash: 'sha256', macLength: 32 },
  0x2f: { cipher: 'aes', hash: 'sha1', macLength: 20 },
  0x05: { cipher: 'rc4', hash: 'sha1', macLength: 20 },
  0x04: { cipher: 'rc4', hash: 'md5', macLength: 16 },
};

export const number = (value, width) => Buffer.from(value.toString(16).padStart(2 * width, '0'), 'hex');
export const hex = (text) => Buffer.from(text.replaceAll(' ', ''), 'hex');
const vector = (width, ...parts) => Buffer.concat([number(Buffer.concat(parts).length, width), ...parts]);
export const message = (type, ...parts) => Buffer.concat([Buffer.from([type]), vector(3, ...parts)]);
export const alert = (level, description) => ({ type: kAlert, content: Buffer.from([level, description]) });
export const data = (content) => ({ type: kData, content: Buffer.from(content) });
export const kHelloRequest = message(0);
export const kChangeCipherSpec = { type: kCcs, content: Buffer.from([1]) };
export const kRenegotiationInfo = [0xff01, hex('00')];

const hmac = (hash, key, ...parts) => createHmac(hash, key).update(Buffer.concat(parts)).digest();

function prf(secret, label, seed, length) {
  const all = Buffer.concat([Buffer.from(label), seed]);
  const pieces = [];
  for (let a = all; pieces.length * 32 < length; pieces.push(hmac('sha256', secret, a, all))) a = hmac('sha256', secret, a);
  return Buffer.concat(pieces).subarray(0, length);
}

function rc4(key) {
  const s = Uint8Array.from({ length: 256 }, (_, i) => i);
  const swap = (i, j) => ([s[i], s[j]] = [s[j], s[i]]);
  let [i, j] = [0, 0];
  for (; i < 256; ++i) swap(i, j = (j + s[i] + key[i % key.length]) & 255);
  [i, j] = [0, 0];
  return (bytes) => Buffer.from(bytes).map((byte) => {
    swap(i = (i + 1) & 255, j = (j + s[i]) & 255);
    return byte ^ s[(s[i] + s[j]) & 255];
  });
}

// One direction of protected records.
class Protection {
  constructor({ cipher, hash, macLength }, macKey, key) {
    Object.assign(this, { hash, macLength, macKey, key, sequence: 0n, vectors: new Set(), rc4: cipher === 'rc4' && rc4(key) });
  }

  mac(type, content, version = 0x0303) {
    return hmac(this.hash, this.macKey, number(this.sequence++, 8), number(type, 1), number(version, 2), vector(2, content));
  }

  // `damage` sees { mac, padding } and may change them; extraBlocks makes the padding longer. The MAC is made for another
  // type or version, or with the number `skip` further; RC4 starts anew when it is rewound.
  seal(type, content, { damage = () => {}, extraBlocks = 0, macType = type, macVersion, skip = 0n, rewound = false } = {}) {
    this.sequence += skip;
    const parts = { mac: this.mac(macType, content, macVersion), padding: Buffer.alloc(0) };
    if (rewound) this.rc4 = rc4(this.key);
    if (this.rc4) return damage(parts), this.rc4(Buffer.concat([content, parts.mac]));
    const length = 16 - ((content.length + this.macLength) % 16) + 16 * extraBlocks;
    parts.padding = Buffer.alloc(length, length - 1);
    damage(parts);
    const iv = randomBytes(16);
    const aes = createCipheriv('aes-128-cbc', this.key, iv).setAutoPadding(false);
    return Buffer.concat([iv, aes.update(Buffer.concat([content, parts.mac, parts.padding])), aes.final()]);
  }

  open(type, fragment) {
    const plain = this.rc4 ? this.rc4(fragment) : this.#decrypt(fragment);
    assert.ok(plain.length >= this.macLength, 'a record holds a MAC');
    const content = plain.subarray(0, plain.length - this.macLength);
    assert.deepEqual(plain.subarray(content.length), this.mac(type, content), 'MAC of the client');
    return content;
  }

  #decrypt(fragment) {
    assert.ok(fragment.length >= 32 && fragment.length % 16 === 0, 'whole blocks');
    const iv = fragment.subarray(0, 16);
    assert.ok(!this.vectors.has(iv.toString('hex')), 'a vector is fresh');
    for (let i = 0; i < fragment.length; i += 16) this.vectors.add(fragment.toString('hex', i, i + 16));
    const aes = createDecipheriv('aes-128-cbc', this.key, iv).setAutoPadding(false);
    const blocks = Buffer.concat([aes.update(fragment.subarray(16)), aes.final()]);
    const length = blocks.at(-1) + 1;
    assert.ok(length <= 16, 'the shortest padding');
    assert.deepEqual(blocks.subarray(-length), Buffer.alloc(length, length - 1), 'padding of the client');
    return blocks.subarray(0, -length);
  }
}

// Walks a client's bytes; whoever reads too far or leaves something fails.
class Walk {
  constructor(bytes) { this.bytes = bytes; }
  take(n) {
    assert.ok(n <= this.bytes.length, 'the client wrote enough');
    const taken = this.bytes.subarray(0, n);
    this.bytes = this.bytes.subarray(n);
    return taken;
  }
  number(width) { return this.take(width).readUIntBE(0, width); }
  vector(width) { return this.take(this.number(width)); }
  end() { assert.equal(this.bytes.length, 0, 'nothing is left over'); }
}

function parseClientHello(body) {
  const w = new Walk(body);
  const hello = { version: w.number(2), random: w.take(32), session: w.vector(1), suites: w.vector(2), compression: w.vector(1) };
  const list = new Walk(w.vector(2));
  w.end();
  hello.extensions = {};
  while (list.bytes.length > 0) {
    const type = list.number(2);
    assert.ok(!(type in hello.extensions), 'an extension comes once');
    hello.extensions[type] = list.vector(2);
  }
  return hello;
}

class Ended extends Error {}

export class ScriptedServer {
  constructor(socket, plan) {
    const [input, handshake] = [Buffer.alloc(0), Buffer.alloc(0)];
    Object.assign(this, { socket, plan, alerts: [], received: [], input, handshake, transcript: createHash('sha256') });
    socket.setNoDelay(true).on('error', () => {});
    this.source = socket[Symbol.asyncIterator]();
    this.random = randomBytes(32);
  }

  async run() {
    try {
      await this.#talk();
    } catch (error) {
      if (!(error instanceof Ended)) this.fault = error;
    }
    this.socket.end();
  }

  async #talk() {
    const { plan } = this;
    plan.started?.(this);
    this.hello = parseClientHello(await this.#message(1));
    await this.send((plan.first ?? ((items) => items))(this.#firstFlight()));
    if (plan.requestCertificate) assert.equal((await this.#message(11)).toString('hex'), '000000');
    this.#makeKeys(await this.#message(16));
    const spec = await this.#record();
    assert.deepEqual([spec.type, spec.content.toString('hex')], [kCcs, '01']);
    this.reading = this.keys.client;
    const verifyData = this.#verifyData('client');
    assert.deepEqual(await this.#message(20), verifyData);
    await this.send((plan.closing ?? ((items) => items))([kChangeCipherSpec, 'keys', 'finished']));
    await plan.after?.(this);
    await this.drain();
  }

  #firstFlight() {
    const { hello = {}, chain = [], requestCertificate } = this.plan;
    const { version = 0x0303, session = Buffer.alloc(0), suite = this.plan.suite ?? 0x3c, compression = 0 } = hello;
    const { extensions = [kRenegotiationInfo], tail = Buffer.alloc(0) } = hello;
    const list = extensions.map(([type, content]) => Buffer.concat([number(type, 2), vector(2, content)]));
    const items = [
      message(2, number(version, 2), this.random, vector(1, session), number(suite, 2), number(compression, 1),
        ...(extensions.length ? [vector(2, ...list)] : []), tail),
      message(11, vector(3, ...chain.map((certificate) => vector(3, certificate)))),
    ];
    if (requestCertificate) items.push(message(13, requestCertificate));
    return [...items, message(14)];
  }

  #makeKeys(body) {
    const { key } = this.plan;
    const suite = kSuites[this.plan.suite ?? 0x3c];
    const w = new Walk(body);
    const encrypted = w.vector(2);
    w.end();
    assert.equal(encrypted.length, key.length, 'a ciphertext as long as the modulus');
    const plain = key.decrypt(encrypted);
    assert.equal(plain.indexOf(0, 2), key.length - 49, 'padding without a zero');
    this.padding = plain.subarray(2, -49);
    const premaster = plain.subarray(-48);
    assert.deepEqual([plain.toString('hex', 0, 2), premaster.toString('hex', 0, 2)], ['0002', '0303'], 'the version offered');
    this.master = prf(premaster, 'master secret', Buffer.concat([this.hello.random, this.random]), 48);
    const seed = Buffer.concat([this.random, this.hello.random]);
    const block = new Walk(prf(this.master, 'key expansion', seed, 2 * suite.macLength + 32));
    const macKeys = [block.take(suite.macLength), block.take(suite.macLength)];
    const [client, server] = macKeys.map((macKey) => new Protection(suite, macKey, block.take(16)));
    this.keys = { client, server };
  }

  #verifyData(side) {
    return prf(this.master, `${side} finished`, this.transcript.copy().digest(), 12);
  }

  // --- reading ---

  async #bytes(n) {
    while (this.input.length < n) {
      const { value, done } = await this.source.next().catch(() => ({ done: true }));
      if (done) throw new Ended('the client has closed');
      this.input = Buffer.concat([this.input, value]);
    }
    return this.#front('input', n);
  }

  #front(name, n) {
    const taken = this[name].subarray(0, n);
    this[name] = this[name].subarray(n);
    return taken;
  }

  // The next record that is not an alert.
  async #record() {
    for (;;) {
      const head = new Walk(await this.#bytes(5));
      const [type, version, length] = [head.number(1), head.number(2), head.number(2)];
      const early = !this.hello || (type === kAlert && !this.keys); // before the version has been agreed upon
      assert.ok(version === 0x0303 || (early && version === 0x0301), 'version of a client record');
      assert.ok(this.hello || version === 0x0301, 'version of the first record');
      let content = await this.#bytes(length);
      if (this.reading) content = this.reading.open(type, content);
      assert.ok(content.length > 0 && content.length <= 16384, 'length of a client record');
      if (type !== kAlert) return { type, content };
      assert.equal(content.length, 2, 'length of an alert');
      this.alerts.push([...content]);
      if (content[1] === 0) await this.send(this.plan.lastWords ?? []);
      if (content[0] === kFatal || content[1] === 0) this.socket.end();
    }
  }

  async #message(type) {
    const more = async (n) => {
      while (this.handshake.length < n) {
        const record = await this.#record();
        assert.equal(record.type, kHandshake, 'a handshake record');
        this.handshake = Buffer.concat([this.handshake, record.content]);
      }
    };
    await more(4);
    const length = this.handshake.readUIntBE(1, 3);
    await more(4 + length);
    const whole = this.#front('handshake', 4 + length);
    assert.equal(whole[0], type, 'the message that comes next');
    if (type === 20) assert.equal(this.handshake.length, 0);
    if (type === 20) this.finishedMessage = whole; // the Finished of the server covers it
    else this.transcript.update(whole);
    return whole.subarray(4);
  }

  // Reads application data and alerts to the client's end.
  async drain(enough = Infinity) {
    for (let total = 0; total < enough;) {
      const { type, content } = await this.#record();
      assert.equal(type, kData);
      this.received.push(content);
      total += content.length;
    }
  }

  // --- writing ---

  // The bytes of one record. Options: version, the fragment (instead of a protected one), those of Protection.seal.
  record({ type, content, version = 0x0303, fragment, ...options }) {
    const sealed = fragment ?? (this.writing ? this.writing.seal(type, content, options) : content);
    return Buffer.concat([number(type, 1), number(version, 2), number(sealed.length, 2), sealed]);
  }

  async send(items) {
    const { cut = 16384, segment } = this.plan;
    const out = [];
    let waiting = [];
    const flush = () => {
      const all = Buffer.concat(waiting);
      for (let at = 0; at < all.length; at += cut) {
        out.push(this.record({ type: kHandshake, content: all.subarray(at, at + cut) }));
      }
      waiting = [];
    };
    for (let item of items) {
      if (item === 'finished') item = this.finished();
      if (item.wrongFinished !== undefined) item = this.finished(item.wrongFinished);
      if (Buffer.isBuffer(item)) {
        if (item[0] !== 0) this.transcript.update(item);
        waiting.push(item);
        if (!this.plan.cut) flush();
        continue;
      }
      flush();
      if (item.whole) this.transcript.update(item.whole);
      if (item === 'keys') this.writing = this.keys.server;
      else if (item.raw) out.push(item.raw);
      else if (item.fin || item.reset) out.push(item);
      else if (item.lost) this.record(item);
      else out.push(...Array(item.twice ? 2 : 1).fill(this.record(item)));
    }
    flush();
    for (const bytes of out) {
      if (bytes.fin) this.socket.end();
      else if (bytes.reset) this.socket.resetAndDestroy();
      else if (!segment) this.socket.write(bytes);
      else await this.#trickle(bytes, segment);
    }
  }

  async #trickle(bytes, segment) {
    for (let at = 0; at < bytes.length; at += segment) {
      this.socket.write(bytes.subarray(at, at + segment));
      await nextTurn();
    }
  }

  // With one byte changed at the place given.
  finished(wrongAt) {
    if (this.finishedMessage) this.transcript.update(this.finishedMessage);
    this.finishedMessage = undefined;
    const verifyData = this.#verifyData('server');
    if (wrongAt !== undefined) verifyData[wrongAt] ^= 0x10;
    return message(20, verifyData);
  }
}
