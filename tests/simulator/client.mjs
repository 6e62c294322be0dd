// A bare client of the decode server, written from the message layouts alone: it shares no code with the
// simulator that it talks to. Every request is a list of fields.

import { createCipheriv, createDecipheriv, createHash, randomBytes } from 'node:crypto';
import { connect } from 'node:net';

const bytes = (...fields) => Buffer.concat(fields.map((field) =>
  typeof field === 'string' ? Buffer.from(field.replaceAll(' ', ''), 'hex') : Buffer.from(field)));
const be16 = (value) => [value >> 8, value & 0xff];
const sum = (data) => [data.reduce((total, byte) => total + byte, 0) % 256];
const sm3 = (data) => createHash('sm3').update(data).digest();
const fold = (key) => sm3(key).subarray(0, 16).map((byte, i) => byte ^ sm3(key)[i + 16]);

function seal(key, data) {
  const cipher = createCipheriv('sm4-cbc', key.subarray(0, 16), key.subarray(16));
  return bytes(cipher.update(data), cipher.final());
}

function open(key, data) {
  const decipher = createDecipheriv('sm4-cbc', key.subarray(0, 16), key.subarray(16));
  return bytes(decipher.update(data), decipher.final());
}

function frame(command, type, parameter, payload, header = '70') {
  const body = bytes(be16(payload.length + 11), command, '00 09', be16(parameter), type, payload);
  return bytes(header, body, sum(body));
}

function secret(key, command, data) {
  const body = bytes(be16(data.length + 10), command, data);
  return frame(command, 'AA', 7, seal(key, bytes('FFFFFF', body, sum(body), 'FEFE')));
}

const be32 = (value) => bytes(be16(Math.floor(value / 65536)), be16(value % 65536));

/** The long form, for a passport: four bytes for each length, and a token in front of what is encrypted. */
function longSecret(key, command, data, token = '') {
  const inner = bytes(be32(data.length + 12), command, data);
  const payload = bytes(token, seal(key, bytes('FFFFFF', inner, sum(inner), 'FEFE')));
  const body = bytes(be32(payload.length + 13), command, '00 09 0007 AA', payload);
  return bytes('72', body, sum(body));
}

/** One conversation. `card` holds a card's secrets as hexadecimal text. */
export class Client {
  #socket;
  #waiting = [];
  #received = Buffer.alloc(0);

  constructor({ identity, protocolKey, card, header = '70' }) {
    Object.assign(this, { identity, protocolKey: bytes(protocolKey, fold(bytes(protocolKey))), card, header });
    this.random = randomBytes(16);
    this.key = bytes(this.random, fold(this.random));
  }

  connect(port) {
    this.#received = Buffer.alloc(0);
    this.#socket = connect(port, '127.0.0.1');
    const socket = this.#socket;
    socket.on('data', (data) => this.#settle(data));
    socket.on('close', () => socket === this.#socket && this.#settle(null));
    socket.on('error', () => {});
    return new Promise((resolve) => socket.once('connect', resolve));
  }

  #settle(data) {
    if (data) this.#received = bytes(this.#received, data);
    const all = this.#received;
    const long = all[0] === 0x72 && all[5] === 0x72 && all[6] < 3;
    if (data && (all.length < 7 || all.length < (long ? all.readUInt32BE(1) : all.readUInt16BE(1)))) return;
    this.#waiting.shift()?.(data ? all : null);
    this.#received = Buffer.alloc(0);
  }

  /** Sends bytes; gives the answer, or null when the server hangs up instead. */
  exchange(request) {
    return new Promise((resolve) => {
      this.#waiting.push(resolve);
      this.#socket.write(request);
    });
  }

  close() {
    this.#socket.destroy();
  }

  authentication({ terId = this.identity.terId, tail = '02' } = {}) {
    const { appid, packageName, reqidType, sn } = this.identity;
    const block = bytes([0x00, 0x10, terId], Buffer.from(appid), [reqidType * 16 + 1], sm3(packageName), '0F',
      'FF'.repeat(16), [sn.length], Buffer.from(sn), 'FF'.repeat(16), tail);
    const envelope = bytes('0013', this.random);
    const sealed = seal(this.key, bytes(block, sum(block)));
    const body = bytes('10', Buffer.from(appid), sealed, seal(this.protocolKey, bytes(envelope, sum(envelope))));
    return frame('7500', 'A8', sealed.length + 28, body, this.header);
  }

  /** Takes the session's key and business id from the answer to `authentication`. */
  accept(answer) {
    const block = open(this.key, answer.subarray(11, -1));
    this.key = bytes(block.subarray(2, 18), this.key.subarray(16));
    const end = 20 + block[19];
    return { businessId: block.toString('utf8', 20, end), stickCardId: block.toString('hex', end, end + 16) };
  }

  first({ byteB = '11' } = {}) {
    const { sn, decodeMode, readMode } = this.identity;
    const byteA = [(readMode === 1 ? 16 : 0) + decodeMode];
    return secret(this.key, '5001', bytes('01020304', [sn.length], Buffer.from(sn), byteA, byteB, '00 20',
      this.card.managementData));
  }

  relay(command, data) {
    return secret(this.key, command, bytes(data, '9000'));
  }

  /** 0x7201: the same opening as 0x5001. */
  start({ byteC = '00' } = {}) {
    const { sn, decodeMode, readMode } = this.identity;
    const byteA = [(readMode === 1 ? 16 : 0) + decodeMode];
    return longSecret(this.key, '7201', bytes('01020304', [sn.length], Buffer.from(sn), byteA, '11', byteC));
  }

  /** Keeps the token of the answer to `start`. */
  takeToken(answer) {
    this.token = open(this.key, answer.subarray(13, -1));
    return this.token;
  }

  /** 0x7202. `files` by identifier; `change` may replace parts of the request, `token` what stands in front. */
  files(files, { answer = '', challenge = '00'.repeat(8), times = '00000000', token = this.token, tail = '',
    change = {} } = {}) {
    const block = (data) => bytes(be16(bytes(data ?? '').length), data ?? '');
    const slots = [...Array.from({ length: 16 }, (_, i) => 0x101 + i), 0x11d];
    const data = bytes(...slots.map((id) => change[id] ?? block(files.get(id))), block(answer), challenge,
      change[0x11e] ?? block(files.get(0x11e)), times, tail);
    return longSecret(this.key, '7202', data, token);
  }

  /** Flag byte and data of a long answer. */
  documentOf(answer) {
    const payload = answer.subarray(13, -1);
    return { flag: payload[0], data: payload[0] === 1 ? open(this.key, payload.subarray(1)) : payload.subarray(1) };
  }

  monitor(text, prefix = '00'.repeat(16)) {
    const report = bytes(be16(Buffer.byteLength(text) + 3), Buffer.from(text));
    return frame('7219', '19', 7, bytes(prefix, seal(this.key, bytes(report, sum(report)))), this.header);
  }
}
