// What the package's reader does when the library itself fails or says strange things: a scripted module takes its place.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { CancelHandle, TqReader } from '../../simulator/lib/package.mjs';

const kConfig = { appid: 'A'.repeat(20), environment: 268, host: 'h', port: 1, packageName: '', terminalId: 1, serialNumber: '' };
const kMrz = { documentNumber: 'A1', birthDate: '900101', expiryDate: '300101' };
const connection = { transmit: () => Promise.resolve(Uint8Array.of(0x90, 0x00)) };

/** A module that records its calls. `codes`: what functions return instead of 0. */
function scripted(codes = {}) {
  const calls = [];
  const callbacks = {};
  const names = ['initSdk', 'getIdInfo', 'getPassportInfo', 'idCardHandler', 'passportHandler', 'cancelCard', 'getTimeDelay', 'getDeviceNFCLocation'];
  const module = Object.fromEntries(names.map((name) => [name, (...args) => {
    calls.push([name, ...args]);
    return codes[name] ?? 0;
  }]));
  for (const name of ['Card', 'Monitor', 'Timestamp', 'Result']) {
    module[`register${name}Callback`] = (callback) => {
      callbacks[name] = callback;
      return codes[name] ?? 0;
    };
  }
  return { module, calls, callbacks, codes };
}

async function failure(promise) {
  const error = await promise.then(() => assert.fail('no error'), (reason) => reason);
  return [error.name, error.code];
}

function configured(codes) {
  const script = scripted(codes);
  const reader = new TqReader(script.module);
  reader.configure(kConfig);
  return { ...script, reader };
}

test('set-up that fails is told with its code', () => {
  for (const [name, code] of [['initSdk', -13003], ['Card', -13008], ['Monitor', -13008], ['Timestamp', -13008], ['Result', -13008]]) {
    assert.throws(() => configured({ [name]: code }), { code });
  }
});

test('the configuration reaches initSdk in its order', () => {
  const { calls } = configured();
  assert.deepEqual(calls[0], ['initSdk', kConfig.appid, 0, 2, 268, '', '', 1, 'h', 1, 0, '']);
});

test('the reader keeps the configuration that it was given', async () => {
  const { module, calls, callbacks } = scripted();
  const [reader, other] = [new TqReader(module), new TqReader(module)];
  const config = { ...kConfig };
  reader.configure(config);
  Object.assign(config, { environment: 1, host: 'elsewhere' });
  other.configure(kConfig);
  const read = reader.readIdentityCard({ connection });
  callbacks.Result('{"code":0,"flag":1,"data":{}}');
  await read;
  assert.deepEqual(calls.filter(([name]) => name === 'initSdk')[2], calls[0]);
});

test('a cancelled read keeps neither commands nor the monitor record', async () => {
  const { reader, callbacks } = configured();
  const cancel = new CancelHandle();
  const read = reader.readIdentityCard({ connection: { transmit: () => new Promise(() => {}) }, cancel });
  callbacks.Card('{ "cmd": "00A4",  "serial_num": "0"}');
  callbacks.Monitor('{"reqid": "R"}');
  cancel.cancel();
  await failure(read);
  const { waiting, last, monitor } = TqReader.abandoned;
  assert.deepEqual([waiting, last, monitor], [[], null, null]);
});

test('a refused READ of a data group is handed over once more, as a refused SELECT; a lost answer is not', async () => {
  const answers = [[0x69, 0x82], [0x90, 0x00], []];
  const rows = answers.map((answer) => ({ transmit: () => Promise.resolve(Uint8Array.from(answer)) }));
  const given = [];
  for (const card of rows) {
    const { reader, callbacks, calls } = configured();
    const read = reader.readPassport(kMrz, { connection: card });
    callbacks.Card('{ "cmd": "0CB0",  "serial_num": "8"}');
    await sleep(5);
    given.push(calls.filter(([name]) => name === 'passportHandler').map(([, ...args]) => args));
    callbacks.Result('{"code":0,"flag":1,"data":{}}');
    await read;
  }
  assert.deepEqual(given, [[['6982', 8, 0], ['6982', 7, 0]], [['9000', 8, 0]], [['', 8, 0]]]);
});

test('a read that does not start leaves the reader free', async () => {
  const { reader, codes, calls, callbacks } = configured({ getIdInfo: -35010, getPassportInfo: -93003 });
  assert.deepEqual(await failure(reader.readIdentityCard({ connection })), ['NO_THREAD', -35010]);
  assert.deepEqual(await failure(reader.readPassport(kMrz, { connection })), ['BAD_ARGUMENTS', -93003]);
  codes.getIdInfo = 0;
  const read = reader.readIdentityCard({ connection });
  callbacks.Result('{"code": 0,"flag":2,"data":"01AB"}');
  assert.deepEqual([...(await read).bytes], [0x01, 0xab]);
  assert.ok(!calls.some(([name]) => name === 'cancelCard'));
});

test('what a failure comes to for the person with the document', async () => {
  const rows = [ // kind, number and answer of the last command (none: null), code of the result
    ['Passport', 8, null, -93001, 'DOCUMENT_MOVED'], ['IdentityCard', 8, null, -93001, 'DOCUMENT_MOVED'], ['Passport', 6, null, -93006, 'DOCUMENT_MOVED'],
    ['Passport', 2, '6300', -53001, 'WRONG_NUMBER_OR_DATES'], ['Passport', 2, '63C1', -53001, 'WRONG_NUMBER_OR_DATES'],
    ['Passport', 17, '6982', -53001, 'WRONG_NUMBER_OR_DATES'], ['Passport', 2, '6D00', -53001, 'UNKNOWN_ACCESS'],
    ['Passport', 1, '6982', -93005, 'UNKNOWN_ACCESS'], ['Passport', 0, '6985', -93006, 'UNKNOWN_ACCESS'], ['Passport', 11, '6A82', -53001, 'UNKNOWN_ACCESS'],
    ['Passport', 0, '6A82', -93006, 'NO_PASSPORT'], ['Passport', 7, '6982', -1, 'DOCUMENT_REFUSED'], ['Passport', 4, '99026982', -93006, 'DOCUMENT_REFUSED'],
    ['IdentityCard', 2, '6A82', -93006, 'DOCUMENT_REFUSED'], ['IdentityCard', 0, '6986', -93005, 'DOCUMENT_REFUSED'],
    ['Passport', 8, '019000', -93006, 'NONSENSE'], ['Passport', 2, '009000', -93005, 'NONSENSE'], ['Passport', 17, '009000', -53001, 'NONSENSE'],
    ['IdentityCard', 3, '9000', -1, 'NONSENSE'], ['Passport', 8, '900000', -93006, 'NONSENSE'],
    ['Passport', 8, '019000', -20001, 'NETWORK'], ['Passport', 8, null, -22003, 'NETWORK'], ['Passport', 8, '9000', -35006, 'SERVER'],
    ['IdentityCard', 10, '9000', -1301, 'SERVER'], ['Passport', 8, '9000', -35010, 'APPLICATION'],
  ];
  for (const [kind, serial, answer, code, reason] of rows) {
    const { reader, callbacks } = configured();
    const card = { transmit: () => (answer === null ? Promise.reject(new Error('gone')) : Promise.resolve(Uint8Array.from(Buffer.from(answer, 'hex')))) };
    const read = kind === 'Passport' ? reader.readPassport(kMrz, { connection: card }) : reader.readIdentityCard({ connection: card });
    callbacks.Card(`{ "cmd": "00B0",  "serial_num": "${serial}"}`);
    await sleep(1);
    callbacks.Result(`{"code":${code},"flag":0,"data":""}`);
    const error = await read.catch((reason) => reason);
    assert.deepEqual([error.code, error.reason], [code, reason], `${kind} ${serial} ${answer}`);
    assert.ok(error.advice.length > 10);
  }
  assert.equal((await configured().reader.readPassport({}, { connection }).catch((error) => error)).reason, 'WRONG_NUMBER_OR_DATES');
});

test('results that are none', async () => {
  const { reader, callbacks } = configured();
  for (const text of ['', 'null', '7', '{"code":"0"}', '{"code":0,"flag":1,"data":"x"}', '{"code":0,"flag":1,"data":null}']) {
    const read = reader.readIdentityCard({ connection });
    callbacks.Result(text);
    assert.deepEqual(await failure(read), ['RESPONSE_MALFORMED', -35006], text);
  }
});

test('a monitor record that is none is reported as it is', async () => {
  const { reader, callbacks } = configured();
  const read = reader.readIdentityCard({ connection });
  assert.equal(callbacks.Monitor('{"reqid":'), '{"reqid":');
  callbacks.Result('{"code":0,"flag":1,"data":{"reqid":"R"}}');
  assert.deepEqual([(await read).monitor, (await read).businessId, (await read).info], [null, 'R', null]);
});

test('calls of the library when no read is running', () => {
  const { callbacks, calls } = configured();
  const before = calls.length;
  callbacks.Card('{ "cmd": "00",  "serial_num": "0"}');
  callbacks.Result('{"code":0,"flag":1,"data":{}}');
  assert.equal(callbacks.Monitor('{}'), '{}');
  assert.ok(Math.abs(callbacks.Timestamp() - Date.now()) < 1000);
  assert.equal(calls.length, before);
});

test('a command that comes after the cancel is answered for its own read, once', async () => {
  const { reader, callbacks, calls } = configured();
  const cancel = new CancelHandle();
  const read = reader.readPassport(kMrz, { connection, cancel });
  cancel.cancel();
  assert.deepEqual(await failure(read), ['CANCELLED', 1]);
  callbacks.Card('{ "cmd": "00A4",  "serial_num": "4"}');
  await sleep(5);
  assert.deepEqual(calls.slice(-2), [['cancelCard', 1], ['passportHandler', '', 4, -1]]);
});

test('when the result function cannot be replaced after a cancel, the next read ends', async () => {
  const { reader, codes, calls, callbacks } = configured();
  const cancel = new CancelHandle();
  const first = reader.readIdentityCard({ connection, cancel });
  cancel.cancel();
  await failure(first);
  codes.Result = -13008;
  assert.deepEqual(await failure(reader.readIdentityCard({ connection })), ['MISSING_CALL', -13008]);
  assert.deepEqual(calls.at(-1), ['cancelCard', 0]);
  codes.Result = 0;
  const again = reader.readIdentityCard({ connection });
  assert.deepEqual(calls.slice(-2).map(([name]) => name), ['initSdk', 'getIdInfo'], 'set up anew');
  callbacks.Result('{"code":0,"flag":1,"data":{}}');
  await again;
});

test('the services hand over their arguments and read the answer', async () => {
  const { module, calls, codes } = scripted({ getTimeDelay: 42, getDeviceNFCLocation: 7 });
  const reader = new TqReader(module);
  const query = { appid: 'SIMULA1', environment: 52302, host: 'place', port: 443, manufacturer: 'M', marketName: 'P' };
  assert.deepEqual([await reader.measureDelay('host', 3), await reader.measureDelay('host'), await reader.antennaLocation(query)], [42, 42, 7]);
  const clock = calls[2].pop();
  assert.ok(Math.abs(clock() - Date.now()) < 1000);
  assert.deepEqual(calls, [['getTimeDelay', 3, 'host'], ['getTimeDelay', 5, 'host'], ['getDeviceNFCLocation', 'SIMULA1', 52302, 'place', 443, 'M', 'P']]);
  Object.assign(codes, { getTimeDelay: -20004, getDeviceNFCLocation: -1301 });
  assert.deepEqual(await failure(reader.measureDelay('host')), ['PROBE_FAILED', -20004]);
  assert.deepEqual(await failure(reader.antennaLocation(query)), ['SERVER_STATUS', -1301]);
});
