// The simulated decode server, card and chip are strict: of a good read of the library, sent to them once more with anything
// changed, left out or repeated, nothing passes unnoticed.

import assert from 'node:assert/strict';
import { createCipheriv, createDecipheriv } from 'node:crypto';
import { test } from 'node:test';
import { ReadingOrder } from '../../simulator/lib/passport/reading-order.mjs';
import { recordRead, saidOfCommands, saidOfRequests } from './recording.mjs';

const kReads = [['card', await recordRead({ readMode: 2 })], ['card, one file less, slowly', await recordRead({ slow: 450 })],
  ['passport', await recordRead({ passport: { dataGroups: [1, 15] } })]];

const flipped = (bytes, bit) => {
  const other = Buffer.from(bytes);
  other[bit >> 3] ^= 1 << bit % 8;
  return other;
};

/** Each is sent with a bit flipped here and there, twice, or not at all; `said` is what comes of all of them. */
function allNoticed(what, list, key, step, said, other = () => []) {
  assert.equal(said(list), undefined);
  for (const [at, entry] of list.entries()) {
    const noticed = (how, ...instead) => assert.ok(said([...list.slice(0, at), ...instead, ...list.slice(at + 1)]), `${what} ${at}: ${how}`);
    for (let bit = at % 8; bit < entry[key].length * 8; bit += step(entry[key])) noticed(`bit ${bit}`, { ...entry, [key]: flipped(entry[key], bit) });
    for (const changed of other(entry)) noticed('other number', changed);
    if (at > 0) noticed('twice', entry, entry);
    if (at < list.length - 1) noticed('left out');
  }
}

for (const [name, read] of kReads) {
  test(`${name}: commands and requests with a flipped bit, left out and repeated`, () => {
    allNoticed('command', read.commands, 'command', () => 19, (commands) => saidOfCommands(read, commands)[0], (entry) => [{ ...entry, serial: entry.serial + 1 }]);
    allNoticed('request', read.requests, 'request', ({ length }) => (length > 500 ? 203 : 19), (requests) => saidOfRequests(read, requests));
  });
}

// --- the plaintext ---------------------------------------------------------------------------------------------------------

const sum = (bytes) => bytes.reduce((total, byte) => (total + byte) & 0xff, 0);
const cipherOf = (make, { key, vector }) => make('sm4-cbc', key, vector);
const run = (cipher, data) => Buffer.concat([cipher.update(data), cipher.final()]);

/**
 * What is encrypted in a request, and how to put the request together around something else: the frame's head and what stands
 * in front of the cryptogram stay, checksums are made to fit.
 */
function takeApart(request, block) {
  const long = request[0] === 0x72 && [0x7201, 0x7202].includes(request.readUInt16BE(5));
  const command = request.readUInt16BE(long ? 5 : 3);
  const start = (long ? 12 : 10) + ([0x7202, 0x7219].includes(command) ? 16 : 0);
  const plain = run(cipherOf(createDecipheriv, block), request.subarray(start, -1));
  const sumAt = command === 0x7219 ? plain.length - 1 : (long ? plain.readUInt32BE(3) : plain.readUInt16BE(3)) - 3; // two bytes may follow the end
  const from = command === 0x7219 ? 0 : 3;
  return { command, plain, sumAt, rebuild: (other) => {
    other[sumAt] = sum(other.subarray(from, sumAt));
    const whole = Buffer.concat([request.subarray(0, start), run(cipherOf(createCipheriv, block), other)]);
    return Buffer.concat([whole, Buffer.of(sum(whole.subarray(1)))]);
  } };
}

/** Places of the plaintext that may hold anything: random numbers, the challenge of a card, two times in the report. */
const kFree = {
  0x5001: (i) => i >= 7 && i < 11, 0x7201: (i) => i >= 9 && i < 13,
  0x5022: (i) => i >= 7 && i < 15, 0x5032: (i) => i >= 17 && i < 25,
  0x7219: (i, plain) => /"(decode_times|time_delay)": \d*$/.test(plain.toString('latin1', 0, i)) && /\d/.test(String.fromCharCode(plain[i] ^ 1)),
};

for (const [name, read] of kReads) {
  test(`${name}: a byte changed inside, with checksums that fit`, () => {
    const { requests } = read;
    for (let at = 1; at < requests.length; at += 1) {
      const session = read.openSession();
      saidOfRequests(read, requests.slice(0, at), session);
      const { request, connection } = requests[at];
      const { command, plain, sumAt, rebuild } = takeApart(request, session.key);
      assert.deepEqual(rebuild(Buffer.from(plain)), request);
      for (let i = 0; i < plain.length; i += plain.length > 500 && i < plain.length - 40 ? 31 : 1) {
        if (i === sumAt) continue;
        const other = Buffer.from(plain);
        other[i] ^= 1;
        const said = saidOfRequests(read, [...requests.slice(0, at), { request: rebuild(other), connection }]);
        const free = kFree[command]?.(i, plain) ?? false;
        assert.equal(said === undefined, free, `0x${command.toString(16)}, byte ${i} of ${plain.length}: ${said}`);
      }
    }
  });
}

// --- the order in which a passport is read -----------------------------------------------------------------------------------

test('the order of a passport\'s commands, their forms and numbers', () => {
  const calls = [];
  const methods = Object.fromEntries(['check', 'answered', 'taken'].map((method) => [method, ReadingOrder.prototype[method]]));
  for (const [method, original] of Object.entries(methods)) {
    ReadingOrder.prototype[method] = function watching(...args) {
      calls.push([method, args]);
      return original.apply(this, args);
    };
  }
  saidOfCommands(kReads[2][1], kReads[2][1].commands);
  Object.assign(ReadingOrder.prototype, methods);
  const saidAt = (end, ...args) => {
    const order = new ReadingOrder(1);
    for (const [method, earlier] of calls.slice(0, end)) order[method](...earlier);
    return order.check(...args);
  };
  const checks = calls.map(([method], i) => (method === 'check' ? i : -1)).filter((i) => i >= 0);
  for (const [nth, i] of checks.entries()) {
    const [name, text, serial] = calls[i][1];
    assert.ok(saidAt(i, name, text, serial + 1), `number of ${name}`);
    if (nth + 1 < checks.length) assert.ok(saidAt(i, ...calls[checks[nth + 1]][1]), `${name} left out`);
    const free = { 'EXTERNAL AUTHENTICATE': 90, 'INTERNAL AUTHENTICATE': 26 }[name] ?? 0; // random from the tenth digit to here
    for (let digit = 0; digit < text.length; digit += 1) {
      const other = text.slice(0, digit) + (text[digit] === 'F' ? '0' : 'F') + text.slice(digit + 1);
      assert.equal(saidAt(i, name, other, serial) === undefined, digit >= 10 && digit < free, `${other} as ${name}`);
    }
  }
});
