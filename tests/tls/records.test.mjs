// What a server may and may not do once the connection is protected: records, the MAC with either cipher, alerts, the
// end. RFC 5246 sections 6.2 and 7.2.

import assert from 'node:assert/strict';
import { alert, data, hex, kAlert, kChangeCipherSpec, kData, kFatal, kHandshake, kHelloRequest, kSuites, kWarning, message } from './scripted-server.mjs';
import { dataTable, kAlerts, play, table } from './rig.mjs';

const kEvery = Object.keys(kSuites).map(Number);
const kClose = alert(kWarning, 0);
const kEmpty = data('');
const times = (n, ...items) => Array(n).fill(items).flat();
const long = (n, c = 'x') => c.repeat(n);

dataTable('records', kEvery, [
  ['as long as may be', [data(long(16384)), kClose], long(16384), 'closed'],
  ['a byte longer', [data(long(16385))], '', 'record_overflow'],
  ['as many bytes as a fragment holds', [data(long(18000))], '', 'record_overflow'],
  ['300 records', [...times(300, data(long(97, 'abc'))), kClose], long(300 * 97, 'abc'), 'closed'],
  ['32 empty records in a row, twice', [...times(32, kEmpty), data('a'), ...times(32, kEmpty), data('b'), kClose], 'ab', 'closed'],
]);
dataTable('few of everything that is nothing', [0x3c], [
  ['32 empty records', [...times(32, kEmpty), kClose], '', 'closed'],
  ['33 empty records', [data('a'), ...times(33, kEmpty), data('b')], 'a', 'unexpected_message'],
  ['34 empty records with warnings between them', [...times(17, kEmpty), alert(kWarning, 90), ...times(17, kEmpty)], '', 'unexpected_message'],
  ['5 warnings in a row, twice', [...times(5, alert(kWarning, 90)), data('a'), ...times(5, alert(kWarning, 41)), data('b'), kClose], 'ab', 'closed'],
  ['6 warnings in a row', [data('a'), ...times(6, alert(kWarning, 90)), data('b')], 'a', 'unexpected_message'],
  ['6 warnings with empty records between them', times(6, alert(kWarning, 90), kEmpty), '', 'unexpected_message'],
]);
dataTable('record headers', [0x3c], [
  ['good ones', [data('a'), kClose], 'a', 'closed'],
  ...[0x0000, 0x0302, 0x0304, 0x0203].map((version) => [`version ${version}`, [data('a'), { ...data('b'), version }], 'a', 'protocol_version']),
  ...[0, 19, 24, 255].map((type) => [`type ${type}`, [{ type, content: Buffer.from('a') }], '', 'unexpected_message']),
  ['a length of 2^14+2049', [{ raw: hex('17 0303 4801') }], '', 'record_overflow'],
  ['a length of 2^14+2048 without a record', [{ raw: Buffer.concat([hex('17 0303 4800'), Buffer.alloc(18432)]) }], '', 'bad_record_mac'],
  ['HTTP', [{ raw: Buffer.from('HTTP/1.1 400 Bad Request\r\n\r\n') }], '', 'unexpected_message'],
  ['an unprotected alert', [{ raw: hex('15 0303 0002 0100') }], '', 'bad_record_mac'],
]);
dataTable('TCP segments of one byte', [0x3c, 0x05], [
  ['two records', [data('hello'), data('world'), kClose], 'helloworld', 'closed'],
  ['a record cut off', [data('hello'), { raw: hex('17 0303 0040 00') }, { fin: true }], 'hello', 'silent'],
], { segment: 1 });

// --- the MAC and the padding ---

const damaged = (damage, options = {}) => [data('fine'), { ...data('spoiled text'), damage, ...options }, data('more')];
const flip = (part, at, bit = 1) => ({ [part]: bytes }) => (bytes[at < 0 ? bytes.length + at : at] ^= bit);
const wrong = (name, items, text = 'fine') => [name, items, text, 'bad_record_mac'];
const noise = (n) => [data('fine'), { ...data(''), fragment: Buffer.alloc(n, 0x5a) }];

dataTable('the MAC', kEvery, [
  ['untouched', damaged(() => {}).concat(kClose), 'finespoiled textmore', 'closed'],
  ...[0, 7, -1].map((at) => wrong(`byte ${at} of the MAC`, damaged(flip('mac', at, 0x80)))),
  wrong('of another version', damaged(undefined, { macVersion: 0x0302 })),
  wrong('of another type', [data('fine'), { ...alert(kWarning, 0), macType: kData }]),
  ...[-1n, 1n].map((skip) => wrong(`of a number ${skip} away`, damaged(undefined, { skip }))),
  wrong('a record sent twice', [data('fine'), { ...data('twice'), twice: true }], 'finetwice'),
  wrong('a record left out', [data('fine'), { ...data('lost'), lost: true }, data('more')]),
  ...[0, 15, 64].map((n) => wrong(`noise of ${n} bytes`, noise(n))),
]);

// Of 12 bytes and a MAC of 32 or 20: the shortest padding has 4 bytes or 16, with 15 blocks more 244 or 256.
const kLongest = { extraBlocks: 15 };
dataTable('CBC', [0x3c, 0x2f], [
  ...[1, 7, 15].map((extraBlocks) => [`${extraBlocks} blocks too many`, [...damaged(undefined, { extraBlocks }), kClose], 'finespoiled textmore', 'closed']),
  ['content of 0 to 15 bytes', [...Array.from({ length: 16 }, (_, n) => data(long(n))), kClose], long(120), 'closed'],
  wrong('no padding that could be', damaged(({ padding }) => padding.fill(0xff))),
  ...[-2, 0].map((more) => wrong(`padding ${more} away`, damaged(({ padding }) => padding.fill(padding.length + more)))),
  ...[0, 2, -1].map((at) => wrong(`byte ${at} of the shortest`, damaged(flip('padding', at)))),
  ...[0, 100, 128, -2, -1].map((at) => wrong(`byte ${at} of the longest`, damaged(flip('padding', at, 0x80), kLongest))),
  wrong('and MAC', damaged((parts) => (flip('mac', 0)(parts), flip('padding', 0)(parts)))),
  wrong('zero where there is more', damaged(({ padding }) => padding.fill(0))),
  wrong('longer than a short record', [data('fine'), { ...data(''), damage: ({ padding }) => padding.fill(0xff) }]),
  ...[1, 16, 17, 32, 47, 48, 65].map((n) => wrong(`a fragment of ${n} bytes`, noise(n))),
]);
dataTable('RC4', [0x05, 0x04], [
  ['untouched', [data('fine'), data('more'), kClose], 'finemore', 'closed'],
  wrong('a state that starts anew', [data('fine'), { ...data('more'), rewound: true }]),
]);

// --- other content ---

const inBytes = [...kHelloRequest].map((byte) => ({ type: kHandshake, content: Buffer.of(byte) }));
dataTable('content behind Finished', [0x3c], [
  ['hello requests', [...times(5, kHelloRequest, data('a')), kClose], 'aaaaa', 'refused'],
  ['a hello request in records of one byte', [...inBytes, data('a'), kClose], 'a', 'refused'],
  ['a hello request that is cut', [...inBytes.slice(0, 2), data('a')], '', 'unexpected_message'],
  ['a hello request with a byte', [message(0, Buffer.alloc(1))], '', 'decode_error'],
  ['ChangeCipherSpec', [data('a'), kChangeCipherSpec], 'a', 'unexpected_message'],
  ...[[20, 12], [4, 6], [2, 40]].map(([type, n]) => [`message ${type}`, [message(type, Buffer.alloc(n))], '', 'unexpected_message']),
]);
dataTable('alerts', [0x3c, 0x05], [
  ['data behind close_notify', [data('a'), kClose, data('b')], 'a', 'closed'],
  ['a fatal alert behind close_notify', [kClose, alert(kFatal, 80)], '', 'closed'],
  ...[[], ['17 0303 0040 1234'], ['17 03']].map((raw) => [`an end behind "${raw}"`, [data('a'), ...raw.map((text) => ({ raw: hex(text) })), { fin: true }], 'a', 'silent']),
  ['a reset', [{ reset: true }], '', 'silent'],
  ...[0, 20, 255].map((what) => [`fatal ${what}`, [data('a'), alert(kFatal, what), data('b'), kClose], 'a', 'silent']),
  ...[0, 3].map((level) => [`level ${level}`, [alert(level, 0)], '', 'illegal_parameter']),
  ...['01', '', '010001'].map((content) => [`an alert "${content}"`, [{ type: kAlert, content: hex(content) }], '', 'decode_error']),
]);

const pattern = (n) => Buffer.from(Array.from({ length: n }, (_, i) => i & 255));
const kWritten = [[0, 1], [15, 16, 17, 31, 32, 33], [4095, 4096, 4097], [16384, 16385], [200000], Array(120).fill(3)];
table('what the client writes', kEvery.flatMap((suite) => kWritten.map((lengths) => [`${lengths.slice(0, 8)} bytes, suite ${suite}`, suite, lengths])), async (_name, suite, lengths) => {
  const total = lengths.reduce((a, b) => a + b);
  const { server, rows, step } = await play({ suite, after: async (s) => (await s.drain(total), s.send([data('got it'), kClose])) },
    ['connect', ...lengths.map((n) => `writes=${n}`), 'read', 'shutdown']);
  assert.equal(server.fault, undefined, 'records that are well protected, with new vectors');
  assert.deepEqual(rows.filter((row) => row.step === 'writes').map((row) => row.result), lengths);
  assert.ok(Buffer.concat(server.received).equals(Buffer.concat(lengths.map(pattern))));
  assert.equal(step('read').data.toString(), 'got it');
  assert.deepEqual(server.alerts, [[kWarning, kAlerts.close_notify]]);
});
