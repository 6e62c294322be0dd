// Every failure of a passport read, provoked by a chip, a server or an application that does it; and what a read does
// without.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { alone, asRule, failingAt, noAnswer, Process, sodText, testReads, USUAL_FILES } from './support.mjs';

const passport = { brief: true };
const kCommands = { '0x7500': { passport, told: 'none' }, '0x7201': { passport }, '0x7202': { passport, sod: USUAL_FILES[2] },
  '0x7219': { passport } };
const failing = failingAt(kCommands);

const kFrame = ['headerByte', { kind: 'headerByte', byte: 0x70 }, 'lengthShort', 'commandCode', 'errorCommand', 'parameterSmall', 'typeByte',
  'checksum', 'emptyPayload', 'notBlockMultiple'];
const kKinds = { '0x7500': ['headerByte', 'opaqueAll', 'blockChecksum'],
  '0x7201': [...kFrame, 'badPadding', 'token', { kind: 'typeByte', byte: 0x99 }],
  '0x7202': [...kFrame, 'badPadding', 'flagByte', 'tagLengthPastEnd', { kind: 'typeByte', byte: 0xaa }] };
const kStatuses = [['001301', -1301], ['002005', -2005], ['999999', -999999], ['12345A', -12345], ['000001', -35006], ['FFFFFF', -35006]];
// the token has been handed out by a connection of its own, so that a third brings the record whatever became of the second
const kTold = { '0x7500': 'none', '0x7201': 'application', '0x7202': 'both' };

describe('passport: failures', { concurrency: 4 }, () => {
  testReads('passport: the server', Object.keys(kTold).flatMap((on) => [
    ...kKinds[on].map((kind) => failing(on, [asRule(kind)], { code: -35006 })),
    failing(on, [{ do: 'extra', bytes: '00' }], { code: -35006 }),
    ...kStatuses.map(([status, code]) => failing(on, [{ do: 'status', status }], { code })),
    ...noAnswer(1, 3, 4, 5, 13, -1).map((rules) => failing(on, rules, { code: -22003, told: kTold[on] })),
  ]).concat([
    ...[{ do: 'close' }, { do: 'reset' }, { do: 'malformed', kind: 'checksum' }, { do: 'status', status: '009999' }].map((rule) =>
      failing('0x7219', [rule])), // nobody looks at the answer to the monitor record
  ]));

  // --- the chip ----------------------------------------------------------------------------------------------------------

  const chip = (name, rules, row = {}) => ({ name, passport, cardRules: rules, ...row });
  const at = (on, rule, row) => chip(`${on}: ${Object.values(rule).join(' ').slice(0, 60)}`, [{ on, ...rule }], row);

  const kAccess = [
    ...['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE'].flatMap((on, step) => [
      ...[{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }, { do: 'answer', data: '00' }, { do: 'answer', data: '0000' }].map((rule) =>
        at(on, rule, { code: -93001, nfc: 0 })),
      // the relay's codes reach the result at the first step only; then they mean a failure of access control
      ...[['6986', -93005, 0x6986], ['02', -93006, 0x0200], ['6A82', -1, 0x6a82], ['698601', -1, 0x6986]].map(([data, code, nfc]) =>
        at(on, { do: 'answer', data }, { code: [code, -93005, -53001][step], nfc })),
      at(on, { do: 'wrongSerial', serial: 10 }, { code: -13009, nfc: 0 }),
      at(on, { do: 'wrongSerial', serial: 255 }, { code: -13009, nfc: 0 }),
    ]),
    at('SELECT APPLICATION', { do: 'oversize', size: 260 + 3 }, { code: -1, nfc: 0 }),
    at('SELECT APPLICATION', { do: 'oversize', size: 260 + 2 }, {}),
    ...[0, 7].map((count) => at('GET CHALLENGE', { do: 'shorten', count }, { code: -93005 })),
    ...[13, 300].map((size) => at('GET CHALLENGE', { do: 'oversize', size: size + 2 > 300 ? 300 : size + 2 }, { code: -93005, nfc: 0 })),
    at('EXTERNAL AUTHENTICATE', { do: 'shorten', count: 31 }, { code: -93005 }),
    at('EXTERNAL AUTHENTICATE', { do: 'oversize', size: 300 }, { code: -53001, nfc: 0 }),
    ...['wrongRndIc', 'wrongRndIfd'].map((action) => at('EXTERNAL AUTHENTICATE', { do: action }, { code: -93005 })),
    ...[{ documentNumber: 'SPEC01235' }, { birthDate: '900102' }, { expiryDate: '341230' }].map((claims) =>
      chip(`a wrong ${Object.keys(claims)}`, [], { claims, code: -53001, nfc: 0x6300, differs: '^EXTERNAL AUTHENTICATE: MAC is' })),
  ];

  const kNeeded = ['SELECT EF.SOD', 'READ EF.SOD', 'SELECT DG1', 'READ DG1', 'SELECT DG2', 'READ DG2'];
  testReads('passport: access control and needed files', [
    ...kAccess,
    ...kNeeded.flatMap((on) => [
      ...[{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }].map((rule) => at(on, rule, { code: -93001, nfc: 0 })),
      at(on, { do: 'answer', data: '02' }, { code: -93006, nfc: 0x0200 }),
      at(on, { do: 'wrongSerial', serial: 255 }, { code: -13009, nfc: 0 }),
      at(on, { do: 'skipCounter' }, { code: -93006 }),
      at(on, { do: 'loseSession' }, { code: on.startsWith('SELECT') ? -93006 : -1, nfc: 0x6988 }),
    ]),
  ]);

  // --- what a read does without -------------------------------------------------------------------------------------------

  const kAll = 'com sod dg15 dg11 dg1 dg2 dg14';
  const sod = (failed, files = kAll) => ({ sod: sodText(files, failed) });
  const kNone = { expects: null }; // no particular passport: some of it does not come
  const notActive = (activeAuthentication) => ({ expects: { verification: { activeAuthentication } } });
  const persona = (name, row) => ({ name, passport: { persona: name, brief: name.startsWith('d') }, ...row });

  const kFrom = (first) => Array.from({ length: 8 }, (_, i) => first + i);
  const kLists = [
    ...['comEmpty', 'comMalformed', 'sodLengths81', 'sodLengths82', 'sodTwoByteTags'].map((name) => persona(name, {})),
    ...['SELECT EF.COM', 'READ EF.COM'].flatMap((on) => [{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }].map((rule) => at(on, rule, { code: -93001, nfc: 0 }))),
    persona('sodMissing', { code: -93006, nfc: 0x6a82 }),
    persona('sodOtherTag', { code: -93006 }),
    { name: 'no EF.COM and no list in EF.SOD', passport: { persona: 'withoutCom', brief: true }, code: -93006 },
    { name: 'no list at all', passport: { persona: 'comEmpty', brief: true }, code: -93006 },
    { name: 'a list of unknown tags and none in EF.SOD', passport: { comTags: [0x60, 0x77, 0x62], brief: true }, code: -93006 },
    { name: 'nothing but DG2, which is not wanted', passport: { comTags: [0x75] }, identity: { readMode: 1 }, code: -93006 },
    { name: 'EF.SOD breaks off where its list is needed', passport: { persona: 'comEmpty' }, cardRules: [{ on: 'READ EF.SOD', nth: kFrom(3), do: 'noData' }], code: -93001 },
    { name: 'EF.SOD and EF.COM of nothing', passport: { comTags: [], overrides: { '0x011D': '7700' } }, chip: { endOfFile: '9000' }, code: -93006 },
  ];

  const kDataGroups = [
    persona('dg1Refused', { code: -93006, nfc: 0x6982 }),
    persona('withoutDg15', sod({}, 'com sod dg11 dg1 dg2 dg14')),
    persona('onlyMandatory', sod({}, 'com sod dg1 dg2')),
    persona('dg15Missing', { ...sod({ dg15: '6A82' }), last: ['0x7202', 'READ DG14'] }),
    ...['DG15', 'DG11'].flatMap((name) => [{ do: 'status' }, { do: 'empty' }].map((rule) => at(`SELECT ${name}`, rule, { code: -93001, nfc: 0 }))),
    // once INTERNAL AUTHENTICATE has been sent, a missing answer is one that cannot be opened
    ...[{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }].map((rule) =>
      at('SELECT DG14', rule, { ...sod({ dg14: '' }), ...kNone, nfc: 0 })),
    ...['75025A5A', '7583000100', '75840000FFFF', '7580FFFF', '7581015A', '758200005A'].map((start) => ({ name: `DG2 begins with ${start}`,
      passport: { overrides: { '0x0102': start } }, chip: { order: 'any', endOfFile: '9000' }, server: { monitorText: 'any' }, ...kNone })),
  ];

  const kActive = [
    ...[{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }, { do: 'answer', data: '0000' }].flatMap((rule) => [
      at('INTERNAL AUTHENTICATE', rule, { passport: { dataGroups: [1, 2, 15], brief: true }, ...sod({}, 'com sod dg15 dg1 dg2'), ...notActive('failed'), nfc: 0 }),
      // the chip has counted the answer that did not come
      at('INTERNAL AUTHENTICATE', rule, { ...sod({ dg14: '6988' }), ...kNone, nfc: 0x6988, differs: '(send sequence counter|MAC) ' }),
    ]),
    at('INTERNAL AUTHENTICATE', { do: 'statusWord', status: '6985' }, { passport: { dataGroups: [1, 2, 15], brief: true }, ...sod({}, 'com sod dg15 dg1 dg2'),
      ...notActive('failed'), nfc: 0x6985 }),
  ];
  testReads('passport: EF.COM and EF.SOD, data groups, active authentication',
    [...kLists, ...kDataGroups, ...kActive].map((row) => ({ passport, ...row })));

  // --- arguments ---------------------------------------------------------------------------------------------------------

  const kGood = ['SPEC01234', '900101', '341231'];
  const kOdd = ['undefined', 'null', 'number', 'true', 'object', 'array', 'function', 'symbol', 'bigint', 'String'].map((kind) => ({ kind }));
  const instead = (place, value) => kGood.with?.(place, value) ?? kGood.map((good, i) => (i === place ? value : good));
  const kArguments = [ // arguments of getPassportInfo and its code
    [kGood, 0], [[...kGood, 'more', { kind: 'null' }], 0], [[], -93003], [kGood.slice(0, 1), -93003], [kGood.slice(0, 2), -93003],
    ...[0, 1, 2].flatMap((place) => kOdd.map((odd) => [instead(place, odd), -93003])),
    ...[0, 1, 2].flatMap((place) => ['', ' ', '\t\t', '\0', '\0A'].map((nothing) => [instead(place, nothing), -13008])),
    ...['A'.repeat(21), 'A'.repeat(28), 'A'.repeat(5e5), 'L898902C<', 'AB 12345', 'AB-12', '样本', 'A\r', '\ud800', `A${' '.repeat(30)}B`.slice(0, 20) + 'B']
      .map((number) => [instead(0, number), -13009]),
    ...['A', 'ab12', '  AB12\t ', 'A'.repeat(20), `${'A'.repeat(20)}     `, `A${' '.repeat(300)}B`].map((number) => [instead(0, number), 0]),
    ...[1, 2].flatMap((place) => [
      ...['90010', '9001011', '9001O1', '90-101', '9001 1', '９００１０１', '900101\n', ' 9001'].map((date) => [instead(place, date), -13009]),
      ...['991399', '000000', ' 900101', '900101\t', `900101${' '.repeat(40)}1`].map((date) => [instead(place, date), 0]),
    ]),
    [['', { kind: 'number' }, ''], -93003], [['', 'x', 'y'], -13008], [['<', '', ''], -13009], [['A', '', 'y'], -13008], [['A', 'x', ''], -13009],
  ];
  test('passport: arguments', async (t) => {
    const child = new Process();
    const codes = await child.call('passportArguments', kArguments.map(([list]) => list));
    for (const [i, [list, code]] of kArguments.entries()) {
      await t.test(JSON.stringify(list).slice(0, 80), () => assert.equal(codes[i], code));
    }
    await t.test('before initSdk and the registrations', async () => assert.deepEqual(await alone('earlyPassport'), [-13008, -93003, 0, -13008, 0]));
    await t.test('the process ends by itself', () => child.end());
  });
});
