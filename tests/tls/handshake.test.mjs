// What a server may and may not do in a handshake. RFC 5246 section 7.4, RFC 5746, RFC 6066. Records behind it, the MAC and
// padding: records.test.mjs; limits of time, ends, memory: ends.test.mjs; what time tells: constant_time.cpp; every padding,
// the random device, numbers that do not wrap: tests/unit/tls. In every row the server checks the client's messages: version,
// PKCS #1 padding, Finished, vectors, MACs; and the client program, that every block of the heap is wiped.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { certificate, der, integer, keyInfo, kRsaEncryption, makeKey, oid, rsaPublicKey } from './certificates.mjs';
import {
  alert, data, hex, kAlert, kCcs, kChangeCipherSpec, kFatal, kHandshake, kHelloRequest, kRenegotiationInfo, kSuites, kWarning, message, number,
} from './scripted-server.mjs';
import { handshakeTable, kDefaults, play } from './rig.mjs';

const key = kDefaults.key;
const [kLeaf] = kDefaults.chain;
const kEvery = Object.keys(kSuites).map(Number);
const kRequest = '03 010240 0004 04010201 0006 0004 30020500';
const body = (type, text) => message(type, hex(text));
const record = (type, content, version) => ({ type, content: hex(content), version });
const hello = (fields) => ({ hello: fields });

// Rows of one end: `ends` has [what, what ...] for each, `plan` makes a plan of a what.
const rowsOf = (ends, plan, name = (what) => what) =>
  Object.entries(ends).flatMap(([end, list]) => list.map((what) => [name(what), plan(what), end]));

test('the client hello', async (t) => {
  const names = [
    ['location.example.test', 'location.example.test'], ['host.', 'host'], ['x'.repeat(255), 'x'.repeat(255)],
    ...['127.0.0.1', '127.1', '0x7f000001', '2130706433', '::1', '2001:db8::7', '[::1]', ''].map((name) => [name]),
  ];
  const seen = new Set();
  for (const [name, sent] of names) {
    await t.test(name.slice(0, 30), async () => {
      const answer = { hello: { extensions: sent ? [[0, hex('')], kRenegotiationInfo] : [kRenegotiationInfo] } };
      const { server, step } = await play(answer, [`name=${name}`, 'connect']);
      assert.deepEqual([server.fault, step('name').result, step('connect').result], [undefined, 1, 1]);
      const { version, session, suites, compression, extensions, random } = server.hello;
      assert.deepEqual([version, session.length, suites.toString('hex'), compression.toString('hex')], [0x0303, 0, '003c002f00050004', '00']);
      assert.deepEqual(Object.keys(extensions), sent ? ['0', '13', '65281'] : ['13', '65281'], 'these extensions and no others');
      assert.equal(extensions[65281].toString('hex'), '00');
      assert.equal(extensions[13].readUInt16BE(0), extensions[13].length - 2);
      assert.ok(extensions[13].toString('hex', 2).match(/.{4}/g).includes('0401'), 'RSA with SHA-256');
      if (sent) assert.deepEqual(extensions[0], Buffer.concat([number(sent.length + 3, 2), hex('00'), number(sent.length, 2), Buffer.from(sent)]));
      [random, server.padding, server.master].forEach((bytes) => seen.add(bytes.toString('hex')));
    });
  }
  assert.equal(seen.size, 3 * names.length, 'random bytes are new in every connection');
  for (const name of ['x'.repeat(256), 'two words', 'tab\t', 'n\u00e4me']) {
    assert.equal((await play({}, [`name=${name}`])).step('name').result, 0, 'a name that cannot be sent');
  }
});

// --- order: a letter for each thing that is sent, in the first flight and the last ---

const kThings = {
  C: body(1, '00'.repeat(40)), K: body(12, '00'.repeat(70)), T: body(22, '01 000001 00'), Q: body(13, kRequest), t: body(4, '00'.repeat(6)),
  U: body(99, ''), F: body(20, '00'.repeat(12)), R: kHelloRequest, b: body(0, '00'), D: body(14, ''), S: kChangeCipherSpec,
  2: record(kCcs, '0101'), 3: record(kCcs, '02'), 0: record(kCcs, ''), 1: record(kHandshake, '1400'),
  x: data('x'), e: data(''), E: record(kHandshake, ''), w: alert(kWarning, 112), n: alert(kWarning, 0), a: alert(kFatal, 40), A: record(kAlert, '0228', 0x0300),
  l: alert(3, 40), i: record(kAlert, '02'), j: record(kAlert, '01700170'), o: record(kAlert, ''), z: { fin: true }, r: { reset: true },
};
const inOrder = (flights) => {
  const [first, last = 'skf'] = flights.split(' ');
  const things = (usual, letters, order) => [...order].map((letter) => kThings[letter] ?? usual[letters.indexOf(letter)]);
  return { first: (usual) => things(usual, 'hcd', first), closing: (usual) => things(usual, 'skf', last) };
};
const [w5, R33, E32, E33] = ['w'.repeat(5), 'R'.repeat(33), 'E'.repeat(32), 'E'.repeat(33)];
handshakeTable('order', rowsOf({
  ok: ['hcd skf', 'RhRcRd RskRf', 'whwcwd', `h${w5}cd`, `h${E32}cd`, `h${w5}c${w5}d ${w5}sk${w5}f`, `h${E32}c${E32}d ${E32}sk${E32}f`],
  unexpected_message: ['chd', 'hd', 'hhcd', 'hccd', 'Chcd', 'hcKd', 'hcTd', 'hcQQd', 'hUcd', 'Fhcd', 'xhcd', 'hcxd', 'ehcd', 'hcSd', 'Shcd', 'hcd tskf',
    'hcd Dskf', 'hcd 1skf', 'hcd f', 'hcd sksf', 'hcd skxf', 'hcd skx', 'hcd skef', `h${R33}cd`, `h${w5}wcd`, `h${E33}cd`],
  bad_record_mac: ['hcd sf'],
  decode_error: ['hcd 2kf', 'hcd 3kf', 'hcd 0kf', 'hbcd', 'hicd', 'hjcd', 'hocd'],
  illegal_parameter: ['hlcd'],
  silent: ['hncd', 'hacd', 'A', 'z', 'hz', 'hcd sz', 'hr'],
}, inOrder));

// --- how messages are cut ---

const halves = (item, between) => [record(kHandshake, item.toString('hex', 0, 9)), between, { ...record(kHandshake, item.toString('hex', 9)), whole: item }];
const versioned = (item, version) => ({ type: kHandshake, content: item, version, whole: item });
handshakeTable('fragments and versions of records', [
  ...[1, 5, 63].flatMap((cut) => kEvery.map((suite) => [`records of ${cut} bytes, suite ${suite}`, { cut, suite }, 'ok'])),
  ['one record', { cut: 16384 }, 'ok'],
  ['records and segments of one byte', { cut: 1, segment: 1 }, 'ok'],
  ['a warning inside a message', { first: ([h, c, d]) => [h, ...halves(c, alert(kWarning, 90)), d] }, 'ok'],
  ['application data inside a message', { first: ([h, c, d]) => [h, ...halves(c, data('x')), d] }, 'unexpected_message'],
  ['a message in the record of the hello done', { first: ([h, c, d]) => [h, c, { type: kHandshake, content: Buffer.concat([d, kThings.F]), whole: d }] }, 'unexpected_message'],
  ['the end of the stream in a message', { first: ([h]) => [{ raw: Buffer.concat([hex('160303 0100'), h]) }, { fin: true }] }, 'silent'],
  ['a record in clear of 2^14+1 bytes', { first: () => [{ raw: hex('16 0303 4001') }, { fin: true }] }, 'record_overflow'],
  ['a first record of version 3.1', { first: ([h, ...rest]) => [versioned(h, 0x0301), ...rest] }, 'ok'],
  ['a second record of version 3.1', { first: ([h, c, d]) => [h, versioned(c, 0x0301), d] }, 'protocol_version'],
  ...[0x0200, 0x0403].map((version) => [`a record of version ${version}`, { first: ([h, ...rest]) => [versioned(h, version), ...rest] }, 'protocol_version']),
]);

// --- what the messages hold ---

const extended = (bytes) => hello({ extensions: [], tail: Buffer.concat([number(hex(bytes).length, 2), hex(bytes)]) });
const handing = (at, change) => ({ first: (usual) => usual.map((item, i) => (i === at ? change(item) : item)) });
handshakeTable('the server hello', [
  ...kEvery.map((suite) => [`suite ${suite}`, { suite }, 'ok']),
  ['a session id of 32 bytes', hello({ session: Buffer.alloc(32, 1) }), 'ok'],
  ['a session id of 33 bytes', hello({ session: Buffer.alloc(33) }), 'decode_error'],
  ['compression', hello({ compression: 1 }), 'illegal_parameter'],
  ...rowsOf({ protocol_version: [0x0300, 0x0301, 0x0302, 0x0304, 0x0203] }, (version) => hello({ version }), (version) => `version ${version}`),
  ...rowsOf({ illegal_parameter: [0x0000, 0x0035, 0x003d, 0x009c, 0xc02f, 0x1301, 0x00ff] }, (suite) => hello({ suite }), (suite) => `suite ${suite}`),
  ...rowsOf({ ok: ['', 'ff01000100'], unsupported_extension: ['0000 0000', '000d 0004 00020401', '0010 0005 0003026832', '0016 0000', '0017 0000', '0023 0000', '002b 0002 0304'],
    decode_error: ['ff01000100 ff01000100', 'ff0100', 'ff010001'], handshake_failure: ['ff01 000d 0c000000000000000000000000', 'ff01000101', 'ff010000'] }, extended),
  ...rowsOf({ ok: ['0000 0000'], decode_error: ['0000 0001 00', '0000 0000 0000 0000'] }, (bytes) => ({ ...extended(bytes), name: 'example.test' }), (bytes) => `named: ${bytes}`),
  ['no extensions', hello({ extensions: [] }), 'ok'],
  ...rowsOf({ decode_error: ['00', '0006 ff01 0001 00', '0005 ff01 0001 00 00'] }, (tail) => hello({ extensions: [], tail: hex(tail) }), (tail) => `tail ${tail}`),
  ...rowsOf({ decode_error: [2, 34, 35, 37] }, (left) => handing(0, (item) => message(2, item.subarray(4, 4 + left))), (left) => `cut to ${left} bytes`),
]);

const list = (...parts) => Buffer.concat([number(Buffer.concat(parts).length, 3), ...parts]);
const entry = Buffer.concat([number(kLeaf.length, 3), kLeaf]);
const many = Array(21).fill(Buffer.alloc(2700, 0x30));
const requested = (text) => ({ first: ([h, c, d]) => [h, c, body(13, text), d] });
handshakeTable('lengths', [
  ['a chain of 22 certificates', { chain: [kLeaf, ...many] }, 'ok'],
  ...rowsOf({ ok: [kRequest, '01 01 0002 0401 0000'] }, (text) => ({ requestCertificate: hex(text) })),
  ...rowsOf({ decode_error: ['00 0002 0401 0000', '01 01 0000 0000', '01 01 0003 040100 0000', '01 01 0002 0401 0002 0000', '01 01 0002 0401 0003 0002 30', '01 01 0002 0401 0000 00'] }, requested),
  ...[0, 1, 2].map((at) => [`message ${at} with a byte too many`, handing(at, (item) => message(item[0], item.subarray(4), Buffer.alloc(1))), 'decode_error']),
  ...['02', '0b', '0e'].map((type, at) => [`message ${type} that claims 2^24-1 bytes`, handing(at, () => record(kHandshake, `${type}ffffff`)), 'illegal_parameter']),
  ...[11, 13].map((n) => [`Finished of ${n} bytes`, { closing: ([ccs, keys]) => [ccs, keys, message(20, Buffer.alloc(n))] }, 'decode_error']),
  ...Array.from({ length: 12 }, (_, at) => [`Finished with a wrong byte ${at}`, { closing: ([ccs, keys]) => [ccs, keys, { wrongFinished: at }] }, 'decrypt_error']),
  ['a chain above the cap', { chain: [kLeaf, ...many, ...many] }, 'illegal_parameter'],
  ['a first certificate above its cap', { chain: [Buffer.alloc(70000)] }, 'bad_certificate'],
  ['an empty chain', { chain: [] }, 'bad_certificate'],
  ['an empty first certificate', { chain: [Buffer.alloc(0), kLeaf] }, 'decode_error'],
  ['an empty second certificate', { chain: [kLeaf, Buffer.alloc(0)] }, 'decode_error'],
  ...Object.entries({
    'a list shorter than the message': [list(entry), hex('00')], 'a certificate behind the list': [list(entry), entry],
    'a list longer than the message': [number(entry.length + 1, 3), entry], 'a certificate longer than the list': [list(hex('00ffff'), kLeaf)],
    'a second certificate longer than the list': [list(entry, hex('000009 00'))], 'a list that ends inside a length': [list(entry, hex('0000'))],
  }).map(([name, parts]) => [name, handing(1, () => message(11, ...parts)), 'decode_error']),
]);

const keyed = (bits, exponent) => ({ ...{ key: makeKey(bits, exponent) }, get chain() { return [certificate({ key: this.key })]; } });
const withKey = (parts) => ({ chain: [certificate({ key, ...parts })] });
const odd = (modulus, exponent) => withKey({ key: { modulus, exponent } });
const withNumbers = (...parts) => withKey({ keyInfo: keyInfo(der(0x30, ...parts)) });
const withAlgorithm = (...parts) => withKey({ keyInfo: keyInfo(rsaPublicKey(key), der(0x30, ...parts)) });
const kRsa = oid('2A864886F70D010101');
handshakeTable('the key in the certificate', [
  ...rowsOf({ ok: [1025, 2047, 2048, 8192] }, (bits) => keyed(bits), (bits) => `a key of ${bits} bits`),
  ['exponent 3', keyed(1024, 3n), 'ok'],
  ['an exponent of 64 bits', keyed(1024, (1n << 63n) + 29n), 'ok'],
  ['an exponent of 65 bits', odd(key.modulus, (1n << 64n) + 13n), 'unsupported_certificate'],
  ...rowsOf({ unsupported_certificate: [1n << 1022n, 1n << 8192n] }, (high) => odd(high + 1n, 3n), (high) => `a key of ${high.toString(2).length} bits`),
  ['an even modulus', odd(key.modulus - 1n, 65537n), 'unsupported_certificate'],
  ...rowsOf({ unsupported_certificate: [1n, 2n, 65536n] }, (exponent) => odd(key.modulus, exponent), (exponent) => `exponent ${exponent}`),
  ['an elliptic-curve key', withAlgorithm(oid('2A8648CE3D0201'), oid('2A8648CE3D030107')), 'unsupported_certificate'],
  ['an RSA-PSS key', withAlgorithm(oid('2A864886F70D01010A')), 'unsupported_certificate'],
  ...rowsOf({ bad_certificate: ['', '3000', '050100', '05000500'] }, (text) => withAlgorithm(kRsa, hex(text)), (text) => `parameters ${text}`),
  ['a version 1 certificate', withKey({ version: Buffer.alloc(0), extensions: Buffer.alloc(0) }), 'ok'],
  ['no key at all', withKey({ keyInfo: Buffer.alloc(0) }), 'bad_certificate'],
  ['a negative modulus', withNumbers(der(0x02, Buffer.alloc(256, 0x81)), integer(3n)), 'bad_certificate'],
  ['a modulus with a zero too many', withNumbers(der(0x02, hex('0000'), integer(key.modulus).subarray(-key.length)), integer(3n)), 'bad_certificate'],
  ['an empty exponent', withNumbers(integer(key.modulus), der(0x02)), 'bad_certificate'],
  ['a third number', withNumbers(integer(key.modulus), integer(65537n), integer(5n)), 'bad_certificate'],
  ['a byte behind the key', withKey({ keyInfo: keyInfo(Buffer.concat([rsaPublicKey(key), hex('00')])) }), 'bad_certificate'],
  ['unused bits', withKey({ keyInfo: der(0x30, kRsaEncryption, der(0x03, hex('01'), rsaPublicKey(key))) }), 'bad_certificate'],
  ...Object.entries({
    'a byte behind the certificate': [kLeaf, hex('00')], 'a certificate cut short': [kLeaf.subarray(0, -1)], noise: [Buffer.alloc(300, 0xa5)],
    'an indefinite length': [hex('3080'), kLeaf.subarray(4), hex('0000')], 'a length with a leading zero': [hex('308300'), kLeaf.subarray(2)],
    'a length of five octets': [hex('308500'), number(kLeaf.length - 4, 4), kLeaf.subarray(4)],
  }).map(([name, parts]) => [name, { chain: [Buffer.concat(parts)] }, 'bad_certificate']),
]);
