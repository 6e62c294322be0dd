// The client and servers that nobody here wrote: a request and its answer over every suite, sort of key and way to cut
// the stream.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { kServers, makeIdentity, relay } from './foreign-servers.mjs';
import { runClient } from './rig.mjs';

const kRequest = 'GET / HTTP/1.0\r\nHost: localhost\r\n\r\n';

const identities = {
  usual: makeIdentity(2048),
  'a 1024-bit key': makeIdentity(1024),
  'a 3072-bit key': makeIdentity(3072),
  'a 4096-bit key': makeIdentity(4096),
  'exponent 3': makeIdentity(2048, { publicExponent: 3 }),
  'a chain of 22 certificates': makeIdentity(2048, { chain: 22, padding: 1940 }),
};

// [server, suite, what is special, key, options]
const rows = [
  ['openssl', 0x3c], ['openssl', 0x2f], ['nginx', 0x3c], ['nginx', 0x2f], ['nodeHttps', 0x3c], ['nodeHttps', 0x2f],
  ['gnutls', 0x3c], ['gnutls', 0x2f], ['gnutls', 0x05], ['gnutls', 0x04],
  ['gnutls', 0x3c, 'all suites', 'usual', { priority: '+AES-128-CBC:+ARCFOUR-128:+SHA256:+SHA1:+MD5' }],
  ['gnutls', 0x3c, 'no certificate request', 'usual', { args: ['--disable-client-cert'] }],
  ...Object.keys(identities).slice(1).flatMap((key) => Object.keys(kServers).map((server) => [server, 0x3c, key, key])),
  ['openssl', 0x3c, 'records of 512 bytes', 'a chain of 22 certificates', { args: ['-max_send_frag', '512'] }],
  ['openssl', 0x2f, 'records of 512 bytes', 'usual', { args: ['-max_send_frag', '512'] }],
  ['nodeHttps', 0x2f, 'records of 512 bytes', 'usual', { fragment: 512 }],
  ['openssl', 0x3c, 'segments of one byte', 'usual', { segment: 1 }],
  ['gnutls', 0x05, 'segments of one byte', 'usual', { segment: 1 }],
];

test('a request and its answer', { concurrency: 3 }, async (t) => {
  await Promise.all(rows.map(([server, suite, special = '', key = 'usual', options = {}]) =>
    t.test(`${server}, suite ${suite.toString(16)} ${special}`, async () => {
      const identity = await identities[key];
      const started = await kServers[server]({ identity, suite, ...options });
      const front = options.segment ? await relay({ port: started.port, host: '127.0.0.1' }, options.segment) : started;
      const steps = ['name=localhost', 'timeout=5000', 'connect', `write=${kRequest}`, 'read-all', 'shutdown'];
      const answers = await runClient(front.port, steps);
      if (front !== started) await front.stop();
      await started.stop();
      const [, , connected, written, read, shut] = answers;
      assert.deepEqual([connected.result, written.result], [1, kRequest.length]);
      assert.match(read.data.toString('latin1'), started.expected);
      assert.deepEqual([read.result, shut.result], [0, 1], 'ended by close_notify on both sides');
    })));
  const chain = await identities['a chain of 22 certificates'];
  assert.ok(chain.length > 56000 && chain.length < 60000, `a chain of ${chain.length} bytes`);
});
