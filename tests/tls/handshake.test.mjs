// What a server may and may not do in a handshake. RFC 5246 section 7.4, RFC 5746, RFC 6066.
//
// Where each rule has its right and its wrong cases; handshakeTable and dataTable insist on both. R = records.test.mjs,
// E = ends.test.mjs, I = interop.test.mjs, U = tests/unit, M = constant_time.cpp; without a letter it is a table here.
//
//   Rule                                          right cases                          wrong cases
//   fragments, coalescing, one-byte records       fragmentation, R records, I          fragmentation, R TCP segments
//   32 empty records in a row                     alerts and empty records, R records  the same
//   2^14 plaintext, 2^14+2048 ciphertext          lengths of messages, R records       the same, R record headers
//   types and versions of records                 record versions, R record headers    the same
//   nothing left over before ChangeCipherSpec     fragmentation, order                 fragmentation, order
//   strict order, no ServerKeyExchange            order                                order, R content behind Finished
//   no byte behind a message, caps                lengths of messages, E memory        the same
//   suites, compression, extensions               the server hello, the client hello   the server hello
//   the key: 1024 to 8192 bits, odd, exponent     the key in the certificate, I        the key in the certificate
//   CertificateRequest                            lengths of messages, I gnutls        order, lengths of messages
//   HelloRequest                                  order, R content behind Finished     R content behind Finished, E ends
//   Finished in full                              Finished                             Finished
//   CBC: MAC, every byte of the padding           R the MAC, R CBC, U CbcCheck         the same
//   CBC: one alert, no time that tells            M                                    R the MAC, R CBC; M planted
//   fresh vectors, RC4 that goes on               R what the client writes, R RC4      R RC4 (the server checks vectors)
//   sequence numbers that do not wrap             U RecordProtection                   the same, R the MAC
//   PKCS #1 padding, version, ciphertext length   every case (the server checks them)  U Rsa
//   close_notify, end of the stream, alerts       R alerts, E ends                     the same, alerts and empty records
//   limits of time, SIGPIPE, EINTR, short writes  E signals, E a limit that is lifted  E limits of time, E a peer that is gone
//   random bytes                                  random bytes are new, U              U RandomDevice
//   wiping                                        every case (blocks of the heap, when they are freed; the stack is not looked at)

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { certificate, der, integer, keyInfo, kRsaEncryption, makeKey, oid, rsaPublicKey } from './rsa-key.mjs';
import {
  alert, data, hex, kAlert, kCcs, kChangeCipherSpec, kData, kFatal, kHandshake, kHelloRequest, kRenegotiationInfo,
  kSuites, kWarning, message, number,
} from './scripted-server.mjs';
import { handshakeTable, kDefaults, play } from './rig.mjs';

const kRequest = hex('03 010240 0004 04010201 0006 0004 30020500');
const [kLeaf] = kDefaults.chain;
const changedFlight = (index, change) => ({ first: (usual) => usual.map((item, i) => (i === index ? change(item) : item)) });
const replaced = (index, item) => changedFlight(index, () => item);
const inserted = (index, ...items) => ({ first: (usual) => [...usual.slice(0, index), ...items, ...usual.slice(index)] });
const hello = (fields) => ({ hello: fields });
const extension = (type, content = '') => hello({ extensions: [kRenegotiationInfo, [type, hex(content)]] });
const named = (...answers) => ({ name: 'example.test', ...hello({ extensions: [...answers.map((answer) => [0, hex(answer)]), kRenegotiationInfo] }) });
const certificates = (body) => replaced(1, message(11, body));
const list = (...parts) => {
  const all = Buffer.concat(parts);
  return Buffer.concat([number(all.length, 3), all]);
};
const entry = (bytes) => Buffer.concat([number(bytes.length, 3), bytes]);
const changed = (item, at, value) => Object.assign(Buffer.from(item), { [at]: value });
const longer = (index) => changedFlight(index, (item) => message(item[0], item.subarray(4), Buffer.alloc(1)));

const inRecord = (item, version) => ({ type: kHandshake, content: item, version, whole: item });

test('the client hello', async (t) => {
  const names = [
    ['location.example.test', 'location.example.test'], ['host.', 'host'], ['x'.repeat(255), 'x'.repeat(255)],
    ['127.0.0.1'], ['127.1'], ['0x7f000001'], ['2130706433'], ['::1'], ['2001:db8::7'], ['[::1]'], [''],
  ];
  for (const [name, sent] of names) {
    await t.test(name.slice(0, 30), async () => {
      const { server, step } = await play({ hello: { extensions: sent ? [[0, hex('')], kRenegotiationInfo] : [] } },
        [`name=${name}`, 'connect']);
      assert.deepEqual([server.fault, step('name').result, step('connect').result], [undefined, 1, 1]);
      const { version, session, suites, compression, extensions } = server.hello;
      assert.deepEqual([version, session.length, suites.toString('hex'), compression.toString('hex')],
        [0x0303, 0, '003c002f00050004', '00']);
      const expected = ['13', '65281', ...(sent ? ['0'] : [])].sort();
      assert.deepEqual(Object.keys(extensions).sort(), expected, 'these extensions and no others');
      assert.equal(extensions[65281].toString('hex'), '00');
      assert.equal(extensions[13].readUInt16BE(0), extensions[13].length - 2);
      assert.ok(extensions[13].toString('hex', 2).match(/.{4}/g).includes('0401'), 'RSA with SHA-256');
      if (sent) assert.equal(extensions[0].toString('latin1', 5), sent);
      if (sent) assert.deepEqual(extensions[0].subarray(0, 5), hex(`${number(sent.length + 3, 2).toString('hex')}00${number(sent.length, 2).toString('hex')}`));
    });
  }
  await t.test('names that cannot be sent', async () => {
    for (const name of ['x'.repeat(256), 'two words', 'tab\t', 'n\u00e4me']) {
      const { step } = await play({}, [`name=${name}`]);
      assert.equal(step('name').result, 0, name);
    }
  });
});

test('random bytes are new in every connection', async () => {
  const seen = new Set();
  for (let i = 0; i < 4; ++i) {
    const { server } = await play({}, ['connect']);
    assert.equal(server.fault, undefined);
    seen.add(server.hello.random.toString('hex')).add(server.padding.toString('hex')).add(server.master.toString('hex'));
  }
  assert.equal(seen.size, 12);
});

handshakeTable('record versions', [
  ['a first record of version 3.1', { first: ([h, ...rest]) => [inRecord(h, 0x0301), ...rest] }, 'ok'],
  ['a second record of version 3.1', { first: ([h, c, d]) => [h, inRecord(c, 0x0301), d] }, 'protocol_version'],
  ['a record of version 2.0', { first: ([h, ...rest]) => [inRecord(h, 0x0200), ...rest] }, 'protocol_version'],
  ['a record of version 4.3', { first: ([h, ...rest]) => [inRecord(h, 0x0403), ...rest] }, 'protocol_version'],
]);

function keyed(bits, exponent) {
  const key = makeKey(bits, exponent);
  return { key, chain: [certificate({ key })] };
}

handshakeTable('fragmentation and coalescing', [
  ...[1, 2, 3, 4, 5, 7, 63, 512, 16384].flatMap((cut) =>
    Object.keys(kSuites).slice(0, cut < 512 ? 4 : 1).map((suite) => [`records of ${cut} bytes, suite ${suite}`, { cut, suite: Number(suite) }, 'ok'])),
  ['segments of one byte', { segment: 1 }, 'ok'],
  ['records and segments of one byte', { cut: 1, segment: 1 }, 'ok'],
  ['a warning inside a message', { first: ([h, c, d]) => [h, ...halves(c, alert(kWarning, 90)), d] }, 'ok'],
  ['application data inside a message', { first: ([h, c, d]) => [h, ...halves(c, data('x')), d] }, 'unexpected_message'],
  ['ChangeCipherSpec inside a message', { closing: ([ccs, keys, finished]) => [{ type: kHandshake, content: hex('1400') }, ccs, keys, finished] }, 'unexpected_message'],
  ['a whole message before ChangeCipherSpec', { closing: (items) => [message(14), ...items] }, 'unexpected_message'],
  ['a message in the record of the hello done', { first: ([h, c, d]) => [h, c, { type: kHandshake, content: Buffer.concat([d, message(20, Buffer.alloc(12))]), whole: d }] }, 'unexpected_message'],
]);

// A message in two records with something between them.
function halves(item, between) {
  return [{ type: kHandshake, content: item.subarray(0, 9) }, between, { type: kHandshake, content: item.subarray(9), whole: item }];
}

handshakeTable('order', [
  ['the usual one', {}, 'ok'],
  ['hello requests between the messages', { first: (items) => items.flatMap((item) => [kHelloRequest, item]) }, 'ok'],
  ['a certificate first', { first: ([h, c, d]) => [c, h, d] }, 'unexpected_message'],
  ['no certificate', { first: ([h, , d]) => [h, d] }, 'unexpected_message'],
  ['two hellos', { first: ([h, ...rest]) => [h, h, ...rest] }, 'unexpected_message'],
  ['two chains', { first: ([h, c, d]) => [h, c, c, d] }, 'unexpected_message'],
  ['a client hello', inserted(0, message(1, Buffer.alloc(40))), 'unexpected_message'],
  ['a ServerKeyExchange', inserted(2, message(12, Buffer.alloc(70))), 'unexpected_message'],
  ['a CertificateStatus', inserted(2, message(22, hex('01 000001 00'))), 'unexpected_message'],
  ['two certificate requests', inserted(2, message(13, kRequest), message(13, kRequest)), 'unexpected_message'],
  ['an unknown message', inserted(1, message(99)), 'unexpected_message'],
  ['Finished first', inserted(0, message(20, Buffer.alloc(12))), 'unexpected_message'],
  ['application data first', inserted(0, data('x')), 'unexpected_message'],
  ['application data before the hello done', inserted(2, data('x')), 'unexpected_message'],
  ['an early ChangeCipherSpec', inserted(2, kChangeCipherSpec), 'unexpected_message'],
  ['a ChangeCipherSpec before everything', inserted(0, kChangeCipherSpec), 'unexpected_message'],
  ['a ticket before ChangeCipherSpec', { closing: (items) => [message(4, Buffer.alloc(6)), ...items] }, 'unexpected_message'],
  ['Finished without ChangeCipherSpec', { closing: ([, , finished]) => [finished] }, 'unexpected_message'],
  ['Finished in clear', { closing: ([ccs, , finished]) => [ccs, finished] }, 'bad_record_mac'],
  ['two ChangeCipherSpecs', { closing: ([ccs, keys, finished]) => [ccs, keys, ccs, finished] }, 'unexpected_message'],
  ['hello requests in the last flight', { closing: ([ccs, keys, f]) => [kHelloRequest, ccs, keys, kHelloRequest, f] }, 'ok'],
  ['application data before Finished', { closing: ([ccs, keys, f]) => [ccs, keys, data('x'), f] }, 'unexpected_message'],
  ['an empty record of it', { closing: ([ccs, keys, f]) => [ccs, keys, data(''), f] }, 'unexpected_message'],
  ['application data in place of Finished', { closing: ([ccs, keys]) => [ccs, keys, data('x')] }, 'unexpected_message'],
  ['a ChangeCipherSpec of two bytes', { closing: ([, ...rest]) => [{ type: kCcs, content: hex('0101') }, ...rest] }, 'decode_error'],
  ['a ChangeCipherSpec that is 2', { closing: ([, ...rest]) => [{ type: kCcs, content: hex('02') }, ...rest] }, 'decode_error'],
  ['an empty ChangeCipherSpec', { closing: ([, ...rest]) => [{ type: kCcs, content: hex('') }, ...rest] }, 'decode_error'],
  ['33 hello requests', inserted(1, ...Array(33).fill(kHelloRequest)), 'unexpected_message'],
  ['close_notify in the handshake', inserted(1, alert(kWarning, 0)), 'silent'],
  ['a fatal alert', inserted(1, alert(kFatal, 40)), 'silent'],
  ['a fatal alert in a record of version 3.0', { first: () => [{ ...alert(kFatal, 70), version: 0x0300 }] }, 'silent'],
  ['the end of the stream before the hello', { first: () => [{ fin: true }] }, 'silent'],
  ['the end of the stream in a message', { first: ([h]) => [{ raw: Buffer.concat([hex('160303 0100'), h]) }, { fin: true }] }, 'silent'],
  ['the end of the stream before Finished', { closing: ([ccs]) => [ccs, { fin: true }] }, 'silent'],
  ['a reset', { first: ([h]) => [h, { reset: true }] }, 'silent'],
]);

handshakeTable('the server hello', [
  ...Object.keys(kSuites).map((suite) => [`suite ${suite}`, { suite: Number(suite) }, 'ok']),
  ['a session id of 32 bytes', hello({ session: Buffer.alloc(32, 1) }), 'ok'],
  ['no extensions', hello({ extensions: [] }), 'ok'],
  ['an empty list of extensions', hello({ extensions: [], tail: hex('0000') }), 'ok'],
  ...[0x0300, 0x0301, 0x0302, 0x0304, 0x0203].map((version) => [`version ${version.toString(16)}`, hello({ version }), 'protocol_version']),
  ...[0x0000, 0x000a, 0x0035, 0x003d, 0x009c, 0xc02f, 0x1301, 0x00ff].map((suite) => [`suite ${suite.toString(16)}`, hello({ suite }), 'illegal_parameter']),
  ['compression', hello({ compression: 1 }), 'illegal_parameter'],
  ['a session id of 33 bytes', hello({ session: Buffer.alloc(33) }), 'decode_error'],
  ['a name that was not sent', extension(0), 'unsupported_extension'],
  ['a name in the answer to the name', named('00'), 'decode_error'],
  ['two answers to the name', named('', ''), 'decode_error'],
  ['signature_algorithms', extension(13, '00020401'), 'unsupported_extension'],
  ['ALPN', extension(16, '0003026832'), 'unsupported_extension'],
  ['encrypt-then-MAC', extension(22), 'unsupported_extension'],
  ['extended master secret', extension(23), 'unsupported_extension'],
  ['a session ticket', extension(35), 'unsupported_extension'],
  ['supported_versions', extension(43, '0304'), 'unsupported_extension'],
  ['renegotiation_info twice', extension(0xff01, '00'), 'decode_error'],
  ['renegotiation_info with data', hello({ extensions: [[0xff01, hex('0c000000000000000000000000')]] }), 'handshake_failure'],
  ['renegotiation_info with a false length', hello({ extensions: [[0xff01, hex('01')]] }), 'handshake_failure'],
  ['an empty renegotiation_info', hello({ extensions: [[0xff01, hex('')]] }), 'handshake_failure'],
  ['a byte behind the extensions', hello({ tail: hex('00') }), 'decode_error'],
  ['one byte of extensions', hello({ extensions: [], tail: hex('00') }), 'decode_error'],
  ['extensions longer than they are', hello({ extensions: [], tail: hex('0006 ff01 0001 00') }), 'decode_error'],
  ['an extension cut short', hello({ extensions: [], tail: hex('0003 ff01 00') }), 'decode_error'],
  ...[2, 34, 35, 37].map((left) => [`cut to ${left} bytes`, changedFlight(0, (item) => message(2, item.subarray(4, 4 + left))), 'decode_error']),
]);

handshakeTable('lengths of messages', [
  ['a chain of 22 certificates', { chain: [kLeaf, ...Array(21).fill(Buffer.alloc(2700, 0x30))] }, 'ok'],
  ['a certificate request', { requestCertificate: kRequest }, 'ok'],
  ['a certificate request with no names', { requestCertificate: hex('01 01 0002 0401 0000') }, 'ok'],
  ['a hello with a byte too many', longer(0), 'decode_error'],
  ['a chain with a byte too many', longer(1), 'decode_error'],
  ['a hello done with a byte', longer(2), 'decode_error'],
  ['a hello request with a byte', inserted(1, message(0, hex('00'))), 'decode_error'],
  ['Finished with a byte too many', { closing: ([ccs, keys]) => [ccs, keys, message(20, Buffer.alloc(13))] }, 'decode_error'],
  ['Finished cut short', { closing: ([ccs, keys]) => [ccs, keys, message(20, Buffer.alloc(11))] }, 'decode_error'],
  ...[[0, 2], [1, 11], [2, 14]].map(([at, type]) => [`message ${type} that claims 2^24-1 bytes`, replaced(at, { type: kHandshake, content: hex(`${number(type, 1).toString('hex')}ffffff`) }), 'illegal_parameter']),
  ['a record in clear of 2^14+1 bytes', { first: () => [{ raw: hex('16 0303 4001') }, { fin: true }] }, 'record_overflow'],
  ['a chain above the cap', { chain: [kLeaf, ...Array(40).fill(Buffer.alloc(2700))] }, 'illegal_parameter'],
  ['a first certificate above its cap', { chain: [Buffer.alloc(70000)] }, 'bad_certificate'],
  ['an empty chain', { chain: [] }, 'bad_certificate'],
  ['an empty first certificate', { chain: [Buffer.alloc(0), kLeaf] }, 'decode_error'],
  ['an empty second certificate', { chain: [kLeaf, Buffer.alloc(0)] }, 'decode_error'],
  ['a list shorter than the message', certificates(Buffer.concat([list(entry(kLeaf)), hex('00')])), 'decode_error'],
  ['a certificate behind the list', certificates(Buffer.concat([list(entry(kLeaf)), entry(kLeaf)])), 'decode_error'],
  ['a list longer than the message', certificates(changed(list(entry(kLeaf)), 2, (3 + kLeaf.length + 1) & 255)), 'decode_error'],
  ['a certificate longer than the list', certificates(list(hex('00ffff'), kLeaf)), 'decode_error'],
  ['a second certificate longer than the list', certificates(list(entry(kLeaf), hex('000009 00'))), 'decode_error'],
  ['a list that ends inside a length', certificates(list(entry(kLeaf), hex('0000'))), 'decode_error'],
  ['a request without types', inserted(2, message(13, hex('00 0002 0401 0000'))), 'decode_error'],
  ['a request without algorithms', inserted(2, message(13, hex('01 01 0000 0000'))), 'decode_error'],
  ['a request with half an algorithm', inserted(2, message(13, hex('01 01 0003 040100 0000'))), 'decode_error'],
  ['a request with an empty name', inserted(2, message(13, hex('01 01 0002 0401 0002 0000'))), 'decode_error'],
  ['a request with a name cut short', inserted(2, message(13, hex('01 01 0002 0401 0003 0002 30'))), 'decode_error'],
  ['a request with a byte too many', inserted(2, message(13, hex('01 01 0002 0401 0000 00'))), 'decode_error'],
]);

handshakeTable('Finished', [
  ['untouched', {}, 'ok'],
  ...Array.from({ length: 12 }, (_, at) => [`a wrong byte ${at}`, { closing: ([ccs, keys]) => [ccs, keys, { wrongFinished: at }] }, 'decrypt_error']),
]);

const key = kDefaults.key;
const withKey = (parts) => ({ chain: [certificate({ key, ...parts })] });
const odd = (modulus, exponent) => withKey({ key: { modulus, exponent } });

handshakeTable('the key in the certificate', [
  ...[1024, 1025, 1031, 1536, 2047, 3072, 4096, 8191, 8192].map((bits) => [`a key of ${bits} bits`, keyed(bits), 'ok']),
  ['a key with exponent 3', keyed(2048, 3n), 'ok'],
  ['a key with an exponent of 64 bits', keyed(1024, (1n << 63n) + 29n), 'ok'],
  ['an exponent of 65 bits', odd(key.modulus, (1n << 64n) + 13n), 'unsupported_certificate'],
  ['1023 bits', keyed(1023), 'unsupported_certificate'],
  ['8193 bits', keyed(8193), 'unsupported_certificate'],
  ['an even modulus', odd(key.modulus - 1n, 65537n), 'unsupported_certificate'],
  ['exponent 1', odd(key.modulus, 1n), 'unsupported_certificate'],
  ['exponent 2', odd(key.modulus, 2n), 'unsupported_certificate'],
  ['exponent 65536', odd(key.modulus, 65536n), 'unsupported_certificate'],
  ['an exponent as large as the modulus', odd(key.modulus, key.modulus), 'unsupported_certificate'],
  ['an elliptic-curve key', withKey({ keyInfo: keyInfo(Buffer.alloc(65, 4), der(0x30, der(0x06, hex('2A8648CE3D0201')), der(0x06, hex('2A8648CE3D030107')))) }), 'unsupported_certificate'],
  ['an RSA-PSS key', withKey({ keyInfo: keyInfo(rsaPublicKey(key), der(0x30, der(0x06, hex('2A864886F70D01010A')))) }), 'unsupported_certificate'],
  ...[['no', ''], ['other', '3000'], ['longer', '050100'], ['two', '05000500']].map(([which, parameters]) =>
    [`${which} parameters of the algorithm`, withKey({ keyInfo: keyInfo(rsaPublicKey(key), der(0x30, oid('2A864886F70D010101'), hex(parameters))) }), 'bad_certificate']),
  ['a version 1 certificate', withKey({ version: Buffer.alloc(0), extensions: Buffer.alloc(0) }), 'ok'],
  ['no key at all', withKey({ keyInfo: Buffer.alloc(0) }), 'bad_certificate'],
  ['a negative modulus', withKey({ keyInfo: keyInfo(der(0x30, der(0x02, Buffer.concat([hex('80'), Buffer.alloc(255, 1)])), integer(3n))) }), 'bad_certificate'],
  ['a modulus with a zero too many', withKey({ keyInfo: keyInfo(der(0x30, der(0x02, Buffer.concat([hex('0000'), integer(key.modulus).subarray(-256)])), integer(3n))) }), 'bad_certificate'],
  ['a byte behind the key', withKey({ keyInfo: keyInfo(Buffer.concat([rsaPublicKey(key), hex('00')])) }), 'bad_certificate'],
  ['a third number', withKey({ keyInfo: keyInfo(der(0x30, integer(key.modulus), integer(65537n), integer(5n))) }), 'bad_certificate'],
  ['unused bits', withKey({ keyInfo: der(0x30, kRsaEncryption, der(0x03, hex('01'), rsaPublicKey(key))) }), 'bad_certificate'],
  ['a byte behind the certificate', { chain: [Buffer.concat([kLeaf, hex('00')])] }, 'bad_certificate'],
  ['a certificate cut short', { chain: [kLeaf.subarray(0, -1)] }, 'bad_certificate'],
  ['an indefinite length', { chain: [Buffer.concat([hex('3080'), kLeaf.subarray(4), hex('0000')])] }, 'bad_certificate'],
  ['a length of five octets', { chain: [Buffer.concat([hex('308500'), number(kLeaf.length - 4, 4), kLeaf.subarray(4)])] }, 'bad_certificate'],
  ['a length with a leading zero', { chain: [Buffer.concat([hex('308300'), kLeaf.subarray(2)])] }, 'bad_certificate'],
  ['noise', { chain: [Buffer.alloc(300, 0xa5)] }, 'bad_certificate'],
]);

// ChangeCipherSpec is content too.
const beforeAll = (items) => ({
  first: (usual) => usual.flatMap((item) => [...items, item]),
  closing: ([ccs, keys, finished]) => [...items, ccs, keys, ...items, finished],
});

handshakeTable('alerts and empty records', [
  ['warnings between the messages', { first: (items) => items.flatMap((item) => [alert(kWarning, 112), item]) }, 'ok'],
  ['six warnings', inserted(1, ...Array(6).fill(alert(kWarning, 112))), 'unexpected_message'],
  ['five warnings', inserted(1, ...Array(5).fill(alert(kWarning, 112))), 'ok'],
  ['an alert of level 3', inserted(1, alert(3, 40)), 'illegal_parameter'],
  ['an alert of one byte', inserted(1, { type: kAlert, content: hex('02') }), 'decode_error'],
  ['two alerts in one record', inserted(1, { type: kAlert, content: hex('01700170') }), 'decode_error'],
  ['an empty alert', inserted(1, { type: kAlert, content: hex('') }), 'decode_error'],
  ['empty application data in clear', inserted(1, data('')), 'unexpected_message'],
  ['32 empty records', inserted(1, ...Array(32).fill({ type: kHandshake, content: hex('') })), 'ok'],
  ['five warnings before all content', beforeAll(Array(5).fill(alert(kWarning, 112))), 'ok'],
  ['32 empty records before all content', beforeAll(Array(32).fill({ type: kHandshake, content: hex('') })), 'ok'],
  ['33 empty records', inserted(1, ...Array(33).fill({ type: kHandshake, content: hex('') })), 'unexpected_message'],
]);
