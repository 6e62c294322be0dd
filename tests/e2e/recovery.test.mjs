// Applications that do not behave: functions that throw, dawdle or return nonsense, answers that nobody asked for,
// arguments of any kind. Whatever they do, the next read is good.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { check, GOOD_RESULT, Process } from './support.mjs';

const kHalfSecond = 500;
const kTwists = [
  { name: 'the card function throws', card: 'throws' },
  { name: 'the card function returns nonsense', card: 'returns' },
  { name: 'the card function answers inside itself', card: 'answers' },
  { name: 'the result function throws', result: 'throws' },
  ...['throws', 'nothing', 'number', 'object', 'promise'].map((monitor) => ({ name: `the monitor function: ${monitor}`, monitor, reports: [''], waits: 1 })),
  { name: 'the monitor function returns late', monitor: 'late', reports: [''], waits: 1 },
  { name: 'the monitor function: a text that is no object', monitor: 'text', reports: ['hello'], waits: 1 },
  { name: 'the monitor function: another object', monitor: 'other', reports: ['{"other": "对象"}'] },
  { name: 'the monitor function: 2000 bytes', monitor: 'long', reports: [`{${' '.repeat(1998)}}`] },
  { name: 'the monitor function: 2001 bytes', monitor: 'longer', reports: [] },
  { name: 'the monitor function: 5 megabytes', monitor: 'huge', reports: [] },
  // the first reading of the clock: when the read started
  ...['zero', 'nan', 'infinite', 'nothing', 'text', 'null', 'object', 'bigint', 'symbol', 'promise', 'throws', 'late'].map((time) =>
    ({ name: `the time function: ${time}`, time, start: 0, waits: 1 })),
  { name: 'the time function: negative', time: 'negative', start: -5 },
  { name: 'the time function: a fraction', time: 'fraction', start: 1234 },
  { name: 'the time function: beyond 64 bits', time: 'beyond', start: '9223372036854775807' },
];

test('functions of the application', async (t) => {
  const child = new Process();
  for (const { name, waits = 0, reports, start, ...twists } of kTwists) {
    await t.test(name, async () => {
      const outcome = await child.call('twisted', { server: { monitorText: 'any' }, ...twists });
      check(outcome, { reports, start });
      assert.ok(waits === 0 || outcome.ms >= waits * kHalfSecond, `${outcome.ms} ms`);
    });
  }
  await t.test('the result function starts the next read inside itself', async () => {
    assert.deepEqual(await child.call('chain', 5), Array(5).fill(GOOD_RESULT));
  });
  await t.test('the process ends by itself', () => child.end());
});

test('answers that nobody asked for', async (t) => {
  const child = new Process();
  await t.test('four wait while an exchange runs, in their order; the others are dropped', async () => {
    const { serials, again } = await child.call('flood', [0, 1, 2, 6, 7, 9]);
    assert.deepEqual(serials, [4, 1, 2, 3, 7]);
    check(again, {});
  });
  await t.test('answers after the end', async () => check(await child.call('lateAnswers'), {}));
  for (const [on, nth, identity] of [['READ 6013', 5], ['READ 6012', 2, { readMode: 1 }]]) {
    await t.test(`the last ${on} answered five times over`, async () => {
      await child.read({ identity, cardRules: [{ on, nth, do: 'repeat', times: 4 }] }, { identity });
    });
  }
  await t.test('every answer three times', async () => {
    const { results, again } = await child.call('perform', { cardRules: [{ on: 'any', do: 'repeat', times: 2 }] });
    assert.equal(results.length, 1);
    check(again, {});
  });
  await t.test('an answer to a step that has not been taken', async () => {
    const outcome = await child.call('perform', { cardRules: [{ on: 'SELECT 6002', do: 'wrongSerial', serial: 6 }] });
    assert.deepEqual(outcome.differences.filter((text) => !text.startsWith('READ 6011: state')), []); // which the card refuses
    check({ ...outcome, differences: [] }, { code: -1, nfc: 0x6982, last: ['0x7500', 'READ 6011'] });
  });
  await t.test('the process ends by itself', () => child.end());
});

test('arguments of any kind and number', async () => {
  const child = new Process();
  assert.deepEqual(await child.call('oddArguments'), []);
  await child.read({});
  await child.end();
});
