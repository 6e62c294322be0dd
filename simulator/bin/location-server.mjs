#!/usr/bin/env node
// Runs the simulated location server alone, for an application under test.

import { fileURLToPath } from 'node:url';
import { coloursFor, fieldLines } from '../lib/account.mjs';
import { clockText } from '../lib/clock.mjs';
import { fail, parseOptions } from '../lib/command-line.mjs';
import { loadKeys } from '../lib/keys.mjs';
import { LocationServer } from '../lib/location-server.mjs';

const options = parseOptions(`Usage: location-server.mjs [options]

A location server for an application under test: HTTPS with a certificate of its own making. It checks every byte of
every request and prints one line per request and every difference that it finds.`, {
  host: { value: 'ADDRESS', default: '127.0.0.1', text: 'address to listen on; 0.0.0.0 for a phone in the same network' },
  port: { value: 'N', default: '0', number: true, text: 'port to listen on; 0: any free one' },
  keys: {
    value: 'FILE', default: fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url)),
    text: 'key header that the library was built with',
  },
  env: { value: 'CODE', default: '268', number: true, text: 'environment code: 268, 52302 or 26814' },
  location: { value: 'N', default: '3', number: true, text: 'the answer, 0 to 255' },
  status: { value: 'DIGITS', text: 'answer with this failure status, six hexadecimal digits' },
  delay: { value: 'MS', default: '0', number: true, text: 'milliseconds before every answer' },
  verbose: { text: 'print requests and responses as they are, and what the requests say, by name' },
});

const colours = coloursFor(process.stdout);
const say = (text) => process.stdout.write(`${text}\n`);
const shown = (text) => (text ?? '(none)').trimEnd().replace(/^/gm, '    ');

function configure() {
  try {
    const { host, port, keys, env: envIdCode, location, status, delay } = options;
    const rules = status === undefined ? [] : [{ on: 'request', do: 'status', status }];
    return new LocationServer({ host, port, keys: loadKeys(keys).location, envIdCode, location, delay, rules });
  } catch (error) {
    return fail(error.message);
  }
}

const server = configure();
server.on('exchange', ({ connection, cipher, fields, request, response, rules, receivedAt, answeredAt }) => {
  const { appid, manufacturer, model } = fields;
  const told = [`appid ${appid}`, `maker ${manufacturer}`, `model ${model}`, ...rules.map((rule) => colours.yellow(rule))];
  const took = answeredAt === null ? 'no answer' : `${answeredAt - receivedAt} ms`;
  say(`${clockText(receivedAt)}  #${connection}  ${colours.bold('9300')}  ${told.join(', ')}  (${cipher}, ${took})`);
  if (options.verbose) say(`${shown(request)}\n${fieldLines(fields).join('\n')}\n${shown(response)}`);
});
server.on('difference', ({ message, connection }) => {
  say(colours.red(`          DIFFERENCE  #${connection}  ${message}`));
});

const { host, port } = await server.start().catch((error) => fail(error.message));
say(`location server on ${host}:${port}, environment ${options.env}`);

for (const signal of ['SIGINT', 'SIGTERM']) {
  process.once(signal, async () => {
    await server.stop();
    say(`${server.exchanges.length} requests, ${server.differences.length} differences`);
    process.exit(server.differences.length === 0 ? 0 : 1);
  });
}
