// The simulated decode server's passport road, against a client that shares no code with it.

import assert from 'node:assert/strict';
import { constants, createHash, privateEncrypt, randomBytes } from 'node:crypto';
import { after, test } from 'node:test';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { expectedPassport } from '../../simulator/lib/passport-persona.mjs';
import { issuePassport } from '../../simulator/lib/passport/specimen.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../../simulator/lib/persona.mjs';
import { Client } from './client.mjs';

const kKey = '000102030405060708090A0B0C0D0E0F';
const kChallenge = '0102030405060708';
const [kDg2, kDg3, kDg11, kDg15, kSod, kCom] = [0x102, 0x103, 0x10b, 0x10f, 0x11d, 0x11e];
const kPassport = issuePassport();
const kRefusing = issuePassport({ persona: 'dg3Refused' });
const servers = [];
after(() => Promise.all(servers.map((server) => server.stop())));

async function setUp({ known = true } = {}) {
  const identity = { ...DEFAULT_IDENTITY, readMode: 2 };
  const server = new DecodeServer({ keys: { 268: kKey }, persona: expectedPersona(identity), document: 'passport',
    passport: known ? expectedPassport(kPassport) : undefined });
  servers.push(server);
  const { port } = await server.start();
  const client = new Client({ identity, protocolKey: kKey, header: '72' });
  await client.connect(port);
  return { server, client, port };
}

/** From the first connection to the second. */
async function comeBack({ client, port }) {
  const session = client.accept(await client.exchange(client.authentication()));
  const answer = await client.exchange(client.start());
  assert.equal(answer.toString('hex', 0, 13), '720000002e72010000000008aa');
  assert.equal(client.takeToken(answer).length, 16);
  client.close();
  await client.connect(port);
  return session;
}

/** ISO/IEC 9796-2 scheme 1 over the challenge. */
function prove(key, challenge = kChallenge) {
  const own = randomBytes(106);
  const hash = createHash('sha1').update(own).update(Buffer.from(challenge, 'hex')).digest();
  const block = Buffer.concat([Buffer.of(0x6a), own, hash, Buffer.of(0xbc)]);
  return privateEncrypt({ key, padding: constants.RSA_NO_PADDING }, block);
}

/** The files as a reader has them, without those that it leaves out or does not get. */
const readable = (passport, ...without) =>
  new Map([...passport.files].filter(([id]) => !passport.refused.has(id) && !without.includes(id)));

const kStatuses = 'com_str:9000;sod_str:9000;dg15_str:9000;dg11_str:9000;dg1_str:9000;dg2_str:9000;dg14_str:9000';

function report(session, { code = 0, sod = kStatuses, type = 1, nfc = 36864, command = '' } = {}) {
  return `{"reqid": "${session.businessId}", "result_code": ${code}, "decode_times": 12, "time_delay": 3, ` +
    `"nfc_err_code": ${nfc}, "nfc_err_cmd": "${command}", "card_type": ${type}, ` +
    `"device_id": "SIMULATED-DEVICE-0001", "appid": "SIMULATEDREADER00001", "sod_file": "${sod}", ` +
    `"stickCard_id": "${session.stickCardId.toUpperCase()}"}`;
}

test('whole reads, and one that ends at the chip', async () => {
  for (const known of [true, false]) {
    const { server, client, port } = await setUp({ known });
    const session = await comeBack({ client, port });
    const { flag, data } = client.documentOf(await client.exchange(client.files(files(), proof())));
    const { documentNumber, verification } = JSON.parse(data.subarray(7));
    assert.deepEqual([flag, documentNumber, verification.passiveAuthentication, verification.activeAuthentication],
      [1, 'SPEC01234', 'passed', 'passed']);
    assert.ok(await client.exchange(client.monitor(report(session), client.token)));
    assert.deepEqual(server.differences.map(String), []);
  }
  const { server, client, port } = await setUp();
  const session = await comeBack({ client, port });
  await client.exchange(client.monitor(report(session, { code: -53001, sod: '', nfc: 0x6300 }), client.token));
  assert.deepEqual(server.differences.map(String), []);
});

const flipped = (bytes, at) => Buffer.from(bytes.map((byte, i) => (i === at ? byte ^ 1 : byte)));
const block = (bytes) => Buffer.concat([Buffer.of(bytes.length >> 8, bytes.length & 0xff), bytes]);
const files = () => readable(kPassport);
const proof = () => ({ answer: prove(kPassport.aaKey), challenge: kChallenge });
const changed = (client, id, content) => client.files(files(), { ...proof(), change: { [id]: block(content) } });

/** One thing wrong at a time, before the reader has come back or after it: what is sent, and the words that name it. */
const kWrong = [
  ['query info', (c) => c.start({ byteC: '01' }), /^0x7201: byte C .* is 0x01, expected 0x00$/],
  ['files too early', (c) => c.files(files(), { token: '00'.repeat(16) }),
    /^0x7202: command is 0x7202, expected 0x7201 or 0x7219$/],
  ['report with a prefix of its own', (c, s) => c.monitor(report(s, { code: -1, sod: '' }), '11'.repeat(16)),
    /^0x7219: report prefix is 1111/],
  ['header byte', (c, s) => Object.assign(c, { header: '70' }).monitor(report(s)),
    /^0x7219: header byte is 70, expected 72$/],
];
const kWrongLater = [
  ['token', (c) => c.files(files(), { ...proof(), token: 'AA'.repeat(16) }),
    /^0x7202: token is (AA){16}, expected one that 0x7201 has handed out$/],
  ['zeros for the token', (c, s) => c.monitor(report(s, { code: -1, sod: '' })), /^0x7219: token is 0{32}/],
  ['a byte of DG2', (c) => changed(c, kDg2, flipped(kPassport.files.get(kDg2), 9000)),
    /^0x7202: DG2 differs from its byte 9000 on/],
  ['DG11 left out', (c) => c.files(readable(kPassport, kDg11), proof()), /^0x7202: length of DG11 is 0000/],
  ['a file that is not there', (c) => changed(c, kDg3, Buffer.of(0x63, 0)),
    /^0x7202: length of DG3 is 0002, expected 0000$/],
  ['EF.SOD cut', (c) => changed(c, kSod, kPassport.files.get(kSod).subarray(1)), /^0x7202: length of EF.SOD/],
  ['EF.COM', (c) => c.files(readable(kPassport, kCom), proof()), /^0x7202: length of EF.COM is 0000/],
  ['another challenge', (c) => c.files(files(), { ...proof(), challenge: 'FF'.repeat(8) }),
    /^0x7202: verdict of activeAuthentication is failed, expected passed$/],
  ['no challenge', (c) => c.files(files(), { answer: prove(kPassport.aaKey) }),
    /challenge of INTERNAL AUTHENTICATE is zero/],
  ['nothing asked of DG15', (c) => c.files(files()),
    /challenge .* is zero, expected one, since DG15 and DG2 were read$/],
  ['times', (c) => c.files(files(), { ...proof(), times: '00000001' }),
    /^0x7202: file reading time is 1 ms, expected at most 0 ms$/],
  ['leftovers', (c) => c.files(files(), { ...proof(), tail: '00' }), /^0x7202: end is followed by 00/],
  ['a second start', (c) => c.start(), /^0x7201: command is 0x7201, expected 0x7500$/],
];
/** The same of the report on a good read. */
const kWrongReports = [
  [{ type: 0 }, /"card_type" is 0, expected 1$/],
  [{ sod: '' }, /"sod_file" is nothing, expected com_str:9000 at character 0$/],
  [{ sod: kStatuses.replace('dg1_str:9000', 'dg1_str:6282') },
    /is dg1_str:6282, expected dg1_str:9000 at character 53$/],
  [{ sod: kStatuses.replace('dg11_str:9000;dg1_str:9000', 'dg1_str:9000;dg11_str:9000') },
    /is dg1_str:9000, expected dg11_str/],
  [{ sod: `${kStatuses};dg3_str:6A82` }, /"sod_file" is dg3_str:6A82, expected no further row$/],
  [{ sod: `${kStatuses};` }, /expected no further row$/],
  [{ nfc: 0x6982, command: '0CA4' }, /"nfc_err_code" and "nfc_err_cmd" of a good read/],
].map(([changes, says]) => [JSON.stringify(changes), (c, s) => c.monitor(report(s, changes), c.token), says, true]);
for (const [name, send, says, recorded] of [...kWrong, ...kWrongLater, ...kWrongReports]) {
  test(`reported in words: ${name}`, async () => {
    const { server, client, port } = await setUp();
    const begin = async () => client.accept(await client.exchange(client.authentication()));
    const session = await (kWrong.some(([early]) => early === name) ? begin() : comeBack({ client, port }));
    if (recorded) await client.exchange(client.files(files(), proof()));
    assert.equal(await client.exchange(send(client, session)), null);
    assert.equal(server.differences.length, 1);
    assert.match(server.differences[0].message, says);
  });
}

test('the server takes a reader back once its old connection is closed', async () => {
  const { server, client, port } = await setUp();
  client.accept(await client.exchange(client.authentication()));
  client.takeToken(await client.exchange(client.start()));
  const other = new Client({ identity: DEFAULT_IDENTITY, protocolKey: kKey, header: '72' });
  Object.assign(other, { key: client.key, token: client.token });
  await other.connect(port);
  assert.equal(await other.exchange(other.files(files(), proof())), null);
  assert.match(String(server.differences[0]), /connection is one more, expected new after the old one is closed/);
  client.close();
});

/** What a server that expects no particular passport finds out by itself. */
const kFindings = [
  { name: 'a changed file', change: { [kDg11]: block(flipped(kPassport.files.get(kDg11), 20)) },
    finds: { passiveAuthentication: 'failed', signature: 'good' },
    hash: ['DG11', 'differs'] },
  { name: 'a changed list of hashes', change: { [kSod]: block(flipped(kPassport.files.get(kSod), 120)) },
    finds: { passiveAuthentication: 'failed' } },
  { name: 'no list', change: { [kSod]: block(Buffer.of(0x77, 0)) }, finds: { passiveAuthentication: 'failed' } },
  { name: 'another chip', answer: prove(kRefusing.aaKey),
    finds: { passiveAuthentication: 'passed', activeAuthentication: 'failed' } },
  { name: 'no answer', answer: '', finds: { passiveAuthentication: 'passed', activeAuthentication: 'failed' } },
  { name: 'a group not read', change: { [kDg11]: '0000' },
    finds: { passiveAuthentication: 'passed' }, hash: ['DG11', 'not read'] },
];
for (const { name, finds, hash, ...changes } of kFindings) {
  test(`verification: ${name}`, async () => {
    const { server, client, port } = await setUp({ known: false });
    await comeBack({ client, port });
    const { data } = client.documentOf(await client.exchange(client.files(files(), { ...proof(), ...changes })));
    const { verification } = JSON.parse(data.subarray(7));
    for (const [what, value] of Object.entries(finds)) assert.equal(verification[what], value, what);
    if (hash) assert.equal(verification.hashes[hash[0]], hash[1]);
    assert.deepEqual(server.differences.map(String), []);
  });
}

