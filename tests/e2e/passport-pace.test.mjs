// Chips that Basic Access Control does not open: PACE, in every form that is read, and chips that do it wrongly.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { Process, sodText, testReads } from './support.mjs';

const kPlain = { cipher: 'aes128', curve: 13 };
const kOffers = [kPlain];
const kAtSelect = { on: 'SELECT APPLICATION', status: '6982' };
const pace = (offers = kOffers, more = {}) => ({ brief: true, pace: [offers].flat(), withoutBac: kAtSelect, ...more });
const kFiles = 'SELECT EF.COM, READ EF.COM, SELECT EF.SOD, READ EF.SOD, SELECT DG15, READ DG15, SELECT DG11, READ DG11, SELECT DG1, READ DG1, SELECT DG2, READ DG2, ' +
  'INTERNAL AUTHENTICATE, SELECT DG14, READ DG14';
const kPace = ['SELECT EF.CardAccess', 'READ EF.CardAccess', 'MSE SET AT', 'PACE NONCE', 'PACE MAPPING', 'PACE KEY AGREEMENT', 'PACE TOKEN', 'SELECT APPLICATION'];
const kBac = ['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE'];
const kRoad = ['SELECT APPLICATION', ...kPace, kFiles].join(', ');
const kNoSense = -93005;
const kWrongKey = -53001;

describe('passport: PACE', { concurrency: 4 }, () => {
  const kCiphers = ['tripleDes', 'aes128', 'aes192', 'aes256'];
  testReads('curves, ciphers and mappings', [
    ...[10, 11, 12, 13, 14, 15, 16, 17, 18].map((curve, i) => ({ cipher: kCiphers[i % 4], curve })),
    ...kCiphers.map((cipher) => ({ cipher, curve: 13 })), ...kCiphers.slice(1).map((cipher) => ({ cipher, curve: 12, mapping: 'cam' })),
  ].map((offer) => ({ name: JSON.stringify(offer), passport: pace(offer), order: kRoad, connections: 3, again: false })));

  testReads('how chips refuse Basic Access Control', kBac.flatMap((on, place) => ['6982', '6985', '6988', '6A88', '6D00', '6E00'].map((status) => ({
    name: `${status} at ${on}`, passport: pace(kPlain, { withoutBac: { on, status } }), connections: 3, again: status === '6982', // 0x7201 once
    order: [...kBac.slice(0, place + 1), ...(place > 0 ? ['SELECT MF'] : []), ...kPace, kFiles].join(', ') }))));

  const notOpened = (name, row) => ({ name, again: false, ...row });
  testReads('where it is not used', [
    { name: 'a chip that has Basic Access Control as well', passport: { persona: 'paceToo', brief: true }, order: `${kBac.join(', ')}, ${kFiles}` },
    notOpened('a wrong number there', { passport: { persona: 'paceToo', brief: true }, claims: { documentNumber: 'SPEC01235' }, code: kWrongKey, nfc: 0x6300,
      differs: '^EXTERNAL AUTHENTICATE: MAC is' }),
    notOpened('another refusal there', { passport: { persona: 'paceToo', brief: true }, cardRules: [{ on: 'GET CHALLENGE', do: 'statusWord', status: '6F00' }], code: kNoSense, nfc: 0x6f00 }),
  ]);

  // --- EF.CardAccess ---------------------------------------------------------------------------------------------------------

  const written = (text) => pace(kPlain, { overrides: { '0x011C': text } });
  const kInfo = '3012060A04007F0007020204020202010202010D';
  const kForeign = '300D060804007F0007020202020101'; // terminal authentication
  testReads('EF.CardAccess', [
    ...['00', '00'.repeat(40), 'FFFF', '3000', '5A'.repeat(300)].map((tail) => ({ name: `${tail.length / 2} bytes ${tail.slice(0, 4)} behind it`, passport: pace(kPlain, { cardAccessTail: tail }) })),
    ...['6282', '9000', '6B00', '6700', '6F00', '6C'].map((endOfFile) => ({ name: `READ past its end: ${endOfFile}`, passport: pace(), chip: { endOfFile } })),
    { name: 'the strongest of several is taken', passport: pace([{ cipher: 'tripleDes', curve: 12 }, { cipher: 'aes256', curve: 13 }, { cipher: 'aes128', curve: 10 }]), wants: { 'MSE SET AT': /^0022C1A4..800A04007F00070202040204/ } },
    { name: 'several of the same strength on other curves', passport: pace([{ cipher: 'aes128', curve: 13 }, { cipher: 'aes128', curve: 12 }]) },
    { name: 'others in front', passport: written(`3123${kForeign}${kInfo}`) },
    ...['3100', kInfo, `3114${kInfo.replace('0202010D', '02020163')}`, `3114${kInfo.replace('0204020202', '0204010202')}`,
      `310F${kForeign}`, '318400000014', `6014${kInfo}`].map((text) => notOpened(`nothing that we know: ${text.slice(0, 30)}`, { passport: written(text), chip: { endOfFile: '9000' }, code: -1 })),
    ...['', '3005', `3115${kInfo}`].map((text) => notOpened(`cut short: ${text.slice(0, 30)}`, { passport: written(text), chip: { endOfFile: '9000' }, code: -1, nfc: 0x6b00,
      differs: '^READ EF.CardAccess: offset is' })),
    notOpened('none', { passport: { brief: true, withoutBac: kAtSelect }, code: -1, nfc: 0x6a82 }),
    ...[['GET CHALLENGE', kNoSense], ['EXTERNAL AUTHENTICATE', kWrongKey]].map(([on, code]) => notOpened(`none, and a refusal at ${on}`, {
      passport: { brief: true, withoutBac: { on, status: '6985' } }, code, nfc: 0x6a82 })),
  ].map((row) => ({ again: false, ...row })));

  // --- chips that do it wrongly ------------------------------------------------------------------------------------------------

  const wrong = (on, rule, row = { code: kNoSense }) => ({ name: `${on}: ${Object.values(rule).join(' ').slice(0, 40)}`, passport: pace(), cardRules: [{ on, ...rule }], ...row });
  const kSteps = ['PACE NONCE', 'PACE MAPPING', 'PACE KEY AGREEMENT', 'PACE TOKEN'];
  testReads('answers that are no good', [
    ...[16, 32].map((count) => wrong('PACE NONCE', { do: 'nonceOf', count }, {})),
    ...[0, 8, 15, 17, 24, 31, 33, 48].map((count) => wrong('PACE NONCE', { do: 'nonceOf', count })),
    ...['PACE MAPPING', 'PACE KEY AGREEMENT'].flatMap((on) => ['echo', 'neutral', 'zeros', 'offCurve', 'beyondPrime', 'compressed'].map((fault) => wrong(on, { do: fault }))),
    ...['secret', 'key'].map((of) => wrong('PACE KEY AGREEMENT', { do: 'leadingZero', of }, {})),
    ...kSteps.map((on) => wrong(on, { do: 'moreObjects' }, on === 'PACE TOKEN' ? {} : { code: kNoSense })), // behind the token there may be some
    wrong('PACE TOKEN', { do: 'wrongToken' }, { code: kWrongKey }), wrong('PACE TOKEN', { do: 'echo' }, { code: kWrongKey }),
    { ...wrong('PACE KEY AGREEMENT', { do: 'echo' }), name: 'our own key and token sent back', cardRules: [{ on: 'PACE KEY AGREEMENT', do: 'echo' }, { on: 'PACE TOKEN', do: 'echo' }] },
    ...kSteps.flatMap((on) => [{ do: 'noObject' }, { do: 'objectTag', tag: '87' }, { do: 'outerTag' }, { do: 'object', data: '' }, { do: 'object', data: '04' },
      { do: 'object', data: '5A'.repeat(200) }, { do: 'noData' }, { do: 'longData', count: 240 }].map((rule) => wrong(on, rule))),
    wrong('MSE SET AT', { do: 'longData', count: 2 }),
    ...['MSE SET AT', ...kSteps].flatMap((on) => ['6300', '6A80', '6982'].map((status) =>
      wrong(on, { do: 'statusWord', status }, { code: on === 'PACE TOKEN' ? kWrongKey : kNoSense, nfc: Number(`0x${status}`) }))),
    ...['SELECT EF.CardAccess', 'READ EF.CardAccess', 'MSE SET AT', ...kSteps].map((on) => wrong(on, { do: 'status' }, { code: -93001, nfc: 0 })),
    { ...wrong('PACE TOKEN', {}), name: 'a wrong number', cardRules: [], claims: { documentNumber: 'SPEC01235' }, code: kWrongKey, nfc: 0x6300, differs: '^PACE TOKEN: authentication token is' },
    wrong('SELECT APPLICATION', { nth: 2, do: 'statusWord', status: '6A82', protected: true }, { code: kNoSense, nfc: 0x99026a82 }),
    wrong('SELECT APPLICATION', { nth: 2, do: 'wrongMac' }),
  ].map((row) => ({ again: false, ...row })));

  test('every answer cut at every byte', async () => {
    const child = new Process();
    const lengths = [['READ EF.CardAccess', 1, 6], ['READ EF.CardAccess', 2, 20], ['PACE NONCE', 1, 22], ['PACE MAPPING', 1, 71], ['PACE KEY AGREEMENT', 1, 71], ['PACE TOKEN', 1, 14]];
    const rules = lengths.flatMap(([on, nth, length]) => Array.from({ length }, (_, at) => [{ on, nth, do: 'cut', at }]))
      .filter(([{ at }]) => at < 8 || at > 64 || at % 5 === 0); // in a point each byte is like the other
    const rows = await child.call('misbehavedReads', { lists: rules, passport: pace(), again: false });
    for (const [i, { ended, codes }] of rows.entries()) {
      assert.ok(ended && codes.length === 1 && [kNoSense, kWrongKey, -93001, -1, -93006].includes(codes[0]), `${JSON.stringify(rules[i])}: ${codes}`);
    }
    await child.end();
  });

  // --- what comes after it -------------------------------------------------------------------------------------------------------

  testReads('secure messaging with AES', [
    ...['aes128', 'aes256', 'tripleDes'].map((cipher) => ({ name: `a portrait beyond 32,767 bytes, ${cipher}`, passport: { ...pace({ cipher, curve: 13 }), brief: false, portrait: true, persona: 'bigPortrait' } })),
    ...[{ do: 'statusWord', status: '6982', protected: true }, { do: 'statusWord', status: '6982' }].flatMap((rule) => ['SELECT DG11', 'READ DG11'].map((on) => ({
      name: `${on} ${Object.values(rule).join(' ')}`, passport: pace(), cardRules: [{ on, ...rule }], sod: sodText('com sod dg15 dg11 dg1 dg2 dg14', { dg11: rule.protected ? '99026982' : '6982' }),
      expects: { files: { DG11: '' }, statuses: { DG11: rule.protected ? '99026982' : '6982' } } }))),
    ...[200, 128].map((le) => ({ name: `at most ${le} bytes`, passport: pace(), cardRules: [{ on: 'READ DG2', do: 'mostLe', le }] })),
    ...['wrongMac', 'noMac'].map((fault) => ({ name: `READ DG1 ${fault}`, passport: pace(), cardRules: [{ on: 'READ DG1', nth: 2, do: fault }], code: -93006 })),
  ].map((row) => ({ again: false, ...row })));
});
