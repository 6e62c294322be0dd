// The simulated location server against one request that is known to be good, and that request with anything changed.

import assert from 'node:assert/strict';
import { createCipheriv, createDecipheriv, createHash } from 'node:crypto';
import { after, test } from 'node:test';
import { connect } from 'node:tls';
import { LocationServer } from '../../simulator/lib/location-server.mjs';
import { readRequest } from '../../simulator/lib/location-server/request.mjs';

const kKey = Buffer.from('000102030405060708090A0B0C0D0E0F', 'hex');
const kExpected = { host: '127.0.0.1', port: 8443, appid: 'ABCDEFG0000000000000', type: 2, manufacturer: 'M', model: 'X1', times: [1700000000123] };
const kFrame = Buffer.from('kwBQkwAAAQAcoRBBQkNERUZHMDAwMDAwMDAwMDAwME8bYcqThR32x9I9Fe2vYJqFWQxTOevhtLaUc5WXyreD9PMLUI2wal5W6CswhP4OAJE=', 'base64');
const requestWith = (frame) => {
  const body = `{"data":"${frame.toString('base64')}","sessionId":""}`;
  return ['POST /orvoCloud/nfc/getPlace HTTP/1.1', 'HOST: 127.0.0.1:8443', 'Accept: */*', 'Content-Type:application/json',
    `Content-Length: ${body.length}`, '', body].join('\r\n');
};
const digest = createHash('sm3').update(kKey).digest();
const kSm4 = ['sm4-cbc', kKey, digest.subarray(0, 16).map((byte, i) => byte ^ digest[16 + i])];
const run = (cipher, data) => Buffer.concat([cipher.update(data), cipher.final()]);
const sum = (bytes) => bytes.reduce((total, byte) => (total + byte) & 0xff, 0);
const said = (text) => {
  try {
    return void readRequest(Buffer.from(text, 'latin1'), kKey, kExpected);
  } catch (error) {
    if (error.name !== 'Difference') throw error;
    return error.message;
  }
};

const changed = (bytes, i) => Buffer.from(bytes.map((byte, at) => (at === i ? byte ^ 1 : byte)));
const framed = (plain) => {
  const whole = Buffer.concat([kFrame.subarray(0, 31), run(createCipheriv(...kSm4), plain), Buffer.alloc(1)]);
  whole.writeUInt16BE(whole.length, 1);
  whole[whole.length - 1] = sum(whole.subarray(1));
  return requestWith(whole);
};

test('of a good request each character counts, each byte of the frame and of what is encrypted', () => {
  const good = requestWith(kFrame);
  const plain = run(createDecipheriv(...kSm4), kFrame.subarray(31, -1));
  assert.deepEqual([said(good), framed(plain)], [undefined, good]);
  for (let i = 0; i < good.length; i += 1) {
    if (/Content-Length: \d*$/.test(good.slice(0, i)) && /\d/.test(good[i])) continue; // where the request ends: the connection's matter
    for (const instead of ['', String.fromCharCode(good.charCodeAt(i) ^ 1)]) assert.ok(said(good.slice(0, i) + instead + good.slice(i + 1)), `${good.slice(i - 10, i)}>${good[i]}`);
  }
  for (let i = 0; i < 31; i += 1) {
    const other = changed(kFrame, i);
    other[other.length - 1] = sum(other.subarray(1, -1));
    assert.ok(said(requestWith(other)), `byte ${i} of the frame`);
  }
  for (let i = 0; i < plain.length; i += 1) {
    const other = changed(plain, i);
    if (i < plain.length - 1) other[plain.length - 1] = sum(other.subarray(0, -1));
    assert.ok(said(framed(other)), `byte ${i} of the plaintext`);
  }
  for (const tail of ['00', '41'.repeat(70)]) assert.ok(said(framed(Buffer.concat([plain, Buffer.from(tail, 'hex')]))));
});

const server = new LocationServer({ keys: { 268: kKey }, location: 42, expected: kExpected });
const { port } = await server.start();
after(() => server.stop());

/** Sends a request; gives what comes back until the server closes or the response is complete. */
function ask(request, ciphers = 'AES128-SHA256') {
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
const frameOf = (response) => Buffer.from(/"data":"([^"]*)"/.exec(response)[1], 'base64');

test('a good request is answered, a wrong one is not', async () => {
  for (const ciphers of ['AES128-SHA256', 'AES128-SHA:@SECLEVEL=0']) {
    const response = await ask(requestWith(kFrame), ciphers);
    assert.match(response, /^HTTP\/1\.1 200 OK\r\n[^]*Transfer-Encoding: chunked\r\n\r\n([0-9A-F]+)\r\n\{"data":"[^"]*","sessionId":"SIMULATED-SESSION-0001"\}\r\n0\r\n\r\n$/);
    const answer = frameOf(response);
    assert.equal(answer.toString('hex', 0, 11), '93001c93000000000008aa');
    assert.deepEqual([sum(answer.subarray(1, -1)), run(createDecipheriv(...kSm4), answer.subarray(11, -1)).toString('hex')], [answer.at(-1), '2a2a']);
  }
  assert.deepEqual([server.differences, server.exchanges.map(({ cipher }) => cipher)], [[], ['AES128-SHA256', 'AES128-SHA']]);
  for (const [request, says] of [[requestWith(kFrame).replace('Length: ', 'Length: 0'), /last header is/], [`${requestWith(kFrame)}}`, /request is followed by 7D/]]) {
    assert.equal(await ask(request), '');
    assert.match(server.differences.at(-1).message, says);
  }
});

test('settings and rules that there are not', () => {
  for (const rule of [{ on: 'request', do: 'nothing' }, { on: 'connect', do: 'status' }, { on: '0x9300', do: 'close' }, { on: 'request', do: 'malformed', kind: 'none' },
    { on: 'request', do: 'status', status: '12' }]) assert.throws(() => server.update({ rules: [rule] }), /no such/);
  for (const setting of [{ envIdCode: 1 }, { location: 256 }, { colour: 1 }]) assert.throws(() => server.update(setting), /no 16-byte key|no location|no setting/);
});
