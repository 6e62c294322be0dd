// Every failure, provoked by a card, a server or an application that does it.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { asRule, failingAt, noAnswer, Process, testReads } from './support.mjs';

/** Each server command: how a read gets there, the result when nothing else is said, and who is told. */
const kCommands = {
  '0x7500': { told: 'none' },
  '0x5001': {},
  '0x5012': { tick: { server: 201 } },
  '0x5022': { tick: { server: 201 } },
  '0x5032': {},
  '0x6002': {},
  '0x6102': { identity: { readMode: 1 } },
  '0x6113': {},
};
const kFrame = ['headerByte', { kind: 'headerByte', byte: 0 }, { kind: 'headerByte', byte: 0x72 }, 'lengthShort', 'commandCode',
  'errorCommand', 'parameterSmall', 'typeByte', 'checksum', 'emptyPayload', 'notBlockMultiple'];
const kSecret = ['badPadding', 'secretStart', 'secretLength', 'secretCommand', 'secretChecksum', 'secretEnd', 'secretEmpty'];
const kBlock = ['badPadding', 'opaqueAll', 'opaquePast', 'blockLength', 'blockShort', 'businessIdPastEnd', 'blockChecksum'];
const kKinds = { '0x7500': [...kFrame, ...kBlock], '0x6102': kFrame, '0x6113': [...kFrame, 'tagLengthPastEnd', 'flagByte'] };
const kindsOf = (command) => kKinds[command] ?? [...kFrame, ...kSecret];

const failing = failingAt(kCommands);
// whatever is wrong with the answer to 0x6102, 0x6113 takes its place
const malformed = (on) => (on === '0x6102' ? { last: ['0x6113', 'READ 6013'] } : { code: -35006 });

testReads('malformed answers', Object.keys(kCommands).flatMap((on) => [
  ...kindsOf(on).map((kind) => failing(on, [asRule(kind)], malformed(on))),
  failing(on, [{ do: 'extra', bytes: '00' }], malformed(on)),
]).concat([
  { name: '0x7500: a NUL in the business id', server: { businessId: 'SIMULATED\0READ' }, code: -35006, told: 'none', again: false },
  failing('0x6102', [{ do: 'malformed', kind: 'flagByte' }], { code: -35006 }),
  failing('0x6102', [{ do: 'malformed', kind: 'tagLengthPastEnd' }], { code: -35006 }),
  ...['0x6102', '0x6113'].map((on) => ({ ...failing(on, [{ do: 'malformed', kind: 'badPadding' }], malformed(on)),
    server: { rules: [{ on, do: 'malformed', kind: 'badPadding' }], answers: { [on]: { tags: [{ idType: 1 }] } } } })),
  failing('0x5001', [{ do: 'malformed', kind: 'secretData', bytes: '00'.repeat(251) }], { code: -22003 }), // 260 bytes do not hold it
]));

const kStatuses = [['001301', -1301], ['0F0200', -200], ['002005', -2005], ['999999', -999999], ['12345A', -12345], ['000010', -10],
  ['000001', -35006], ['FFFFFF', -35006], ['F00000', -35006], ['00A000', -35006], ['A12345', -35006]];
testReads('status of the server', kStatuses.flatMap(([status, code]) => [
  ...['0x7500', '0x5001', '0x5032', '0x6002', '0x6113'].map((on) => failing(on, [{ do: 'status', status }], { code })),
  failing('0x7500', [{ do: 'malformed', kind: 'errorCommand', status }], { code }),
  failing('0x5001', [{ do: 'malformed', kind: 'errorCommand', status }], { code: -35006 }),
]));

testReads('connection lost', [
  ...Object.keys(kCommands).flatMap((on) => noAnswer(1, 2, 3, 11, 16, -1).map((rules) =>
    failing(on, rules, { code: -22003, told: kCommands[on].told ?? 'application' }))),
  ...['close', 'reset'].map((action) => ({ name: `${action} at once`, server: { rules: [{ on: 'connect', do: action }] }, code: -22003, told: 'none' })),
  // nobody looks at the answer to the monitor record
  ...[{ do: 'close' }, { do: 'reset' }, { do: 'malformed', kind: 'checksum' }, { do: 'status', status: '009999' }].map((rule) =>
    ({ name: `0x7219: ${rule.do}`, server: { rules: [{ on: '0x7219', ...rule }] } })),
]);

// --- the card ----------------------------------------------------------------------------------------------------------

const kAnswers = [ // answer, code, status in the monitor record
  ['00', -93001, 0], ['02', -93006, 0x0200], ['6A', -1, 0x6a00], ['0000', -93001, 0], ['6986', -93005, 0x6986],
  ['6A82', -1, 0x6a82], ['000000', -93001, 0], ['000001', -93001, 0], ['698600', -93005, 0x6986], ['698601', -1, 0x6986],
  ['6A8200', -1, 0x6a82], ['00001234', -93001, 0x1234], ['00000000', -93001, 0], ['12345678', -1, 0x12345678],
  ['FEDCBA00', -1, 0xfedcba00], ['11220000', -1, 0x11222200], ['6282900001', -1, 0x62820001], ['69860000', -1, 0x69868600],
  ['90', -1, 0x9000], ['0002', -1, 2], ['0200', -1, 0x0200], ['0090', -1, 0x90], ['90000000', -1, 0x90009000], ['00006A82', -93001, 0x6a82],
];
const kSuccesses = ['900000', 'AA9000', 'AA900000', '90009000', '9000900000', '00009000'];
const kCardSteps = ['SELECT 6002', 'READ 6002', 'INTERNAL AUTHENTICATE', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE', 'SELECT 6011',
  'READ 6011', 'SELECT 6012', 'READ 6012', 'SELECT 6013', 'READ 6013'];
const cardFails = (on, rule, row) => ({ name: `${on}: ${Object.values(rule).join(' ').slice(0, 60)}`, cardRules: [{ on, ...rule }], ...row });

testReads('answers of the card', [
  ...kAnswers.map(([data, code, nfc]) => cardFails('SELECT 6011', { do: 'answer', data }, { code, nfc })),
  ...kSuccesses.map((data) => cardFails('SELECT 6011', { do: 'answer', data }, {})),
  ...kCardSteps.flatMap((on) => [
    cardFails(on, { do: 'status' }, { code: -93001, nfc: 0 }),
    cardFails(on, { do: 'empty' }, { code: -93001, nfc: 0 }),
    cardFails(on, { do: 'oversize', size: 301 }, { code: -93001, nfc: 0 }),
    cardFails(on, { do: 'answer', data: '6986' }, { code: -93005, nfc: 0x6986 }),
    cardFails(on, { do: 'answer', data: '02' }, { code: -93006, nfc: 0x0200 }),
    cardFails(on, { do: 'answer', data: '6A82' }, { code: -1, nfc: 0x6a82 }),
    cardFails(on, { do: 'wrongSerial', serial: 13 }, { code: -13009, nfc: 0 }),
    cardFails(on, { do: 'wrongSerial', serial: 255 }, { code: -13009, nfc: 0 }),
    ...(on === 'READ 6012' ? [] : [cardFails(on, { do: 'oversize', size: 300 }, { code: -1, nfc: 0 })]),
  ]),
  ...['REQB', 'ATTRIB'].map((on) => cardFails(on, { do: 'wrongSerial', serial: 13 }, { code: -13009, nfc: 0 })),
  cardFails('SELECT 6002', { do: 'wrongSerial', serial: 256 + 13 }, { code: -13009, nfc: 0 }),
  cardFails('READ 6002', { do: 'shorten', count: 31 }, { code: -33005 }),
  cardFails('READ 6002', { do: 'oversize', size: 35 }, { code: -33005 }),
  cardFails('GET CHALLENGE', { do: 'shorten', count: 7 }, { code: -33005, last: ['0x5001', 'GET CHALLENGE'] }),
  cardFails('INTERNAL AUTHENTICATE', { do: 'shorten', count: 7 }, { code: -33005, tick: { server: 201 }, last: ['0x5001', 'INTERNAL AUTHENTICATE'] }),
  cardFails('GET CHALLENGE', { do: 'shorten', count: 7 }, { code: -33005, tick: { server: 201 }, last: ['0x5012', 'GET CHALLENGE'] }),
  cardFails('READ 6011', { do: 'nothingButSuccess' }, { silent: true, open: true }),
  cardFails('READ 6011', { do: 'nothingButSuccess', nth: 2 }, { silent: true, open: true }),
]);

// --- configuration and order of calls ----------------------------------------------------------------------------------

const kA = 'A'.repeat(20);
const kIdentities = [ // what is wrong, and the code of initSdk and of the getIdInfo that follows
  [{ appid: '' }, -13003], [{ appid: 'A'.repeat(19) }, -13003], [{ appid: 'A'.repeat(21) }, -13003], [{ appid: `${'A'.repeat(19)}-` }, -13003],
  [{ appid: `${'A'.repeat(10)} ${'A'.repeat(9)}` }, -13003], [{ appid: 'A'.repeat(5000) }, -13003], [{ appid: '样'.repeat(20) }, -13003],
  [{ appid: `  ${kA}\t` }, 0], [{ appid: `${kA}${' '.repeat(107)}` }, 0],
  [{ sn: 'S'.repeat(65) }, -13002], [{ sn: `${'S'.repeat(64)}  ` }, 0], [{ sn: 'S\u0080' }, -13002], [{ sn: 'S\u007f' }, 0],
  [{ decodeMode: 2 }, -13009], [{ decodeMode: -1 }, -13009], [{ readMode: 0 }, -13009], [{ readMode: 3 }, -13009],
  [{ envIdCode: 269 }, -13009], [{ envIdCode: 0 }, -13009], [{ port: 65536 }, -13009], [{ port: 65535 }, 0], [{ port: 0 }, 0],
  [{ reqidType: 2 }, -13009, 0], [{ reqidType: -1 }, -13009, 0],
];

test('configuration and order of calls', async (t) => {
  const child = new Process();
  const rows = await child.call('configurations', kIdentities.map(([identity]) => identity));
  for (const [i, [identity, code, started = code]] of kIdentities.entries()) {
    await t.test(JSON.stringify(identity).slice(0, 60), () => assert.deepEqual(rows[i], { code, started }));
  }
  await child.end();
  await t.test('calls before their time', async () => {
    const early = new Process();
    assert.deepEqual(await early.call('early'), [
      ['getIdInfo', -13008], ['idCardHandler', undefined], ['cancelCard', 0], ['cancelCard 2', 0], ['getBillingModel', 0],
      ['registered', [0, 0, 0, 0]], ['getIdInfo', -13008], ['initSdk', 0],
      ...['Card', 'Monitor', 'Timestamp', 'Result'].flatMap((name) => [
        [`register${name}Callback(null)`, -13008], ['getIdInfo', -13009], [`register${name}Callback(undefined)`, -13008],
        [`register${name}Callback(5)`, -13008], ['initSdk', 0], ['getIdInfo', -13008], [`register${name}Callback`, 0]]),
      ['a read', 0],
    ].map(([name, value]) => (value === undefined ? [name] : [name, value])));
    await early.end();
  });
});
