// The simulated decode server, card and chip are strict: of a good read of the library, sent to them once more with anything
// changed, left out or repeated, nothing passes unnoticed.

import assert from 'node:assert/strict';
import { createCipheriv, createDecipheriv } from 'node:crypto';
import { test } from 'node:test';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';
import { packPassport } from '../../simulator/lib/passport-persona.mjs';
import { ReadingOrder } from '../../simulator/lib/passport/reading-order.mjs';
import { issuePassport } from '../../simulator/lib/passport/specimen.mjs';
import { recordReads, saidOfCommands, saidOfRequests } from './recording.mjs';

const kPassport = packPassport(issuePassport({ dataGroups: [1, 15] }));
const secrets = new IdentityCard().secrets();
const kNames = ['card', 'card, one file less, slowly', 'passport'];
const kRecorded = await recordReads([{ secrets, readMode: 2 }, { secrets, readMode: 1, slow: 250 }, { passport: kPassport, readMode: 1 }]);
const kReads = kRecorded.map((read, i) => [kNames[i], read]);

const flipped = (bytes, bit) => {
  const other = Buffer.from(bytes);
  other[bit >> 3] ^= 1 << bit % 8;
  return other;
};
const replaced = (list, at, ...instead) => [...list.slice(0, at), ...instead, ...list.slice(at + 1)];

for (const [name, read] of kReads) {
  test(`${name}: the recorded read is good once more`, () => {
    assert.deepEqual([saidOfCommands(read, read.commands), saidOfRequests(read, read.requests)], [[], undefined]);
  });

  test(`${name}: commands with a flipped bit, another number, left out and repeated`, () => {
    const { commands } = read;
    for (const [at, { command, serial }] of commands.entries()) {
      const noticed = (what, ...instead) =>
        assert.notDeepEqual(saidOfCommands(read, replaced(commands, at, ...instead)), [], `${what} of command ${at}`);
      for (let bit = at % 8; bit < command.length * 8; bit += 7) noticed(`bit ${bit}`, { command: flipped(command, bit), serial });
      noticed('number', { command, serial: serial + 1 });
      if (at > 0) noticed('repetition', commands[at], commands[at]);
      if (at < commands.length - 1) noticed('lack');
    }
  });

  test(`${name}: requests with a flipped bit, left out and repeated`, () => {
    const { requests } = read;
    for (const [at, { request, connection }] of requests.entries()) {
      const noticed = (what, ...instead) => assert.ok(saidOfRequests(read, replaced(requests, at, ...instead)), `${what} of request ${at}`);
      for (let bit = at; bit < request.length * 8; bit += request.length > 500 ? 61 : 7) noticed(`bit ${bit}`, { request: flipped(request, bit), connection });
      noticed('repetition', requests[at], requests[at]);
      if (at < requests.length - 1) noticed('lack');
    }
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
      for (let i = 0; i < plain.length; i += plain.length > 500 && i < plain.length - 40 ? 13 : 1) {
        if (i === sumAt) continue;
        const other = Buffer.from(plain);
        other[i] ^= 1;
        const said = saidOfRequests(read, replaced(requests, at, { request: rebuild(other), connection }));
        const free = kFree[command]?.(i, plain) ?? false;
        assert.equal(said === undefined, free, `0x${command.toString(16)}, byte ${i} of ${plain.length}: ${said}`);
      }
    }
  });
}

// --- the order in which a passport is read -----------------------------------------------------------------------------------

test('the order of a passport\'s commands, their forms and numbers', () => {
  const calls = [];
  const { check, answered, taken } = ReadingOrder.prototype;
  const watched = { check: (...args) => calls.push(['check', args]), answered: (...args) => calls.push(['answered', args]), taken: (...args) => calls.push(['taken', args]) };
  const originals = { check, answered, taken };
  for (const [method, note] of Object.entries(watched)) {
    ReadingOrder.prototype[method] = function watching(...args) {
      note(...args);
      return originals[method].apply(this, args);
    };
  }
  try {
    saidOfCommands(kRecorded[2], kRecorded[2].commands);
  } finally {
    Object.assign(ReadingOrder.prototype, originals);
  }
  const orderBefore = (end) => {
    const order = new ReadingOrder(1);
    for (const [method, args] of calls.slice(0, end)) order[method](...args);
    return order;
  };
  const checks = calls.map(([method], i) => (method === 'check' ? i : -1)).filter((i) => i >= 0);
  for (const [nth, i] of checks.entries()) {
    const [commandName, text, serial] = calls[i][1];
    assert.equal(orderBefore(i).check(commandName, text, serial), undefined);
    assert.ok(orderBefore(i).check(commandName, text, serial + 1), `number of ${commandName}`);
    const [later] = checks.slice(nth + 1);
    if (later) assert.ok(orderBefore(i).check(...calls[later][1]), `${commandName} left out`);
    const free = { 'EXTERNAL AUTHENTICATE': 90, 'INTERNAL AUTHENTICATE': 26 }[commandName] ?? 0; // random from the tenth digit to here
    for (let digit = 0; digit < text.length; digit += 1) {
      if (digit >= 10 && digit < free) continue;
      const other = text.slice(0, digit) + (text[digit] === 'F' ? '0' : 'F') + text.slice(digit + 1);
      assert.ok(orderBefore(i).check(commandName, other, serial), `${other} as ${commandName}`);
    }
  }
});
