// The simulated passport chip against a reader that shares no code with it.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { CardLink } from '../../simulator/lib/card-link.mjs';
import { PASSPORT_PACE, PassportChip } from '../../simulator/lib/passport/chip.mjs';
import { issuePassport } from '../../simulator/lib/passport/specimen.mjs';
import { PassportReader, bytes, hex } from './passport-reader.mjs';

const COM = 0x011e;
const DG1 = 0x0101;
const kApplication = '00A4040C07A0000002471001';
const words = ({ differences }) => differences.map(({ message }) => message);

function setUp({ persona, passport = issuePassport({ persona }), settings, ...options } = {}) {
  const chip = new PassportChip(passport, settings);
  return { chip, passport, reader: new PassportReader(chip, { document: passport, ...options }) };
}

// ICAO Doc 9303-11 Appendix D (D.3 Basic Access Control, D.4 secure messaging)
test('the published worked example', () => {
  const passport = issuePassport({ documentNumber: 'L898902C', birthDate: '690806', expiryDate: '940623',
    overrides: { [COM]: bytes('60145F0104303130365F36063034303030305C026175') } });
  const settings = { rndIc: '4608F91988702212', kIc: '0B4F80323EB3191CB04970CB4052790B' };
  const { chip, reader } = setUp({ passport, settings, rndIfd: bytes('781723860C06C226'),
    kIfd: bytes('0B795240CB7049B01C19B33E32804F0B') });
  reader.open();
  reader.select(COM, 3);
  reader.readBinary(0, 4, 4);
  reader.readBinary(4, 18, 4);
  assert.deepEqual(reader.log.slice(2).map(({ command, answer }) => [command, answer]), [
    ['008200002872C29C2371CC9BDB65B779B8E8D37B29ECC154AA56A8799FAE2F498F76ED92F25F1448EEA8AD90A728',
      '46B9342A41396CD7386BF5803104D7CEDC122B9132139BAF2EEDC94EE178534F2F2D235D074D74499000'],
    ['0CA4020C158709016375432908C044F68E08BF8B92D635FF24F800', '990290008E08FA855A5D4C50A8ED9000'],
    ['0CB000000D9701048E08ED6705417E96BA5500', '8709019FF0EC34F9922651990290008E08AD55CC17140B2DED9000'],
    ['0CB000040D9701128E082EA28A70F3C7B53500',
      '871901FB9235F4E4037F2327DCC8964F1F9B8C30F42C8E2FFF224A990290008E08C8B2787EAEA07D749000'],
  ]);
  assert.deepEqual(words(chip), []);
});

test('a wrong document number is refused with 6300, and the challenge is used up', () => {
  const { chip, passport } = setUp();
  const reader = new PassportReader(chip, { document: { ...passport, documentNumber: 'SPEC99999' } });
  assert.equal(reader.open(), '6300');
  assert.match(words(chip)[0], /^EXTERNAL AUTHENTICATE: MAC is /);
  assert.equal(reader.send(bytes(reader.log[2].command), 2).status, '6985');
});

test('an authentication for an earlier challenge is refused', () => {
  const { chip, reader } = setUp();
  reader.open();
  const { command } = reader.log[2];
  reader.send(bytes(kApplication), 0);
  reader.send(bytes('0084000008'), 1);
  assert.equal(reader.send(bytes(command), 2).status, '6300');
  assert.match(words(chip)[0], /^EXTERNAL AUTHENTICATE: RND.IC is /);
});

/** Plain commands: those before, the command, its status and what is reported. */
const kPlain = [
  [[], '00A4040C07A0000002471002', '6A82', /SELECT APPLICATION: command/],
  [[], '00A4040007A0000002471001', '6A86', /SELECT APPLICATION: command/],
  [[], '00A4040C08A0000002471001', '6700', /short form/],
  [[], '00A4', '6700', /short form/],
  [[], '0084000008', '6985', /GET CHALLENGE: command .* expected SELECT APPLICATION/],
  [[kApplication], '0084000009', '6C08', /GET CHALLENGE: command/],
  [[kApplication], '0084010008', '6A86', /GET CHALLENGE: command/],
  [[kApplication], `0082000028${'00'.repeat(40)}28`, '6985', /expected GET CHALLENGE/],
  [[kApplication, '0084000008'], `0082000027${'00'.repeat(39)}28`, '6700', /EXTERNAL AUTHENTICATE: command/],
  [[kApplication, '0084000008'], `0082000028${'00'.repeat(40)}28`, '6300', /EXTERNAL AUTHENTICATE: MAC/],
  [[kApplication], '00A4020C02011E', '6982', /SELECT EF.COM: command/],
  [[kApplication], '00B0000004', '6982', /READ without a file/],
  [[kApplication], '00C0000000', '6D00', /instruction C0/],
  [[kApplication], '80B0000004', '6E00', /class is 80/],
  [[kApplication], '0CB000000D9701048E08ED6705417E96BA5500', '6988', /class is .*expected 00/],
];
for (const [before, command, status, says] of kPlain) {
  test(`plain ${command} after ${before.length} commands: ${status}`, () => {
    const { chip, reader } = setUp();
    before.forEach((text, i) => reader.send(bytes(text), i));
    assert.deepEqual(words(chip), []);
    assert.equal(reader.send(bytes(command)).status, status);
    assert.ok(words(chip).some((text) => says.test(text)), words(chip).join('; '));
  });
}

/** Protected commands within a session: header, data, Le, step; status and report. None of them ends the session. */
const kProtected = [
  ['00A4020C', '0199', undefined, 3, '6A82', /SELECT file 0199: command .* expected SELECT EF.COM/],
  ['00A4000C', '011E', undefined, 3, '6A86', /SELECT EF.COM: command/],
  ['00A4020C', '011E', undefined, 7, '9000', /SELECT EF.COM: serial number is 7, expected 3/],
  ['00A4020C', '011D', undefined, 5, '9000', /SELECT EF.SOD: command .* expected SELECT EF.COM/],
  ['00A4020C', '011E', 0x1e, 3, '9000', /SELECT EF.COM: command is 00A4020C02011E1E/],
  ['00B00000', undefined, 4, 4, '6986', /READ without a file/],
  ['00880000', '0011223344556677', undefined, 9, '6700', /INTERNAL AUTHENTICATE/],
  ['00880001', '0011223344556677', 0, 9, '6A86', /INTERNAL AUTHENTICATE/],
  ['00C00000', undefined, 4, 4, '6D00', /instruction C0/],
];
for (const [header, data, le, step, status, says] of kProtected) {
  test(`protected ${header} ${data ?? ''} in step ${step}: ${status}`, () => {
    const { chip, reader } = setUp();
    reader.open();
    assert.equal(reader.command(header, data && bytes(data), le, step).status, status);
    assert.match(words(chip)[0], says);
    assert.equal(reader.select(COM), '9000'); // the session goes on
  });
}

/** READs of EF.COM (25 bytes): offset, count, status, bytes, with the settings of the chip. */
const kReads = [
  [0, 25, '9000', 25], [24, 1, '9000', 1], [25, 1, '6B00'], [0x7fff, 1, '6B00'], [0x8000, 1, '6A86'], [0, 232, '6700'],
  [20, 6, '9000', 5, '9000'], [20, 6, '6C05', undefined, '6C'], [20, 6, '6282'], [0, 0, '9000', 25],
];
for (const [offset, count, status, length, endOfFile] of kReads) {
  test(`READ of ${count} bytes at ${offset}: ${status}`, () => {
    const { chip, reader } = setUp({ settings: { order: 'any', ...(endOfFile && { endOfFile }) } });
    reader.open();
    reader.select(COM);
    const got = reader.readBinary(offset, count);
    assert.equal(got.status, status);
    assert.equal(got.data?.length, length);
    assert.equal(words(chip).length, ['6B00', '6700'].includes(status) ? 1 : 0);
  });
}

/** Ways to spoil a protected SELECT EF.COM or READ: what changes in it, the status and what is reported. */
const kSpoiled = [
  ['MAC', (c) => { c[c.length - 2] ^= 1; }, '6988', /SELECT EF.COM: MAC \(DO8E\)/],
  ['header', (c) => { c[3] = 0; }, '6988', /MAC \(DO8E\)/],
  ['cryptogram', (c) => { c[8] ^= 1; }, '6988', /MAC \(DO8E\)/],
  ['indicator', (c) => { c[7] = 2; }, '6988', /MAC \(DO8E\)/],
  ['object tag', (c) => { c[5] = 0x85; }, '6988', /data objects/],
  ['object length', (c) => { c[6] = 0x30; }, '6988', /data objects .* whole elements|data objects/],
  ['Le', (c) => c.subarray(0, -1), '6988', /Le of the protected command is missing/],
  ['no MAC', (c) => Buffer.concat([c.subarray(0, 4), Buffer.of(11), c.subarray(5, 16), Buffer.of(0)]), '6987', /DO8E/],
  ['Lc', (c) => { c[4] += 1; }, '6988', /./],
];
for (const [what, spoil, status, says] of kSpoiled) {
  test(`a protected command with a wrong ${what}: ${status}, and the session is lost`, () => {
    const { chip, reader } = setUp();
    reader.open();
    const command = reader.protect('00A4020C', bytes('011E'));
    assert.equal(reader.send(spoil(command) ?? command, 3).status, status);
    assert.match(words(chip)[0], says);
    assert.equal(chip.counter, undefined);
    assert.equal(reader.select(COM, 3), '6988');
    assert.equal(words(chip).length, 1);
  });
}

test('the padding of a command is checked', () => {
  for (const padding of ['011E000000000000', '011E800000000001', '011E8000000000000000000000000000']) {
    const { chip, reader } = setUp();
    reader.open();
    const command = reader.protect('00A4020C', bytes('011E'), undefined, () => bytes(padding));
    assert.equal(reader.send(command, 3).status, '6988');
    assert.match(words(chip)[0], /padding of the data is .*, expected 80 and zeros/);
  }
});

test('a command with another counter is told from one with a wrong key, and a plain one ends the session', () => {
  const first = setUp();
  first.reader.open();
  first.reader.counter += 2n;
  assert.equal(first.reader.select(COM, 3), '6988');
  assert.match(words(first.chip)[0], /send sequence counter is \d+ \(the MAC fits that one\)/);
  const second = setUp();
  second.reader.open();
  assert.equal(second.reader.send(bytes('00A4020C02011E'), 3).status, '6982');
  assert.match(words(second.chip)[0], /expected 0C within a session/);
  assert.equal(second.reader.select(COM, 3), '6988');
});

/** Orders of reading that are not the documented one. */
const kOrders = [
  ['SOD before COM', (r) => [r.file(0x011d, 5)], /^SELECT EF.SOD: command .* expected SELECT EF.COM$/],
  ['DG1 before DG15', (r) => [r.file(COM, 3), r.file(0x011d, 5), r.file(DG1, 7)], /expected SELECT DG15$/],
  ['a chunk left out', (r) => [r.select(COM, 3), r.readBinary(0, 4, 4), r.readBinary(5, 20, 4)],
    /READ EF.COM: command is 00B0000514, expected 00B0000415/],
  ['a short chunk', (r) => [r.select(COM, 3), r.readBinary(0, 4, 4), r.readBinary(4, 20, 4)], /expected 00B0000415/],
  ['a file read twice', (r) => [r.file(COM, 3), r.file(COM, 3)], /expected SELECT EF.SOD/],
];
for (const [what, act, says] of kOrders) {
  test(`order: ${what}`, () => {
    for (const order of ['documented', 'any']) {
      const { chip, reader } = setUp({ settings: { order } });
      reader.open();
      act(reader);
      if (order === 'any') assert.deepEqual(words(chip), []);
      else assert.match(words(chip)[0], says);
    }
  });
}

/**
 * Misbehaviour in the first READ of EF.COM (60 17 5F 01): what the reader gets, and whether its counter then fits the
 * chip's.
 */
const kFaults = [
  [{ do: 'statusWord', status: '6982' }, '6982', true],
  [{ do: 'statusWord', status: '6982', counted: true }, '6982', false],
  [{ do: 'statusWord', status: '6A86', protected: true }, '6A86', false, /^99026A868E08.{16}6A86$/],
  [{ do: 'statusWord', status: '6A86', protected: true, counted: false }, '6A86', true],
  [{ do: 'loseSession' }, '6988', 'lost'],
  [{ do: 'wrongMac' }, 'wrong MAC', true],
  [{ do: 'skipCounter', by: 2 }, 'wrong MAC', false],
  [{ do: 'noMac' }, 'no MAC', false],
  [{ do: 'noStatusObject' }, '60175F01', true, /^870901.{16}8E08/],
  [{ do: 'innerStatus', status: '6A82' }, '60175F01', true, /99026A828E08.{16}9000$/],
  [{ do: 'noData' }, '', true],
  [{ do: 'shortData', count: 3 }, '60175F', true],
  [{ do: 'longData', count: 9 }, '60175F015A5A5A5A5A', true],
  [{ do: 'plainData', data: '6183' }, '6183', true],
  [{ do: 'badPadding', tail: '0102' }, '60175F0101020000', true],
  [{ do: 'badPadding', tail: '00' }, '60175F0100000000', true],
  [{ do: 'lengthForm', form: '81' }, '60175F01', true, /^878109/],
  [{ do: 'lengthForm', form: '82' }, '60175F01', true, /^87820009/],
];
for (const [rule, gets, inStep, looks = /./] of kFaults) {
  test(`chip: ${JSON.stringify(rule)}`, () => {
    const { chip, reader } = setUp({ settings: { rules: [{ on: 'READ EF.COM', nth: 1, ...rule }] } });
    reader.open();
    reader.select(COM, 3);
    const { status, data, plain, wrong } = reader.readBinary(0, 4, 4);
    assert.equal(wrong ?? (status === '9000' ? hex(rule.do === 'badPadding' ? plain : data) : status), gets);
    assert.match(reader.log.at(-1).answer, looks);
    if (inStep === 'lost') assert.equal(chip.counter, undefined);
    else assert.equal(chip.counter === reader.counter, inStep);
    assert.deepEqual(words(chip), []);
  });
}

test('the link carries the chip\'s rules to it, spoils answers itself and keeps the pace', async () => {
  const chip = new PassportChip();
  assert.throws(() => new CardLink(chip, { rules: [{ on: 'any', do: 'nonsense' }] }), /no such action/);
  const link = new CardLink(chip, { rules: [{ on: 'GET CHALLENGE', nth: 1, do: 'statusWord', status: '6D00' },
    { on: 1, nth: 2, do: 'oversize', size: 300 }] });
  const carry = (text, serial) => new Promise((resolve) => {
    link.transmit(bytes(text), serial, ({ data }) => resolve(data));
  });
  await carry(kApplication, 0);
  assert.equal(hex(await carry('0084000008', 1)), '6D00');
  assert.equal((await carry('0084000008', 1)).length, 300);
  link.setRules([]);
  Object.assign(link, PASSPORT_PACE);
  const start = performance.now();
  for (let i = 0; i < 20; i += 1) await carry('0084000008', 1);
  const wanted = 20 * (8.4 + 15 * 0.112);
  assert.ok(performance.now() - start > wanted - 3, `took ${performance.now() - start} instead of ${wanted} ms`);
});
