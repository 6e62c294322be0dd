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

function frame(command, type, parameter, payload) {
  const body = bytes(be16(payload.length + 11), command, '00 09', be16(parameter), type, payload);
  return bytes('70', body, sum(body));
}

function secret(key, command, data, timing = '') {
  const body = bytes(be16(data.length + 10), command, data);
  return frame(command, 'AA', 7, seal(key, bytes('FFFFFF', body, sum(body), 'FEFE', timing)));
}

/** One conversation. `card` holds a card's secrets as hexadecimal text. */
export class Client {
  #socket;
  #waiting = [];
  #received = Buffer.alloc(0);

  constructor({ identity, protocolKey, card }) {
    Object.assign(this, { identity, protocolKey: bytes(protocolKey, fold(bytes(protocolKey))), card });
    this.random = randomBytes(16);
    this.key = bytes(this.random, fold(this.random));
  }

  connect(port) {
    this.#socket = connect(port, '127.0.0.1');
    this.#socket.on('data', (data) => this.#settle(data));
    this.#socket.on('close', () => this.#settle(null));
    this.#socket.on('error', () => {});
    return new Promise((resolve) => this.#socket.once('connect', resolve));
  }

  #settle(data) {
    if (data) this.#received = bytes(this.#received, data);
    const whole = this.#received.length >= 3 && this.#received.length >= this.#received.readUInt16BE(1);
    if (data && !whole) return;
    this.#waiting.shift()?.(data ? this.#received : null);
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
    return frame('7500', 'A8', sealed.length + 28, body);
  }

  /** Takes the session's key, business id and timing switch from the answer to `authentication`. */
  accept(answer, opaque = 0) {
    const block = open(this.key, answer.subarray(11 + opaque, -1));
    this.key = bytes(block.subarray(2, 18), this.key.subarray(16));
    const end = 20 + block[19];
    return { businessId: block.toString('utf8', 20, end), stickCardId: block.toString('hex', end, end + 16),
      timing: block[end + 16] >> 4, whole: block.readUInt16BE(0) === block.length };
  }

  /** Data of the secret frame in an answer. */
  secretOf(answer) {
    return open(this.key, answer.subarray(11, -1)).subarray(7, -3);
  }

  /** Flag byte and data of a result answer. */
  resultOf(answer) {
    const payload = answer.subarray(11, -1);
    return { flag: payload[0], data: payload[0] === 1 ? open(this.key, payload.subarray(1)) : payload.subarray(1) };
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

  #files() {
    return bytes(this.card.managementData, '6011', this.card.file6011, '6012', this.card.file6012);
  }

  decodeShort() {
    return secret(this.key, '6002', this.#files());
  }

  decodeFull(timing = '00000000') {
    return secret(this.key, '6102', bytes(this.#files(), 'FF'.repeat(64)), timing);
  }

  decodeLast(timing = '00000000') {
    return secret(this.key, '6113', bytes(this.card.file6013, 'FF'.repeat(64)), timing);
  }

  monitor(text) {
    const report = bytes(be16(Buffer.byteLength(text) + 3), Buffer.from(text));
    return frame('7219', '19', 7, bytes('00'.repeat(16), seal(this.key, bytes(report, sum(report)))));
  }
}
