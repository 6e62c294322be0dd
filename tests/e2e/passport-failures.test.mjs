// Every failure of a passport read, provoked by a chip, a server or an application that does it; and what a read does
// without.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { alone, Process, sodText, testReads, USUAL_FILES } from './support.mjs';

const kPassport = { brief: true };
const kCommands = { '0x7500': { told: 'none' }, '0x7201': {}, '0x7202': { sod: USUAL_FILES[2] } };
const failing = (on, rules, row = {}) => ({ name: `${on}: ${rules.map((rule) => Object.values(rule).join(' ')).join(', ')}`,
  passport: kPassport, ...kCommands[on], server: { rules: rules.map((rule) => ({ on, ...rule })) }, ...row });
const asRule = (kind) => ({ do: 'malformed', ...(typeof kind === 'string' ? { kind } : kind) });

const kFrame = ['headerByte', { kind: 'headerByte', byte: 0x70 }, 'lengthShort', 'commandCode', 'errorCommand', 'parameterSmall', 'typeByte',
  'checksum', 'emptyPayload', 'notBlockMultiple'];
const kKinds = { '0x7500': ['headerByte', 'opaqueAll', 'blockChecksum'],
  '0x7201': [...kFrame, 'badPadding', 'token', { kind: 'typeByte', byte: 0x99 }],
  '0x7202': [...kFrame, 'badPadding', 'flagByte', 'tagLengthPastEnd', { kind: 'typeByte', byte: 0xaa }] };
const kStatuses = [['001301', -1301], ['002005', -2005], ['999999', -999999], ['12345A', -12345], ['000001', -35006], ['FFFFFF', -35006]];
const kNoAnswer = [[{ do: 'close' }], [{ do: 'reset' }], [{ do: 'malformed', kind: 'lengthLong' }, { do: 'hangup' }]];
// the token has been handed out by a connection of its own, so that a third brings the record whatever became of the second
const kTold = { '0x7500': 'none', '0x7201': 'application', '0x7202': 'both' };

describe('passport: failures', { concurrency: 4 }, () => {
  testReads('passport: the server', Object.keys(kCommands).flatMap((on) => [
    ...kKinds[on].map((kind) => failing(on, [asRule(kind)], { code: -35006 })),
    failing(on, [{ do: 'extra', bytes: '00' }], { code: -35006 }),
    ...kStatuses.map(([status, code]) => failing(on, [{ do: 'status', status }], { code })),
    ...kNoAnswer.map((rules) => failing(on, rules, { code: -22003, told: kTold[on] })),
  ]).concat([
    ...[{ do: 'close' }, { do: 'reset' }, { do: 'malformed', kind: 'checksum' }, { do: 'status', status: '009999' }].map((rule) =>
      failing('0x7219', [rule])), // nobody looks at the answer to the monitor record
  ]));

  // --- the chip ----------------------------------------------------------------------------------------------------------

  const chip = (name, rules, row = {}) => ({ name, passport: kPassport, cardRules: rules, ...row });
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
      at(on, { do: 'statusWord', status: '6A82' }, { code: on.startsWith('SELECT') ? -93006 : -1, nfc: 0x6a82 }),
      at(on, { do: 'statusWord', status: '6986' }, { code: -93005, nfc: 0x6986 }),
      at(on, { do: 'answer', data: '02' }, { code: -93006, nfc: 0x0200 }),
      at(on, { do: 'statusWord', status: '6982', protected: true }, { code: on.startsWith('SELECT') ? -93006 : -1, nfc: 0x99026982 }),
      at(on, { do: 'wrongSerial', serial: 10 }, { code: -13009, nfc: 0 }),
      ...['wrongMac', 'noMac', 'skipCounter', 'loseSession'].map((action) => at(on, { do: action }, action === 'loseSession'
        ? { code: on.startsWith('SELECT') ? -93006 : -1, nfc: 0x6988 } : { code: -93006 })),
    ]),
  ]);

  // --- what a read does without -------------------------------------------------------------------------------------------

  const kAll = 'com sod dg15 dg11 dg1 dg2 dg14';
  const sod = (failed, files = kAll) => ({ sod: sodText(files, failed) });
  const kNone = { expects: null }; // no particular passport: some of it does not come
  const notActive = (activeAuthentication) => ({ expects: { verification: { activeAuthentication } } });
  const persona = (name, row) => ({ name, passport: { persona: name, brief: name.startsWith('d') }, ...row });
  const refused = (on, row) => at(on, { do: 'statusWord', status: '6982' }, row);

  const kLists = [
    ...['comEmpty', 'comMalformed', 'sodLengths81', 'sodLengths82', 'sodTwoByteTags'].map((name) => persona(name, {})),
    persona('comUnreadable', sod({ com: '6982' })),
    persona('withoutCom', { code: -93006, last: ['0x7201', 'READ EF.SOD'] }),
    refused('SELECT EF.COM', { code: -93006 }),
    at('SELECT EF.COM', { do: 'wrongMac' }, { code: -93006 }),
    persona('sodMissing', { code: -93006, nfc: 0x6a82 }),
    persona('sodOtherTag', { code: -93006 }),
    at('READ EF.COM', { do: 'statusWord', status: '6982', nth: 1 }, { passport: true, ...sod({ com: '6982' }), ...kNone }),
    at('READ EF.COM', { do: 'statusWord', status: '6982', nth: 2 }, { passport: true, ...sod({ com: '6982' }), ...kNone }),
    at('READ EF.COM', { do: 'wrongMac', nth: 1 }, { passport: true, ...sod({}), ...kNone, server: { monitorText: 'any' } }),
    at('READ EF.COM', { do: 'noMac', nth: 1 }, { code: -93006, nfc: 0x6988 }),
    at('READ EF.COM', { do: 'noData', nth: 2 }, { passport: true, ...sod({}), ...kNone }),
    ...[{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }].flatMap((rule) =>
      ['SELECT EF.COM', 'READ EF.COM'].map((on) => at(on, rule, { code: -93001, nfc: 0 }))),
    { name: 'no list at all', passport: { persona: 'comEmpty', brief: true }, code: -93006 },
    { name: 'a list of unknown tags and none in EF.SOD', passport: { comTags: [0x60, 0x77, 0x62], brief: true }, code: -93006 },
    { name: 'nothing but DG2, which is not wanted', passport: { comTags: [0x75] }, identity: { readMode: 1 }, code: -93006 },
    { name: 'EF.SOD cut where its list is needed', passport: { persona: 'comEmpty' }, cardRules: [{ on: 'READ EF.SOD', nth: 3, do: 'noData' }], code: -93006 },
    chip('EF.SOD cut where it is not', [{ on: 'READ EF.SOD', nth: 3, do: 'noData' }], { passport: true, ...sod({}), ...kNone }),
    { name: 'EF.SOD and EF.COM of nothing', passport: { comTags: [], overrides: { '0x011D': '7700' } }, chip: { endOfFile: '9000' }, code: -93006 },
  ];

  const kDataGroups = [
    persona('dg1Refused', { code: -93006, nfc: 0x6982 }),
    persona('dg2Refused', { code: -93006, nfc: 0x6a82 }),
    persona('dg3Refused', sod({ dg3: '6982' }, 'com sod dg15 dg11 dg1 dg2 dg3 dg14')),
    persona('protectedRefusals', { ...sod({ dg3: '99026982', dg14: '6988' }, 'com sod dg15 dg11 dg1 dg2 dg3 dg14'), nfc: 0x6988,
      differs: 'send sequence counter is' }),
    persona('withoutDg15', sod({}, 'com sod dg11 dg1 dg2 dg14')),
    persona('onlyMandatory', sod({}, 'com sod dg1 dg2')),
    persona('dg15Missing', { ...sod({ dg15: '6A82' }), last: ['0x7202', 'READ DG14'] }),
    ...['DG15', 'DG11'].flatMap((name) => [
      refused(`SELECT ${name}`, { ...sod({ [name.toLowerCase()]: '6982' }), ...kNone }),
      ...[{ do: 'status' }, { do: 'empty' }].map((rule) => at(`SELECT ${name}`, rule, { code: -93001, nfc: 0 })),
      at(`SELECT ${name}`, { do: 'wrongMac' }, { ...sod({}), ...kNone, server: { monitorText: 'any' } }),
    ]),
    at('SELECT DG14', { do: 'statusWord', status: '6982' }, { ...sod({ dg14: '6982' }), ...kNone, nfc: 0x6982 }),
    // once INTERNAL AUTHENTICATE has been sent, a missing answer is one that cannot be opened
    ...[{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }].map((rule) =>
      at('SELECT DG14', rule, { ...sod({ dg14: '' }), ...kNone, nfc: 0 })),
    ...['DG15', 'DG11', 'DG14'].flatMap((name) => [
      { name: `a later READ ${name} refused, then answered`, badFirst: { on: `READ ${name}`, nth: 2 } },
      // an answer behind the failure of the first READ adds nothing: the file is taken to be empty
      { name: `the first READ ${name} refused, then answered`, badFirst: { on: `READ ${name}`, nth: 1 }, ...kNone, server: { monitorText: 'any' }, chip: { order: 'any' } },
    ]),
    // the answers that the application may hand over while a read waits after a failure
    ...[[{ serial: 10 }, { code: -13009, nfc: 0x6982 }], [{ serial: 8, status: -1 }, { code: -93001, nfc: 0x6982 }],
      [{ serial: 6 }, { code: -1, nfc: 0x6982 }]].map(([answer, row]) => chip(`READ DG11 refused, then ${JSON.stringify(answer)}`,
      [{ on: 'READ DG11', do: 'statusWord', status: '6982' }, { on: 'READ DG11', do: 'extraAnswer', data: '6982', after: 1, ...answer }], row)),
    chip('READ DG11 refused, then a cancel and an answer', [{ on: 'READ DG11', do: 'statusWord', status: '6982' },
      { on: 'READ DG11', do: 'extraAnswer', data: '6982', after: 60 }], { trigger: { on: 'READ DG11', do: 'cancel1', after: 20 }, silent: true }),
    chip('READ DG11 refused, then another read', [{ on: 'READ DG11', nth: 1, do: 'statusWord', status: '6982' }],
      { trigger: { on: 'READ DG11', do: 'start', after: 20 } }),
    ...[1, 2].map((nth) => chip(`too much for READ DG2, time ${nth}`, [{ on: 'READ DG2', nth, do: 'longData', count: 231 }])),
    chip('no data in the middle of DG2', [{ on: 'READ DG2', nth: 2, do: 'noData' }], kNone),
    chip('wrong padding of an answer', [{ on: 'READ DG2', nth: 3, do: 'badPadding' }], { ...kNone }),
    ...['75025A5A', '7583000100', '75840000FFFF', '7580FFFF', '7581015A', '758200005A'].map((start) => ({ name: `DG2 begins with ${start}`,
      passport: { overrides: { '0x0102': start } }, chip: { order: 'any', endOfFile: '9000' }, server: { monitorText: 'any' }, ...kNone })),
    { name: 'DG2 of 65539 bytes does not fit into 0x7202', chip: { order: 'any' }, code: -33005, connections: 3, differs: '^READ DG2: offset is', passport: { overrides: { '0x0102': `7582FFFF${'5A'.repeat(300)}` } },
      ...sod({}), ...kNone, server: { monitorText: 'any' }, cardRules: [{ on: 'READ DG2', do: 'statusWord', status: '9000', protected: true }, { on: 'READ DG2', do: 'plainData', data: '5A'.repeat(212) },
        { on: 'READ DG2', nth: 1, do: 'plainData', data: '7582FFFF' }] },
  ];

  const kActiveLast = { passport: { dataGroups: [1, 2, 15], brief: true }, ...sod({}, 'com sod dg15 dg1 dg2') };
  const kActive = [
    ...['6985', '6A88', '6D00'].map((status) => at('INTERNAL AUTHENTICATE', { do: 'statusWord', status }, { ...notActive('failed') })),
    at('INTERNAL AUTHENTICATE', { do: 'statusWord', status: '6985' }, { ...kActiveLast, ...notActive('failed'), nfc: 0x6985 }),
    at('INTERNAL AUTHENTICATE', { do: 'wrongMac' }, notActive('failed')),
    at('INTERNAL AUTHENTICATE', { do: 'plainData', data: '5A'.repeat(128) }, notActive('failed')),
    at('INTERNAL AUTHENTICATE', { do: 'noData' }, notActive('failed')),
    ...[{ do: 'status' }, { do: 'empty' }, { do: 'oversize', size: 301 }, { do: 'answer', data: '0000' }].flatMap((rule) => [
      at('INTERNAL AUTHENTICATE', rule, { ...kActiveLast, ...notActive('failed'), nfc: 0 }),
      // the chip has counted the answer that did not come
      at('INTERNAL AUTHENTICATE', rule, { ...sod({ dg14: '6988' }), ...kNone, nfc: 0x6988, differs: '(send sequence counter|MAC) ' }),
    ]),
    at('INTERNAL AUTHENTICATE', { do: 'wrongSerial', serial: 10 }, { code: -13009, nfc: 0 }),
    chip('its answer taken for one to READ DG2: asked again', [{ on: 'INTERNAL AUTHENTICATE', nth: 1, do: 'wrongSerial', serial: 8 }]),
  ];
  testReads('passport: EF.COM and EF.SOD, data groups, active authentication',
    [...kLists, ...kDataGroups, ...kActive].map((row) => ({ passport: kPassport, ...row })));

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
