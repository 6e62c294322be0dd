// The watched module takes one answer to no command as it should be: that which makes the library skip a data group.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { WatchedModule } from '../../simulator/lib/watched-module.mjs';

/** What is found when READ of a data group (or another `command`) gets an answer, and these `others` follow. */
function found({ command = 8, answer = '6982', status = 0, start = 'getPassportInfo' }, ...others) {
  let send;
  const native = { getIdInfo: () => 0, getPassportInfo: () => 0, cancelCard: () => 0, idCardHandler() {}, passportHandler() {},
    registerCardCallback: (callback) => { send = callback; } };
  const module = new WatchedModule(native);
  module.registerCardCallback(() => {});
  module[start]();
  const kind = start === 'getIdInfo' ? 'idCardHandler' : 'passportHandler';
  send(`{ "cmd": "00B0",  "serial_num": "${command}"}`);
  module[kind](answer, command, status);
  for (const other of others) module[kind](...other);
  return module.differences.length;
}

const skip = ['6982', 7, 0];
const kRows = [
  ['once, with the number of SELECT', 0, {}, skip],
  ['any refusal', 0, { answer: '99029000AB6A82' }, ['99029000AB6A82', 7, 0]],
  ['twice', 1, {}, skip, skip],
  ['after a good answer', 1, { answer: '019000' }, skip],
  ['after a good answer and a zero byte', 1, { answer: '01900000' }, skip],
  ['after a lost one', 1, { answer: '', status: -1 }, skip],
  ['after the refusal of another command', 1, { command: 6 }, skip],
  ['with the number of READ', 1, {}, ['6982', 8, 0]],
  ['with a good status', 1, {}, ['9000', 7, 0]],
  ['with nothing', 1, {}, ['', 7, -1]],
  ['in lower case', 1, {}, ['6a82', 7, 0]],
  ['for an identity card', 1, { start: 'getIdInfo' }, skip],
];
for (const [name, differences, ...steps] of kRows) {
  test(`an answer more: ${name}`, () => assert.equal(found(...steps), differences));
}
