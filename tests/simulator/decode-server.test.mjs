// The simulated decode server and card against a client that shares no code with them.

import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';
import { DEFAULT_IDENTITY, expectedPersona, SPECIMEN_PERSON } from '../../simulator/lib/persona.mjs';
import { Client } from './client.mjs';

const kKey = '000102030405060708090A0B0C0D0E0F';
const servers = [];
after(() => Promise.all(servers.map((server) => server.stop())));

async function setUp({ readMode = 2, ...config } = {}) {
  const card = new IdentityCard();
  const identity = { ...DEFAULT_IDENTITY, readMode };
  const expected = { persona: expectedPersona(identity), card: card.secrets() };
  const server = new DecodeServer({ keys: { 268: kKey }, ...expected, ...config });
  servers.push(server);
  const { port } = await server.start();
  const client = new Client({ identity, protocolKey: kKey, card: card.secrets() });
  await client.connect(port);
  return { server, card, client };
}

const ask = (card, text, serial) => card.respond(Buffer.from(text, 'hex'), serial).answer;
const dataOf = (answer) => answer.subarray(0, -2);

function readFile(card, file, size, serial) {
  ask(card, `00A4000002${file}`, serial);
  const parts = [];
  for (let at = 0; at < size; at += 212) {
    const command = Buffer.of(0x80, 0xb0, at >> 8, at & 0xff, Math.min(212, size - at));
    parts.push(dataOf(card.respond(command, serial + 1).answer));
  }
  return Buffer.concat(parts).toString('hex').toUpperCase();
}

function wakeCard(card) {
  const opening = ['050000', '1D0000000000080108', '00A40000026002', '80B0000020'];
  return opening.map((command, serial) => ask(card, command, serial)).at(-1);
}

/** Everything from the first command to the card's EXTERNAL AUTHENTICATE. */
async function authenticate(client, card, { fast = false, opaque = 0 } = {}) {
  const session = client.accept(await client.exchange(client.authentication()), opaque);
  wakeCard(card);
  const challenge = client.secretOf(await client.exchange(client.first()));
  const proof = dataOf(ask(card, `008800520AF000${challenge.toString('hex')}`, 4));
  if (!fast) {
    const next = client.secretOf(await client.exchange(client.relay('5012', proof)));
    assert.equal(next.toString('hex'), '0084000008');
  }
  const cardChallenge = dataOf(ask(card, '0084000008', 5));
  const request = fast ? client.relay('5032', Buffer.concat([proof, Buffer.from('9000', 'hex'), cardChallenge]))
    : client.relay('5022', cardChallenge);
  const serverProof = client.secretOf(await client.exchange(request));
  assert.equal(ask(card, `008200520AF001${serverProof.toString('hex')}`, 6).toString('hex'), '9000');
  return session;
}

function monitorText(session, changes = {}) {
  const { reqid, code } = { reqid: session.businessId, code: 0, ...changes };
  return `{"reqid": "${reqid}", "result_code": ${code}, "decode_times": 12, "time_delay": 3, ` +
    '"nfc_err_code": 36864, "nfc_err_cmd": "", "card_type": 0, "device_id": "SIMULATED-DEVICE-0001", ' +
    `"appid": "SIMULATEDREADER00001", "sod_file": "", "stickCard_id": "${session.stickCardId.toUpperCase()}"}`;
}

function personIn(data) {
  assert.equal(data.subarray(0, 3).toString('hex'), '000101');
  assert.equal(data.subarray(3, 5).toString('hex'), '0102');
  assert.equal(data.readUInt16BE(5), data.length - 7);
  return JSON.parse(data.subarray(7));
}

const kReads = [
  { name: 'slow path, all files', fast: false, readMode: 2, opaqueLength: 0, timing: false },
  { name: 'fast path, two files', fast: true, readMode: 1, opaqueLength: 5, timing: true },
];
for (const { name, fast, readMode, opaqueLength, timing } of kReads) {
  test(`a whole read: ${name}`, async () => {
    const { server, card, client } = await setUp({ readMode, opaqueLength, timing });
    const session = await authenticate(client, card, { fast, opaque: opaqueLength });
    assert.deepEqual([session.timing, session.whole], [Number(timing), true]);
    assert.equal(readFile(card, '6011', 214, 7), card.secrets().file6011);
    assert.equal(readFile(card, '6012', 256, 9), card.secrets().file6012);
    let result;
    if (readMode === 1) {
      result = client.resultOf(await client.exchange(client.decodeFull()));
    } else {
      await client.exchange(client.decodeShort());
      assert.equal(readFile(card, '6013', 1024, 11), card.secrets().file6013);
      result = client.resultOf(await client.exchange(client.decodeLast()));
    }
    assert.deepEqual([result.flag, personIn(result.data)], [1, SPECIMEN_PERSON]);
    const text = monitorText(session);
    assert.ok(await client.exchange(client.monitor(text)));
    assert.deepEqual([server.differences, card.differences], [[], []]);
    assert.equal(server.monitors[0].raw, text);
    assert.deepEqual(server.exchanges.map(({ command }) => command).join(' '),
      fast ? '0x7500 0x5001 0x5032 0x6102 0x7219' : '0x7500 0x5001 0x5012 0x5022 0x6002 0x6113 0x7219');
    assert.equal(await client.exchange(client.monitor(text)), null);
    assert.match(server.differences[0].message, /nothing after the monitor report/);
  });
}

/** One thing wrong at a time: the step at which it goes out, and the words that must name it. */
const kWrong = [
  {
    name: 'terminal id',
    send: (c) => c.authentication({ terId: 0x52 }),
    says: /^0x7500: terminal id is 52, expected 51$/,
  },
  {
    name: 'last byte of the authentication block',
    send: (c) => c.authentication({ tail: '03' }),
    says: /^0x7500: byte before the checksum is 03, expected 02$/,
  },
  {
    name: 'byte B',
    steps: 1,
    send: (c) => c.first({ byteB: '01' }),
    says: /^0x5001: byte B .* is 0x01, expected 0x11$/,
  },
  {
    name: 'order',
    steps: 1,
    send: (c) => c.decodeShort(),
    says: /^0x6002: command is 0x6002, expected 0x5001 or 0x7219$/,
  },
  {
    name: 'card\'s proof',
    steps: 2,
    send: (c) => c.relay('5012', Buffer.alloc(8)),
    says: /^0x5012: card's proof is 0000000000000000/,
  },
  {
    name: 'length of the card bytes',
    steps: 2,
    send: (c) => c.relay('5012', Buffer.alloc(9)),
    says: /^0x5012: length of the data is 11, expected 10 or 20$/,
  },
  {
    name: 'business id in the monitor record',
    steps: 1,
    send: (c, s) => c.monitor(monitorText(s, { reqid: 'X', code: -1 })),
    says: /^0x7219: "reqid" is X/,
  },
  {
    name: 'result code of a broken-off read',
    steps: 1,
    send: (c, s) => c.monitor(monitorText(s)),
    says: /"result_code" is 0, expected a negative code/,
  },
  {
    name: 'blank in the monitor record',
    steps: 1,
    send: (c, s) => c.monitor(monitorText(s, { code: -1 }).replace(', ', ',')),
    says: /monitor text is/,
  },
];
for (const { name, steps = 0, send, says } of kWrong) {
  test(`reported in words: ${name}`, async () => {
    const { server, client } = await setUp();
    const session = steps > 0 ? client.accept(await client.exchange(client.authentication())) : null;
    if (steps > 1) await client.exchange(client.first());
    assert.equal(await client.exchange(send(client, session)), null);
    assert.equal(server.differences.length, 1);
    assert.match(server.differences[0].message, says);
  });
}

test('every flipped bit of a request is noticed', async () => {
  const { server, client } = await setUp({ onDifference: 'status:001301' });
  const request = client.authentication();
  const port = server.address.port;
  for (let bit = 0; bit < request.length * 8; bit += 11) {
    const flipped = Buffer.from(request);
    flipped[bit >> 3] ^= 1 << bit % 8;
    const other = new Client({ identity: DEFAULT_IDENTITY, protocolKey: kKey, card: client.card });
    await other.connect(port);
    const before = server.differences.length;
    const answer = await Promise.race([other.exchange(flipped), sleep(40, 'none')]);
    other.close();
    if (answer !== 'none') assert.ok(server.differences.length > before, `bit ${bit}`);
    else assert.ok(bit >= 8 && bit < 24, `bit ${bit} is not in the length field`);
    if (Buffer.isBuffer(answer)) assert.equal(answer.subarray(5, 8).toString('hex'), '001301');
  }
  client.close();
});

/** What the client gets to see of each misbehaviour of the 0x7500 answer. */
const kMisbehaviour = [
  { rule: { do: 'status', status: '002005' }, sees: (a) => a.toString('hex', 1, 11) === '000c75000020050008aa' },
  {
    rule: { do: 'malformed', kind: 'errorCommand', status: '003501' },
    sees: (a) => a.toString('hex', 3, 8) === 'ffff003501',
  },
  { rule: { do: 'malformed', kind: 'headerByte' }, sees: (a) => a[0] === 0x71 },
  { rule: { do: 'malformed', kind: 'parameterSmall' }, sees: (a) => a.readUInt16BE(8) === 7 },
  { rule: { do: 'malformed', kind: 'typeByte' }, sees: (a) => a[10] === 0xab },
  { rule: { do: 'malformed', kind: 'emptyPayload' }, sees: (a) => a.length === 12 },
  { rule: { do: 'malformed', kind: 'notBlockMultiple' }, sees: (a) => (a.length - 12) % 16 === 15 },
  { rule: { do: 'malformed', kind: 'lengthShort' }, sees: (a) => a.readUInt16BE(1) === a.length - 1 },
  { rule: { do: 'pieces', size: 5 }, sees: (a) => a.readUInt16BE(1) === a.length },
  { rule: { do: 'extra', bytes: 'ABCD' }, sees: (a) => a.toString('hex').endsWith('abcd') },
  { rule: { do: 'close' }, sees: (a) => a === null },
  { rule: { do: 'reset' }, sees: (a) => a === null },
  { rule: { do: 'status', status: '000001', nth: 2 }, sees: (a) => a.toString('hex', 5, 8) === '000000' },
];
for (const { rule, sees } of kMisbehaviour) {
  test(`misbehaviour: ${JSON.stringify(rule)}`, async () => {
    const { server, client } = await setUp({ rules: [{ on: '0x7500', ...rule }] });
    const answer = await client.exchange(client.authentication());
    assert.ok(sees(answer), answer?.toString('hex'));
    if (answer && rule.kind !== 'lengthShort' && rule.do !== 'extra') {
      assert.equal(answer.subarray(1, -1).reduce((total, byte) => total + byte, 0) % 256, answer.at(-1), 'checksum');
    }
    assert.deepEqual(server.differences, []);
    client.close();
  });
}
