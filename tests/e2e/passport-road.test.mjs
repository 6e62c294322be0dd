// Whole reads of a passport: what is asked of chip and server, in what order, and the texts that the application gets.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { HOLDER } from '../../simulator/lib/passport/specimen.mjs';
import { jsonResult, Process, sodText, testReads, USUAL_FILES } from './support.mjs';

const kPassport = true;
const kStart = 'SELECT APPLICATION, GET CHALLENGE, EXTERNAL AUTHENTICATE';
const kCom = 'SELECT EF.COM, READ EF.COM';
/** Names of the commands of a whole read: EF.COM's, those of these groups, and INTERNAL AUTHENTICATE as AA. */
const orderOf = (groups, com = kCom) => [kStart, com, 'SELECT EF.SOD, READ EF.SOD', ...groups.split(' ').map((name) =>
  (name === 'AA' ? 'INTERNAL AUTHENTICATE' : `SELECT ${name}, READ ${name}`))].join(', ');
const kOrders = { 1: orderOf('DG15 DG11 DG1 AA DG14'), 2: orderOf('DG15 DG11 DG1 DG2 AA DG14') };
const filesOf = (groups) => sodText(['com', 'sod', ...groups.split(' ').filter((name) => name !== 'AA')].join(' ').toLowerCase());
const kBothModes = [1, 2];

describe('passport: whole reads', { concurrency: 4 }, () => {
  testReads('passport: modes', [
    ...kBothModes.flatMap((readMode) => [0, 1].flatMap((decodeMode) => [false, true].flatMap((timing) => [0, 1].map((reqidType) => ({
      name: `readMode ${readMode}, decodeMode ${decodeMode}, ${timing ? 'timing' : 'no timing'}, reqid version ${reqidType}`,
      passport: kPassport, identity: { readMode, decodeMode, reqidType }, server: { timing }, tick: { server: 40, card: 3 },
      connections: 3, order: kOrders[readMode], last: ['0x7202', 'READ DG14'],
    }))))),
    ...[268, 52302, 26814].map((envIdCode) => ({ name: `environment ${envIdCode}`, identity: { envIdCode } })),
    ...['', 'S'.repeat(64)].map((sn) => ({ name: `serial number of ${sn.length} characters`, identity: { sn } })),
    { name: 'an identity that is written differently', identity: { appid: '  SIMULATEDREADER00002\t', terId: 0x1234, packageName: '样本包名', ip: 'localhost' } },
    ...[1, 300].map((opaqueLength) => ({ name: `opaque field of ${opaqueLength} bytes`, server: { opaqueLength } })),
    ...['', 'B'.repeat(255)].map((id) => ({ name: `business id of ${id.length} bytes`, server: { businessId: id }, reqid: id })),
    ...['', 'C0FFEE', 'AB'.repeat(16)].map((token) => ({ name: `token of ${token.length / 2} bytes`, server: { token } })),
    { name: 'answers of the server in pieces', server: { rules: [{ on: 'any', do: 'pieces', size: 5, everyMs: 0 }] } },
    { name: 'a real portrait', passport: { portrait: true }, order: kOrders[2] },
    ...['eightCharacters', 'nineCharacters', 'twelveCharacters', 'twentyCharacters', 'comLongLengths', 'comStrangeTags'].map((persona) => ({
      name: persona, passport: { persona }, ...(persona === 'comStrangeTags' && { sod: sodText('com sod dg15 dg11 dg1 dg2') }) })),
    { name: 'what is said of the passport in small letters, with blanks around it',
      claims: { documentNumber: ' \tspec01234 ', birthDate: '\t900101', expiryDate: '341231  ' } },
    { name: 'a trailing zero byte behind every answer', cardRules: [{ on: 'any', do: 'trailingZero' }] },
    { name: 'a status of 9000 at the end of every file', chip: { endOfFile: '9000' } },
    ...['81', '82'].map((form) => ({ name: `DO87 with a length in ${form} form`, cardRules: [{ on: 'READ DG2', do: 'lengthForm', form }] })),
    { name: 'short answers to READ DG2', cardRules: [{ on: 'READ DG2', do: 'shortData', count: 50 }], chip: { order: 'any' } },
    { name: 'a counter that wraps', chip: { rndIc: '00112233FFFFFFFF' } },
  ].map((row) => ({ passport: kPassport, again: false, ...row })));

  testReads('passport: order of the files', [
    ...['1 2 11 14 15', '14 2 12 15 1 11', '1 2', '2 1', '1', '16 1 2', '15 1 2', '1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16'].flatMap((list) => kBothModes.map((readMode) => {
      const numbers = list.split(' ').map(Number);
      const first = [15, 11, 1, 2].filter((number) => numbers.includes(number));
      const all = [...first, ...numbers.filter((number) => !first.includes(number))].filter((number) => readMode === 2 || number !== 2);
      const closing = all.indexOf(readMode === 1 ? 1 : 2);
      const active = numbers.includes(15) && closing >= 0;
      const groups = all.map((number, i) => `DG${number}${active && i === closing ? ' AA' : ''}`).join(' ');
      const files = filesOf(groups);
      const fitting = files.slice(0, files.indexOf(';', 245) < 0 ? undefined : files.indexOf(';', 245)); // the text ends there
      return { name: `${list}, readMode ${readMode}`, identity: { readMode }, passport: { dataGroups: numbers },
        order: orderOf(groups), sod: fitting, ...(!active && { expects: { verification: { activeAuthentication: 'not done' } } }) };
    })),
    { name: 'each is read once, however often it is listed', passport: { comTags: [0x61, 0x6f, 0x61, 0x75, 0x6b, 0x75, 0x6b, 0x6f, 0x61] },
      order: orderOf('DG15 DG11 DG1 DG2 AA'), sod: filesOf('DG15 DG11 DG1 DG2') },
    { name: 'ninety-six times DG1', passport: { comTags: Array(96).fill(0x61) }, order: orderOf('DG1'), sod: filesOf('DG1'),
      expects: { verification: { activeAuthentication: 'not done' } } },
    { name: 'one that is beyond the ninety-sixth', passport: { comTags: [...Array(96).fill(0x61), 0x6f] }, order: orderOf('DG1'), sod: filesOf('DG1'),
      expects: null, server: { monitorText: 'any' }, chip: { order: 'any' } },
  ].map((row) => ({ again: false, ...row })));

  const kInfo = '{"name":"样本","quote":"a\\"}b","nested":{"list":[1,2]}}';
  testReads('passport: results', [
    { name: 'flag 2', answer: { flag: 2, data: '01AB' }, raw: '{"code": 0,"flag":2,"data":"01AB"}' },
    { name: 'flag 3', answer: { flag: 3 }, code: -35006 },
    { name: 'info wins', answer: { tags: [{ info: kInfo }, { idType: 1 }, { backCardId: '12AB' }] }, raw: jsonResult(kInfo) },
    { name: 'a length past the end', answer: { tags: [{ idType: 1 }, { raw: '0102FFFF7B' }] }, code: -35006 },
    { name: 'a large document', answer: { tags: [{ info: `{"text":"${'x'.repeat(9000)}"}` }] }, raw: jsonResult(`{"text":"${'x'.repeat(9000)}"}`) },
    ...kBothModes.flatMap((readMode) => [0, 1].map((over) => { // room for the whole frame
      const size = (readMode === 1 ? 10240 : 65535) + over;
      const data = 'A5'.repeat(size - 15);
      return { name: `answer of ${size} bytes`, readMode, answer: { flag: 2, data }, rules: [{ on: 'any', do: 'extra', bytes: '' }],
        ...(over ? { code: -22003 } : { raw: `{"code": 0,"flag":2,"data":"${data}"}` }) };
    })),
  ].map(({ answer, rules, readMode = 1, ...row }) => ({ ...row, passport: kPassport, again: false, identity: { readMode },
    sod: USUAL_FILES[readMode], server: { answers: { '0x7202': answer }, rules } })));

  /** Each: the clock's moves, and what 0x7202 then says of the chip's answer time; NaN where it is of no interest. */
  const kTimings = [
    { tick: { card: 3 }, bac: 3 }, { tick: { card: 3 }, bac: 3, identity: { readMode: 1 } }, { tick: { card: 3 }, timing: false, bac: 0 },
    { tick: { card: 3, 'GET CHALLENGE': 8 }, bac: 5 }, { tick: { card: 3, 'GET CHALLENGE': 0 }, bac: 3 },
    { tick: { card: 3, 'SELECT APPLICATION': 0, 'GET CHALLENGE': 0 }, bac: 0 }, { tick: { server: 100, card: 7, 'EXTERNAL AUTHENTICATE': 1000 }, bac: 7 },
    { tick: { card: 4000 }, bac: 4000 }, { tick: { card: 3 }, bac: 3, passport: { persona: 'comEmpty' } },
    { tick: { card: 3 }, bac: 3, passport: { persona: 'comUnreadable' } },
  ];
  test('passport: the holder, and the times that 0x7202 carries', async () => {
    const child = new Process();
    const { results: [text] } = await child.call('perform', { passport: { documentNumber: 'AB1234567' }, again: false });
    const { documentNumber, fullName, checkDigits, verification } = JSON.parse(text).data.info;
    assert.deepEqual([documentNumber, fullName, checkDigits], ['AB1234567', `${HOLDER.surname} ${HOLDER.givenNames}`, 'good']);
    assert.deepEqual([verification.activeAuthentication, verification.passiveAuthentication, verification.hashes.DG2], ['passed', 'passed', 'good']);
    for (const { bac, timing = true, tick, passport = kPassport, identity } of kTimings) {
      const { commands, fields } = await child.call('perform', { passport, identity, tick, server: { timing }, again: false });
      const { cardTime, fileTime } = fields['0x7202'];
      const timed = commands.filter(({ name }) => /EF\.COM|EF\.SOD|DG[12]$/.test(name)).length;
      assert.deepEqual([cardTime, fileTime], [bac, timing ? (timed * tick.card) % 65536 : 0], JSON.stringify(tick));
    }
    await child.end();
  });
});
