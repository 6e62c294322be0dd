// Whole reads in every mode: what is asked of card and server, and the texts that the application gets.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { jsonResult, Process, testReads } from './support.mjs';

const kFast = { server: 40, card: 3 };
const kSlow = { server: 201, card: 3 };
const kLongSn = 'S'.repeat(64);
const kInfo = '{"name":"样本","quote":"a\\"}b","nested":{"list":[1,2]}}';

testReads('modes', [
  ...[1, 2].flatMap((readMode) => [0, 1].flatMap((decodeMode) => [false, true].flatMap((timing) =>
    [['fast', kFast], ['slow', kSlow]].map(([path, tick]) => ({
      name: `readMode ${readMode}, decodeMode ${decodeMode}, ${timing ? 'timing' : 'no timing'}, ${path} path`,
      identity: { readMode, decodeMode }, server: { timing, path }, tick,
      last: readMode === 1 ? ['0x6102', 'READ 6012'] : ['0x6113', 'READ 6013'],
    }))))),
  // the budget of the fast path is 200 ms: the server's round trip and twice the card's turnaround
  ...[[120, 40, 'fast'], [120, 41, 'slow'], [118, 41, 'fast'], [119, 41, 'slow'], [200, 0, 'fast'], [201, 0, 'slow']].map(
    ([server, card, path]) => ({ name: `${server} ms and ${card} ms: ${path} path`, tick: { server, card }, server: { path } })),
  ...[0, 1].map((reqidType) => ({ name: `reqid version ${reqidType}`, identity: { reqidType } })),
  ...[268, 52302, 26814].map((envIdCode) => ({ name: `environment ${envIdCode}`, identity: { envIdCode } })),
  ...['', '样本包名'].map((packageName) => ({ name: `package name "${packageName}"`, identity: { packageName } })),
  ...['', kLongSn, 'a "\\" and \u0001'].map((sn) => ({ name: `serial number of ${sn.length} characters`, identity: { sn } })),
  { name: 'terminal id of more than a byte', identity: { terId: 0x1234 } },
  { name: 'appid with blanks around it', identity: { appid: '  SIMULATEDREADER00002\t' } },
  { name: 'server by name', identity: { ip: 'localhost' } },
  ...[1, 16, 300].map((opaqueLength) => ({ name: `opaque field of ${opaqueLength} bytes`, server: { opaqueLength } })),
  ...['', 'B'.repeat(255)].map((id) => ({ name: `business id of ${id.length} bytes`, server: { businessId: id }, reqid: id })),
  { name: 'card with a proof of 18 bytes, slow path', secrets: { proofLength: 18 }, tick: kSlow },
  { name: 'card with a proof of 18 bytes, fast path', secrets: { proofLength: 18 }, last: ['0x6113', 'READ 6013'] },
  { name: 'answers in pieces', server: { rules: [{ on: 'any', do: 'pieces', size: 1, everyMs: 0 }] } },
  { name: 'REQB and ATTRIB without an answer', cardRules: [{ on: 0, do: 'empty' }, { on: 1, do: 'status' }] },
  { name: 'a trailing zero byte behind every answer', cardRules: [{ on: 'any', do: 'trailingZero' }] },
  ...['READ 6011', 'READ 6012', 'READ 6013'].map((on) => ({ name: `short answers to ${on}`, cardRules: [{ on, do: 'shorten', count: 50 }] })),
  { name: 'an empty answer to READ 6012', cardRules: [{ on: 'READ 6012', nth: 1, do: 'nothingButSuccess' }] },
  { name: 'too much for READ 6012', cardRules: [{ on: 'READ 6012', nth: 2, do: 'oversize', size: 300 }] },
]);

const result = (readMode, answer) => ({ identity: { readMode },
  server: { answers: { [readMode === 1 ? '0x6102' : '0x6113']: answer } } });
const kBothModes = [1, 2];

testReads('results', kBothModes.flatMap((mode) => [
  { name: 'flag 0', ...result(mode, { flag: 0 }), raw: jsonResult() },
  { name: 'flag 2', ...result(mode, { flag: 2, data: '01AB' }), raw: '{"code": 0,"flag":2,"data":"01AB"}' },
  { name: 'flag 2 without data', ...result(mode, { flag: 2, data: '' }), raw: '{"code": 0,"flag":2,"data":""}' },
  { name: 'flag 3', ...result(mode, { flag: 3 }), code: -35006 },
  { name: 'no tags', ...result(mode, { tags: [] }), raw: jsonResult() },
  ...[[7, '07'], [9, '09'], [10, '10'], [255, '255']].map(([idType, text]) =>
    ({ name: `only a type, ${idType}`, ...result(mode, { tags: [{ idType }] }), raw: jsonResult(`{"idType":"${text}"}`) })),
  { name: 'type and back-card id', ...result(mode, { tags: [{ backCardId: '12AB' }, { idType: 1 }] }),
    raw: jsonResult('{"idType":"01","backCardId":"12AB"}') },
  { name: 'only a back-card id', ...result(mode, { tags: [{ backCardId: 'FF' }] }), raw: jsonResult('{"backCardId":"FF"}') },
  { name: 'info wins', ...result(mode, { tags: [{ info: kInfo }, { idType: 1 }, { backCardId: '12AB' }] }), raw: jsonResult(kInfo) },
  { name: 'length of one byte', ...result(mode, { tags: [{ info: '{}', lengthBytes: 1 }] }), raw: jsonResult('{}') },
  { name: 'length of nine bytes', ...result(mode, { tags: [{ info: '{}', lengthBytes: 9 }] }), raw: jsonResult('{}') },
  { name: 'an unknown tag ends the scan', ...result(mode, { tags: [{ idType: 1 }, { raw: '0700' }, { info: '{}' }] }),
    raw: jsonResult('{"idType":"01"}') },
  ...['00FFFF 020212AB', '000101 0001FF 020212AB', '020212AB 0001FF', '020212AB 0001FF 01', '020212AB 0001FF 010100 03FF 000101'].map((raw) =>
    ({ name: `tags ${raw}`, ...result(mode, { tags: [{ raw: raw.replaceAll(' ', '') }] }), raw: jsonResult('{"idType":"255","backCardId":"12AB"}') })),
  { name: 'an empty back-card id', ...result(mode, { tags: [{ raw: '0200' }] }), raw: jsonResult() },
  { name: 'the longest back-card id', ...result(mode, { tags: [{ backCardId: 'A5'.repeat(255) }] }), raw: jsonResult(`{"backCardId":"${'A5'.repeat(255)}"}`) },
  // a NUL in the information, lengths past the end, among them some that wrap round, tags cut short
  ...['010200052241004222', '010102 7B00', '0102FFFF7B', '0002', '0000', '020312AB', '010108 7B226E223A317D', '0105 0001', '0105 01000000017B',
    '0109 0100000000000000017B'].map((raw) => ({ name: `tags ${raw}`, ...result(mode, { tags: [{ idType: 1 }, { raw: raw.replaceAll(' ', '') }] }), code: -35006 })),
].map((row) => ({ ...row, name: `readMode ${mode}: ${row.name}` }))).concat([
  // the receive buffer: 7168 bytes for file 6013 when both modes are off, else 1128
  ...[[2, 0, 7168], [2, 1, 1128], [1, 0, 1128], [1, 1, 1128]].flatMap(([mode, decodeMode, room]) => [0, 1].map((over) => {
    const data = 'A5'.repeat(room - 13 + over);
    const { server } = result(mode, { flag: 2, data });
    return { name: `answer of ${room + over} bytes, readMode ${mode}, decodeMode ${decodeMode}`,
      identity: { readMode: mode, decodeMode }, server: { ...server, rules: [{ on: 'any', do: 'extra', bytes: '' }] },
      ...(over ? { code: -22003 } : { raw: `{"code": 0,"flag":2,"data":"${data}"}` }) };
  })),
]));

const kFailingOver = ['status', 'checksum', 'typeByte', 'notBlockMultiple', 'commandCode', 'parameterSmall', 'emptyPayload'];
testReads('0x6102 gives way to 0x6113', kFailingOver.map((kind) => ({
  name: kind, identity: { readMode: 1 }, last: ['0x6113', 'READ 6013'],
  server: { rules: [{ on: '0x6102', ...(kind === 'status' ? { do: 'status', status: '002005' } : { do: 'malformed', kind }) }] },
})));

test('timing: what 0x6102 and 0x6113 carry', async () => {
  const child = new Process();
  for (const [readMode, timing, expected] of [[1, true, [3, 18]], [2, true, [3, 36]], [2, false, [0, 0]]]) {
    const command = readMode === 1 ? '0x6102' : '0x6113';
    const { fields } = await child.call('perform', { identity: { readMode }, server: { timing }, tick: { card: 3 } });
    assert.deepEqual([fields[command].cardTime, fields[command].fileTime], expected);
  }
  await child.end();
});
