// The simulated passport chip against published worked examples; its arithmetic against that of OpenSSL.

import assert from 'node:assert/strict';
import { createECDH } from 'node:crypto';
import { test } from 'node:test';
import { CURVES, toBytes, toNumber } from '../../simulator/lib/passport/curves.mjs';
import { CardLink, PassportChip, issuePassport } from '../../simulator/index.mjs';
import '../authorities.mjs';

const bytes = (text) => Buffer.from(text, 'hex');
const hex = (data) => data.toString('hex').toUpperCase();
const words = ({ differences }) => differences.map(({ message }) => message);
const kApplication = '00A4040C07A0000002471001';
const asked = (chip, ...commands) => commands.map((command) => hex(chip.respond(bytes(command)).answer));

/** ICAO Doc 9303-11 Appendix D (D.3 Basic Access Control, D.4 secure messaging) and G.1 (PACE): commands and answers. */
const kExamples = {
  'Basic Access Control and secure messaging': {
    passport: issuePassport({ documentNumber: 'L898902C', birthDate: '690806', expiryDate: '940623',
      overrides: { 0x011e: bytes('60145F0104303130365F36063034303030305C026175') } }),
    settings: { rndIc: '4608F91988702212', kIc: '0B4F80323EB3191CB04970CB4052790B' },
    dialogue: [[kApplication, '9000'], ['0084000008', '4608F919887022129000'],
      ['008200002872C29C2371CC9BDB65B779B8E8D37B29ECC154AA56A8799FAE2F498F76ED92F25F1448EEA8AD90A728',
        '46B9342A41396CD7386BF5803104D7CEDC122B9132139BAF2EEDC94EE178534F2F2D235D074D74499000'],
      ['0CA4020C158709016375432908C044F68E08BF8B92D635FF24F800', '990290008E08FA855A5D4C50A8ED9000'],
      ['0CB000000D9701048E08ED6705417E96BA5500', '8709019FF0EC34F9922651990290008E08AD55CC17140B2DED9000'],
      ['0CB000040D9701128E082EA28A70F3C7B53500', '871901FB9235F4E4037F2327DCC8964F1F9B8C30F42C8E2FFF224A990290008E08C8B2787EAEA07D749000']],
  },
  'PACE with generic mapping': {
    passport: issuePassport({ documentNumber: 'T22000129', birthDate: '640812', expiryDate: '101031',
      pace: [{ cipher: 'aes128', curve: 13 }], withoutBac: { on: 'SELECT APPLICATION', status: '6985' } }),
    settings: { pace: {
      nonce: '3F00C4D39D153F2B2A214A078D899B22',
      mappingKey: '498FF49756F2DC1587840041839A85982BE7761D14715FB091EFA7BCE9058560',
      agreementKey: '107CF58696EF6155053340FD633392BA81909DF7B9706F226F32086C7AFF974A' } },
    dialogue: [[kApplication, '6985'], ['00A4020C02011C', '9000'],
      ['00B0000016', '3114301206' + '0A04007F0007020204020202010202010D9000'], ['0022C1A412800A04007F0007020204020283010184010D', '9000'],
      ['10860000027C0000', '7C12801095A3A016522EE98D01E76CB6B98B42C39000'],
      ['10860000457C438141047ACF3EFC982EC45565A4B155129EFBC74650DCBFA6362D896FC70262E0C2CC5E544552DCB6725218799115B55C9BAA6D9F6BC3A9618E70C25AF71777A9C4922D00',
        '7C43824104824FBA91C9CBE26BEF53A0EBE7342A3BF178CEA9F45DE0B70AA601651FBA3F5730D8C879AAA9C9F73991E61B58F4D52EB87A0A0C709A49DC63719363CCD13C549000'],
      ['10860000457C438341042DB7A64C0355044EC9DF190514C625CBA2CEA48754887122F3A5EF0D5EDD301C3556F3B3B186DF10B857B58F6A7EB80F20BA5DC7BE1D43D9BF850149FBB3646200',
        '7C438441049E880F842905B8B3181F7AF7CAA9F0EFB743847F44A306D2D28C1D9EC65DF6DB7764B22277A2EDDC3C265A9F018F9CB852E111B768B326904B59A0193776F0949000'],
      ['008600000C7C0A8508C2B0BD78D94BA86600', '7C0A86083ABB9674BCE93C089000']],
  },
};
for (const [name, { passport, settings, dialogue }] of Object.entries(kExamples)) {
  const lay = () => new PassportChip(passport, settings);
  test(`${name}: the published example, and each of its commands with a flipped bit`, () => {
    const commands = dialogue.map(([command]) => command);
    const good = lay();
    assert.deepEqual(asked(good, ...commands), dialogue.map(([, answer]) => answer));
    assert.deepEqual(words(good), []);
    for (const [at, command] of commands.entries()) {
      if (command.startsWith('00B0')) continue; // of EF.CardAccess a reader may read what it likes
      for (let bit = 0; bit < command.length * 4; bit += at > 4 ? 29 : 1) {
        const other = bytes(command);
        other[bit >> 3] ^= 1 << bit % 8;
        const chip = lay();
        const [answer] = asked(chip, ...commands.slice(0, at), hex(other)).slice(-1);
        assert.ok(words(chip).length > 0, `bit ${bit} of ${command}: ${answer}`);
      }
    }
  });
}

const kChallenge = '0084000008';
/** Commands that are refused: those before, the command, its status and what is reported. */
const kRefused = [
  [[], '00A4', '6700', /short form/], [[kApplication], '0084000009', '6C08', /GET CHALLENGE: command/], [[kApplication], '80B0000004', '6E00', /class is 80/],
  [[kApplication], '00A4020C02011E', '6982', /SELECT EF.COM: command/], [[kApplication], '0CB000000D9701048E08ED6705417E96BA5500', '6988', /class is .*expected 00/],
  [[kApplication], '0022C1A40F800A04007F00070202040202830101', '6D00', /MSE SET AT: command/], // it has Basic Access Control alone
  [[kApplication, kChallenge], `0082000028${'00'.repeat(40)}28`, '6300', /EXTERNAL AUTHENTICATE: MAC/],
  [[kApplication, kChallenge], kExamples['Basic Access Control and secure messaging'].dialogue[2][0], '6300', /RND.IC is /], // for an earlier challenge
];
test('commands that are refused', () => {
  for (const [before, command, status, says] of kRefused) {
    const chip = new PassportChip(kExamples['Basic Access Control and secure messaging'].passport);
    asked(chip, ...before);
    assert.deepEqual([words(chip), asked(chip, command)[0].slice(-4)], [[], status]);
    assert.ok(words(chip).some((text) => says.test(text)), words(chip).join('; '));
  }
});

/** READs of a file of 33,000 bytes: command, status, bytes of the answer, with the settings of the chip. */
const kReads = [
  ['00B0000004', '9000', 4], ['00B07FFF02', '9000', 2], ['00B0000000', '9000', 256], ['00B080D404', '9000', 4], // 212 bytes into the selected file
  ['00B09C0004', '9000', 4], ['00B09D0004', '6A82', 0], ['00B0A00004', '6A86', 0], // by short identifier
  ['00B1000004540280000A', '9000', 10], ['00B10000045402800083', '9000', 131], ['00B10000045402800082', '9000', 129],
  ['00B10000045402800083', '9000', 134, { oddRead: 'uncounted' }], ['00B1000004540280000A', '6D00', 0, { oddRead: 'none' }],
  ['00B1000004540280E90A', '6B00', 0], ['00B1000004540280E60A', '6282', 4], ['00B1000004540280E60A', '9000', 4, { endOfFile: '9000' }],
  ['00B1000004540280E60A', '6C02', 0, { endOfFile: '6C' }], ['00B1000004540280E60A', '6B00', 0, { endOfFile: '6B00' }],
  ['00B100000354018007', '9000', 7], ['00B10001045402800007', '6A86', 0],
];
const kLong = issuePassport({ pace: [{ cipher: 'aes128', curve: 13 }], overrides: { 0x011c: Buffer.alloc(33000, 0x31) } });
test('READs', () => {
  for (const [command, status, length, settings] of kReads) {
    const [, answer] = asked(new PassportChip(kLong, { order: 'any', ...settings }), '00A4020C02011C', command);
    assert.deepEqual([answer.slice(-4), answer.length / 2 - 2], [status, length], command);
    assert.match(answer.slice(0, -4), command.startsWith('00B1') ? /^(53(81)?..(31)*)?$/ : /^(31)*$/);
  }
});

test('curves: sums and multiples', () => {
  const names = { 10: 'secp224r1', 11: 'brainpoolP224r1', 12: 'prime256v1', 13: 'brainpoolP256r1', 14: 'brainpoolP320r1', 15: 'secp384r1', 16: 'brainpoolP384r1', 17: 'brainpoolP512r1', 18: 'secp521r1' };
  assert.deepEqual(Object.keys(CURVES), Object.keys(names));
  for (const [id, curve] of Object.entries(CURVES)) {
    const [mine, theirs] = [createECDH(names[id]), createECDH(names[id])];
    const theirPoint = curve.decode(theirs.generateKeys());
    const [point, key] = [curve.decode(mine.generateKeys()), toNumber(mine.getPrivateKey())];
    assert.deepEqual(curve.multiply(key, curve.base), point);
    assert.deepEqual(toBytes(curve.multiply(key, theirPoint).x, curve.size), mine.computeSecret(theirs.getPublicKey()));
    assert.deepEqual(curve.multiply(key + 2n, curve.base), curve.add(curve.add(point, curve.base), curve.base));
    assert.equal(curve.add(curve.multiply(curve.n - 1n, curve.base), curve.base), null);
    assert.equal(curve.decode(Buffer.concat([curve.encode(point).subarray(0, -1), Buffer.of(curve.encode(point).at(-1) ^ 1)])), undefined);
  }
});

test('the link carries the chip\'s rules to it, and spoils answers itself', async () => {
  const chip = new PassportChip();
  assert.throws(() => new CardLink(chip, { rules: [{ on: 'any', do: 'nonsense' }] }), /no such action/);
  const link = new CardLink(chip, { rules: [{ on: 'GET CHALLENGE', nth: [1, 4], do: 'statusWord', status: '6D00' },
    { on: 1, nth: 2, do: 'oversize', size: 300 }, { on: 1, nth: 3, do: 'cut', at: -1 }] });
  const carry = (text, serial) => new Promise((resolve) => {
    link.transmit(bytes(text), serial, ({ data, status }) => resolve(status || data));
  });
  const got = [];
  for (let i = 0; i < 4; i += 1) got.push(await carry(i ? '0084000008' : kApplication, Math.min(i, 1)));
  got.push(await carry('0084000008', 1));
  assert.deepEqual(got.map(({ length }) => length), [2, 2, 300, 9, 2]);
  link.setRules([{ on: 1, nth: 2, do: 'gone' }]);
  assert.deepEqual([(await carry('0084000008', 1)).length, await carry('0084000008', 1), await carry(kApplication, 0)], [10, -1, -1]);
});
