// What ends a call: limits of time, a peer that is gone, signals, no memory. None waits for ever, none raises SIGPIPE.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { alert, data, hex, kFatal, kHandshake, kHelloRequest, kWarning } from './scripted-server.mjs';
import { kAlerts, kDefaults, play } from './rig.mjs';

const kClose = alert(kWarning, 0);
const kCloseNotify = [kWarning, kAlerts.close_notify];

// Takes what comes, without looking at it, until the client is gone.
const until = async ({ socket }) => {
  for (; !socket.destroyed; await sleep(10)) socket.read();
};

// Keeps the connection and says no more.
const silent = { after: until };

// Reads nothing until the client has ended.
const idle = {
  after: async (s) => {
    while (!s.clientEnded) await sleep(10);
  },
};

// Sends one of the items every few milliseconds until the client is gone.
const trickling = (...items) => ({
  after: async (s) => {
    for (let i = 0; !s.socket.destroyed && s.socket.writable; ++i) {
      await s.send([items[i % items.length]]);
      await sleep(5);
    }
  },
});

// Instead of its first flight the server sends a byte of a record now and then.
const slowHello = {
  first: () => [{ raw: hex('16 0303 4000 02 003ffc') }],
  after: until,
};
const endlessHello = (s) => {
  s.socket.on('data', () => {
    const timer = setInterval(() => s.socket.write(Buffer.of(0)), 5);
    s.socket.on('close', () => clearInterval(timer));
  });
};

// [name, plan, steps, the last step's result, how long it takes at least and at most]. Sanitizers and a busy machine are
// slow; what is waited for below is much longer than what is allowed.
const kSlack = 2000;
const kTimed = [
  ['a server that never answers', { first: () => [] }, ['timeout=200', 'connect'], -1, 200],
  ['the same, by the overall limit', { first: () => [] }, ['limit=200', 'connect'], -1, 200],
  ['the same, by the sooner of both', { first: () => [] }, ['timeout=9000', 'limit=200', 'connect'], -1, 200],
  ['the same, on a non-blocking socket', { first: () => [] }, ['nonblocking', 'timeout=200', 'connect'], -1, 200],
  ['a hello in part', slowHello, ['timeout=200', 'connect'], -1, 200],
  ['a hello of a byte now and then', { ...slowHello, started: endlessHello }, ['timeout=9000', 'limit=400', 'connect'], -1, 400],
  ['a limit of nothing', {}, ['limit=0', 'connect'], -1, 0],
  ['no data', silent, ['connect', 'timeout=200', 'read'], -1, 200],
  ['no data, by the overall limit', silent, ['connect', 'limit=200', 'read'], -1, 200],
  ['data of a byte now and then', trickling(data('x')), ['connect', 'timeout=9000', 'limit=400', 'read-all'], -1, 400],
  ['empty records now and then', trickling(data('')), ['connect', 'timeout=9000', 'limit=100', 'read'], -1, 100],
  ['a limit that is lifted', { after: async (s) => (await sleep(300), s.send([kClose])) }, ['limit=100', 'limit=-1', 'connect', 'read'], 0, 150],
  ['a server that takes nothing', idle, ['small', 'connect', 'timeout=200', 'writes=20000000'], -1, 200],
  ['the same, by the overall limit', idle, ['small', 'connect', 'timeout=9000', 'limit=300', 'writes=20000000'], -1, 300],
  ['shutdown of a silent server', silent, ['connect', 'shutdown', 'shutdown'], -1, 5000],
  ['shutdown of one that sends for ever', trickling(data('x')), ['connect', 'shutdown', 'shutdown'], -1, 5000],
  ['shutdown, by the overall limit', silent, ['connect', 'limit=200', 'shutdown', 'shutdown'], -1, 200],
];

test('limits of time', { concurrency: true }, async (t) => {
  await Promise.all(kTimed.map(([name, plan, steps, result, least]) =>
    t.test(name, async () => {
      const { rows } = await play(plan, steps);
      const { result: last, ms } = rows.at(-1);
      assert.equal(last, result);
      assert.ok(ms >= least - 1 && ms <= least + kSlack, `took ${ms} ms`);
    })));
});

// [name, plan, steps, results of the steps, alerts of the client]
const kEnds = [
  ['the client closes first', { lastWords: [kClose] }, ['connect', 'shutdown', 'shutdown'], [1, 0, 1], [kCloseNotify]],
  ['and drops what still comes', { lastWords: [data('late'), data('later'), kClose] }, ['connect', 'shutdown', 'shutdown'], [1, 0, 1], [kCloseNotify]],
  ['and reads what still comes', { lastWords: [data('late'), kClose] }, ['connect', 'shutdown', 'read', 'shutdown'], [1, 0, 4, 1], [kCloseNotify]],
  ['and leaves a hello request without an answer', { lastWords: [kHelloRequest, kClose] }, ['connect', 'shutdown', 'shutdown'], [1, 0, 1], [kCloseNotify]],
  ['an end instead of close_notify', { lastWords: [{ fin: true }] }, ['connect', 'shutdown', 'shutdown'], [1, 0, -1], [kCloseNotify]],
  ['no writing behind shutdown', {}, ['connect', 'shutdown', 'write=x'], [1, 0, -1], [kCloseNotify]],
  ['no writing behind the other close_notify', { after: (s) => s.send([kClose]) }, ['connect', 'read', 'write=x', 'shutdown'], [1, 0, -1, 1], [kCloseNotify]],
  ['nothing behind a fatal alert', { after: (s) => s.send([alert(kFatal, 80)]) }, ['connect', 'read', 'write=x', 'read', 'shutdown', 'connect'], [1, -1, -1, -1, -1, -1], []],
  ['nothing behind a failed handshake', { first: () => [alert(kFatal, 40)] }, ['connect', 'connect', 'write=x', 'read', 'shutdown'], [-1, -1, -1, -1, -1], []],
  ['nothing before the handshake', { first: () => [] }, ['write=x', 'read', 'shutdown'], [-1, -1, -1], undefined],
  ['connect twice', {}, ['connect', 'connect', 'write=x', 'shutdown'], [1, 1, 1, 0], [kCloseNotify]],
];

test('ends', async (t) => {
  for (const [name, plan, steps, results, alerts] of kEnds) {
    await t.test(name, async () => {
      const { server, rows } = await play(plan, steps);
      assert.deepEqual(rows.map((row) => row.result), results);
      if (alerts) assert.deepEqual([server.fault, server.alerts], [undefined, alerts]);
    });
  }
});

test('a peer that is gone', async (t) => {
  for (const [name, gone] of [['reset', { reset: true }], ['closed', { fin: true }]]) {
    await t.test(`writing to a connection that is ${name}`, async () => {
      const after = async (s) => {
        await s.send([gone]);
        if (gone.fin) s.socket.destroy();
      };
      const { step } = await play({ after }, ['connect', 'close-wait', 'write=x', 'writes=100000', 'writes=100000', 'shutdown']);
      assert.equal(step('writes').result, -1); // and no signal has ended the client
      assert.equal(step('shutdown').result, -1);
    });
  }
});

test('signals and small buffers', async (t) => {
  const kTotal = 3000000;
  for (const way of [[], ['nonblocking'], ['small'], ['alarms'], ['alarms', 'nonblocking', 'small']]) {
    await t.test(way.join(' ') || 'neither', async () => {
      const after = async (s) => {
        await sleep(50); // the client's buffers are full meanwhile
        await s.drain(kTotal);
        await sleep(20);
        await s.send([data('got it')]);
        await sleep(20);
        await s.send([kClose]);
      };
      const { server, rows } = await play({ after }, [...way, 'connect', `writes=${kTotal}`, 'read-all', 'shutdown']);
      assert.equal(server.fault, undefined);
      assert.deepEqual(rows.slice(-4).map((row) => row.result), [1, kTotal, 0, 1]);
      assert.equal(rows.at(-2).data.toString(), 'got it');
      const received = Buffer.concat(server.received);
      assert.ok(received.length === kTotal && received.every((byte, i) => byte === (i & 255)));
    });
  }
});

// What a server can make the client hold: its certificate, beside the connection's own buffers.
test('memory', async (t) => {
  const big = [kDefaults.chain[0], ...Array(21).fill(Buffer.alloc(2700, 0x30))];
  const claims = (type) => ({ first: () => [{ type: kHandshake, content: hex(`${type}ffffff`) }] });
  const rows = [
    ['the usual handshake', {}, 28000],
    ['a long chain', { chain: big }, 28000],
    ['a hello that claims 2^24-1 bytes', claims('02'), 26000],
    ['a chain that claims 2^24-1 bytes', { first: ([h]) => [h, ...claims('0b').first()] }, 26000],
    ['a certificate that claims 2^24-1 bytes', { first: ([h]) => [h, { type: kHandshake, content: hex('0b019000 018ffd ffffff') }] }, 26000],
    ['the longest certificate', { first: ([h]) => [h, { type: kHandshake, content: hex('0b019000 018ffd 010000') }, { fin: true }] }, 26000 + 65536],
  ];
  for (const [name, plan, most] of rows) {
    await t.test(name, async () => {
      const { step } = await play(plan, ['connect', 'heap']);
      assert.ok(step('heap').result <= most, `${step('heap').result} bytes`);
    });
  }
  for (const number of [1, 2]) { // the certificate, the numbers of RSA
    await t.test(`allocation ${number} fails`, async () => {
      const { server, step } = await play({}, [`no-memory=${number}`, 'connect', 'close-wait']);
      assert.equal(step('connect').result, -1);
      assert.deepEqual(server.alerts, [[kFatal, kAlerts.internal_error]]);
    });
  }
});
