#!/usr/bin/env node
// The desk: a page on this machine for starting reads, watching them, looking at them and keeping them.

import { existsSync } from 'node:fs';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { fileURLToPath } from 'node:url';
import { fail, parseOptions } from '../../simulator/lib/command-line.mjs';
import { loadKeys } from '../../simulator/lib/keys.mjs';

const kRoot = fileURLToPath(new URL('../../', import.meta.url));
const kUsage = `Usage: ./run desk [options]

Opens a page on 127.0.0.1: read a simulated document or a passport on a PC/SC reader, watch the read, look at what came, and
keep it. Reads of phones that use the desk's decode server appear by themselves; for a phone to reach it, name an address of
this machine with --decode-host. Nothing is written to disk unless you save it.`;
const options = parseOptions(kUsage, {
  port: { value: 'N', default: '0', number: true, text: 'port of the page; 0: any free one' },
  'decode-host': { value: 'ADDRESS', default: '127.0.0.1', text: 'where the decode server for phones listens' },
  'decode-port': { value: 'N', default: '9300', number: true, text: 'and its port' },
  env: { value: 'CODE', default: '268', number: true, text: 'environment of the phones: 268, 52302 or 26814' },
  trust: { value: 'FOLDER', text: 'certificates of the countries that may issue passports' },
  library: { value: 'FILE', default: join(kRoot, 'build/host/libtqreader.so'), text: 'the library' },
  keys: { value: 'FILE', default: join(kRoot, 'keys/development_keys.h'), text: 'key header that it was built with' },
});
if (!existsSync(options.library)) fail(`There is no library at ${options.library}.`);
if (options.trust && !existsSync(options.trust)) fail(`There is no folder ${options.trust}.`);

// what these bring in is there only once the project has been built
const { Desk } = await import('../lib/desk.mjs');
const { DeskServer } = await import('../lib/desk-server.mjs');

const say = (text = '') => process.stdout.write(`${text}\n`);
const { library, trust, env, decodeHost, decodePort } = options;
try {
  const desk = new Desk({ library, trust, env, decodeHost, decodePort, keys: loadKeys(options.keys).decode });
  await desk.open();
  const server = await new DeskServer(desk).start(options.port);
  const { host, port } = desk.phones;
  say('The desk is open. Go to');
  say();
  say(`  ${server.newAddress()}`);
  say();
  say(`This address is good once; Enter gives a new one. Decode server for phones: ${host}:${port}. Ctrl-C closes the desk.`);
  createInterface({ input: process.stdin }).on('line', () => say(`  ${server.newAddress()}`));
  const close = async () => {
    await Promise.all([desk.close(), server.stop()]);
    process.exit();
  };
  process.once('SIGINT', close).once('SIGTERM', close);
} catch (error) {
  fail(error.code === 'EADDRINUSE' ? `${error.address}:${error.port} is in use; choose another with --port or --decode-port.` : error.message);
}
