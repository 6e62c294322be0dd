// TLS servers that nobody here wrote, each started for one test on 127.0.0.1 and ended after it: OpenSSL's s_server,
// GnuTLS's gnutls-serv, nginx and Node's https. They answer GET / with a page that names the suite.

import { spawn } from 'node:child_process';
import { generateKeyPair, sign } from 'node:crypto';
import { once } from 'node:events';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { createServer as createHttps } from 'node:https';
import { connect, createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { after } from 'node:test';
import { setImmediate as nextTurn } from 'node:timers/promises';
import { promisify } from 'node:util';
import { certificate, der, name, oid } from './rsa-key.mjs';
import { kClient } from './rig.mjs';

const kFolder = mkdtempSync(join(tmpdir(), 'tls-interop-'));
const kShim = join(dirname(kClient), 'loopback_only.so');
const children = new Set();
after(() => {
  children.forEach((child) => child.kill('SIGKILL'));
  rmSync(kFolder, { recursive: true });
});

export const kOpensslNames = { 0x3c: 'AES128-SHA256', 0x2f: 'AES128-SHA' };
const kGnutlsNames = {
  0x3c: '+AES-128-CBC:+SHA256', 0x2f: '+AES-128-CBC:+SHA1', 0x05: '+ARCFOUR-128:+SHA1', 0x04: '+ARCFOUR-128:+MD5',
};
export const kBody = Array.from({ length: 20000 }, (_, i) => `line ${i}\n`).join('');

// --- keys and certificates ---

const lines = (bytes) => bytes.toString('base64').match(/.{1,64}/g).join('\n');
const pem = (bytes) => `-----BEGIN CERTIFICATE-----\n${lines(bytes)}\n-----END CERTIFICATE-----\n`;
const comment = (length) =>
  der(0xa3, der(0x30, der(0x30, oid('6086480186F842010D'), der(0x04, der(0x16, Buffer.alloc(length, 0x2e))))));

// A key and a chain of certificates, each for the same key and with `padding` bytes in it, as PEM texts and as files.
export async function makeIdentity(modulusLength, { publicExponent = 65537, chain = 1, padding = 10 } = {}) {
  const { privateKey, publicKey } = await promisify(generateKeyPair)('rsa', { modulusLength, publicExponent });
  const keyInfo = publicKey.export({ type: 'spki', format: 'der' });
  const links = Array.from({ length: chain }, (_, i) => certificate({
    keyInfo, subject: name(`link ${i}`), issuer: name(`link ${i + 1}`), serial: der(0x02, Buffer.of(i + 1)),
    extensions: comment(padding),
    sign: (signed) => sign('sha256', signed, privateKey),
  }));
  const identity = { key: privateKey.export({ type: 'pkcs8', format: 'pem' }), cert: links.map(pem).join('') };
  identity.length = links.reduce((sum, link) => sum + link.length, 0);
  const folder = mkdtempSync(join(kFolder, 'key-'));
  for (const part of ['key', 'cert']) writeFileSync((identity[`${part}File`] = join(folder, part)), identity[part]);
  return identity;
}

// --- servers ---

// Starts a program and waits until its output matches; resolves to the first group of the match.
async function start(command, args, ready, options) {
  const child = spawn(command, args, { stdio: ['pipe', 'pipe', 'pipe'], ...options });
  children.add(child);
  let output = '';
  const found = await new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`${command} does not start: ${output}`)), 10000);
    const look = (text) => {
      output += text;
      const match = ready.exec(output);
      if (match) resolve(match[1]), clearTimeout(timer);
    };
    child.stdout.on('data', look);
    child.stderr.on('data', look);
    child.on('error', reject).on('exit', (code) => reject(new Error(`${command} ended with ${code}: ${output}`)));
  });
  child.removeAllListeners('exit');
  const stop = async () => {
    const gone = once(child, 'exit');
    child.kill('SIGKILL');
    await gone;
    children.delete(child);
  };
  return { found, stop };
}

async function openssl({ identity, suite, args = [] }) {
  const { found, stop } = await start('openssl', ['s_server', '-accept', '127.0.0.1:0', '-tls1_2', '-www',
    '-cipher', `${kOpensslNames[suite]}:@SECLEVEL=0`, '-key', identity.keyFile, '-cert', identity.certFile,
    '-cert_chain', identity.certFile, ...args], /ACCEPT 127\.0\.0\.1:(\d+)/);
  return { port: Number(found), stop, expected: new RegExp(`Cipher *: ${kOpensslNames[suite]}\\n`) };
}

async function gnutls({ identity, suite, priority = kGnutlsNames[suite], args = [] }) {
  const { found, stop } = await start('gnutls-serv', ['--port', '0', '--http',
    '--priority', `NONE:+VERS-TLS1.2:+RSA:+COMP-NULL:+SIGN-ALL:${priority}`,
    '--x509keyfile', identity.keyFile, '--x509certfile', identity.certFile, ...args],
  /listening on 127\.0\.0\.1:(\d+)/, { env: { ...process.env, LD_PRELOAD: kShim, ASAN_OPTIONS: '', TSAN_OPTIONS: '' } });
  const [, cipher, mac] = /\+(.*):\+(.*)/.exec(kGnutlsNames[suite]);
  return { port: Number(found), stop, expected: new RegExp(`${cipher}[^]*${mac}`) };
}

// nginx listens on a local socket, so that no port has to be guessed.
async function nginx({ identity, suite }) {
  const folder = mkdtempSync(join(kFolder, 'nginx-'));
  const configuration = `daemon off; master_process off; error_log stderr notice; pid ${folder}/pid;
    events {}
    http {
      access_log off;
      ${['client_body', 'proxy', 'fastcgi', 'uwsgi', 'scgi'].map((what) => `${what}_temp_path ${folder}/${what};`).join(' ')}
      server {
        listen unix:${folder}/socket ssl;
        ssl_protocols TLSv1.2; ssl_ciphers ${kOpensslNames[suite]}:@SECLEVEL=0;
        ssl_certificate ${identity.certFile}; ssl_certificate_key ${identity.keyFile};
        root ${folder}; keepalive_timeout 0; add_header Suite "$ssl_protocol $ssl_cipher $ssl_server_name";
      }
    }`;
  writeFileSync(join(folder, 'conf'), configuration);
  writeFileSync(join(folder, 'index.html'), kBody);
  const program = await start('nginx', ['-p', folder, '-c', join(folder, 'conf'), '-e', 'stderr'], /(start worker|using the)/,
    { env: { ...process.env, PATH: `${process.env.PATH}:/usr/sbin:/sbin` } });
  const front = await relay({ path: join(folder, 'socket') });
  const stop = async () => (await front.stop(), program.stop());
  return { port: front.port, stop, expected: new RegExp(`Suite: TLSv1.2 ${kOpensslNames[suite]} [^]*line 19999\n$`) };
}

async function nodeHttps({ identity, suite, fragment }) {
  const server = createHttps({ key: identity.key, cert: identity.cert, maxVersion: 'TLSv1.2',
    ciphers: `${kOpensslNames[suite]}:@SECLEVEL=0` }, (request, response) => {
    const { standardName } = request.socket.getCipher();
    response.writeHead(200, { Connection: 'close', Suite: `${standardName} ${request.socket.servername}` });
    response.end(kBody);
  });
  if (fragment) server.on('secureConnection', (socket) => socket.setMaxSendFragment(fragment));
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const stop = () => new Promise((resolve) => server.close(resolve));
  const standard = { 0x3c: 'TLS_RSA_WITH_AES_128_CBC_SHA256', 0x2f: 'TLS_RSA_WITH_AES_128_CBC_SHA' }[suite];
  return { port: server.address().port, stop, expected: new RegExp(`Suite: ${standard} [^]*line 19999\n`) };
}

export const kServers = { openssl, gnutls, nginx, nodeHttps };

async function trickle(from, to, segment) {
  for await (const bytes of from) {
    for (let at = 0; at < bytes.length && to.writable; at += segment) {
      to.write(bytes.subarray(at, at + segment));
      await nextTurn();
    }
  }
  to.end();
}

// Passes connections on; to the client in TCP segments of `segment` bytes, when given.
export async function relay(target, segment) {
  const sockets = new Set();
  const server = createServer(async (client) => {
    const upstream = connect(target);
    for (const socket of [client, upstream]) {
      sockets.add(socket);
      socket.setNoDelay(true).on('error', () => [client, upstream].forEach((s) => s.destroy()));
    }
    client.pipe(upstream);
    if (segment) await trickle(upstream, client, segment).catch(() => client.destroy());
    else upstream.pipe(client);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const stop = () => new Promise((resolve) => {
    server.close(resolve);
    sockets.forEach((socket) => socket.destroy());
  });
  return { port: server.address().port, stop };
}
