// Chips that are not as good chips are: what a read brings home from each, and what it says when that is nothing.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { Process, sodText, testReads } from './support.mjs';

const kAll = 'com sod dg15 dg11 dg1 dg2 dg14';
const kFileNames = { com: 'EF.COM', sod: 'EF.SOD' };
const byName = (object, change) => Object.fromEntries(Object.entries(object).map(([name, value]) =>
  [kFileNames[name] ?? name.toUpperCase(), change(value)]));
/** Files that do not come, with the statuses in their rows. EF.COM may have none. */
const lost = (failed, files = kAll) => {
  const { com, ...others } = failed;
  const rows = com === '' ? others : failed;
  return { sod: sodText(com === '' ? files.replace('com ', '') : files, rows), expects: { files: byName(failed, () => ''), statuses: byName(rows, (text) => text),
    ...(failed.dg15 && { verification: { activeAuthentication: 'not done' } }) } };
};
/** Files that come, with other statuses in their rows than 9000. */
const noted = (statuses) => ({ sod: sodText(kAll, statuses), expects: { statuses: byName(statuses, (text) => text) } });
const unsigned = { expects: { verification: { activeAuthentication: 'failed' } } };

const kBrief = { brief: true };
const kLong11 = { brief: true, overrides: { '0x010B': `6B820254${'5A'.repeat(0x254)}` } }; // four READs
const kWhole = true; // EF.SOD has its list
const upTo = (n) => Array.from({ length: n }, (_, i) => i + 1);
const from = (first, count) => upTo(count).map((i) => first - 1 + i);
const onChip = (name, cardRules, row = {}) => ({ name, cardRules, ...row });
const words = (rules) => rules.map(({ on, nth, do: what, ...rest }) => [on, nth && `time ${nth}`, what, ...Object.values(rest)].filter(Boolean).join(' ')).join(', ');
const told = (rules, row) => onChip(words([rules].flat()), [rules].flat(), row);

/** Ways to refuse, or to give nothing that can be used: rules, status in the row, and the code when it is a READ or a SELECT. */
const kRefusals = [
  [[{ do: 'statusWord', status: '6982' }], '6982', -1],
  [[{ do: 'statusWord', status: '6982', protected: true }], '99026982', -1],
  [[{ do: 'statusWord', status: '6982', protected: true, counted: false }, { do: 'wrongMac' }], '99026982', -1],
  [[{ do: 'statusWord', status: '6986' }], '6986', -93005],
  [[{ do: 'wrongMac' }], '9000', -93006],
  [[{ do: 'noMac' }], '9000', -93006],
  [[{ do: 'cryptogram', data: '' }], '9000', -93006],
  [[{ do: 'cryptogram', data: '01A5A5A5' }], '9000', -93006],
  [[{ do: 'warning', status: '6281', counted: false }, { do: 'wrongMac' }], undefined, -1],
];
const refusing = (on, nth, row) => kRefusals.map(([rules, status, code]) => {
  const bare = on.startsWith('SELECT') && rules[0].do === 'warning' ? '99026281' : undefined;
  return told(rules.map((rule) => ({ on, nth, ...rule })), row(status ?? bare, code));
}).filter((each) => each !== undefined);

/** The oddities that users of other readers tell of, and whether a read brings home all that the chip would give. */
const kOddities = [
  ['DG3 is kept back, in plain', { passport: { persona: 'dg3Refused', brief: true }, sod: sodText('com sod dg15 dg11 dg1 dg2 dg3 dg14', { dg3: '6982' }) }],
  ['DG3 is kept back, under secure messaging', { passport: { persona: 'protectedRefusals', brief: true },
    sod: sodText('com sod dg15 dg11 dg1 dg2 dg3 dg14', { dg3: '99026982' }) }],
  ['DG3 can be selected, not read', { passport: { persona: 'dg3Unreadable', brief: true }, sod: sodText('com sod dg15 dg11 dg1 dg2 dg3 dg14', { dg3: '6982' }) }],
  ['no EF.COM', { passport: { persona: 'withoutCom' }, sod: sodText('sod dg15 dg11 dg1 dg2 dg14') }],
  ['no EF.COM, under secure messaging', { passport: { persona: 'withoutCom', refusals: 'protected' }, sod: sodText('sod dg15 dg11 dg1 dg2 dg14') }],
  ['EF.COM cannot be read', { passport: { persona: 'comUnreadable' }, sod: sodText(kAll, { com: '6982' }) }],
  ['PACE alone', { passport: { persona: 'paceAlone', brief: true } }],
  ['a group breaks off', { passport: kLong11, cardRules: [{ on: 'READ DG11', nth: 3, do: 'statusWord', status: '6F00' }], ...lost({ dg11: '6F00' }) }],
  ['a group has an answer that does not hold', { passport: kLong11, cardRules: [{ on: 'READ DG11', nth: 2, do: 'wrongMac' }], ...lost({ dg11: '9000' }) }],
  ['at most 200 bytes at a time', { cardRules: [{ on: 'any', do: 'mostLe', le: 200 }] }],
  ['at most 128 bytes at a time, and says so', { cardRules: [{ on: 'any', do: 'mostLe', le: 128, status: '6C', protected: true }] }],
  ['answers without data now and then', { cardRules: [{ on: 'any', do: 'noData', nth: [6, 10, 11, 12, 19] }], chip: { rndIc: 'FF00FF00FF00FF00' } }],
  ['the header comes byte by byte', { cardRules: ['EF.SOD', 'DG2'].map((name) => ({ on: `READ ${name}`, nth: upTo(4), do: 'shortData', count: 1 })) }],
  ['fifty bytes at a time, whatever was asked for', { cardRules: [{ on: 'READ DG2', do: 'shortData', count: 50 }] }],
  ['a warning at the end of a file', { cardRules: [{ on: 'READ DG2', nth: 3, do: 'warning', status: '6282' }], ...noted({ dg2: '87616282' }) }],
  ['a portrait beyond 32,767 bytes', { passport: { persona: 'bigPortrait', portrait: true } }],
  ['a portrait beyond that, where DO53 is not counted', { passport: { persona: 'bigPortrait', portrait: true }, chip: { oddRead: 'uncounted', endOfFile: '9000' } }],
  ['EXTERNAL AUTHENTICATE with Le 00 only', { cardRules: [{ on: 'EXTERNAL AUTHENTICATE', do: 'exactLe', le: 0 }] }],
  ['INTERNAL AUTHENTICATE with its exact Le only', { cardRules: [{ on: 'INTERNAL AUTHENTICATE', do: 'exactLe', le: 128, status: '6C' }] }],
  ['a signature under 61xx', { cardRules: [{ on: 'INTERNAL AUTHENTICATE', do: 'warning', status: '6110' }] }],
  ['gone after the signature', { cardRules: [{ on: 'SELECT DG14', do: 'gone' }], ...lost({ dg14: '' }), nfc: 0 }],
  ['DG2 is kept back', { passport: { persona: 'dg2Refused' }, code: -93006, nfc: 0x6a82 }],
  ['a portrait beyond 32,767 bytes and no READ BINARY with odd instruction', { passport: { persona: 'bigPortrait', portrait: true }, chip: { oddRead: 'none' },
    code: -1, nfc: 0x6d00 }],
  ['the session is lost in the middle', { cardRules: [{ on: 'READ DG1', nth: 2, do: 'loseSession' }], code: -1, nfc: 0x6988 }],
  ['another number than the printed one', { claims: { documentNumber: 'SPEC01235' }, code: -53001, nfc: 0x6300, differs: '^EXTERNAL AUTHENTICATE: MAC is' }],
];

describe('passport: chips as they are', { concurrency: 4 }, () => {
  testReads('oddities that readers meet', kOddities.map(([name, row], i) => ({ name: `${i + 1}. ${name}`, passport: kBrief, ...row })));

  const kFew = { again: false };
  testReads('refusals and answers of no use: what can be done without', [
    ...['SELECT DG11', 'READ DG11'].flatMap((on) => (on[0] === 'S' ? [1] : [1, 2, 4]).flatMap((nth) => refusing(on, nth, (status) => ({
      passport: kLong11, ...lost({ dg11: status ?? { 1: '87096281', 2: '87816281', 4: '87816281' }[nth] }) })))),
    ...['SELECT EF.COM', 'READ EF.COM'].flatMap((on) => (on[0] === 'S' ? [1] : [1, 2]).flatMap((nth) => refusing(on, nth, (status) => ({
      passport: kWhole, ...lost({ com: on[0] === 'S' ? '' : status ?? { 1: '87096281', 2: '87196281' }[nth] }) })))),
    ...refusing('SELECT DG14', 1, (status) => ({ ...lost({ dg14: status }), nfc: status === '9000' ? undefined : Number(`0x${status}`) })),
  ].map((row) => ({ passport: kBrief, ...kFew, ...row })));

  testReads('refusals and answers of no use: what is needed', ['EF.SOD', 'DG1', 'DG2'].flatMap((file) => [
    ...refusing(`SELECT ${file}`, 1, (status, code) => ({ code: code === -1 ? -93006 : code, nfc: status === '9000' ? undefined : Number(`0x${status}`) })),
    ...(file === 'DG2' ? [1, 2, 3] : [1, 2]).flatMap((nth) => refusing(`READ ${file}`, nth, (status, code) => {
      const seen = status ?? `${{ 'READ DG2 2': '8781', 'READ DG2 3': '8761', 'READ DG1 2': '8761' }[`READ ${file} ${nth}`] ?? '8709'}6281`;
      return { code, nfc: seen === '9000' ? undefined : Number(`0x${seen}`) };
    })),
  ]).map((row) => ({ passport: kBrief, ...kFew, ...row })));

  const kBothWays = [{}, { protected: true }];
  testReads('READs of other lengths', [
    ...kBothWays.flatMap((how) => ['READ DG2', 'READ DG11', 'READ EF.SOD'].flatMap((on) => [
      ...[211, 192, 191, 128].map((le) => told({ on, do: 'mostLe', le, ...how }, { passport: on === 'READ EF.SOD' ? kWhole : kLong11 })),
      ...[211, 100, 16].map((le) => told({ on, do: 'mostLe', le, status: '6C', ...how }, { passport: on === 'READ EF.SOD' ? kWhole : kLong11 })),
    ])),
    ...kBothWays.map((how) => told({ on: 'READ DG2', nth: 3, do: 'mostLe', le: 50, status: '6C', ...how })), // no whole chunk
    ...['6CFF', '6C00', '6CD4'].map((status) => told({ on: 'READ DG2', nth: 2, do: 'statusWord', status })), // none that is smaller
    told({ on: 'READ DG2', do: 'mostLe', le: 127 }, { code: -1, nfc: 0x6700 }),
    told({ on: 'READ DG11', do: 'mostLe', le: 127 }, { passport: kLong11, ...lost({ dg11: '6700' }) }),
    told({ on: 'READ DG11', do: 'mostLe', le: 127, protected: true }, { passport: kLong11, ...lost({ dg11: '99026700' }) }),
    told({ on: 'READ DG11', nth: 1, do: 'statusWord', status: '6700' }, { ...lost({ dg11: '6700' }) }), // a header is small enough
    told([{ on: 'READ DG11', nth: 2, do: 'statusWord', status: '6C40' }, { on: 'READ DG11', nth: 3, do: 'statusWord', status: '6C20' }],
      { passport: kLong11, ...lost({ dg11: '6C20' }) }),
    told([{ on: 'READ DG11', nth: 1, do: 'noData' }, { on: 'READ DG11', nth: 3, do: 'shortData', count: 1 }], { passport: kLong11 }),
    // a reader's zero behind the status does not hide it
    ...[{ on: 'READ DG2', do: 'mostLe', le: 128, protected: true }, { on: 'READ DG2', do: 'mostLe', le: 128, status: '6C', protected: true },
      { on: 'READ DG2', do: 'mostLe', le: 96, status: '6C' }, { on: 'INTERNAL AUTHENTICATE', do: 'warning', status: '6110' }]
      .map((rule) => told([rule, { on: 'any', do: 'trailingZero' }])),
    told([{ on: 'READ DG2', nth: 3, do: 'warning', status: '6282' }, { on: 'any', do: 'trailingZero' }], noted({ dg2: '87618200' })),
  ].map((row) => ({ passport: kBrief, ...kFew, ...row })));

  testReads('answers that bring little or nothing', [
    ...[['READ DG11', 1], ['READ DG11', 2], ['READ DG11', 4], ['READ DG2', 1], ['READ DG2', 3], ['READ EF.COM', 1], ['READ EF.COM', 2], ['READ EF.SOD', 2]].flatMap(([on, first]) => {
      const file = on.slice(5).replace('EF.', '').toLowerCase();
      const fails = file === 'dg2' || file === 'sod' ? { code: -93001 } : lost({ [file]: '9000' });
      return [told({ on, nth: from(first, 7), do: 'noData' }), told({ on, nth: from(first, 8), do: 'noData' }, fails)];
    }),
    told([{ on: 'READ DG11', nth: from(2, 7), do: 'noData' }, { on: 'READ DG11', nth: 9, do: 'shortData', count: 10 }, { on: 'READ DG11', nth: from(10, 7), do: 'noData' }]),
    ...['READ DG1', 'READ DG2', 'READ EF.COM', 'READ EF.SOD', 'READ DG15'].flatMap((on) => [1, 2, 3].map((count) => told({ on, nth: 1, do: 'shortData', count }))),
    told([{ on: 'READ DG2', nth: [1, 3], do: 'shortData', count: 1 }, { on: 'READ DG2', nth: [2, ...from(4, 6)], do: 'noData' }]),
    told([{ on: 'READ DG2', nth: 1, do: 'shortData', count: 1 }, { on: 'READ DG2', nth: from(2, 8), do: 'noData' }], { code: -93001 }),
    ...[1, 2, 3].map((nth) => told({ on: 'READ DG2', nth, do: 'longData', count: 231 })),
    ...[['READ DG2', 3, { dg2: '87616282' }], ['READ DG2', 1, {}], ['READ DG2', 2, {}], ['READ DG11', 4, { dg11: '87816282' }], ['READ EF.COM', 2, { com: '87196282' }], ['READ EF.SOD', 1, {}]]
      .map(([on, nth, statuses]) => told({ on, nth, do: 'warning', status: '6282' }, noted(statuses))),
  ].map((row) => ({ passport: row.name.includes('EF.SOD') || row.name.includes('EF.COM') ? kWhole : kLong11, ...kFew, ...row })));

  // --- files beyond what fifteen bits can address --------------------------------------------------------------------------

  const sized = (size, form = `7582${(size - 4).toString(16).padStart(4, '0')}`) => ({ brief: true, overrides: { '0x0102': form + '5A'.repeat(size - 4) } });
  testReads('long files', [
    ...['counted', 'uncounted'].flatMap((oddRead) => [32767, 32768, 32769, 32768 + 4 + 123, 33000, 65539].map((size) => ({
      name: `${size} bytes, DO53 ${oddRead}`, passport: sized(size), chip: { oddRead, endOfFile: '9000' }, ...(size > 65539 - 4 && { code: -33005 }) }))),
    ...[200, 100].map((le) => ({ name: `33000 bytes, at most ${le} at a time`, passport: sized(33000), chip: { order: 'any' }, cardRules: [{ on: 'READ DG2', do: 'mostLe', le }],
      ...(le < 128 && { code: -1, nfc: 0x6700 }) })),
    ...[{ do: 'wrongMac' }, { do: 'noObject' }, { do: 'cryptogram', data: 'A5A5A5' }].map((rule) => ({ name: `33000 bytes, the last ${Object.values(rule).join(' ')}`, passport: sized(33000),
      cardRules: [{ on: 'READ DG2', nth: 157, ...rule }], code: -93006 })),
    { name: '33000 bytes, no data once, then little', passport: sized(33000), cardRules: [{ on: 'READ DG2', nth: 156, do: 'noData' }, { on: 'READ DG2', nth: 157, do: 'shortData', count: 9 }] },
    { name: '33000 bytes, the last refused under secure messaging', passport: sized(33000), cardRules: [{ on: 'READ DG2', nth: 157, do: 'statusWord', status: '6F00', protected: true }],
      code: -1, nfc: 0x99026f00 },
    { name: '33000 bytes, the last but one byte wanted beyond the end', passport: sized(33000), chip: { oddRead: 'uncounted' }, ...noted({ dg2: '85816282' }) },
    { name: 'a group of 65539 bytes', passport: { brief: true, overrides: { '0x010E': `6E82FFFF${'5A'.repeat(65535)}` } }, ...lost({ dg14: '9000' }) },
    { name: 'a group of 33000 bytes and no odd READ BINARY', passport: { brief: true, overrides: { '0x010E': `6E8280E4${'5A'.repeat(32996)}` } }, chip: { oddRead: 'none' },
      ...lost({ dg14: '6D00' }), nfc: 0x6d00 },
  ].map((row) => ({ ...kFew, ...row })));

  // --- access and signature ------------------------------------------------------------------------------------------------

  testReads('authentications', [
    told({ on: 'EXTERNAL AUTHENTICATE', do: 'exactLe', le: 1 }, { code: -53001, nfc: 0x6700 }),
    told([{ on: 'EXTERNAL AUTHENTICATE', nth: 1, do: 'statusWord', status: '6700' }, { on: 'GET CHALLENGE', nth: 2, do: 'statusWord', status: '6F00' }], { code: -93005, nfc: 0x6f00 }),
    ...kBothWays.flatMap((how) => [
      told({ on: 'INTERNAL AUTHENTICATE', do: 'exactLe', le: 128, status: '6C', ...how }),
      told({ on: 'INTERNAL AUTHENTICATE', do: 'exactLe', le: 1, status: '6700', ...how }, unsigned),
      told({ on: 'INTERNAL AUTHENTICATE', do: 'statusWord', status: '6C80', ...how }, unsigned), // said again
      ...['6985', '6A88', '6D00', '6110'].map((status) => told({ on: 'INTERNAL AUTHENTICATE', do: 'statusWord', status, ...how }, unsigned)),
    ]),
    told({ on: 'INTERNAL AUTHENTICATE', do: 'warning', status: '6100' }),
    told([{ on: 'INTERNAL AUTHENTICATE', do: 'warning', status: '6100', counted: false }, { on: 'INTERNAL AUTHENTICATE', do: 'wrongMac' }], unsigned),
    ...[{ do: 'wrongMac' }, { do: 'noMac' }, { do: 'plainData', data: '5A'.repeat(128) }, { do: 'noData' }, { do: 'cryptogram', data: '01' }].map((rule) =>
      told({ on: 'INTERNAL AUTHENTICATE', ...rule }, unsigned)),
    told({ on: 'INTERNAL AUTHENTICATE', do: 'gone' }, { ...lost({ dg14: '' }), ...unsigned, expects: { ...lost({ dg14: '' }).expects, ...unsigned.expects }, nfc: 0 }),
    told({ on: 'READ DG14', do: 'gone' }, { ...lost({ dg14: '' }), nfc: 0 }),
    told({ on: 'READ DG2', nth: 2, do: 'gone' }, { code: -93001, nfc: 0 }),
  ].map((row) => ({ passport: kBrief, ...row })));

  // --- applications that mix up answers ---------------------------------------------------------------------------------------

  test('answers with the number of another step, six times, too long and with bytes behind them', async () => {
    const child = new Process();
    const names = ['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE', 'SELECT EF.COM', 'READ EF.COM', 'SELECT EF.SOD', 'READ EF.SOD', 'SELECT DG15', 'READ DG1',
      'INTERNAL AUTHENTICATE', 'READ DG14'];
    const rules = names.flatMap((on) => [...from(1, 11).map((serial) => ({ do: 'wrongSerial', serial: serial - 1 })), { do: 'repeat', times: 6 }, { do: 'oversize', size: 300 },
      { do: 'nothingButSuccess' }].map((rule) => [{ on, nth: 1, ...rule }]));
    const rows = await child.call('misbehavedReads', { lists: rules, passport: kBrief });
    const kCodes = [0, -1, -22003, -93001, -93005, -93006, -53001, -13009];
    for (const [i, { ended, codes, again }] of rows.entries()) {
      assert.ok(ended && codes.length === 1 && kCodes.includes(codes[0]) && again[0] === 0, `${JSON.stringify(rules[i])}: ${codes}, then ${again}`);
    }
    await child.end();
  });
});
