// What ends a call: limits of time, a peer that is gone, signals, no memory. None waits for ever, none raises SIGPIPE.

import assert from 'node:assert/strict';
import { setTimeout as sleep } from 'node:timers/promises';
import { alert, data, hex, kFatal, kHandshake, kHelloRequest, kWarning } from './scripted-server.mjs';
import { kAlerts, kDefaults, play, table } from './rig.mjs';

const kClose = alert(kWarning, 0);
const kCloseNotify = [kWarning, kAlerts.close_notify];

// Keeps the connection: takes what comes without looking at it; reads nothing; sends something every few milliseconds.
const until = async ({ socket }) => { for (; !socket.destroyed; await sleep(10)) socket.read(); };
const silent = { after: until };
const idle = { after: async (s) => { while (!s.clientEnded) await sleep(10); } };
const trickling = (item) => ({ after: async (s) => { for (; !s.socket.destroyed && s.socket.writable; await sleep(5)) await s.send([item]); } });
const mute = { first: () => [] };
const slowHello = { first: () => [{ raw: hex('16 0303 4000 02 003ffc') }], after: until };
const endlessHello = ({ socket }) => socket.on('data', () => {
  const timer = setInterval(() => socket.write(Buffer.of(0)), 5);
  socket.on('close', () => clearInterval(timer));
});

// [name, plan, steps, the last step's result, how long it takes at least]. What else could end the wait, or does not, is
// ten times as long; how long a busy machine takes is not looked at.
table('limits of time', [
  ['shutdown of a silent server', silent, ['connect', 'shutdown', 'shutdown'], -1, 5000],
  ['shutdown of one that sends for ever', trickling(data('x')), ['connect', 'shutdown', 'shutdown'], -1, 5000],
  ['a server that never answers', mute, ['timeout=200', 'connect'], -1, 200],
  ['the same, by the overall limit', mute, ['timeout=60000', 'limit=200', 'connect'], -1, 200],
  ['the same, on a non-blocking socket', mute, ['nonblocking', 'timeout=200', 'connect'], -1, 200],
  ['a hello of a byte now and then', { ...slowHello, started: endlessHello }, ['timeout=60000', 'limit=400', 'connect'], -1, 400],
  ['a limit of nothing', {}, ['limit=0', 'connect'], -1, 0],
  ['a limit that has passed, and data', { after: (s) => s.send([data('x')]) }, ['connect', 'read', 'limit=0', 'read'], -1, 0],
  ['no data', silent, ['connect', 'timeout=200', 'read'], -1, 200],
  ['data of a byte now and then', trickling(data('x')), ['connect', 'timeout=60000', 'limit=400', 'read-all'], -1, 400],
  ['empty records now and then', trickling(data('')), ['connect', 'timeout=60000', 'limit=100', 'read'], -1, 100],
  ['a limit that is lifted', { after: async (s) => (await sleep(300), s.send([kClose])) }, ['limit=100', 'limit=-1', 'connect', 'read'], 0, 150],
  ['a server that takes nothing', idle, ['small', 'connect', 'timeout=200', 'writes=20000000'], -1, 200],
  ['the same, by the overall limit', idle, ['small', 'connect', 'timeout=60000', 'limit=300', 'writes=20000000'], -1, 300],
  ['shutdown, by the overall limit', silent, ['connect', 'limit=200', 'shutdown', 'shutdown'], -1, 200],
], async (_name, plan, steps, result, least) => {
  const { result: last, ms } = (await play(plan, steps)).rows.at(-1);
  assert.equal(last, result);
  assert.ok(ms >= least - 1, `took ${ms} ms`);
}, { concurrency: true });

// [name, plan, steps, results of the steps, alerts of the client]
table('ends', [
  ['the client closes first', { lastWords: [data('late'), data('later'), kClose] }, ['connect', 'shutdown', 'shutdown'], [1, 0, 1], [kCloseNotify]],
  ['and reads what still comes', { lastWords: [data('late'), kClose] }, ['connect', 'shutdown', 'read', 'shutdown'], [1, 0, 4, 1], [kCloseNotify]],
  ['and leaves a hello request without an answer', { lastWords: [kHelloRequest, kClose] }, ['connect', 'shutdown', 'shutdown'], [1, 0, 1], [kCloseNotify]],
  ['an end instead of close_notify', { lastWords: [{ fin: true }] }, ['connect', 'shutdown', 'shutdown'], [1, 0, -1], [kCloseNotify]],
  ['no writing behind shutdown', {}, ['connect', 'shutdown', 'write=x'], [1, 0, -1], [kCloseNotify]],
  ['no writing behind the other close_notify', { after: (s) => s.send([kClose]) }, ['connect', 'read', 'write=x', 'shutdown'], [1, 0, -1, 1], [kCloseNotify]],
  ['nothing behind a fatal alert', { after: (s) => s.send([alert(kFatal, 80)]) }, ['connect', 'read', 'write=x', 'read', 'shutdown', 'connect'], [1, -1, -1, -1, -1, -1], []],
  ['nothing behind a failed handshake', { first: () => [alert(kFatal, 40)] }, ['connect', 'connect', 'write=x', 'read', 'shutdown'], [-1, -1, -1, -1, -1], []],
  ['nothing before the handshake', mute, ['write=x', 'read', 'shutdown'], [-1, -1, -1]],
  ['connect twice', {}, ['connect', 'connect', 'write=x', 'shutdown'], [1, 1, 1, 0], [kCloseNotify]],
  ...[[{ reset: true }], [{ fin: true }]].map((gone) => [`a peer that is gone: ${Object.keys(gone[0])}`, { after: async (s) => (await s.send(gone), gone[0].fin && s.socket.destroy()) },
    ['connect', 'close-wait', 'writes=100000', 'writes=100000', 'shutdown']]),
], async (_name, plan, steps, results, alerts) => {
  const { server, rows } = await play(plan, steps);
  if (results) assert.deepEqual(rows.map((row) => row.result), results);
  else assert.deepEqual(rows.slice(-2).map((row) => row.result), [-1, -1], 'and no signal has ended the client');
  if (alerts) assert.deepEqual([server.fault, server.alerts], [undefined, alerts]);
});

const kTotal = 1000000;
table('signals and small buffers', [[''], ['nonblocking'], ['small'], ['alarms nonblocking small']], async (way) => {
  const after = async (s) => {
    await sleep(50); // the client's buffers are full meanwhile
    await s.drain(kTotal);
    await s.send([data('got it')]);
    await sleep(20);
    await s.send([kClose]);
  };
  const { server, rows } = await play({ after }, [...way.split(' ').filter(Boolean), 'connect', `writes=${kTotal}`, 'read-all', 'shutdown']);
  assert.deepEqual([server.fault, rows.at(-2).data.toString()], [undefined, 'got it']);
  assert.deepEqual(rows.slice(-4).map((row) => row.result), [1, kTotal, 0, 1]);
  const received = Buffer.concat(server.received);
  assert.ok(received.length === kTotal && received.every((byte, i) => byte === (i & 255)));
});

// What a server can make the client hold: its certificate, beside the connection's own buffers.
const claiming = (claim) => ({ first: ([h]) => [h, { type: kHandshake, content: hex(claim) }, { fin: true }] });
table('memory', [
  ['a long chain', { chain: [kDefaults.chain[0], ...Array(21).fill(Buffer.alloc(2700, 0x30))] }, 28000],
  ['a hello that claims 2^24-1 bytes', { first: () => [{ type: kHandshake, content: hex('02ffffff') }] }, 26000],
  ['a certificate that claims 2^24-1 bytes', claiming('0b019000 018ffd ffffff'), 26000],
  ['the longest certificate', claiming('0b019000 018ffd 010000'), 26000 + 65536],
], async (_name, plan, most) => {
  const { step } = await play(plan, ['connect', 'heap']);
  assert.ok(step('heap').result <= most, `${step('heap').result} bytes`);
});
table('without memory', [['the certificate', 1], ['the numbers of RSA', 2]], async (_name, number) => {
  const { server, step } = await play({}, [`no-memory=${number}`, 'connect', 'close-wait']);
  assert.equal(step('connect').result, -1);
  assert.deepEqual(server.alerts, [[kFatal, kAlerts.internal_error]]);
});
