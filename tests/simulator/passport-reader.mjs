// A small reader of passports for the tests of the simulated chip; it shares no code with it. It does what is
// documented: Basic Access Control, and files under secure messaging.

import { createCipheriv, createDecipheriv, createHash, randomBytes } from 'node:crypto';

export const bytes = (text) => Buffer.from(text.replace(/\s+/g, ''), 'hex');
export const hex = (data) => data.toString('hex').toUpperCase();
export const sha1 = (data) => createHash('sha1').update(data).digest();

const run = (cipher, data) => Buffer.concat([cipher.setAutoPadding(false).update(data), cipher.final()]);
const vector = Buffer.alloc(8);
export const seal = (key, data) => run(createCipheriv('des-ede-cbc', key, vector), data);
const unseal = (key, data) => run(createDecipheriv('des-ede-cbc', key, vector), data);
const padded = (data) => {
  const out = Buffer.alloc(data.length + 8 - (data.length % 8));
  data.copy(out);
  out[data.length] = 0x80;
  return out;
};
const xor = (a, b) => Buffer.from(a.map((byte, i) => byte ^ b[i]));

/** Retail MAC, block by block: two-key DES with both halves alike is single DES. */
export function retailMac(key, data) {
  const single = (mode, half, block) => run(mode('des-ede', Buffer.concat([half, half]), null), block);
  const [first, second] = [key.subarray(0, 8), key.subarray(8)];
  const all = padded(data);
  let chain = vector;
  for (let at = 0; at < all.length; at += 8) {
    chain = single(createCipheriv, first, xor(chain, all.subarray(at, at + 8)));
  }
  return single(createCipheriv, first, single(createDecipheriv, second, chain));
}

/** DES ignores the parity bits, so they are left as they come. */
const key = (seed, number) => sha1(Buffer.concat([seed, Buffer.of(0, 0, 0, number)])).subarray(0, 16);

export function checkDigit(text) {
  const value = (c) => (c === '<' ? 0 : /\d/.test(c) ? Number(c) : c.charCodeAt(0) - 55);
  return String([...text].reduce((sum, c, i) => sum + value(c) * [7, 3, 1][i % 3], 0) % 10);
}

export class PassportReader {
  constructor(chip, { document, rndIfd = randomBytes(8), kIfd = randomBytes(16) }) {
    Object.assign(this, { chip, document, rndIfd, kIfd, log: [] });
  }

  /** One command; the answer split into data and status. */
  send(command, serial) {
    const { name, answer } = this.chip.respond(command, serial);
    this.log.push({ name, command: hex(command), answer: hex(answer) });
    return { data: answer.subarray(0, -2), status: hex(answer.subarray(-2)) };
  }

  /** Basic Access Control; the status of the last command. */
  open() {
    const { documentNumber, birthDate, expiryDate } = this.document;
    const fields = [documentNumber.toUpperCase().padEnd(9, '<'), birthDate, expiryDate];
    const seed = sha1(Buffer.from(fields.map((field) => field + checkDigit(field)).join(''))).subarray(0, 16);
    const [enc, mac] = [key(seed, 1), key(seed, 2)];
    this.send(bytes('00A4040C07A0000002471001'), 0);
    const { data: rndIc } = this.send(bytes('0084000008'), 1);
    const sealed = seal(enc, Buffer.concat([this.rndIfd, rndIc, this.kIfd]));
    const command = Buffer.concat([bytes('0082000028'), sealed, retailMac(mac, sealed), bytes('28')]);
    const { data, status } = this.send(command, 2);
    if (status !== '9000') return status;
    const answer = unseal(enc, data.subarray(0, 32));
    const session = xor(this.kIfd, answer.subarray(16));
    [this.enc, this.mac] = [key(session, 1), key(session, 2)];
    this.counter = Buffer.concat([rndIc.subarray(4), this.rndIfd.subarray(4)]).readBigUInt64BE();
    return status;
  }

  #mac(data) {
    this.counter = BigInt.asUintN(64, this.counter + 1n);
    const counter = Buffer.alloc(8);
    counter.writeBigUInt64BE(this.counter);
    return retailMac(this.mac, Buffer.concat([counter, data]));
  }

  /** A plain header with data and expected length, protected. */
  protect(header, data, le, pad = padded) {
    const head = bytes(header);
    head[0] = 0x0c;
    const objects = [];
    if (data) {
      const sealed = seal(this.enc, pad(data));
      objects.push(Buffer.of(0x87, sealed.length + 1, 1), sealed);
    }
    if (le !== undefined) objects.push(Buffer.of(0x97, 1, le));
    const body = Buffer.concat(objects);
    const mac = this.#mac(Buffer.concat([padded(head), body]));
    return Buffer.concat([head, Buffer.of(body.length + 10), body, Buffer.of(0x8e, 8), mac, Buffer.of(0)]);
  }

  /** Opens an answer, or tells what is `wrong` with it. Only an answer of 9000 is counted. */
  unprotect({ data, status }) {
    if (status !== '9000') return { status };
    let at = 0;
    let plain = Buffer.alloc(0);
    if (data[0] === 0x87) {
      const long = data[1] > 0x80 ? data[1] & 0x7f : 0;
      const length = long === 0 ? data[1] : data.readUIntBE(2, long);
      at = 2 + long + length;
      plain = unseal(this.enc, data.subarray(3 + long, at));
    }
    const statusObject = data[at] === 0x99 ? data.subarray(at, at + 4) : Buffer.alloc(0);
    const covered = data.subarray(0, at + statusObject.length);
    const mac = data.subarray(covered.length);
    if (hex(mac.subarray(0, 2)) !== '8E08') return { wrong: 'no MAC' };
    if (!this.#mac(covered).equals(mac.subarray(2))) return { wrong: 'wrong MAC' };
    const end = plain.lastIndexOf(0x80);
    return { status, data: plain.length > 0 ? plain.subarray(0, end) : plain, plain };
  }

  command(header, data, le, serial) {
    return this.unprotect(this.send(this.protect(header, data, le), serial));
  }

  select(id, step) {
    return this.command('00A4020C', Buffer.of(id >> 8, id & 0xff), undefined, step).status;
  }

  readBinary(offset, count, step) {
    return this.command(`00B0${hex(Buffer.of(offset >> 8, offset & 0xff))}`, undefined, count, step);
  }

  /** A whole file, or the status that refused it. */
  file(id, step) {
    const selected = this.select(id, step);
    if (selected !== '9000') return selected;
    const first = this.readBinary(0, 4, step + 1);
    if (first.status !== '9000') return first.status;
    const [, form, b, c] = first.data;
    const size = form < 0x80 ? 2 + form : form === 0x81 ? 3 + b : 4 + b * 256 + c;
    let content = first.data;
    while (content.length < size) {
      const chunk = this.readBinary(content.length, Math.min(212, size - content.length), step + 1);
      if (chunk.status !== '9000') return chunk.status;
      content = Buffer.concat([content, chunk.data]);
    }
    return content;
  }

}
