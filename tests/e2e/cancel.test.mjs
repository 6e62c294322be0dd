// Reads that are broken off, or superseded by another read, at every step.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { STEPS } from '../../simulator/lib/identity-card.mjs';
import { check, Process, SANITIZED, testReads, USUAL_FILES } from './support.mjs';

const kSoon = SANITIZED ? 500 : 20; // ms for a cancel to end an exchange
const kSlow = { server: 201 };
const kPassport = { brief: true };
const kExchanges = [['0x5001'], ['0x5012', kSlow], ['0x5022', kSlow], ['0x5032'], ['0x6002'], ['0x6113'], ['0x6102', {}, { readMode: 1 }]];
const silentAt = (on) => ({ rules: [{ on, nth: 1, do: 'silence' }] });

testReads('cancel', [
  ...STEPS.map((on) => ({ name: `while the card works on ${on}: ends with its answer`, silent: true,
    trigger: { on, do: 'cancel', after: 10 }, waiting: true, cardRules: [{ on, nth: 1, do: 'delay', ms: 300 }] })),
  ...STEPS.map((on) => ({ name: `while the card works on ${on}: ends when it fails`, trigger: { on, do: 'cancel' }, silent: true,
    cardRules: [{ on, nth: 1, do: 'status' }] })),
  { name: 'in the same moment as the start', trigger: { on: 'at once', do: 'cancel' }, silent: true },
  { name: 'while connecting', nobody: true, trigger: { on: 100, do: 'cancel' }, code: -20001, told: 'none' },
  { name: 'at 0x7500', server: silentAt('0x7500'), trigger: { on: '0x7500', do: 'cancel' }, code: -22003, told: 'none' },
  ...kExchanges.map(([on, tick, identity]) => ({ name: `at ${on}`, server: silentAt(on), tick, identity,
    trigger: { on, do: 'cancel' }, silent: true })),
  { name: 'at 0x7219, when the result is known', server: silentAt('0x7219'), trigger: { on: '0x7219', do: 'cancel' } },
  ...['SELECT 6011', '0x5001', '0x7219'].map((on) => ({ name: `cancelCard(2) at ${on} does nothing`, trigger: { on, do: 'cancel2' } })),
]);

test('a cancel ends an exchange at once', async () => {
  const child = new Process();
  for (const [on, silent, document] of [['0x7500', false], ['0x5001', true], ['0x6113', true], ['0x7219', false],
    ['0x7201', true, { passport: kPassport }], ['0x7202', true, { passport: kPassport }], ['0x7219', false, { passport: kPassport }]]) {
    const row = { ...document, server: silentAt(on), trigger: { on, do: document ? 'cancel1' : 'cancel' }, silent, again: false };
    const took = [];
    const medianOf = (values) => values.sort((a, b) => a - b)[Math.floor(values.length / 2)];
    let best = Infinity; // of several rounds: other programs may be in the way
    for (let round = 0; round < 10 && best >= kSoon; round += 1) {
      for (let i = 0; i < 5; i += 1) {
        took.push((await child.call('perform', row)).latency);
      }
      best = Math.min(best, medianOf(took.slice(-5)));
    }
    assert.ok(best < kSoon, `${on}: ${took.map(Math.round)} ms`);
  }
  await child.end();
});

testReads('another read takes over', [
  ...STEPS.map((on) => ({ name: `while the card works on ${on}`, trigger: { on, do: 'start' }, connections: 2,
    cardRules: [{ on, nth: 1, do: 'silence' }] })),
  ...[['0x7500'], ...kExchanges].map(([on, tick, identity]) => ({ name: `at ${on}`, server: silentAt(on), tick, identity, connections: 2,
    trigger: { on, do: 'start' } })),
  { name: 'in the same moment', trigger: { on: 'at once', do: 'start' } },
  { name: 'after another, four times', trigger: { on: 'at once', do: 'start', times: 4 } },
]);

test('another read takes over while the first connects', async () => {
  const child = new Process();
  check(await child.call('lateServer', { ms: 300, trigger: { on: 100, do: 'start' } }), {});
  await child.end();
});

test('another read takes over at the monitor record', async () => {
  const child = new Process();
  for (const [action, files = '', row = {}] of [['start'],
    ['startCard', USUAL_FILES[2], { passport: kPassport, ends: 'card' }], ['startPassport', USUAL_FILES[2], { passport: kPassport, ends: 'passport' }]]) {
    const { ends, ...setting } = row;
    const outcome = await child.call('perform', { ...setting, server: silentAt('0x7219'), trigger: { on: '0x7219', do: action } });
    const { monitors, reports } = outcome;
    assert.match(monitors[0], new RegExp(`"result_code": 0, .* "sod_file": "${files}"`));
    assert.deepEqual(reports, monitors);
    check({ ...outcome, monitors: monitors.slice(1), reports: reports.slice(1) }, { ends, connections: ends ? undefined : 2 });
  }
  await child.end();
});
