// The client and servers that nobody here wrote, each started for one row on 127.0.0.1: OpenSSL's s_server and GnuTLS's
// gnutls-serv. They answer GET / with a page that names the suite.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { generateKeyPair } from 'node:crypto';
import { once } from 'node:events';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { after, test } from 'node:test';
import { promisify } from 'node:util';
import { certificate, der, oid } from './certificates.mjs';
import { kClient, runClient } from './rig.mjs';

const kFolder = mkdtempSync(join(tmpdir(), 'tls-interop-'));
const kRequest = 'GET / HTTP/1.0\r\nHost: localhost\r\n\r\n';
const kShim = join(dirname(kClient), 'loopback_only.so');
const children = new Set();
after(() => {
  children.forEach((child) => child.kill('SIGKILL'));
  rmSync(kFolder, { recursive: true });
});

// A key and a chain of certificates, each for the same key and with `padding` bytes in it, as files.
async function makeIdentity(modulusLength, { publicExponent = 65537, chain = 1, padding = 10 } = {}) {
  const { privateKey, publicKey } = await promisify(generateKeyPair)('rsa', { modulusLength, publicExponent });
  const comment = der(0x30, oid('6086480186F842010D'), der(0x04, der(0x16, Buffer.alloc(padding, 0x2e))));
  const link = certificate({ keyInfo: publicKey.export({ type: 'spki', format: 'der' }), extensions: der(0xa3, der(0x30, comment)) });
  const pem = `-----BEGIN CERTIFICATE-----\n${link.toString('base64').replace(/.{1,64}/g, '$&\n')}-----END CERTIFICATE-----\n`;
  const [key, cert] = ['key', 'cert'].map((what) => join(kFolder, `${modulusLength}-${publicExponent}-${chain}.${what}`));
  writeFileSync(key, privateKey.export({ type: 'pkcs8', format: 'pem' }));
  writeFileSync(cert, pem.repeat(chain));
  return { key, cert };
}

// Starts a program and waits for the port that it tells.
async function start(command, args, ready, env) {
  const child = spawn(command, args, { stdio: ['pipe', 'pipe', 'pipe'], env: { ...process.env, ...env } });
  children.add(child);
  let output = '';
  const port = await new Promise((resolve, reject) => {
    const look = (text) => (output += text, ready.test(output) && resolve(Number(ready.exec(output)[1])));
    for (const stream of [child.stdout, child.stderr]) stream.on('data', look);
    child.on('error', reject).on('exit', (code) => reject(new Error(`${command} ended with ${code}: ${output}`)));
  });
  const stop = () => (child.kill('SIGKILL'), once(child, 'exit'));
  return { port, stop };
}

const kOpenssl = { 0x3c: 'AES128-SHA256', 0x2f: 'AES128-SHA' };
const kGnutls = { 0x3c: 'AES-128-CBC:+SHA256', 0x2f: 'AES-128-CBC:+SHA1', 0x05: 'ARCFOUR-128:+SHA1', 0x04: 'ARCFOUR-128:+MD5' };
const kServers = {
  openssl: ({ key, cert }, suite, args) => start('openssl', ['s_server', '-accept', '127.0.0.1:0', '-tls1_2', '-www', '-cipher',
    `${kOpenssl[suite]}:@SECLEVEL=0`, '-key', key, '-cert', cert, '-cert_chain', cert, ...args], /ACCEPT 127\.0\.0\.1:(\d+)/),
  gnutls: ({ key, cert }, suite, args) => start('gnutls-serv', ['--port', '0', '--http', '--priority',
    `NONE:+VERS-TLS1.2:+RSA:+COMP-NULL:+SIGN-ALL:+${kGnutls[suite]}`, '--x509keyfile', key, '--x509certfile', cert, ...args],
  /listening on 127\.0\.0\.1:(\d+)/, { LD_PRELOAD: kShim, ASAN_OPTIONS: '', TSAN_OPTIONS: '' }),
};
const expected = (server, suite) => (server === 'openssl' ? new RegExp(`Cipher *: ${kOpenssl[suite]}\\n`)
  : new RegExp(kGnutls[suite].replace(':+', '[^]*')));

// [server, suite, key, what is special, arguments]
const identities = { usual: makeIdentity(2048), 1024: makeIdentity(1024), 3072: makeIdentity(3072),
  'exponent 3': makeIdentity(2048, { publicExponent: 3 }), chain: makeIdentity(2048, { chain: 22, padding: 2300 }) };
const kRows = [
  ...Object.keys(kOpenssl).map((suite) => ['openssl', suite, 'usual']),
  ...Object.keys(kGnutls).map((suite) => ['gnutls', suite, 'usual']),
  ...['1024', '3072', 'exponent 3'].flatMap((key) => Object.keys(kServers).map((server) => [server, 0x3c, key])),
  ['openssl', 0x3c, 'chain', 'in records of 512 bytes', ['-max_send_frag', '512']],
  ['gnutls', 0x3c, 'usual', 'without a certificate request', ['--disable-client-cert']],
];

test('a request and its answer', { concurrency: 3 }, async (t) => {
  await Promise.all(kRows.map(([server, suite, key, special = '', args = []]) => t.test([server, suite, key, special].join(' '), async () => {
    const { port, stop } = await kServers[server](await identities[key], suite, args);
    const answers = await runClient(port, ['name=localhost', 'timeout=15000', 'connect', `write=${kRequest}`, 'read-all', 'shutdown']);
    await stop();
    assert.deepEqual(answers.slice(2).map(({ result }) => result), [1, kRequest.length, 0, 1], 'ended by close_notify on both sides');
    assert.match(answers[4].data.toString('latin1'), expected(server, suite));
  })));
});
