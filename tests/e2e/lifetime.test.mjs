// Processes and threads that end, before, during and after reads.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { alone, check, Process } from './support.mjs';

const kPassport = { brief: true };
const kMoments = ['at once', 'connect', '0x7500', 'time', 'card', 'monitor', 'result'];
const kCardMoments = [...kMoments, 'REQB', 'READ 6002', '0x5001'].map((on) => ({ on }));
const kPassportMoments = ['GET CHALLENGE', 'READ DG1', 'INTERNAL AUTHENTICATE', '0x7201', '0x7202'].map((on) => ({ on, passport: kPassport }));

describe('lifetime', { concurrency: 4 }, () => {
  for (const [name, scenario, argument = {}] of [['after loading and registering', 'onlyRegister'], ['after a read', 'perform'],
    ['after a passport read', 'perform', { passport: kPassport, again: false }], ['after a cancelled read whose answer never comes', 'abandoned'],
    ['after a cancelled passport read whose answer never comes', 'abandoned', { passport: kPassport }],
    ['after the result function was replaced during a read', 'replaced']]) {
    test(`a program ends by itself ${name}`, () => alone(scenario, argument));
  }
  test('a running read keeps the program', async () => {
    const child = new Process();
    await child.call('startSlowly', 300);
    await child.end({ keep: true });
    assert.match(child.text('err'), /^调用返回结果安全函数: \{"code":0,/m);
    child.discard();
  });
  for (const moment of [...kCardMoments, ...kPassportMoments]) {
    test(`process.exit during a read: ${moment.on}`, async () => {
      const child = new Process({ leaks: false });
      await assert.rejects(child.call('exitAt', moment), /ended with 0/);
      await child.end();
    });
  }
  test('a thread that ends in the middle of its read', async () => {
    const child = new Process();
    for (const moment of [...kCardMoments, { on: '0x7219' }, { on: 'never' }]) check(await child.call('endThread', moment), {});
    for (const { on } of [...kPassportMoments, ...kMoments.map((on) => ({ on })), { on: '0x7219' }, { on: 'never' }]) {
      check(await child.call('endThread', { on, passport: kPassport }), { passport: kPassport });
    }
    await child.end();
  });
  test('a thread that comes and goes while another reads', async () => {
    check(await alone('besideThread'), {});
  });
  for (const [count, passport] of [[200], [100, kPassport]]) {
    test(`${count} reads${passport ? ' of passports' : ''} leave no descriptor and no thread`, async () => {
      const { before, after, bad } = await alone('manyReads', { count, passport });
      assert.deepEqual([bad, after], [[], before]);
    });
  }
});
