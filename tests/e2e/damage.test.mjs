// Answers of the server cut short (the first of them at every byte), and with every bit of their header flipped.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { Process, sodText } from './support.mjs';

const kMalformed = -35006;
const kLost = -22003;
const kHeaderBytes = 11;
const kLonger = 2; // so many bytes more of the length, and of the header, in a passport's frames
const kPassport = { identity: { readMode: 1 }, passport: { brief: true, dataGroups: [1] },
  expects: { verification: { activeAuthentication: 'not done' } }, answers: { '0x7202': { tags: [{ idType: 2 }] } } };
const kGoodReadEvery = 8;

/** Each command: how a read gets there, and what comes of a malformed answer. */
const kCommands = [
  { on: '0x7500', told: 'none' },
  { on: '0x5001' },
  { on: '0x6102', identity: { readMode: 1 }, answers: { '0x6102': { tags: [{ idType: 1 }] } } },
  { on: '0x7201', ...kPassport },
  { on: '0x7202', ...kPassport, whenLost: 'both', sod: sodText('com sod dg1') },
];

/** The result code of a frame with one flipped bit; `length` is the whole frame's, its header `longer` than the usual one. */
function codeOfFlip(bit, length, longer) {
  const byte = (bit >> 3) - longer;
  const mask = 0x80 >> bit % 8;
  if (bit >= 8 && byte <= 2) return Math.floor(length / (mask * 256 ** (2 - byte))) % 2 === 0 ? kLost : kMalformed;
  if (byte < 5 || byte > 7) return kMalformed; // header, command, and what the checksum covers
  const digit = 10 ** (5 - (byte - 5) * 2 - (mask < 16 ? 1 : 0));
  const status = -digit * (mask < 16 ? mask : mask >> 4);
  return status === -1 ? kMalformed : status;
}

/** What a read comes to when an answer is malformed in this way; 0x6113 takes the place of 0x6102. */
function expected({ on, told, whenLost = 'application', sod }, code) {
  if (code === kLost) return { code, sod, told: told ?? whenLost };
  return on === '0x6102' ? { last: ['0x6113', 'READ 6013'] } : { code, sod, told };
}

for (const command of kCommands) {
  const { on, identity, answers, passport, expects } = command;
  const longer = passport ? kLonger : 0;
  const damaged = (rules) => ({ identity, passport, expects, server: { answers, rules: rules.map((rule) => ({ on, ...rule })) } });

  test(`${on}: cut short, every header bit flipped`, async () => {
    const child = new Process();
    const length = await child.call('lengthOfAnswer', { ...damaged([]), on });
    assert.ok(length > kHeaderBytes + 16);
    const rows = [];
    for (let at = 0; at < length; at += 1) {
      if (on !== '0x7500' && at > kHeaderBytes + longer && at < length - 2 && at % 16 !== 0) continue;
      rows.push({ what: `cut at ${at}`, code: kLost, rules: [{ do: 'malformed', kind: 'cut', at }, { do: 'hangup' }] });
    }
    for (const bit of [...Array(8 * (kHeaderBytes + longer)).keys(), ...Array.from({ length: 8 }, (_, i) => 8 * (length - 1) + i)]) {
      const code = codeOfFlip(bit, length, longer);
      rows.push({ what: `bit ${bit}`, code, rules: [{ do: 'malformed', kind: 'flip', bit }, ...(code === kLost ? [{ do: 'hangup' }] : [])] });
    }
    for (const [i, { what, code, rules }] of rows.entries()) {
      const again = i % kGoodReadEvery === 0;
      try {
        await child.read({ ...damaged(rules), again }, { identity, passport, ...expected(command, code) });
      } catch (error) {
        error.message = `${what}: ${error.message}`;
        throw error;
      }
    }
    await child.end();
  });
}
