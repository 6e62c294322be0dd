// Servers that keep a read waiting, and functions of the application that do. Each read has a process of its own; all of
// them wait at the same time.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { alone, check, SANITIZED, USUAL_FILES } from './support.mjs';

const kLimit = 5000; // ms, for connecting and for each answer
const kSlack = SANITIZED ? 20000 : 3000; // beside what the machine was busy with
const kIdleCpu = SANITIZED ? 1000 : 50; // ms in five seconds
const kPassport = { brief: true };
const silent = (on) => ({ rules: [{ on, do: 'silence' }] });
const kSlowCard = { server: 201 };

const kCases = [
  { name: 'accepts and says nothing', server: silent('connect'), code: -22003, told: 'none' },
  { name: 'silent at 0x7500', server: silent('0x7500'), code: -22003, told: 'none' },
  ...['0x5001', '0x5032', '0x6002', '0x6113'].map((on) => ({ name: `silent at ${on}`, server: silent(on), code: -22003 })),
  ...['0x5012', '0x5022'].map((on) => ({ name: `silent at ${on}`, server: silent(on), tick: kSlowCard, code: -22003 })),
  { name: 'silent at 0x6102', identity: { readMode: 1 }, server: silent('0x6102'), code: -22003 },
  { name: 'silent at 0x7219', server: silent('0x7219') },
  { name: 'a byte every 200 ms', server: { rules: [{ on: '0x7500', do: 'trickle', everyMs: 200 }] }, code: -22003, told: 'none' },
  { name: 'a length too large', server: { rules: [{ on: '0x5001', do: 'malformed', kind: 'lengthLong' }] }, code: -22003 },
  { name: 'late, but in time', server: { rules: [{ on: '0x7500', do: 'delay', ms: 3500 }] }, least: 3500 },
  { name: 'nobody listens', nobody: true, code: -20001, told: 'none' },
  { name: 'a passport: silent at 0x7201', passport: kPassport, server: silent('0x7201'), code: -22003 },
  { name: 'a passport: silent at 0x7202', passport: kPassport, server: silent('0x7202'), code: -22003, sod: USUAL_FILES[2], told: 'both' },
  { name: 'a passport: silent at 0x7219', passport: kPassport, server: silent('0x7219') },
  { name: 'a passport: nobody listens when the files are read', passport: kPassport, trigger: { on: 'READ DG14', do: 'stop', again: 5500 },
    code: -20001, told: 'both' },
  { name: 'a passport: the server is back in time', passport: kPassport, trigger: { on: 'READ DG14', do: 'stop', again: 700 }, least: 700 },
  { name: 'port 0', identity: { port: 0 }, code: -20001, told: 'none', again: false },
  { name: 'a name that does not resolve', identity: { ip: 'no-such-host.invalid' }, code: -20001, told: 'none', again: false, least: 0, most: Infinity },
  { name: 'no address at all', identity: { ip: '' }, code: -20001, told: 'none', again: false, least: 0, most: Infinity },
  { name: 'an answer that comes after its time', server: { rules: [{ on: '0x5001', do: 'delay', ms: 5200 }] }, code: -22003, told: 'any' },
];

function tookAtLeast({ ms, lag }, least, most = least + kSlack) {
  assert.ok(ms >= least && ms - lag < most, `took ${ms} ms, ${lag} of them without running`);
}

describe('waiting', { concurrency: SANITIZED ? 4 : 20 }, () => {
  for (const row of kCases) {
    test(row.name, async () => {
      const outcome = await alone('perform', row);
      check(outcome, row);
      tookAtLeast(outcome, row.least ?? kLimit - 10, row.most);
    });
  }
  test('a server that starts to listen while the read connects', async () => {
    check(await alone('lateServer', { ms: 700 }), {});
  });
  test('waiting uses no processor time', async () => {
    const { result, cpuMs } = await alone('idle');
    assert.equal(result, '{"code":-22003,"flag":0,"data":""}');
    assert.ok(cpuMs < kIdleCpu, `${cpuMs} ms of processor time`);
  });
  test('a clock that always says 0', async () => {
    const outcome = await alone('twisted', { server: { monitorText: 'any' }, time: 'always' });
    check(outcome, {});
    tookAtLeast(outcome, 10 * 500); // ten readings, half a second for each
  });
});
