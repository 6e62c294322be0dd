// What the package's reader does when it is used wrongly, when the library itself fails or says strange things: a scripted module
// takes its place.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { CancelHandle, TqReader } from '../../simulator/lib/package.mjs';

const kConfig = { appid: 'A'.repeat(20), environment: 268, host: 'h', port: 1, packageName: '', terminalId: 1, serialNumber: '' };
const kMrz = { documentNumber: 'A1', birthDate: '900101', expiryDate: '300101' };
const kQuery = { appid: 'SIMULA1', environment: 52302, host: 'place', port: 443, manufacturer: 'M', marketName: 'P' };
const kGood = '{"code":0,"flag":1,"data":{"reqid":"R"}}';
const connection = { transmit: () => Promise.resolve(Uint8Array.of(0x90, 0x00)) };
const silent = { transmit: () => new Promise(() => {}) };
const kStarts = { I: (reader, options) => reader.readIdentityCard(options), P: (reader, options) => reader.readPassport(kMrz, options) };
const command = (serial) => `{ "cmd": "00B0",  "serial_num": "${serial}"}`;

/** A module that records its calls. `codes`: what functions return instead of 0. */
function scripted(codes = {}) {
  const [calls, callbacks] = [[], {}];
  const module = new Proxy({}, { get: (_, name) => (...args) => {
    const kind = /^register(\w+)Callback$/.exec(name)?.[1];
    if (kind) [callbacks[kind]] = args;
    else calls.push([name, ...args]);
    return codes[kind ?? name] ?? 0;
  } });
  return { module, calls, callbacks, codes, reader: new TqReader(module) };
}

function configured(codes) {
  const script = scripted(codes);
  script.reader.configure(kConfig);
  return script;
}

/** The error of a call, which may throw or reject. */
async function failure(call) {
  const error = await Promise.resolve().then(call).then(() => assert.fail('no error'), (reason) => reason);
  assert.ok(error instanceof Error && error.meaning.length > 0 && error.message.includes(String(error.code)), error.stack);
  return error;
}

/** A read ('P': of a passport) in which one command gets what `transmit` gives, and which then ends with this code: its error, and the calls. */
async function failed(kind, serial, transmit, code) {
  const { reader, callbacks, calls } = configured();
  const read = kStarts[kind](reader, { connection: { transmit } });
  callbacks.Card(command(serial));
  await sleep(1);
  callbacks.Result(`{"code":${code},"flag":0,"data":""}`);
  return { error: await failure(() => read), calls };
}

test('wrong use is refused before anything is sent', async () => {
  const { reader, module, calls } = configured();
  const cancelled = new CancelHandle();
  cancelled.cancel();
  const hostile = { get transmit() { throw new Error('no transmit'); } };
  const wrong = { documentNumber: ['', ' \t', 'A'.repeat(21), 'SPEC<0123', 'ÄBC', undefined, 7, null], birthDate: ['', '9001', '9001O1', '1990-01-01', 900101],
    expiryDate: ['', '34123\n', '3412310', undefined] };
  const rows = [
    ...[undefined, null, {}, { transmit: 1 }, hostile].flatMap((none) => [['NO_CONNECTION', () => reader.readIdentityCard({ connection: none })],
      ['NO_CONNECTION', () => reader.readPassport(kMrz, { connection: none })]]),
    ['NO_CONNECTION', () => reader.readIdentityCard()],
    ...Object.entries(wrong).flatMap(([name, values]) => values.map((value) => ['BAD_MRZ', () => reader.readPassport({ ...kMrz, [name]: value }, { connection })])),
    ['BAD_MRZ', () => reader.readPassport(undefined, { connection })],
    ['CANCELLED', () => reader.readIdentityCard({ connection, cancel: cancelled })], ['OUT_OF_RANGE', () => reader.readIdentityCard({ connection, cancel: { cancel() {} } })],
    ['NOT_CONFIGURED', () => new TqReader(module).readIdentityCard({ connection })],
    ['NO_LIBRARY', () => new TqReader(undefined).readIdentityCard({ connection })], ['NO_LIBRARY', () => new TqReader(undefined).configure(kConfig)],
    ...[undefined, null].flatMap((nothing) => [['OUT_OF_RANGE', () => reader.configure(nothing)], ['OUT_OF_RANGE', () => reader.antennaLocation(nothing)]]),
    ...[0, 269, '268', undefined, NaN].flatMap((environment) => [['UNKNOWN_ENVIRONMENT', () => reader.configure({ ...kConfig, environment })],
      ['UNKNOWN_ENVIRONMENT', () => reader.antennaLocation({ ...kQuery, environment })]]),
  ];
  for (const [name, call] of rows) assert.equal((await failure(call)).name, name, String(call));
  assert.equal(calls.length, 1, 'initSdk');
  assert.match((await failure(() => reader.readPassport({ ...kMrz, birthDate: 'x' }, { connection }))).detail, /date of birth/);
});

test('set-up and starts that fail are told with their code, and leave the reader without a configuration, or free', async () => {
  for (const [name, code] of [['initSdk', -13003], ['Card', -13008], ['Monitor', -13008], ['Timestamp', -13008], ['Result', -13008]]) {
    const { reader, codes } = configured();
    codes[name] = code;
    assert.equal((await failure(() => reader.configure(kConfig))).code, code);
    assert.equal((await failure(() => reader.readIdentityCard({ connection }))).name, 'NOT_CONFIGURED');
  }
  const { reader, calls, callbacks } = configured({ getPassportInfo: -93003 });
  assert.equal((await failure(() => reader.readPassport(kMrz, { connection }))).name, 'BAD_ARGUMENTS');
  const read = reader.readIdentityCard({ connection });
  callbacks.Result(kGood);
  await read;
  assert.ok(!calls.some(([name]) => name === 'cancelCard'));
});

test('nothing else begins during a read', async () => {
  for (const start of Object.values(kStarts)) {
    const { reader, module, calls, callbacks } = configured();
    const other = new TqReader(module);
    const options = { connection: silent };
    const read = start(reader, options);
    for (const call of [() => reader.readIdentityCard(options), () => reader.readPassport(kMrz, options), () => reader.measureDelay('h', 1),
      () => reader.antennaLocation(kQuery), () => other.readIdentityCard(options), () => reader.configure(kConfig), () => other.configure(kConfig)]) {
      assert.equal((await failure(call)).name, 'BUSY');
    }
    assert.equal(calls.length, 2, 'initSdk and the start');
    callbacks.Result(kGood);
    assert.equal((await read).businessId, 'R');
  }
});

test('two readers take turns, each with the configuration that it was given', async () => {
  const { module, calls, callbacks, reader } = scripted();
  const other = new TqReader(module);
  const config = { ...kConfig };
  reader.configure(config);
  Object.assign(config, { environment: 1, host: 'elsewhere' });
  other.configure({ ...kConfig, host: 'other', readMode: 1 });
  for (const turn of [other, reader, reader]) {
    const read = turn.readIdentityCard({ connection });
    callbacks.Result(kGood);
    await read;
  }
  const own = ['initSdk', kConfig.appid, 0, 2, 268, '', '', 1, 'h', 1, 0, ''];
  assert.deepEqual(calls.filter(([name]) => name === 'initSdk'), [own, ['initSdk', kConfig.appid, 0, 1, 268, '', '', 1, 'other', 1, 0, ''], own]);
});

test('a connection that gives no answer is a card that gives none, and the error says why', async () => {
  const rows = [
    ['the radio is off', () => { throw new Error('the radio is off'); }], ['the connection failed', () => { throw undefined; }], ['tag lost', () => Promise.reject(new Error('tag lost'))],
    ['the connection failed', () => Promise.reject()], ['the connection failed', () => Promise.reject(Object.create(null))], ['transmit() gave no Uint8Array', () => {}],
    ['transmit() gave no Uint8Array', async () => '9000'], ['transmit() gave no Uint8Array', async () => [0x90, 0x00]],
    ['the answer has 301 bytes, more than 300', async () => new Uint8Array(301)], ['no then', () => ({ get then() { throw new Error('no then'); } })],
    ['first', () => ({ then(resolve, reject) { reject(new Error('first')); resolve(Uint8Array.of(0x90, 0x00)); throw new Error('again'); } })],
  ];
  for (const [detail, transmit] of rows) {
    for (const [kind, handler] of [['I', 'idCardHandler'], ['P', 'passportHandler']]) {
      const { error, calls } = await failed(kind, 4, transmit, -93001);
      assert.deepEqual([calls.filter(([name]) => name === handler), error.detail], [[[handler, '', 4, -1]], detail]);
    }
  }
});

test('a cancelled read keeps neither command nor monitor record, and answers each command once', async () => {
  const { reader, callbacks, calls } = configured();
  const cancel = new CancelHandle();
  const read = reader.readPassport(kMrz, { connection: silent, cancel });
  callbacks.Card(command(3));
  callbacks.Monitor('{"reqid": "R"}');
  [1, 2].forEach(() => cancel.cancel());
  assert.deepEqual([(await failure(() => read)).name, TqReader.abandoned.open, TqReader.abandoned.monitor], ['CANCELLED', null, null]);
  callbacks.Card(command(4)); // it was on its way
  await sleep(5);
  assert.deepEqual(calls.slice(-3), [['cancelCard', 1], ['passportHandler', '', 3, -1], ['passportHandler', '', 4, -1]]);
});

test('a second command at once ends the read', async () => {
  const { reader, callbacks, calls } = configured();
  const read = reader.readIdentityCard({ connection: silent });
  [2, 3].forEach((serial) => callbacks.Card(command(serial)));
  const { name, reason } = await failure(() => read);
  assert.deepEqual([name, reason, calls.slice(-3)], ['NO_RESULT', 'APPLICATION', [['cancelCard', 0], ['idCardHandler', '', 2, -1], ['idCardHandler', '', 3, -1]]]);
});

test('results as they come', async () => {
  const { reader, callbacks } = configured();
  const read = async (text) => {
    const reading = reader.readIdentityCard({ connection });
    assert.equal(callbacks.Monitor('{"reqid":'), '{"reqid":', 'a record that is none is reported as it is');
    callbacks.Result(text);
    return reading;
  };
  const data = (content) => `{"code":0,"flag":1,"data":${content}}`;
  for (const [text, ...came] of [['{"code": 0,"flag":2,"data":"01ABFF"}', '', null, [1, 0xab, 0xff]], [kGood, 'R', null, []],
    [data('{"reqid":"R","info":{"a":1}}'), 'R', { a: 1 }, []], [data('{"reqid":"R","info":[1]}'), 'R', null, []]]) {
    const { businessId, info, bytes, monitor } = await read(text);
    assert.deepEqual([businessId, info, [...bytes], monitor], [...came, null], text);
  }
  for (const text of ['', 'null', '7', '{"code":"0"}', data('"x"'), data('null'), data('{"info":{"name":}}')]) {
    assert.equal((await failure(() => read(text))).name, 'RESPONSE_MALFORMED', text);
  }
});

test('what a failure comes to for the person with the document', async () => {
  const rows = { // code of the result; kind of document, number and answer (if any) of the last command
    DOCUMENT_MOVED: [[-93001, 'P', 8], [-93001, 'I', 8], [-93006, 'P', 6]],
    WRONG_NUMBER_OR_DATES: [[-53001, 'P', 2, '6300'], [-53001, 'P', 2, '63C1'], [-53001, 'P', 2, '630000'], [-53001, 'P', 17, '6982']],
    UNKNOWN_ACCESS: [[-53001, 'P', 2, '6D00'], [-93005, 'P', 1, '6982'], [-93006, 'P', 0, '6985'], [-53001, 'P', 11, '6A82'], [-93006, 'P', 12, '9000']],
    NO_PASSPORT: [[-93006, 'P', 0, '6A82'], [-93005, 'P', 18, '6A82']],
    DOCUMENT_REFUSED: [[-1, 'P', 7, '6982'], [-93006, 'P', 4, '99026982'], [-93006, 'I', 2, '6A82'], [-93005, 'I', 0, '6986']],
    NONSENSE: [[-93006, 'P', 8, '019000'], [-93005, 'P', 2, '009000'], [-53001, 'P', 17, '009000'], [-1, 'I', 3, '9000'], [-93006, 'P', 8, '900000'], [-93001, 'P', 8, '9000']],
    NETWORK: [[-20001, 'P', 8, '9000'], [-22003, 'P', 8]], SERVER: [[-35006, 'P', 8, '9000'], [-1301, 'I', 10, '9000']], APPLICATION: [[-35010, 'P', 8, '9000']],
  };
  for (const [reason, cases] of Object.entries(rows)) {
    for (const [code, kind, serial, answer] of cases) {
      const { error } = await failed(kind, serial, async () => (answer ? Uint8Array.from(Buffer.from(answer, 'hex')) : assert.fail('gone')), code);
      assert.deepEqual([error.code, error.reason], [code, reason], `${kind} ${serial} ${answer}`);
    }
  }
  assert.equal((await failure(() => configured().reader.readPassport({}, { connection }))).reason, 'WRONG_NUMBER_OR_DATES');
});

test('calls of the library when no read is running', () => {
  const { callbacks, calls } = configured();
  callbacks.Card(command(0));
  callbacks.Result(kGood);
  assert.deepEqual([callbacks.Monitor('{}'), Math.abs(callbacks.Timestamp() - Date.now()) < 1000, calls.map(([name]) => name)], ['{}', true, ['initSdk']]);
});

test('when the result function cannot be replaced after a cancel, the next read ends', async () => {
  const { reader, codes, calls, callbacks } = configured();
  const cancel = new CancelHandle();
  const first = reader.readIdentityCard({ connection, cancel });
  cancel.cancel();
  assert.equal((await failure(() => first)).name, 'CANCELLED');
  codes.Result = -13008;
  assert.equal((await failure(() => reader.readIdentityCard({ connection }))).name, 'MISSING_CALL');
  assert.deepEqual(calls.at(-1), ['cancelCard', 0]);
  codes.Result = 0;
  const again = reader.readIdentityCard({ connection });
  assert.deepEqual(calls.slice(-2).map(([name]) => name), ['initSdk', 'getIdInfo'], 'set up anew');
  callbacks.Result(kGood);
  await again;
});
