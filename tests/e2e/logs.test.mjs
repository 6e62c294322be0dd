// The log lines of one good read of each kind, and what goes to standard output.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { GOOD_RESULT, jsonResult, Process } from './support.mjs';

/** `timesBefore`: readings of the clock before the command with this serial number. */
const kReads = [
  { name: 'an identity card', setting: { identity: { readMode: 1, filePath: '/a/b' } }, filePath: '/a/b', timesBefore: { 0: 4, 4: 4, 5: 1 },
    start: ['调用身份证解码主函数: 0'], result: () => GOOD_RESULT },
  { name: 'a passport', setting: { passport: true }, filePath: '', timesBefore: { 0: 4, 1: 1, 2: 2, 9: 1 },
    start: ['idNumber: SPEC01234', 'birthday: 900101', 'expiryDate: 341231', '调用护照解码主函数: 0'],
    result: ({ info }) => jsonResult(JSON.stringify(info)) },
];

const kTime = '1700000000000';
const kWorker = /^(时间函数回调1|获取到的时间戳[ABC]|C端准备发送)/; // lines of another thread than the rest
const kTimeCall = [/^时间函数回调1: 1$/, new RegExp(`^获取到的时间戳A: (0|${kTime})$`), /^获取到的时间戳B: 1\d{12}$/,
  new RegExp(`^获取到的时间戳B: (0|${kTime})$`), new RegExp(`^获取到的时间戳C: ${kTime}$`)];
const cardText = ({ command, serial }) => `{ "cmd": "${command}",  "serial_num": "${serial}"}`;

for (const { name, setting, filePath, timesBefore, start, result } of kReads) {
  test(`the log lines of one good read of ${name}`, async () => {
    const child = new Process();
    const seen = await child.call('logged', setting);
    const { steps, order, monitors, results, port } = seen;
    await child.end({ keep: true });
    const lines = child.text('err').split(/^-{20}/m)[0].trimEnd().split('\n'); // a sanitizer may add its summary
    const numTimes = ({ serial }) => timesBefore[serial] ?? 0;

    const worker = [...steps.flatMap((step) => [...Array(numTimes(step)).fill(kTimeCall).flat(),
      `C端准备发送读卡数据了: ${step.command.length / 2}`, `C端准备发送的读卡数据: ${cardText(step)}`]), ...kTimeCall];
    const workerLines = lines.filter((line) => kWorker.test(line));
    worker.forEach((wanted, i) => assert[wanted instanceof RegExp ? 'match' : 'equal'](workerLines[i], wanted));
    assert.equal(workerLines.length, worker.length);

    const times = (n) => Array(n).fill(`调用时间戳安全函数4: ${kTime}`);
    assert.deepEqual(lines.filter((line) => !kWorker.test(line)), [
      'ip: 127.0.0.1', `port: ${port}`, `file_path: ${filePath}`, 'terId: 51', 'envIdCode: 268', 'packageName: com.example.reader',
      'appid: SIMULATEDREADER00001', 'reqidType: 1', 'sn: SIMULATED-DEVICE-0001', '初始化: 0', '设置reqid版本: 0',
      '注册读卡回调: 0', '注册监控数据回调: 0', '注册时间戳回调: 0', '注册结果数据回调: 0', ...start,
      ...steps.flatMap((step) => [...times(numTimes(step)), '调用读卡安全函数1: s', `调用读卡安全函数: ${cardText(step)}`,
        `nfc读卡返回数据结果: status:0, serial_num:${step.serial}, data:${step.answer}`]),
      ...times(1), `调用监控数安全函数: ${monitors[0]}`, `调用返回结果安全函数: ${result(seen)}`, '调用取消操作: 2',
    ]);
    assert.deepEqual([monitors.length, results], [1, [result(seen)]]);
    assert.deepEqual(child.text('out').trimEnd().split('\n'), order);
    child.discard();
  });
}
