// What a server may and may not do once the connection is protected: records, the MAC with either cipher, alerts, the
// end. RFC 5246 sections 6.2 and 7.2.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import {
  alert, data, hex, kAlert, kChangeCipherSpec, kData, kFatal, kHandshake, kHelloRequest, kSuites, kWarning, message,
} from './scripted-server.mjs';
import { dataTable, kAlerts, play } from './rig.mjs';

const kEvery = Object.keys(kSuites).map(Number);
const kCbc = [0x3c, 0x2f];
const kStream = [0x05, 0x04];
const kClose = alert(kWarning, 0);
const kEmpty = data('');
const times = (n, ...items) => Array(n).fill(items).flat();
const long = (n, c = 'x') => c.repeat(n);
const bytesOf = (text) => [...text].map((c) => data(c));

dataTable('records', kEvery, [
  ['one', [data('hello'), kClose], 'hello', 'closed'],
  ['as long as may be', [data(long(16384)), kClose], long(16384), 'closed'],
  ['a byte longer', [data(long(16385))], '', 'record_overflow'],
  ['as many bytes as a fragment holds', [data(long(18000))], '', 'record_overflow'],
  ['one-byte records', [...bytesOf('a word in pieces'), kClose], 'a word in pieces', 'closed'],
  ['200 records', [...times(200, data('0123456789')), kClose], long(200, '0123456789'), 'closed'],
  ['32 empty records in a row, twice', [...times(32, kEmpty), data('a'), ...times(32, kEmpty), data('b'), kClose], 'ab', 'closed'],
  ['33 empty records in a row', [data('a'), ...times(33, kEmpty), data('b')], 'a', 'unexpected_message'],
  ['34 empty records with warnings between them', [...times(17, kEmpty), alert(kWarning, 90), ...times(17, kEmpty)], '', 'unexpected_message'],
]);

dataTable('record headers', [0x3c], [
  ...[0x0303].map((version) => [`version ${version.toString(16)}`, [{ ...data('a'), version }, kClose], 'a', 'closed']),
  ...[0x0000, 0x0300, 0x0301, 0x0302, 0x0304, 0x0203, 0xffff].map((version) =>
    [`version ${version.toString(16)}`, [data('a'), { ...data('b'), version }], 'a', 'protocol_version']),
  ...[0, 1, 19, 24, 25, 128, 255].map((type) => [`type ${type}`, [{ type, content: Buffer.from('a') }], '', 'unexpected_message']),
  ['a length of 2^14+2049', [{ raw: hex('17 0303 4801') }], '', 'record_overflow'],
  ['a length of 2^16-1', [{ raw: hex('17 0303 ffff') }], '', 'record_overflow'],
  ['a length of 2^14+2048 without a record', [{ raw: Buffer.concat([hex('17 0303 4800'), Buffer.alloc(18432)]) }], '', 'bad_record_mac'],
  ['HTTP', [{ raw: Buffer.from('HTTP/1.1 400 Bad Request\r\n\r\n') }], '', 'unexpected_message'],
  ['an unprotected alert', [{ raw: hex('15 0303 0002 0100') }], '', 'bad_record_mac'],
]);

dataTable('TCP segments of one byte', kEvery, [
  ['two records', [data('hello'), data('world'), kClose], 'helloworld', 'closed'],
  ['a record cut off', [data('hello'), { raw: hex('17 0303 0040 00') }, { fin: true }], 'hello', 'silent'],
], { segment: 1 });

// --- the MAC ---

const damaged = (damage, options = {}) => [data('fine'), { ...data('spoiled text'), damage, ...options }, data('more')];
const flip = (part, at, bit = 1) => ({ [part]: bytes }) => (bytes[at < 0 ? bytes.length + at : at] ^= bit);
const wrong = (name, items, text = 'fine') => [name, items, text, 'bad_record_mac'];

dataTable('the MAC', kEvery, [
  ['untouched', damaged(() => {}).concat(kClose), 'finespoiled textmore', 'closed'],
  ...[0, 1, 7, -2, -1].map((at) => wrong(`byte ${at} of the MAC`, damaged(flip('mac', at)))),
  wrong('the highest bit', damaged(flip('mac', 0, 0x80))),
  wrong('of another version', damaged(undefined, { macVersion: 0x0302 })),
  wrong('of another type', [data('fine'), { ...alert(kWarning, 0), macType: kData }]),
  wrong('of a number before', damaged(undefined, { skip: -1n })),
  wrong('of a number behind', damaged(undefined, { skip: 1n })),
  wrong('a record sent twice', [data('fine'), { ...data('twice'), twice: true }], 'finetwice'),
  wrong('a record left out', [data('fine'), { ...data('lost'), lost: true }, data('more')]),
  wrong('noise', [data('fine'), { ...data(''), fragment: Buffer.alloc(64, 0x5a) }]),
  wrong('nothing', [data('fine'), { ...data(''), fragment: Buffer.alloc(0) }]),
]);

// Of 12 bytes and a MAC of 32 or 20: the shortest padding has 4 bytes or 16, with 15 blocks more 244 or 256.
const kLongest = { extraBlocks: 15 };
dataTable('CBC: padding', kCbc, [
  ...Array.from({ length: 16 }, (_, extraBlocks) => [`${extraBlocks} blocks too many`, [...damaged(undefined, { extraBlocks }), kClose], 'finespoiled textmore', 'closed']),
  ...Array.from({ length: 16 }, (_, n) => [`content of ${n} bytes`, [data(long(n)), data('.'), kClose], `${long(n)}.`, 'closed']),
  wrong('no padding that could be', damaged(({ padding }) => padding.fill(0xff))),
  wrong('one too little', damaged(({ padding }) => padding.fill(padding.length - 2))),
  wrong('one too much', damaged(({ padding }) => padding.fill(padding.length))),
  ...[0, 1, 2].map((at) => wrong(`byte ${at} of the shortest`, damaged(flip('padding', at)))),
  wrong('the length byte of the shortest', damaged(flip('padding', -1))),
  ...[0, 1, 2, 100, 127, 128, 200, -3, -2, -1].map((at) => wrong(`byte ${at} of the longest`, damaged(flip('padding', at), kLongest))),
  wrong('the highest bit in the longest', damaged(flip('padding', 100, 0x80), kLongest)),
  wrong('and MAC', damaged((parts) => (flip('mac', 0)(parts), flip('padding', 0)(parts)))),
  wrong('zero where there is more', damaged(({ padding }) => padding.fill(0))),
  wrong('longer than a short record', [data('fine'), { ...data(''), damage: ({ padding }) => padding.fill(0xff) }]),
]);

dataTable('CBC: fragments', kCbc, [
  ['whole blocks', [data('fine'), kClose], 'fine', 'closed'],
  ...[1, 15, 17, 47, 65].map((n) => wrong(`${n} bytes`, [data('fine'), { ...data(''), fragment: Buffer.alloc(n) }])),
  ...[0, 16, 32, 48].map((n) => wrong(`${n} bytes, too few for a MAC`, [data('fine'), { ...data(''), fragment: Buffer.alloc(n) }])),
]);

dataTable('RC4', kStream, [
  ['a state that goes on', [...times(300, data(long(97, 'abc'))), kClose], long(300 * 97, 'abc'), 'closed'],
  ...[1, 15].map((n) => wrong(`${n} bytes, too few for a MAC`, [data('fine'), { ...data(''), fragment: Buffer.alloc(n) }])),
  wrong('a state that starts anew', [data('fine'), { ...data('more'), rewound: true }]),
]);

// --- other content ---

dataTable('content behind Finished', [0x3c], [
  ['a hello request', [kHelloRequest, data('a'), kClose], 'a', 'refused'],
  ['hello requests', [...times(5, kHelloRequest, data('a')), kClose], 'aaaaa', 'refused'],
  ['a hello request in records of one byte', [...[...kHelloRequest].map((byte) => ({ type: kHandshake, content: Buffer.of(byte) })), data('a'), kClose], 'a', 'refused'],
  ['a hello request that is cut', [{ type: kHandshake, content: hex('0000') }, data('a')], '', 'unexpected_message'],
  ['a hello request with a byte', [message(0, Buffer.alloc(1))], '', 'decode_error'],
  ['ChangeCipherSpec', [data('a'), kChangeCipherSpec], 'a', 'unexpected_message'],
  ['Finished', [message(20, Buffer.alloc(12))], '', 'unexpected_message'],
  ['a ticket', [message(4, Buffer.alloc(6))], '', 'unexpected_message'],
  ['a server hello', [message(2, Buffer.alloc(40))], '', 'unexpected_message'],
]);

test('33 hello requests are too many, and only the first is answered', async () => {
  const { server, step } = await play({ after: (s) => s.send(times(33, kHelloRequest)) }, ['connect', 'read-all', 'close-wait']);
  assert.equal(server.fault, undefined);
  assert.equal(step('read-all').result, -1);
  assert.deepEqual(server.alerts, [[kWarning, kAlerts.no_renegotiation], [kFatal, kAlerts.unexpected_message]]);
});

dataTable('alerts', [0x3c, 0x05], [
  ['close_notify', [data('a'), kClose], 'a', 'closed'],
  ['data behind close_notify', [data('a'), kClose, data('b')], 'a', 'closed'],
  ['a fatal alert behind close_notify', [kClose, alert(kFatal, 80)], '', 'closed'],
  ['a bare end of the stream', [data('a'), { fin: true }], 'a', 'silent'],
  ['an end in a record', [data('a'), { raw: hex('17 0303 0040 1234') }, { fin: true }], 'a', 'silent'],
  ['an end in a header', [data('a'), { raw: hex('17 03') }, { fin: true }], 'a', 'silent'],
  ['a reset', [{ reset: true }], '', 'silent'],
  ...[10, 20, 40, 80, 255].map((what) => [`fatal ${what}`, [data('a'), alert(kFatal, what), data('b'), kClose], 'a', 'silent']),
  ['a fatal close_notify', [alert(kFatal, 0)], '', 'silent'],
  ['5 warnings in a row, twice', [...times(5, alert(kWarning, 90)), data('a'), ...times(5, alert(kWarning, 41)), data('b'), kClose], 'ab', 'closed'],
  ['6 warnings in a row', [data('a'), ...times(6, alert(kWarning, 90)), data('b')], 'a', 'unexpected_message'],
  ['6 warnings with empty records between them', times(6, alert(kWarning, 90), kEmpty), '', 'unexpected_message'],
  ['level 0', [alert(0, 0)], '', 'illegal_parameter'],
  ['level 3', [alert(3, 0)], '', 'illegal_parameter'],
  ['half an alert', [{ type: kAlert, content: hex('01') }], '', 'decode_error'],
  ['an empty alert', [{ type: kAlert, content: hex('') }], '', 'decode_error'],
  ['an alert and a half', [{ type: kAlert, content: hex('010001') }], '', 'decode_error'],
]);

// --- what the client writes ---

const pattern = (n) => Buffer.from(Array.from({ length: n }, (_, i) => i & 255));

test('what the client writes', async (t) => {
  for (const suite of kEvery) {
    for (const lengths of [[0, 1], [15, 16, 17, 31, 32, 33], [4095, 4096, 4097], [16384, 16385], [200000], Array(120).fill(3)]) {
      await t.test(`${lengths.slice(0, 8)} bytes, suite ${suite}`, async () => {
        const total = lengths.reduce((a, b) => a + b);
        const { server, rows, step } = await play({ suite, after: async (s) => (await s.drain(total), s.send([data('got it'), kClose])) },
          ['connect', ...lengths.map((n) => `writes=${n}`), 'read', 'shutdown']);
        assert.equal(server.fault, undefined, 'records that are well protected, with new vectors');
        assert.deepEqual(rows.filter((row) => row.step === 'writes').map((row) => row.result), lengths);
        assert.ok(Buffer.concat(server.received).equals(Buffer.concat(lengths.map(pattern))));
        assert.equal(step('read').data.toString(), 'got it');
        assert.deepEqual(server.alerts, [[kWarning, kAlerts.close_notify]]);
      });
    }
  }
});
