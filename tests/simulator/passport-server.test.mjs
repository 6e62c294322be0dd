// The simulated decode server's passport road, against a client that shares no code with it.

import assert from 'node:assert/strict';
import { constants, createHash, privateEncrypt, randomBytes } from 'node:crypto';
import { after, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { expectedPassport, packPassport, unpackPassport } from '../../simulator/lib/passport-persona.mjs';
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

async function setUp({ readMode = 2, passport = kPassport, known = true, expected = {}, ...config } = {}) {
  const identity = { ...DEFAULT_IDENTITY, readMode };
  const server = new DecodeServer({ keys: { 268: kKey }, persona: expectedPersona(identity), document: 'passport',
    passport: known ? { ...expectedPassport(passport), ...expected } : undefined, ...config });
  servers.push(server);
  const { port } = await server.start();
  const client = new Client({ identity, protocolKey: kKey, header: '72' });
  await client.connect(port);
  return { server, client, port, passport };
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

const proven = (passport) => ({ answer: prove(passport.aaKey), challenge: kChallenge });

const kStatuses = 'com_str:9000;sod_str:9000;dg15_str:9000;dg11_str:9000;dg1_str:9000;dg2_str:9000;dg14_str:9000';
const kRefusedStatuses = kStatuses.replace(';dg14', ';dg3_str:6982;dg14');

/** The status of an answer of several bytes is its first two and its last two. */
const kRefused = Object.fromEntries([3, 4, 5, 6, 7].map((n) => [0x100 + n, { on: 'select', status: '6982' }]));
function statusesOfAll(refused, last) {
  const others = [3, 4, 5, 6, 7, 8, 9, 10, 12, 13, 14, ...(last ? [last] : [])];
  const rows = others.map((n) => `;dg${n}_str:${refused[0x100 + n] ? '99026982' : '9000'}`);
  return kStatuses.replace(';dg14_str:9000', rows.join(''));
}

function report(session, { code = 0, sod = kStatuses, type = 1, nfc = 36864, command = '' } = {}) {
  return `{"reqid": "${session.businessId}", "result_code": ${code}, "decode_times": 12, "time_delay": 3, ` +
    `"nfc_err_code": ${nfc}, "nfc_err_cmd": "${command}", "card_type": ${type}, "device_id": "SIMULATED-DEVICE-0001", ` +
    `"appid": "SIMULATEDREADER00001", "sod_file": "${sod}", "stickCard_id": "${session.stickCardId.toUpperCase()}"}`;
}

const kReads = [
  { name: 'the specimen' },
  { name: 'any passport, after messages between processes', passport: unpackPassport(structuredClone(packPassport(kPassport))) },
  { name: 'a passport that nobody expects', known: false },
  { name: 'without DG2', readMode: 1, without: [kDg2], sod: kStatuses.replace('dg2_str:9000;', '') },
  { name: 'DG3 refused', passport: kRefusing, sod: kRefusedStatuses },
  { name: 'DG3 refused, unexpectedly', passport: kRefusing, known: false, sod: kRefusedStatuses },
  { name: 'EF.COM unreadable', passport: issuePassport({ persona: 'comUnreadable' }),
    sod: kStatuses.replace('9000', '6982') },
  { name: 'all groups', passport: issuePassport({ persona: 'allGroups' }), sod: statusesOfAll({}, 16) },
  { name: 'more rows than the text holds', passport: issuePassport({ persona: 'allGroups', refused: kRefused }),
    known: false, sod: statusesOfAll(kRefused) },
  { name: 'DG3 refused under secure messaging', passport: issuePassport({ persona: 'protectedRefusals' }), without: [0x10e],
    sod: kStatuses.replace(';dg14_str:9000', ';dg3_str:99026982;dg14_str:6988') },
  { name: 'without DG15', passport: issuePassport({ persona: 'withoutDg15' }), proof: {}, active: 'not done',
    sod: kStatuses.replace('dg15_str:9000;', '') },
];
for (const { name, without = [], sod = kStatuses, proof, active = 'passed', ...setting } of kReads) {
  test(`a whole read: ${name}`, async () => {
    const { server, client, port, passport } = await setUp(setting);
    const session = await comeBack({ client, port });
    const request = client.files(readable(passport, ...without), proof ?? proven(passport));
    const { flag, data } = client.documentOf(await client.exchange(request));
    const info = JSON.parse(data.subarray(7));
    assert.deepEqual([flag, info.surname, info.documentNumber, info.checkDigits], [1, 'SPECIMEN', 'SPEC01234', 'good']);
    assert.deepEqual([info.verification.passiveAuthentication, info.verification.activeAuthentication], ['passed', active]);
    const text = report(session, { sod });
    assert.ok(await client.exchange(client.monitor(text, client.token)));
    assert.deepEqual(server.differences.map(String), []);
    assert.equal(server.monitors[0].raw, text);
    assert.equal(server.verifications[0].activeAuthentication, active);
    assert.equal(server.exchanges.map(({ command }) => command).join(' '), '0x7500 0x7201 0x7202 0x7219');
  });
}

test('a read that ends at the chip', async () => {
  const { server, client, port } = await setUp();
  const session = await comeBack({ client, port });
  await client.exchange(client.monitor(report(session, { code: -53001, sod: '', nfc: 0x6300 }), client.token));
  assert.deepEqual(server.differences.map(String), []);
  assert.equal(server.monitors[0].record.result_code, -53001);
});

const flipped = (bytes, at) => Buffer.from(bytes.map((byte, i) => (i === at ? byte ^ 1 : byte)));
const block = (bytes) => Buffer.concat([Buffer.of(bytes.length >> 8, bytes.length & 0xff), bytes]);
const files = () => readable(kPassport);
const proof = () => proven(kPassport);

/** One thing wrong at a time, after the reader has come back (`late`) or before. */
const kWrong = [
  { name: 'query info', send: (c) => c.start({ byteC: '01' }), says: /^0x7201: byte C .* is 0x01, expected 0x00$/ },
  { name: 'files too early', send: (c) => c.files(files(), { token: '00'.repeat(16) }),
    says: /^0x7202: command is 0x7202, expected 0x7201 or 0x7219$/ },
  { name: 'report with a prefix of its own', send: (c, s) => c.monitor(report(s, { code: -1,
    sod: '' }), '11'.repeat(16)),
    says: /^0x7219: report prefix is 1111/ },
  { name: 'header byte', send: (c, s) => { c.header = '70'; return c.monitor(report(s)); },
    says: /^0x7219: header byte is 70, expected 72$/ },
  { late: true, name: 'token', send: (c) => c.files(files(), { ...proof(), token: 'AA'.repeat(16) }),
    says: /^0x7202: token is (AA){16}, expected one that 0x7201 has handed out$/ },
  { late: true, name: 'zeros for the token', send: (c, s) => c.monitor(report(s, { code: -1, sod: '' })),
    says: /^0x7219: token is 0{32}/ },
  { late: true, name: 'a byte of DG2',
    send: (c) => c.files(files(), { ...proof(), change: { [kDg2]: block(flipped(kPassport.files.get(kDg2), 9000)) } }),
    says: /^0x7202: DG2 differs from its byte 9000 on/ },
  { late: true, name: 'DG11 left out', send: (c) => c.files(readable(kPassport, kDg11), proof()),
    says: /^0x7202: length of DG11 is 0000, expected 00/ },
  { late: true, name: 'a file that is not there',
    send: (c) => c.files(files(), { ...proof(), change: { [kDg3]: block(Buffer.of(0x63, 0)) } }),
    says: /^0x7202: length of DG3 is 0002, expected 0000$/ },
  { late: true, name: 'EF.SOD cut',
    send: (c) => c.files(files(), { ...proof(), change: { [kSod]: block(kPassport.files.get(kSod).subarray(1)) } }),
    says: /^0x7202: length of EF.SOD/ },
  { late: true, name: 'EF.COM', send: (c) => c.files(readable(kPassport, kCom), proof()),
    says: /^0x7202: length of EF.COM is 0000/ },
  { late: true, name: 'another challenge', send: (c) => c.files(files(), { ...proof(), challenge: 'FF'.repeat(8) }),
    says: /^0x7202: verdict of activeAuthentication is failed, expected passed$/ },
  { late: true, name: 'no challenge', send: (c) => c.files(files(), { answer: prove(kPassport.aaKey) }),
    says: /challenge of INTERNAL AUTHENTICATE is zero/ },
  { late: true, name: 'nothing asked of DG15', send: (c) => c.files(files()),
    says: /challenge .* is zero, expected one, since DG15 and DG2 were read$/ },
  { late: true, name: 'times', send: (c) => c.files(files(), { ...proof(), times: '00000001' }),
    says: /^0x7202: file reading time is 1 ms, expected at most 0 ms$/ },
  { late: true, name: 'leftovers', send: (c) => c.files(files(), { ...proof(), tail: '00' }),
    says: /^0x7202: end is followed by 00/ },
  { late: true, name: 'a second start', send: (c) => c.start(), says: /^0x7201: command is 0x7201, expected 0x7500$/ },
];
for (const { name, late = false, send, says } of kWrong) {
  test(`reported in words: ${name}`, async () => {
    const { server, client, port } = await setUp();
    const begin = async () => client.accept(await client.exchange(client.authentication()));
    const session = await (late ? comeBack({ client, port }) : begin());
    assert.equal(await client.exchange(send(client, session)), null);
    assert.equal(server.differences.length, 1);
    assert.match(server.differences[0].message, says);
  });
}

const kWrongRecords = [
  { changes: { type: 0 }, says: /"card_type" is 0, expected 1$/ },
  { changes: { sod: '' }, says: /"sod_file" is nothing, expected com_str:9000 at character 0$/ },
  { changes: { sod: kStatuses.replace('dg1_str:9000', 'dg1_str:6282') },
    says: /is dg1_str:6282, expected dg1_str:9000 at character 53$/ },
  { changes: { sod: kStatuses.replace('dg11_str:9000;dg1_str:9000', 'dg1_str:9000;dg11_str:9000') },
    says: /is dg1_str:9000, expected dg11_str/ },
  { changes: { sod: `${kStatuses};dg3_str:6A82` }, says: /"sod_file" is dg3_str:6A82, expected no further row$/ },
  { changes: { sod: `${kStatuses};` }, says: /expected no further row$/ },
  { changes: { nfc: 0x6982, command: '0CA4' }, says: /"nfc_err_code" and "nfc_err_cmd" of a good read/ },
];
for (const { changes, says } of kWrongRecords) {
  test(`a wrong record is noticed: ${JSON.stringify(changes)}`, async () => {
    const { server, client, port } = await setUp();
    const session = await comeBack({ client, port });
    await client.exchange(client.files(files(), proof()));
    assert.equal(await client.exchange(client.monitor(report(session, changes), client.token)), null);
    assert.match(server.differences.map(String).join(), says);
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
    for (const [what, value] of Object.entries(finds)) assert.equal(verification[what], value, JSON.stringify(verification));
    if (hash) assert.equal(verification.hashes[hash[0]], hash[1]);
    assert.deepEqual(server.differences.map(String), []);
  });
}

/** What the client gets to see of misbehaviour on either command, and of other answers. */
const lengthOf = (a) => a.readUInt32BE(1);
const kMisbehaviour = [
  { rules: [{ on: '0x7201', do: 'status', status: '002005' }],
    sees: (a) => a.toString('hex') === '720000000e72010020050008aa58' },
  { rules: [{ on: '0x7201', do: 'malformed', kind: 'token' }], sees: (a, c) => c.takeToken(a).length === 17 },
  { rules: [{ on: '0x7201', do: 'malformed', kind: 'lengthShort' }], sees: (a) => lengthOf(a) === a.length - 1 },
  { rules: [{ on: '0x7201', do: 'malformed', kind: 'cut', at: 14 }, { on: '0x7201', do: 'hangup' }],
    sees: (a) => a === null },
  { rules: [{ on: '0x7201', do: 'malformed', kind: 'flip', bit: 8 * 12 }], sees: (a) => a[12] === 0x2a },
  { rules: [{ on: '0x7201', do: 'pieces', size: 3 }], sees: (a) => lengthOf(a) === a.length },
  { rules: [{ on: '0x7201', do: 'extra', bytes: 'AB' }], sees: (a) => a.length === lengthOf(a) + 1 },
  { rules: [{ on: '0x7201', do: 'close' }], sees: (a) => a === null },
  { rules: [{ on: '0x7201', do: 'reset' }], sees: (a) => a === null },
  { token: 'C0FFEE', sees: (a, c) => c.takeToken(a).toString('hex') === 'c0ffee' },
  { late: true, rules: [{ on: '0x7202', do: 'status', status: '001301' }],
    sees: (a) => a.toString('hex', 5, 13) === '72020013010008' + '99' },
  { late: true, rules: [{ on: '0x7202', do: 'malformed', kind: 'flagByte' }], sees: (a) => a[13] === 3 },
  { late: true, rules: [{ on: '0x7202', do: 'malformed', kind: 'checksum' }], sees: (a) => sumOf(a) !== a.at(-1) },
  { late: true, rules: [{ on: '0x7202', do: 'malformed', kind: 'emptyPayload' }], sees: (a) => a.length === 14 },
  { late: true, rules: [{ on: '0x7202', do: 'hangup' }], sees: (a) => a[12] === 0x99 && sumOf(a) === a.at(-1) },
  { late: true, answers: { '0x7202': { flag: 0 } },
    sees: (a) => a.toString('hex', 12, 14) === '9900' && a.length === 15 },
  { late: true, answers: { '0x7202': { flag: 2, data: 'C0DE' } }, sees: (a) => a.toString('hex', 13, 16) === '02c0de' },
  { late: true, answers: { '0x7202': { tags: [{ idType: 7 }] } },
    sees: (a, c) => c.documentOf(a).data.toString('hex') === '000107' },
];
const sumOf = (answer) => answer.subarray(1, -1).reduce((total, byte) => total + byte, 0) % 256;
for (const { late = false, sees, ...setting } of kMisbehaviour) {
  test(`misbehaviour: ${JSON.stringify(setting)}`, async () => {
    const { server, client, port } = await setUp(setting);
    if (late) await comeBack({ client, port });
    else client.accept(await client.exchange(client.authentication()));
    const request = late ? client.files(files(), proof()) : client.start();
    const answer = await Promise.race([client.exchange(request), sleep(2000, 'late')]);
    assert.ok(sees(answer, client), answer?.toString('hex'));
    assert.deepEqual(server.differences.map(String), []);
    client.close();
  });
}

test('after a failed or a spoiled start the report comes on the same connection', async () => {
  for (const rule of [{ do: 'status', status: '002005' }, { do: 'malformed', kind: 'token' }]) {
    const { server, client } = await setUp({ rules: [{ on: '0x7201', ...rule }] });
    const session = client.accept(await client.exchange(client.authentication()));
    await client.exchange(client.start());
    const text = report(session, { code: rule.do === 'status' ? -2005 : -35006, sod: '' });
    assert.ok(await client.exchange(client.monitor(text)));
    assert.deepEqual(server.differences.map(String), []);
    client.close();
  }
});
