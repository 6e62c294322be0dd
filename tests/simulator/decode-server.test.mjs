// The simulated decode server at its connections, and what it finds out about a passport. What requests hold is the subject of
// replay.test.mjs.

import assert from 'node:assert/strict';
import { constants, createHash, privateEncrypt } from 'node:crypto';
import { once } from 'node:events';
import { connect } from 'node:net';
import { test } from 'node:test';
import { checkWhole } from '../../simulator/lib/decode-server/passport-files.mjs';
import { verifyPassport } from '../../simulator/lib/decode-server/passport-verification.mjs';
import { filesByName } from '../../simulator/lib/passport-persona.mjs';
import { DecodeServer, issuePassport } from '../../simulator/index.mjs';
import { recordRead } from './recording.mjs';

const { requests, config: kConfig, document: kPassport } = await recordRead({ passport: { dataGroups: [1, 11, 15] } });
const [first, second, third] = requests.map(({ request }) => request);

/** Writes to a server that draws the recorded numbers; gives what it answers (hexadecimal, null when it hangs up) and finds. */
async function told(pieces, { config, sockets = [0] } = {}) {
  const server = new DecodeServer({ ...kConfig, ...config });
  const { port } = await server.start();
  const open = [];
  const answers = [];
  for (const [i, piece] of pieces.entries()) {
    const which = sockets[i] ?? 0;
    open[which] ??= connect(port, '127.0.0.1').on('error', () => {});
    open[which].write(piece);
    const [data] = await Promise.race([once(open[which], 'data'), once(open[which], 'end').then(() => [null])]);
    answers.push(data?.toString('hex') ?? null);
  }
  await server.stop();
  return { answers, differences: server.differences.map(({ message }) => message), exchanges: server.exchanges };
}

test('answers, and their fields by name', async () => {
  const { answers, differences, exchanges } = await told([first, second, third], { sockets: [0, 0, 1] });
  assert.match(differences[0], /connection is one more, expected new after the old one is closed/);
  assert.deepEqual([answers[1].slice(0, 26), answers[2], exchanges[0].fields.terId, exchanges[0].answer.businessId, exchanges[1].answer.token.length],
    ['720000002e72010000000008aa', null, 0x51, 'SIMULATED-READ-000001', 32]);
});

/** What a connection begins with, and what is said of it. */
const kWrong = [
  ['an unknown header byte', Buffer.concat([Buffer.of(0x73), first.subarray(1)]), /header byte is 73, expected 70, 71 or 72/],
  ['a length that no request has', Buffer.from('7200057500000900', 'hex'), /length field is 5, expected 12 to/],
  ['a request behind the first', Buffer.concat([first, second]), /followed by 72.* expected alone until it has been answered/],
  ['a token that nobody has handed out', third, /token is .*, expected one that 0x7201 has handed out/],
  ['another environment', first, /environment of the reader is 268: its key opens the envelope, expected 52302/, { envIdCode: 52302 }],
  ['other keys', first, /environment of the reader is none of these/, { keys: { 268: '00'.repeat(16), 52302: '11'.repeat(16) } }],
];
test('what is wrong is reported in words, and answered as configured', async () => {
  for (const [name, piece, says, config] of kWrong) assert.match((await told([piece], { config })).differences[0], says, name);
  const wrong = Buffer.concat([first.subarray(0, -1), Buffer.of(first.at(-1) ^ 1)]);
  const { answers: [answer] } = await told([wrong], { config: { onDifference: 'status:001301' } });
  assert.equal(answer.slice(10, 16), '001301');
  for (const setting of [{ colour: 1 }, { onDifference: 'nothing' }, { envIdCode: 1 }, { document: 'car' }]) {
    assert.throws(() => new DecodeServer({ keys: kConfig.keys, ...setting }), TypeError);
  }
});

const kChallenge = Buffer.from('0102030405060708', 'hex');

/** ISO/IEC 9796-2 scheme 1 over the challenge. */
function prove(key) {
  const hash = createHash('sha1').update(Buffer.alloc(106, 0xa5)).update(kChallenge).digest();
  return privateEncrypt({ key, padding: constants.RSA_NO_PADDING }, Buffer.concat([Buffer.of(0x6a), Buffer.alloc(106, 0xa5), hash, Buffer.of(0xbc)]));
}
const flipped = (bytes, at) => Buffer.from(bytes.map((byte, i) => (i === at ? byte ^ 1 : byte)));
const { DG2: _, ...kFiles } = filesByName(kPassport); // DG2 is on the chip, but not listed

/** Changes to a good passport, and what the server finds out: passive and active authentication, signature, a hash. */
const kFindings = [
  [{}, 'passed', 'passed', 'good', ['DG11', 'good']],
  [{ DG11: flipped(kFiles.DG11, 20) }, 'failed', 'passed', 'good', ['DG11', 'differs']],
  [{ 'EF.SOD': flipped(kFiles['EF.SOD'], 120) }, 'failed', 'passed', undefined],
  [{ 'EF.SOD': flipped(kFiles['EF.SOD'], kFiles['EF.SOD'].length - 5) }, 'failed', 'passed', 'wrong'],
  [{ 'EF.SOD': Buffer.of(0x77, 0) }, 'failed', 'passed', undefined],
  [{ DG11: Buffer.alloc(0) }, 'passed', 'passed', 'good', ['DG11', 'not read']],
  [{ DG12: Buffer.of(0x6c, 0) }, 'failed', 'passed', 'good', ['DG12', 'not listed']],
  [{ DG15: Buffer.alloc(0) }, 'passed', 'not done', 'good', ['DG15', 'not read']],
  [{ answer: prove(issuePassport().aaKey) }, 'passed', 'failed', 'good'],
  [{ answer: Buffer.alloc(0) }, 'passed', 'failed', 'good'],
  [{ authority: issuePassport().authority.map((byte, i) => (i === 300 ? byte ^ 1 : byte)) }, 'failed', 'passed', undefined],
];
test('verification', () => {
  for (const [{ answer = prove(kPassport.aaKey), authority = kPassport.authority, ...files }, passive, active, signature, hash] of kFindings) {
    const found = verifyPassport({ files: { ...kFiles, ...files }, challenge: kChallenge, answer }, authority);
    assert.deepEqual([found.passiveAuthentication, found.activeAuthentication, signature && found.signature, hash && found.hashes[hash[0]]],
      [passive, active, signature, hash?.[1]], Object.keys(files).join());
  }
});

test('a file comes whole or not at all', () => {
  const whole = ['', '7700', '770000', '6102AABB', '6183AABB', '618101AA', '61820001AA', '6180AABB'];
  const cut = ['61', '6103AABB', '6101AABB00', '6102AABBCC', '618102AA', '61820002AA', '61820000AA', '6183AABBCC'];
  for (const file of whole) checkWhole('DG1', Buffer.from(file, 'hex'), 'here');
  for (const file of cut) assert.throws(() => checkWhole('DG1', Buffer.from(file, 'hex'), 'here'), /as its header says, or none at all/, file);
});
