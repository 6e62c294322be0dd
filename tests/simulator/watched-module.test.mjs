// The watched module finds texts of the library and answers of the application that are not as they should be.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { WatchedModule } from '../../simulator/lib/watched-module.mjs';

const kCommand = (serial) => `{ "cmd": "00A4",  "serial_num": "${serial}"}`;
const kRecord = '{"reqid": "R", "result_code": 0, "decode_times": 1, "time_delay": 1, "nfc_err_code": 36864, "nfc_err_cmd": "", ' +
  '"card_type": 0, "device_id": "", "appid": "A", "sod_file": "", "stickCard_id": ""}';

/** What is found when `play` has its way with a module whose read of a card has begun. */
function found(play) {
  const functions = {};
  const passed = [];
  const native = { getIdInfo: () => 0, cancelCard: () => 0 };
  for (const name of ['idCardHandler', 'passportHandler']) native[name] = (...answer) => { passed.push([name, ...answer]); };
  for (const name of ['Card', 'Monitor', 'Result']) native[`register${name}Callback`] = (callback) => { functions[name] = callback; return 0; };
  const module = new WatchedModule(native);
  module.registerCardCallback(() => {});
  module.registerMonitorCallback((text) => text);
  module.registerResultCallback(() => {});
  module.getIdInfo();
  play(module, functions);
  return { differences: module.differences.map(({ message }) => message), passed };
}

test('a good dialogue', () => {
  const { differences, passed } = found((module, { Card, Monitor, Result }) => {
    Card(kCommand(0));
    module.idCardHandler('9000', 0, 0);
    Card(kCommand(1));
    module.idCardHandler('', 1, -1);
    assert.equal(Monitor(kRecord), kRecord);
    Result('{"code":0,"flag":1,"data":{"reqid":"R"}}');
  });
  assert.deepEqual([differences, passed], [[], [['idCardHandler', '9000', 0, 0], ['idCardHandler', '', 1, -1]]]);
});

const kWrong = {
  'an answer too many': (module, { Card }) => [Card(kCommand(0)), module.idCardHandler('9000', 0, 0), module.idCardHandler('9000', 0, 0)],
  'an answer without a command': (module) => module.idCardHandler('9000', 0, 0),
  'an answer to nothing after a cancel': (module) => [module.cancelCard(0), module.idCardHandler('', 0, -1)],
  'two commands at once': (module, { Card }) => [Card(kCommand(0)), Card(kCommand(1))],
  'a result before an answer': (module, { Card, Result }) => [Card(kCommand(0)), Result('{"code":0,"flag":1,"data":{"reqid":"R"}}')],
  'another number': (module, { Card }) => [Card(kCommand(0)), module.idCardHandler('9000', 1, 0)],
  'another handler': (module, { Card }) => [Card(kCommand(0)), module.passportHandler('9000', 0, 0)],
  'lower case': (module, { Card }) => [Card(kCommand(0)), module.idCardHandler('ab9000', 0, 0)],
  'another status': (module, { Card }) => [Card(kCommand(0)), module.idCardHandler('9000', 0, 1)],
  'an answer too long': (module, { Card }) => [Card(kCommand(0)), module.idCardHandler('00'.repeat(301), 0, 0)],
  'a malformed command': (module, { Card }) => Card('{"cmd": "00A4", "serial_num": "0"}'),
  'a malformed record': (module, { Monitor }) => Monitor('{}'),
  'a malformed result': (module, { Result }) => Result('{"code": 0,"flag":1,"data":{}}'),
};
for (const [name, play] of Object.entries(kWrong)) {
  test(`${name} is found`, () => assert.ok(found(play).differences.length > 0));
}
