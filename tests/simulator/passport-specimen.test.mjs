// The specimen passport: its files against published examples, OpenSSL and a reading of their own. Its portrait is looked at where
// portraits are decoded.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { X509Certificate, createHash, createPublicKey } from 'node:crypto';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { DER, elementAt, lengthBytes, oidText, readElement, readElements, writer } from '../../simulator/lib/passport/der.mjs';
import { mrzInformation, td3Lines } from '../../simulator/lib/passport/mrz.mjs';
import { PERSONAS, issuePassport } from '../../simulator/lib/passport/specimen.mjs';

const folder = mkdtempSync(join(tmpdir(), 'passport-'));
after(() => rmSync(folder, { recursive: true }));
const bytes = (text) => Buffer.from(text, 'hex');
const hex = (data) => data.toString('hex').toUpperCase();
const digest = (algorithm, data) => createHash(algorithm).update(data).digest();

// ICAO Doc 9303-4, the example of a data page, with all its check digits; 9303-11 Appendix D.2
test('machine-readable zones and access key seeds', () => {
  const lines = (fields) => td3Lines({ surname: 'ERIKSSON', givenNames: 'ANNA MARIA', sex: 'F', state: 'UTO', nationality: 'UTO', ...fields });
  assert.deepEqual(lines({ documentNumber: 'L898902C3', birthDate: '740812', expiryDate: '120415', personalNumber: 'ZE184226B' }),
    ['P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<', 'L898902C36UTO7408122F1204159ZE184226B<<<<<10']);
  assert.match(lines({ documentNumber: 'D23145890734', birthDate: '340712', expiryDate: '950712' })[1], /^D23145890<UTO3407127F95071227349<<<<<<<<<<\d\d$/);
  const seed = (documentNumber, birthDate, expiryDate) => hex(digest('sha1', mrzInformation({ documentNumber, birthDate, expiryDate })).subarray(0, 16));
  assert.equal(seed('L898902C', '690806', '940623'), '239AB9CB282DAF66231DC5A4DF6BFBAE');
  assert.equal(seed('D23145890734', '340712', '950712'), 'B366AD857DDCA2B08C0E299811714730');
});

/** Writes EF.SOD's content and the authority's certificate, and lets OpenSSL judge; gives what was signed. */
function verified({ files, authority }) {
  const path = (name) => join(folder, name);
  writeFileSync(path('sod'), readElement(files.get(0x011d)).value);
  writeFileSync(path('ca.pem'), new X509Certificate(authority).toString());
  return execFileSync('openssl', ['cms', '-verify', '-inform', 'DER', '-in', path('sod'), '-CAfile', path('ca.pem'), '-binary'], { stdio: ['ignore', 'pipe', 'pipe'] });
}

for (const persona of ['allGroups', 'sodLengths81', 'sodLengths82', 'sodTwoByteTags']) {
  test(`EF.SOD of "${persona}" verifies, and its hashes are those of the files`, () => {
    const passport = issuePassport({ persona });
    const hashes = readElements(elementAt(verified(passport), 0, 2).value).map(({ value }) => readElements(value).map((element) => element.value));
    assert.deepEqual(hashes.map(([number, hash]) => [number[0], hex(hash)]), passport.dataGroups.map((number) =>
      [number, hex(digest('sha256', passport.files.get(0x0100 + number)))]));
    const sod = passport.files.get(0x011d);
    assert.equal(elementAt(sod, 0, 0, 1, 0, 0).headerLength, { 81: 3, 82: 4 }[PERSONAS[persona].sod?.form] ?? 2); // the version
    assert.equal(sod.includes(bytes('5F29')), persona === 'sodTwoByteTags');
    sod[sod.length - (persona === 'sodTwoByteTags' ? 60 : 5)] ^= 1; // in the signature
    assert.throws(() => verified(passport), /Verification failure|signature failure/i);
  });
}

test('data groups: outer tags, contents and a key that is the chip\'s', () => {
  const { files, mrz, aaPublicKey } = issuePassport({ persona: 'allGroups' });
  const tags = { 0x011e: 0x60, 0x011d: 0x77, 0x0101: 0x61, 0x0102: 0x75, 0x0103: 0x63, 0x0104: 0x76, 0x0105: 0x65, 0x010a: 0x6a, 0x010b: 0x6b, 0x010f: 0x6f, 0x0110: 0x70 };
  for (const [id, tag] of Object.entries(tags)) assert.equal(readElement(files.get(Number(id))).tag, tag, id);
  for (const file of files.values()) assert.equal(readElement(file).end, file.length);
  assert.equal(elementAt(files.get(0x0101), 0, '5F1F').value.toString(), mrz.join(''));
  assert.equal(hex(elementAt(files.get(0x011e), 0, '5C').value), '6175637665666768696A6B6C6D6E6F70');
  const keyIn = (spki) => createPublicKey({ key: spki, format: 'der', type: 'spki' });
  assert.ok(keyIn(readElement(files.get(0x010f)).value).equals(aaPublicKey));
  const [, publicKey] = readElements(elementAt(files.get(0x010e), 0, 0).value);
  assert.deepEqual([oidText(elementAt(publicKey.value, 0).value), keyIn(elementAt(publicKey.value, 1).bytes).asymmetricKeyDetails.namedCurve], ['0.4.0.127.0.7.2.2.1.2', 'prime256v1']);
  assert.equal(elementAt(files.get(0x010b), 0, '5F2B').value.toString(), '19900101');
  const record = elementAt(files.get(0x0102), 0, '7F61', '7F60', '5F2E').value; // ISO/IEC 19794-5
  assert.deepEqual([record.toString('latin1', 0, 8), record.readUInt32BE(8), record.readUInt16BE(12), record.readUInt32BE(14)], ['FAC\x00010\x00', record.length, 1, record.length - 14]);
  assert.ok(files.get(0x0102).equals(issuePassport().files.get(0x0102)), 'always the same portrait');
  assert.throws(() => issuePassport({ persona: 'nobody' }), /no such persona: nobody; there are usual, /);
});

test('elements: lengths in every form, tags of one to three bytes, and what does not fit', () => {
  const sizes = [[0, 'der', '00'], [127, 'der', '7F'], [128, 'der', '8180'], [256, 'der', '820100'], [5, '81', '8105'], [5, '82', '820005'], [65536, '82', '83010000']];
  for (const [length, form, field] of sizes) assert.equal(hex(lengthBytes(length, form)), field);
  for (const tag of [0x61, 0x5f1f, 0x7f8101]) assert.equal(readElement(writer('82').tlv(tag, bytes('01'))).tag, tag);
  assert.deepEqual([hex(DER.integer(0x80)), hex(DER.oid('1.2.840.113549.1.7.2'))], ['02020080', '06092A864886F70D010702']);
  for (const wrong of ['', '30', '5F', '300201', '3080', '308500', '308201']) assert.throws(() => readElement(bytes(wrong)), RangeError, wrong);
  assert.throws(() => elementAt(bytes('3003020101'), 0, '04'), /no element/);
});
