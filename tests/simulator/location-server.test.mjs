// The simulated location server against a client that shares no code with it.

import assert from 'node:assert/strict';
import { createCipheriv, createDecipheriv, createHash } from 'node:crypto';
import { after, test } from 'node:test';
import { connect } from 'node:tls';
import { LocationServer } from '../../simulator/lib/location-server.mjs';

const kKey = '000102030405060708090A0B0C0D0E0F';
const kNow = '1700000000123';
const kAppid = 'ABCDEFG0000000000000';
const servers = [];
after(() => Promise.all(servers.map((server) => server.stop())));

async function start(config = {}) {
  const server = new LocationServer({ keys: { 268: kKey }, location: 42, ...config });
  servers.push(server);
  const { port } = await server.start();
  return { server, port };
}

const digest = createHash('sm3').update(Buffer.from(kKey, 'hex')).digest();
const vector = digest.subarray(0, 16).map((byte, i) => byte ^ digest[16 + i]);
const kSm4 = ['sm4-cbc', Buffer.from(kKey, 'hex'), vector];
const sum = (bytes) => Buffer.of(bytes.reduce((total, byte) => (total + byte) & 0xff, 0));
const withSum = (bytes, from = 0) => Buffer.concat([bytes, sum(bytes.subarray(from))]);
const named = (text) => Buffer.concat([Buffer.of(Buffer.byteLength(text)), Buffer.from(text)]);

function plainOf({ mark = 0x10, appid = kAppid, time = kNow, type = 2, maker = 'M', model = 'X1' }) {
  return withSum(Buffer.concat([Buffer.of(mark), Buffer.from(appid + time), Buffer.of(type), named(maker), named(model)]));
}
function frameOf({ plain = plainOf({}), head = '93000001001CA110', appid = kAppid, first = 0x93, extra = '' }) {
  const cipher = createCipheriv(...kSm4);
  const sealed = Buffer.concat([cipher.update(plain), cipher.final()]);
  const body = Buffer.concat([Buffer.from(head, 'hex'), Buffer.from(appid), sealed, Buffer.from(extra, 'hex')]);
  const length = body.length + 4;
  return withSum(Buffer.concat([Buffer.of(first, length >> 8, length & 0xff), body]), 1);
}
const jsonOf = (frame) => `{"data":"${frame.toString('base64')}","sessionId":""}`;
const kHead = ['POST /orvoCloud/nfc/getPlace HTTP/1.1', 'HOST: 127.0.0.1:PORT', 'Accept: */*', 'Content-Type:application/json'];
function requestOf(port, body, lines = kHead, length = body.length) {
  return [...lines, `Content-Length: ${length}`, '', body].join('\r\n').replace('PORT', port);
}

/** Sends a request; gives what comes back until the server closes or the response is complete. */
function ask(port, request, { ciphers = 'AES128-SHA256' } = {}) {
  return new Promise((resolve, reject) => {
    const socket = connect({ port, host: '127.0.0.1', rejectUnauthorized: false, ciphers, maxVersion: 'TLSv1.2' });
    let text = '';
    socket.on('secureConnect', () => socket.write(request));
    socket.on('data', (bytes) => {
      text += bytes.toString('latin1');
      if (text.endsWith('0\r\n\r\n')) socket.end();
    });
    socket.on('close', () => resolve(text));
    socket.on('error', reject);
  });
}

/** The JSON text in a chunked response. */
function bodyOf(response) {
  assert.match(response, /^HTTP\/1\.1 200 OK\r\n/);
  let [, rest] = /\r\nTransfer-Encoding: chunked\r\n\r\n(.*)$/s.exec(response);
  let body = '';
  for (;;) {
    const [line, digits] = /^([0-9A-F]+)\r\n/.exec(rest);
    const size = Number.parseInt(digits, 16);
    body += rest.slice(line.length, line.length + size);
    assert.equal(rest.slice(line.length + size, line.length + size + 2), '\r\n');
    rest = rest.slice(line.length + size + 2);
    if (size > 0) continue;
    assert.equal(rest, '');
    return body;
  }
}

test('a good request is answered', async () => {
  const { server, port } = await start({ chunks: { size: 7 }, expected: { appid: kAppid, model: 'X1', times: [Number(kNow)] } });
  for (const ciphers of ['AES128-SHA256', 'AES128-SHA:@SECLEVEL=0']) {
    const { data, sessionId } = JSON.parse(bodyOf(await ask(port, requestOf(port, jsonOf(frameOf({}))), { ciphers })));
    assert.equal(sessionId, 'SIMULATED-SESSION-0001');
    const answer = Buffer.from(data, 'base64');
    assert.equal(answer.subarray(0, 11).toString('hex'), '93001c93000000000008aa');
    assert.deepEqual(sum(answer.subarray(1, -1)), answer.subarray(-1));
    const decipher = createDecipheriv(...kSm4);
    assert.equal(Buffer.concat([decipher.update(answer.subarray(11, -1)), decipher.final()]).toString('hex'), '2a2a');
  }
  assert.deepEqual(server.differences, []);
  assert.deepEqual(server.exchanges.map(({ cipher }) => cipher), ['AES128-SHA256', 'AES128-SHA']);
  assert.deepEqual(server.exchanges[0].fields.manufacturer, 'M');
});

test('a wrong request is told in words, and not answered', async () => {
  const { server, port } = await start({ expected: { appid: kAppid, type: 2, manufacturer: 'M', times: [kNow] } });
  const good = frameOf({});
  const json = jsonOf(good);
  const head = (i, line) => kHead.map((old, at) => (at === i ? line : old));
  const changed = (at, value) => Buffer.from(good.map((byte, i) => (i === at ? value : byte)));
  const cases = [
    [/line 1 is "GET/, requestOf(port, json, head(0, 'GET /orvoCloud/nfc/getPlace HTTP/1.1'))],
    [/line 2 is "Host:/, requestOf(port, json, head(1, 'Host: 127.0.0.1:PORT'))],
    [/port in line 2 is 1, expected/, requestOf(port, json, head(1, 'HOST: 127.0.0.1:1'))],
    [/line 2 is "HOST: a:b:1"/, requestOf(port, json, head(1, 'HOST: a:b:1'))],
    [/line 4 is "Content-Type: app/, requestOf(port, json, head(3, 'Content-Type: application/json'))],
    [/line 5 is "Connection: close"/, requestOf(port, json, [...kHead, 'Connection: close'])],
    [/number of lines is 6/, requestOf(port, json, [...kHead, 'Content-Length: 1'])],
    [/last header is "Content-Length: 0"/, requestOf(port, '')],
    [/request is followed by 7D/, requestOf(port, `${json}}`, kHead, json.length)],
    [/sessionId is "abc", expected empty/, requestOf(port, json.replace('"sessionId":""', '"sessionId":"abc"'))],
    [/body is /, requestOf(port, json.replace(',', ', '))],
    [/data is .* expected Base64/, requestOf(port, json.replace(/.(?==",)/, 'B'))],
    [/first byte is 92/, requestOf(port, jsonOf(frameOf({ first: 0x92 })))],
    [/length is 0, expected 80/, requestOf(port, jsonOf(changed(2, 0)))],
    [/command is 9301/, requestOf(port, jsonOf(frameOf({ head: '93010001001CA110' })))],
    [/byte 9 is A2/, requestOf(port, jsonOf(frameOf({ head: '93000001001CA210' })))],
    [/checksum is /, requestOf(port, jsonOf(changed(79, good[79] ^ 1)))],
    [/length of the ciphertext is 49/, requestOf(port, jsonOf(frameOf({ extra: '00' })))],
    [/plaintext: first byte is 11/, requestOf(port, jsonOf(frameOf({ plain: plainOf({ mark: 0x11 }) })))],
    [/plaintext: appid is /, requestOf(port, jsonOf(frameOf({ plain: plainOf({ appid: 'ABCDEFG0000000000001' }) })))],
    [/0x9300: appid is /, requestOf(port, jsonOf(frameOf({ plain: plainOf({ appid: 'ABCDEFH0000000000000' }), appid: 'ABCDEFH0000000000000' })))],
    [/time is 1700000000124/, requestOf(port, jsonOf(frameOf({ plain: plainOf({ time: '1700000000124' }) })))],
    [/type is 3/, requestOf(port, jsonOf(frameOf({ plain: plainOf({ type: 3 }) })))],
    [/manufacturer is "N"/, requestOf(port, jsonOf(frameOf({ plain: plainOf({ maker: 'N' }) })))],
    [/length of the model is 65/, requestOf(port, jsonOf(frameOf({ plain: plainOf({ model: 'x'.repeat(65) }) })))],
    [/plaintext: checksum is /, requestOf(port, jsonOf(frameOf({ plain: Buffer.concat([plainOf({}).subarray(0, -1), Buffer.of(0)]) })))],
    [/plaintext: end is followed by 00/, requestOf(port, jsonOf(frameOf({ plain: Buffer.concat([plainOf({}), Buffer.of(0)]) })))],
  ];
  for (const [message, request] of cases) {
    server.clear();
    assert.equal(await ask(port, request), '', `${message}`);
    assert.equal(server.differences.length, 1, `${message}`);
    assert.match(server.differences[0].message, message);
  }
});

test('misbehaviour of every kind is not what the good answer is', async () => {
  const { MALFORMED } = await import('../../simulator/lib/location-server/misbehaviour.mjs');
  const { server, port } = await start();
  const request = requestOf(port, jsonOf(frameOf({})));
  const good = await ask(port, request);
  for (const kind of Object.keys(MALFORMED)) {
    server.update({ rules: [{ on: 'request', do: 'malformed', kind }] });
    assert.notEqual(await ask(port, request), good, kind);
    assert.deepEqual(server.exchanges.at(-1).rules, [kind]);
  }
  server.update({ rules: [{ on: 'request', nth: 2, do: 'status', status: '001301' }, { on: 'request', do: 'pieces', size: 3 }] });
  assert.equal(await ask(port, request), good);
  const refused = Buffer.from(JSON.parse(bodyOf(await ask(port, request))).data, 'base64');
  assert.equal(refused.toString('hex').slice(0, 20), '93000c93000013010008');
  for (const rules of [[{ on: 'request', do: 'nothing' }], [{ on: 'connect', do: 'status' }], [{ on: '0x9300', do: 'close' }],
    [{ on: 'request', do: 'malformed', kind: 'none' }], [{ on: 'request', do: 'status', status: '12' }]]) {
    assert.throws(() => server.update({ rules }), /no such/);
  }
  assert.throws(() => server.update({ envIdCode: 1 }), /no 16-byte key/);
  assert.throws(() => server.update({ location: 256 }), /no location from 0 to 255: 256/);
  assert.throws(() => server.update({ colour: 1 }), /no setting "colour"/);
});
