// Judging real documents: what OpenSSL's own tools have signed, pictures that another encoder has made.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { constants, createHash, createPrivateKey, createPublicKey, generateKeyPairSync, privateDecrypt, sign } from 'node:crypto';
import { cpSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { judgeDocument } from '../../desk/judge/judge.mjs';
import { transliterate, mayStandAs } from '../../desk/judge/names.mjs';
import { readZone } from '../../desk/judge/zone.mjs';
import { DER } from '../../simulator/lib/passport/der.mjs';
import { dataGroup } from '../../simulator/lib/passport/lds.mjs';
import { issuePassport } from '../../simulator/lib/passport/specimen.mjs';

const kFolder = mkdtempSync(join(tmpdir(), 'judge-'));
after(() => rmSync(kFolder, { recursive: true }));

// 16 by 20 pixels of grey, (13 x + 7 y) mod 256, by opj_compress: the bare code stream
const kCodeStream = Buffer.from('/0//UQApAAAAAAAQAAAAFAAAAAAAAAAAAAAAEAAAABQAAAAAAAAAAAABBwEB/1IADAAAAAEAAAQEAAH/XAAEQED/ZAAlAAFDcmVhdGVkIGJ5IE9wZW5KUEVHIHZlcnNpb24gMi41LjD/kAAKAAAAAAEjAAH/k9+GiIASN5Rzz9kLoQXmQei7fbOpAULJLBisIXb9PHhBB/210Zt2n6RejxGAGkX3KtU1iComz0s1TNKXXWNA8c2SIxCSDTEiwymWIdD4ZbqcUQ7HTyxCOIcy4ug0W/3gv+kv6paXHsRlT4azcR1T0F1c1xHoaI5vGI2yyBFQ1kjpW1541XguByVimqegXBA2k30bBOqNlrw2cZb0W0W0QlIvivDVmrHt4kkIZfb855/q2yNh2T7gj2VI8LMUvmg59HkavVrM9q4p1Y1K4ddY1Qp1OwzdzmWdD65c3V6vVubrXACvV6tzdVnXBY4icNNPCeInETiKDYMsROInETxysTiJxE4bnCZYicROIrl7OInETiJw/3//2Q==', 'base64');

const openssl = (...args) => execFileSync('openssl', args, { cwd: kFolder, stdio: ['ignore', 'pipe', 'pipe'] });
const kOids = { sha1: '1.3.14.3.2.26', sha224: '2.16.840.1.101.3.4.2.4', sha256: '2.16.840.1.101.3.4.2.1',
  sha384: '2.16.840.1.101.3.4.2.2', sha512: '2.16.840.1.101.3.4.2.3' };
const kPss = ['rsa_padding_mode:pss'];
const explicit = (curve) => ['EC', `ec_paramgen_curve:${curve}`, 'ec_param_enc:explicit'];
const named = (curve) => ['EC', `ec_paramgen_curve:${curve}`];
const kSigners = [ // key, hash, options of the signature
  { key: ['RSA', 'rsa_keygen_bits:2048'], hash: 'sha1' },
  { key: ['RSA', 'rsa_keygen_bits:2048'], hash: 'sha256', options: kPss },
  { key: ['RSA', 'rsa_keygen_bits:2048'], hash: 'sha512', options: [...kPss, 'rsa_mgf1_md:sha1', 'rsa_pss_saltlen:17'] },
  { key: named('P-224'), hash: 'sha224' }, { key: named('P-521'), hash: 'sha512' },
  { key: named('brainpoolP384r1'), hash: 'sha384' },
  { key: explicit('brainpoolP256r1'), hash: 'sha256' }, { key: explicit('P-256'), hash: 'sha1' },
];

/** Key, certificate of a country and certificate of its document signer, as files `name`-c and `name`-d. */
function authorities(name, { key: [type, ...key], hash, options = [] }) {
  const opt = (list, flag) => list.flatMap((each) => [flag, each]);
  for (const who of ['c', 'd']) {
    openssl('genpkey', '-algorithm', type, ...opt(key, '-pkeyopt'), '-out', `${name}-${who}.key`);
  }
  const pss = opt(options, '-sigopt');
  openssl('req', '-x509', '-new', '-key', `${name}-c.key`, '-subj', '/C=UT/CN=Country', '-days', '99', `-${hash}`, ...pss, '-out', `${name}-c.pem`);
  openssl('req', '-new', '-key', `${name}-d.key`, '-subj', '/C=UT/CN=Signer', `-${hash}`, ...pss, '-out', `${name}-d.csr`);
  openssl('x509', '-req', '-in', `${name}-d.csr`, '-CA', `${name}-c.pem`, '-CAkey', `${name}-c.key`, '-set_serial', '7', '-days', '99',
    `-${hash}`, ...pss, '-out', `${name}-d.pem`);
  mkdirSync(join(kFolder, `${name}-trust`));
  cpSync(join(kFolder, `${name}-c.pem`), join(kFolder, `${name}-trust`, 'country.pem'));
  return join(kFolder, `${name}-trust`);
}

/** EF.SOD over the data groups, by `openssl cms`. */
function securityObject(name, { hash, options = [] }, files) {
  const { sequence, integer, oid, octets, tlv } = DER;
  const groups = [...files].filter(([id]) => id <= 0x0110);
  const rows = groups.map(([id, content]) => sequence(integer(id - 0x0100), octets(createHash(hash).update(content).digest())));
  writeFileSync(join(kFolder, `${name}.lds`), sequence(integer(0), sequence(oid(kOids[hash])), sequence(...rows)));
  openssl('cms', '-sign', '-binary', '-nodetach', '-outform', 'DER', '-econtent_type', '2.23.136.1.1.1', '-in', `${name}.lds`,
    '-signer', `${name}-d.pem`, '-inkey', `${name}-d.key`, '-md', hash, ...options.flatMap((each) => ['-keyopt', each]), '-out', `${name}.sod`);
  return tlv(0x77, readFileSync(join(kFolder, `${name}.sod`)));
}

const passport = issuePassport();
const verdicts = ({ checks }) => Object.fromEntries(checks.map(({ name, verdict }) => [name, verdict]));

test('signed with every algorithm: good, changed, by a stranger, by nobody known', async () => {
  for (const [i, signer] of kSigners.entries()) {
    const name = `s${i}`;
    const trustFolder = authorities(name, signer);
    const files = new Map(passport.files);
    files.set(0x011d, securityObject(name, signer, files));
    const judge = async (change = () => {}, trust = trustFolder) => {
      const changed = new Map([...files].map(([id, content]) => [id, Buffer.from(content)]));
      change(changed);
      return verdicts(await judgeDocument({ files: changed, trustFolder: trust }));
    };
    const good = await judge();
    const sure = ['Signature over the list', "The signer's country", 'DG1 unchanged', 'DG2 unchanged', 'DG15 unchanged'];
    for (const check of sure) assert.equal(good[check], 'good', `${signer.key}: ${check}`);
    assert.equal((await judge((all) => { all.get(0x0101)[20] ^= 1; }))['DG1 unchanged'], 'bad');
    assert.equal((await judge((all) => { all.get(0x011d)[all.get(0x011d).length - 1] ^= 1; }))['Signature over the list'], 'bad');
    if (i > 0) assert.equal((await judge(undefined, join(kFolder, 's0-trust')))["The signer's country"], 'bad', 'a stranger of that name');
  }
  const unknown = await judgeDocument({ files: passport.files, trustFolder: join(kFolder, 's0-trust') });
  assert.equal(verdicts(unknown)["The signer's country"], 'unchecked');
  const noFolder = await judgeDocument({ files: passport.files });
  assert.match(noFolder.checks[1].words, /^Signed by .*Specimen Document Signer 1, not checked against a country certificate\.$/);
});

/** A signature of ISO/IEC 9796-2 scheme 1 by a chip with this key. */
function chipSignature(key, challenge, { hash, trailer }, negative = false) {
  const size = key.asymmetricKeyDetails.modulusLength / 8;
  const digestSize = createHash(hash).digest().length;
  const message = Buffer.alloc(size - 1 - digestSize - trailer.length, 0x5a);
  const digest = createHash(hash).update(message).update(challenge).digest();
  const opened = Buffer.concat([Buffer.of(0x6a), message, digest, Buffer.from(trailer)]);
  const signature = privateDecrypt({ key, padding: constants.RSA_NO_PADDING }, opened);
  if (!negative) return signature;
  const modulus = BigInt(`0x${Buffer.from(key.export({ format: 'jwk' }).n, 'base64url').toString('hex')}`);
  return Buffer.from((modulus - BigInt(`0x${signature.toString('hex')}`)).toString(16).padStart(2 * size, '0'), 'hex');
}

test('active authentication with RSA and elliptic curves', async () => {
  const challenge = Buffer.from('0102030405060708', 'hex');
  const rsa = generateKeyPairSync('rsa', { modulusLength: 1280 }).privateKey;
  const cases = [
    [rsa, chipSignature(rsa, challenge, { hash: 'sha1', trailer: [0xbc] })],
    [rsa, chipSignature(rsa, challenge, { hash: 'sha256', trailer: [0x34, 0xcc] })],
    [rsa, chipSignature(rsa, challenge, { hash: 'sha384', trailer: [0x36, 0xcc] }, true)],
    ...['brainpoolP320r1', 'P-256'].flatMap((namedCurve) => {
      const key = generateKeyPairSync('ec', { namedCurve, paramEncoding: 'explicit' }).privateKey;
      return [['sha224', '2'], ['sha512', '5']].map(([hash, plain]) =>
        [key, sign(hash, challenge, { key, dsaEncoding: 'ieee-p1363' }), `0.4.0.127.0.7.1.1.4.1.${plain}`]);
    }),
  ];
  for (const [key, answer, named] of cases) {
    const { sequence, set, oid, integer, tlv } = DER;
    const files = new Map(passport.files).set(0x010f, tlv(0x6f, createPublicKey(key).export({ type: 'spki', format: 'der' })));
    if (named) files.set(0x010e, tlv(0x6e, set(sequence(oid('2.23.136.1.1.5'), integer(1), oid(named)))));
    const judged = async (answered, asked = challenge) =>
      verdicts(await judgeDocument({ files, activeAuthentication: { challenge: asked, answer: answered } }))['The chip is no copy'];
    assert.equal(await judged(answer), 'good');
    assert.equal(await judged(answer, Buffer.from('1102030405060708', 'hex')), 'bad');
    assert.equal(await judged(Buffer.alloc(0)), 'bad');
    assert.equal(await judged(Buffer.alloc(0), Buffer.alloc(8)), 'unchecked');
  }
});

test('faces in their encodings, JPEG 2000 turned into PNG', async () => {
  const { tlv } = DER;
  const dg2 = (record, tag = 0x5f2e) => tlv(0x75, tlv(0x7f61, tlv(0x02, Buffer.of(1)), tlv(0x7f60, tlv(0xa1), tlv(tag, record))));
  const face = async (file) => judgeDocument({ files: new Map([[0x0102, file]]) });
  const block = (size, image) => {
    const bytes = Buffer.concat([Buffer.alloc(size), image]);
    bytes.writeUInt32BE(bytes.length);
    return bytes;
  };
  const header = (version, rest) => Buffer.concat([Buffer.from(`FAC\0${version}\0`, 'latin1'), Buffer.alloc(4), Buffer.of(0, 1), Buffer.alloc(rest)]);
  const records = {
    'ISO/IEC 19794-5:2005': dg2(Buffer.concat([header('010', 0), block(32, kCodeStream)])),
    'ISO/IEC 19794-5:2011': dg2(Buffer.concat([header('030', 3), block(50, kCodeStream)])),
    'ISO/IEC 39794-5': dg2(tlv(0x65, tlv(0xa0, tlv(0x80, Buffer.of(3))), tlv(0xa1, tlv(0x30, tlv(0xa1, tlv(0xa0, tlv(0x80, kCodeStream)))))), 0x7f2e),
    'a plain image': dg2(kCodeStream),
  };
  const { PNG } = await import('../../desk/node_modules/pngjs/lib/png.js');
  for (const [encoding, file] of Object.entries(records)) {
    const { portrait, faces } = await face(file);
    assert.equal(faces[0].encoding, encoding);
    assert.equal(portrait.type, 'image/png', portrait.reason);
    const { width, height, data } = PNG.sync.read(portrait.bytes);
    assert.deepEqual([width, height], [16, 20]);
    const grey = Array.from({ length: 320 }, (_, i) => ((i % 16) * 13 + Math.floor(i / 16) * 7) % 256);
    assert.deepEqual([...data].filter((_, i) => i % 4 === 1), grey);
  }
  for (let cut = 0; cut < records['a plain image'].length; cut += 7) { // told, never thrown
    const { portrait, notes } = await face(records['a plain image'].subarray(0, cut));
    assert.ok(portrait.reason ?? portrait.type, `${cut} bytes: ${notes}`);
  }
  assert.match((await face(dg2(kCodeStream.subarray(0, 120)))).portrait.reason ?? 'decoded', /could not be decoded|decoded/);
});

test('zones and names', () => {
  const zones = { // ICAO Doc 9303 parts 4, 5 and 6: the specimens
    TD3: 'P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<L898902C36UTO7408122F1204159ZE184226B<<<<<10',
    TD1: 'I<UTOD231458907<<<<<<<<<<<<<<<7408122F1204159UTO<<<<<<<<<<<6ERIKSSON<<ANNA<MARIA<<<<<<<<<<',
    TD2: 'I<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<D231458907UTO7408122F1204159<<<<<<<6',
  };
  for (const [form, text] of Object.entries(zones)) {
    const zone = readZone(text);
    assert.deepEqual([zone.form, zone.good], [form, true]);
    assert.equal(readZone(text.replace('740812', '740813')).good, false);
  }
  assert.equal(readZone(zones.TD1.replace('D231458907<<<<<<<<<<<<<<<', 'D23145890<7349<<<<<<<<<<<')).fields[2].value, 'D23145890734');
  const names = [['Müller, Jürgen', 'MUELLER JUERGEN', 'MULLER JURGEN'], ['Ştefan Łódź', 'STEFAN LODZ', 'STEFAN LODZ'],
    ['Щукина Юлия', 'SHCHUKINA IULIIA', 'SHTUKINA IULIIA'], ['Þór Straße', 'THOR STRASSE', 'THOR STRA'], ["O'Neil", 'ONEIL', 'ONEIL'],
    ['محمد', 'MXHMD', 'MXHMD']];
  for (const [name, recommended, permitted] of names) {
    assert.equal(transliterate(name).text, recommended);
    assert.ok(mayStandAs(name, recommended) && mayStandAs(name, permitted) && !mayStandAs(name, `${permitted}X`), name);
  }
  assert.deepEqual(transliterate('李 A').unknown, ['李']);
});

test('whatever a chip sends is told and ends nothing', async () => {
  const files = [...passport.files].filter(([id]) => id !== 0x0102);
  for (const [id, content] of files) {
    for (let i = 0; i < content.length; i += Math.ceil(content.length / 40)) {
      const damaged = Buffer.from(content);
      damaged[i] ^= 0x55;
      for (const bytes of [content.subarray(0, i), damaged]) {
        const judged = await judgeDocument({ files: new Map(files).set(id, bytes), activeAuthentication: { challenge: Buffer.alloc(8, 1), answer: bytes } });
        assert.ok(judged.checks.every(({ verdict, words }) => ['good', 'bad', 'unchecked'].includes(verdict) && words));
      }
    }
  }
  const dg12 = dataGroup(12, passport.holder, {});
  const { holder } = await judgeDocument({ files: new Map([[0x010c, dg12]]) });
  assert.deepEqual([holder.issuingAuthority, holder.issueDate], ['SPECIMEN AUTHORITY OF UTOPIA', '2025-01-01']);
});
