#!/usr/bin/env node
// Runs the simulated decode server alone, for an application under test.

import { fileURLToPath } from 'node:url';
import { coloursFor, dump, fieldLines, printable, SERVER_STEPS } from '../lib/account.mjs';
import { clockText, now } from '../lib/clock.mjs';
import { codeInWords } from '../lib/codes.mjs';
import { fail, parseOptions } from '../lib/command-line.mjs';
import { DecodeServer } from '../lib/decode-server/server.mjs';
import { loadKeys } from '../lib/keys.mjs';
import { checkRules, loadPersona, serverConfigOf } from '../lib/persona-file.mjs';

const kUsage = `Usage: decode-server.mjs [options]

A decode server for an application under test: it speaks the whole protocol, checks every byte of every request
and prints one line per exchange and every difference that it finds. Without --persona it does not know who is
going to read which card: it then checks the structure of what it gets and takes the values as they come.`;

const options = parseOptions(kUsage, {
  host: {
    value: 'ADDRESS', default: '127.0.0.1', text: 'address to listen on; 0.0.0.0 for a phone in the same network',
  },
  port: { value: 'N', default: '0', number: true, text: 'port to listen on; 0: any free one' },
  keys: {
    value: 'FILE', default: fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url)),
    text: 'key header that the library was built with',
  },
  env: { value: 'CODE', number: true, text: 'environment code: 268, 52302 or 26814 (default: the persona\'s, or 268)' },
  persona: { value: 'FILE', text: 'JSON file: expected identity, card, passport, person, misbehaviour (see README.md)' },
  timing: { text: 'ask the reader to time the card' },
  delay: { value: 'MS', number: true, text: 'milliseconds before every answer' },
  verbose: { text: 'print requests and answers in hexadecimal, and what the requests say, by name' },
});

function configure() {
  try {
    const persona = options.persona === undefined ? {} : loadPersona(options.persona);
    checkRules(persona);
    const { host, port } = options;
    const config = { ...serverConfigOf(persona), host, port, keys: loadKeys(options.keys).decode };
    if (options.env !== undefined) config.envIdCode = options.env;
    if (options.timing) config.timing = true;
    if (options.delay !== undefined) config.delay = options.delay;
    return new DecodeServer(config);
  } catch (error) {
    return fail(error.message);
  }
}

const colours = coloursFor(process.stdout);
const say = (text) => process.stdout.write(`${text}\n`);

/** What a line says beyond the command: the values that tell reads apart. */
function summary({ command, fields, response, rules }) {
  const told = [];
  if (command === '0x7500' && fields) {
    told.push(`appid ${printable(fields.appid)}`, `sn ${printable(fields.sn) || '(none)'}`, `terId ${fields.terId}`);
  }
  if (fields?.record) told.push(`result_code ${codeInWords(fields.record.result_code)}`);
  if (rules.length > 0) told.push(colours.yellow(`misbehaving: ${rules.join(', ')}`));
  if (response === null) told.push('no answer');
  return told.length > 0 ? `; ${told.join(', ')}` : '';
}

const server = configure();
server.on('connection', ({ connection, state, remote, rules = [], monitored, awaited }) => {
  const closed = monitored ? 'closed' : awaited ? 'closed; the reader should be back' : 'closed without a monitor record';
  const ending = state === 'open' ? `from ${remote}` : closed;
  say(colours.dim(`${clockText(now())}  #${connection}  ${ending}`));
  if (rules.length > 0) say(colours.yellow(`              #${connection}  misbehaving: ${rules.join(', ')}`));
});
server.on('exchange', (exchange) => {
  const { command, connection, request, response, receivedAt, answeredAt, fields } = exchange;
  const times = answeredAt === null ? '' : `, ${Math.round(answeredAt - receivedAt)} ms`;
  const sizes = `${request.length} bytes in, ${response?.length ?? 0} out${times}`;
  say(`${clockText(now())}  #${connection}  ${colours.bold(command)}  ${SERVER_STEPS[command] ?? 'unknown command'}` +
    `  (${sizes})${summary(exchange)}`);
  if (options.verbose) {
    say(`    request\n${dump(request)}`);
    if (fields) say(`    it says\n${fieldLines(fields).join('\n')}`);
    say(`    answer\n${dump(response ?? [])}`);
  }
  if (fields?.verification) {
    const { passiveAuthentication, activeAuthentication, signer } = fields.verification;
    say(`              #${connection}  passive authentication ${passiveAuthentication}, active authentication ${activeAuthentication}; ${signer}`);
  }
});
server.on('difference', ({ message, connection }) => {
  say(colours.red(`          DIFFERENCE  #${connection}  ${printable(message)}`));
});

const { host, port } = await server.start().catch((error) => fail(error.message));
say(`decode server on ${host}:${port}, environment ${server.config.envIdCode}`);
if (options.persona === undefined) {
  say('no persona: any appid, serial number, terminal id, card and passport will do; only the structure is checked');
}

for (const signal of ['SIGINT', 'SIGTERM']) {
  process.once(signal, async () => {
    await server.stop();
    say(`${server.exchanges.length} exchanges, ${server.differences.length} differences`);
    process.exit(server.differences.length === 0 ? 0 : 1);
  });
}
