// The simulated decode server and card against a client that shares no code with them.

import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../../simulator/lib/persona.mjs';
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

function monitorText(session, changes = {}) {
  const { reqid, code } = { reqid: session.businessId, code: 0, ...changes };
  return `{"reqid": "${reqid}", "result_code": ${code}, "decode_times": 12, "time_delay": 3, ` +
    '"nfc_err_code": 36864, "nfc_err_cmd": "", "card_type": 0, "device_id": "SIMULATED-DEVICE-0001", ' +
    `"appid": "SIMULATEDREADER00001", "sod_file": "", "stickCard_id": "${session.stickCardId.toUpperCase()}"}`;
}

/** One thing wrong at a time: the step at which it goes out, and the words that must name it. */
const kWrong = [
  [0, 'terminal id', (c) => c.authentication({ terId: 0x52 }), /^0x7500: terminal id is 52, expected 51$/],
  [0, 'last byte of the authentication block', (c) => c.authentication({ tail: '03' }),
    /^0x7500: byte before the checksum is 03, expected 02$/],
  [1, 'byte B', (c) => c.first({ byteB: '01' }), /^0x5001: byte B .* is 0x01, expected 0x11$/],
  [1, 'order', (c) => c.relay('6002', ''), /^0x6002: command is 0x6002, expected 0x5001 or 0x7219$/],
  [2, 'card\'s proof', (c) => c.relay('5012', Buffer.alloc(8)), /^0x5012: card's proof is 0000000000000000/],
  [2, 'length of the card bytes', (c) => c.relay('5012', Buffer.alloc(9)),
    /^0x5012: length of the data is 11, expected 10 or 20$/],
  [1, 'business id in the monitor record', (c, s) => c.monitor(monitorText(s, { reqid: 'X', code: -1 })),
    /^0x7219: "reqid" is X/],
  [1, 'result code of a broken-off read', (c, s) => c.monitor(monitorText(s)),
    /"result_code" is 0, expected a negative code/],
  [1, 'blank in the monitor record', (c, s) => c.monitor(monitorText(s, { code: -1 }).replace(', ', ',')),
    /monitor text is/],
  [3, 'what follows the monitor record', (c, s) => c.monitor(monitorText(s, { code: -1 })),
    /nothing after the monitor report/],
];
for (const [steps, name, send, says] of kWrong) {
  test(`reported in words: ${name}`, async () => {
    const { server, client } = await setUp();
    const session = steps > 0 ? client.accept(await client.exchange(client.authentication())) : null;
    if (steps === 2) await client.exchange(client.first());
    if (steps === 3) assert.ok(await client.exchange(send(client, session)));
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

