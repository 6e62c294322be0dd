// Processes and threads that end, before, during and after reads.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { alone, check, Process } from './support.mjs';

describe('lifetime', { concurrency: 4 }, () => {
  for (const [name, scenario] of [['after loading and registering', 'onlyRegister'], ['after a read', 'perform'],
    ['after a cancelled read whose answer never comes', 'abandoned'], ['after the result function was replaced during a read', 'replaced']]) {
    test(`a program ends by itself ${name}`, () => alone(scenario, {}));
  }
  test('a running read keeps the program', async () => {
    const child = new Process();
    await child.call('startSlowly', 300);
    await child.end({ keep: true });
    assert.match(child.text('err'), /^调用返回结果安全函数: \{"code":0,/m);
    child.discard();
  });
  for (const on of ['at once', 'connect', 'REQB', 'READ 6002', '0x7500', '0x5001', 'time', 'card', 'monitor', 'result']) {
    test(`process.exit during a read: ${on}`, async () => {
      const child = new Process({ leaks: false });
      await assert.rejects(child.call('exitAt', on), /ended with 0/);
      await child.end();
    });
  }
  test('a thread that ends in the middle of its read', async () => {
    const child = new Process();
    for (const on of ['at once', 'connect', 'REQB', 'READ 6002', '0x7500', '0x5001', '0x7219', 'time', 'card', 'monitor', 'result', 'never']) {
      check(await child.call('endThread', on), {});
    }
    await child.end();
  });
  test('a thread that comes and goes while another reads', async () => {
    check(await alone('besideThread'), {});
  });
  test('200 reads leave no descriptor and no thread', async () => {
    const { before, after, bad } = await alone('manyReads', 200);
    assert.deepEqual([bad, after], [[], before]);
  });
});
