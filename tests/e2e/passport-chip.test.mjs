// Chips that behave badly at every step of a passport read: each comes to one result, and to no harm.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { Process } from './support.mjs';

/** The steps, but for READs of other groups than DG1 and DG2: after their failure a read waits for the application. */
const kSteps = ['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE', 'SELECT EF.COM', 'READ EF.COM', 'SELECT EF.SOD', 'READ EF.SOD',
  'SELECT DG15', 'SELECT DG1', 'READ DG1', 'SELECT DG2', 'READ DG2', 'INTERNAL AUTHENTICATE', 'SELECT DG14'];
// EF.SOD has no list, so that the read cannot do without EF.COM
const kAllGood = Array(14).fill(0);
/** A rule of misbehaviour, and the code that a read comes to when the first answer to each of the steps is made so. */
const kChips = [
  [{ do: 'oversize', size: 300 }, [-1, -93005, -53001, ...Array(11).fill(0)]], // what is behind DO8E does not count
  [{ do: 'oversize', size: 301 }, [...Array(12).fill(-93001), 0, 0]],
  [{ do: 'nothingButSuccess' }, [0, -93005, -93005, ...Array(9).fill(-93006), 0, 0]],
  [{ do: 'repeat', times: 6 }, [-22003, -93005, ...Array(10).fill(-93006), 0, 0]],
  [{ do: 'loseSession' }, [-1, -93005, -53001, -93006, -93006, -93006, -1, -93006, -93006, -1, -93006, -1, 0, 0]],
  [{ do: 'wrongMac' }, [0, 0, 0, ...Array(4).fill(-93006), 0, ...Array(4).fill(-93006), 0, 0]],
  [{ do: 'noMac' }, [0, 0, 0, ...Array(9).fill(-93006), 0, 0]],
  [{ do: 'skipCounter' }, [0, 0, 0, ...Array(9).fill(-93006), 0, 0]],
  [{ do: 'longData', count: 231 }, [0, -93005, ...Array(12).fill(0)]],
  [{ do: 'innerStatus' }, kAllGood], // nobody looks into DO99
  [{ do: 'badPadding' }, kAllGood],
];

/** The code that a read comes to when the answer to a step (row) carries the number 0, 1, ... 10 (column) of another. */
const kOtherNumbers = [
  [0, -93005, -93005, -93006, -93006, -93006, -93006, -93006, -93006, -22003, -13009],
  [-22003, 0, -93005, -93006, -93006, -93006, -93006, -93006, -93006, 0, -13009],
  [-22003, -93005, 0, -93006, -93006, -93006, -93006, -93006, -93006, 0, -13009],
  [-22003, -93005, -93005, 0, -93006, -93006, -93006, -93006, -93006, 0, -13009],
  [-22003, -93005, -93005, 0, 0, -93006, -93006, -93006, -93006, -22003, -13009],
  [-22003, -93005, -93005, 0, 0, 0, 0, -22003, -22003, -22003, -13009],
  [-22003, -93005, -93005, 0, 0, 0, 0, -22003, -22003, -22003, -13009],
  [-22003, -93005, -93005, 0, 0, 0, 0, 0, 0, 0, -13009],
  [-22003, -93005, -93005, 0, 0, 0, 0, 0, 0, -22003, -13009],
  [-22003, -93005, -93005, 0, 0, 0, 0, 0, 0, 0, -13009],
];

async function comesTo(child, rules, codes) {
  const rows = await child.call('misbehavedReads', rules.map((rule) => [rule]));
  assert.deepEqual(rows, codes.map((code) => ({ ended: true, codes: [code], again: [0] })));
}

describe('passport: chips that misbehave', { concurrency: 4 }, () => {
  test('wrong answers at every step', async (t) => {
    const child = new Process();
    for (const [rule, codes] of kChips) {
      await t.test(JSON.stringify(rule), () => comesTo(child, kSteps.map((on) => ({ on, nth: 1, ...rule })), codes));
    }
    await t.test('the process ends by itself', () => child.end());
  });

  test('answers with the number of another step', async (t) => {
    const child = new Process();
    for (const [on, codes] of kOtherNumbers.entries()) {
      await t.test(`step ${on}`, () => comesTo(child, codes.map((_, serial) => ({ on, nth: 1, do: 'wrongSerial', serial })), codes));
    }
    await t.test('the process ends by itself', () => child.end());
  });
});
