#!/usr/bin/env node
// Reads a simulated identity card through libtqreader.so, against a given decode server or one of its own.

import { existsSync, openSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { coloursFor, dotted } from '../lib/account.mjs';
import { fail, parseOptions } from '../lib/command-line.mjs';
import { IdentityCard } from '../lib/identity-card.mjs';
import { loadKeys } from '../lib/keys.mjs';
import { DEFAULT_IDENTITY, SPECIMEN_PERSON } from '../lib/persona.mjs';
import { loadPersona, savePersona, serverConfigOf } from '../lib/persona-file.mjs';
import { startReaderProcess, startServerProcess } from '../lib/processes.mjs';
import { DEFAULT_LIBRARY } from '../lib/reader.mjs';

const kUsage = `Usage: read-card.mjs [options]

Reads a simulated resident identity card once and prints the result. Without --host the decode server is one of
its own that expects exactly this reader and this card. To use another: write a persona with --save-persona,
start decode-server.mjs with it, and read with the same --persona and the server's --host and --port.`;

/** Options that are arguments of initSdk, by the names the rest of the simulator uses. */
const kIdentity = {
  appid: { value: 'TEXT', text: 'application id, 20 letters or digits' },
  'decode-mode': { value: 'N', number: true, text: '0 or 1' },
  'read-mode': { value: 'N', number: true, text: '1: two files when they suffice; 2: always three' },
  'env-id-code': { value: 'CODE', number: true, text: '268, 52302 or 26814' },
  'file-path': { value: 'TEXT', text: 'passed on, not used' },
  'package-name': { value: 'TEXT', text: 'application\'s package name' },
  'ter-id': { value: 'N', number: true, text: 'terminal id' },
  'reqid-type': { value: 'N', number: true, text: 'request-id version, 0 or 1' },
  sn: { value: 'TEXT', text: 'device serial number' },
};

const options = parseOptions(kUsage, {
  host: { value: 'ADDRESS', text: 'decode server (initSdk\'s ip)' },
  port: { value: 'N', number: true, text: 'its port' },
  ...kIdentity,
  persona: { value: 'FILE', text: 'JSON file with identity, card and misbehaviour (see README.md)' },
  'save-persona': { value: 'FILE', text: 'write identity, a new card and person to FILE, and end' },
  'card-delay': { value: 'MS', default: '0', number: true, text: 'milliseconds that every card command takes' },
  'server-delay': {
    value: 'MS', default: '0', number: true, text: 'milliseconds before every answer of the own server',
  },
  timing: { text: 'have the own server ask for timing of the card' },
  timeout: { value: 'MS', default: '60000', number: true, text: 'how long to wait for the result' },
  library: { value: 'FILE', default: DEFAULT_LIBRARY, text: 'the library' },
  keys: {
    value: 'FILE', default: fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url)),
    text: 'key header that the library was built with (for the own server)',
  },
  log: { value: 'FILE', text: 'where the library\'s own output goes; - for the terminal (default: nowhere)' },
});
const camelCase = (name) => name.replace(/-(.)/g, (_, letter) => letter.toUpperCase());

function preparePersona() {
  const persona = options.persona === undefined ? {} : loadPersona(options.persona);
  const chosen = Object.keys(kIdentity).map(camelCase).filter((name) => options[name] !== undefined)
    .map((name) => [name, options[name]]);
  const identity = { ...DEFAULT_IDENTITY, ...persona.identity, ...Object.fromEntries(chosen) };
  const card = new IdentityCard(persona.card).secrets();
  return { ...persona, identity, card, person: persona.person ?? { ...SPECIMEN_PERSON } };
}

const colours = coloursFor(process.stdout);
const say = (text = '') => process.stdout.write(`${text}\n`);
let persona;
let keys;
try {
  persona = preparePersona();
  keys = loadKeys(options.keys).decode;
} catch (error) {
  fail(error.message);
}
if (options.savePersona !== undefined) {
  savePersona(options.savePersona, persona);
  say(`persona written to ${options.savePersona}`);
  process.exit(0);
}
if (!existsSync(options.library)) {
  fail(`there is no library at ${options.library}; build it first or name it with --library`);
}
if (options.host !== undefined && options.port === undefined) fail('--host needs --port');

let differences = 0;
const differ = (who) => ({ text }) => {
  differences += 1;
  say(colours.red(`DIFFERENCE found by the ${who}: ${text}`));
};

async function main() {
  let server = null;
  if (options.host === undefined) {
    const config = { ...serverConfigOf(persona), keys, delay: options.serverDelay || persona.delay };
    server = await startServerProcess({ ...config, timing: options.timing || persona.timing });
    server.on('difference', differ('decode server'));
    server.on('exchange', ({ command }) => say(colours.dim(`  server ${command}`)));
  }
  const address = { ip: options.host ?? server.host, port: options.port ?? server.port };
  const output = options.log === '-' ? 'inherit' : options.log === undefined ? 'ignore' : openSync(options.log, 'w');
  const reader = startReaderProcess({
    library: options.library, identity: { ...persona.identity, ...address }, card: persona.card,
    cardDelay: options.cardDelay, cardRules: persona.cardRules, timeoutMs: options.timeout,
  }, output);
  reader.on('card-difference', differ('card'));
  reader.on('reader-difference', differ('reader application'));
  reader.on('step', ({ name, ms }) => say(colours.dim(`  card   ${name} (${ms} ms)`)));
  try {
    return await reader.result;
  } finally {
    reader.release();
    await reader.exited;
    await server?.stop();
  }
}

function report({ code, flag, data, monitor, ms }) {
  say(code === 0 ? colours.green(`read in ${ms} ms`) : colours.red(`failed with code ${code}`));
  const info = data?.info;
  if (flag === 1 && info) for (const [name, value] of Object.entries(info)) say(dotted(name, value));
  else say(dotted('flag', flag)), say(dotted('data', JSON.stringify(data)));
  if (monitor) say(dotted('monitor record', monitor.raw));
}

try {
  const result = await main();
  report(result);
  process.exitCode = result.code === 0 && differences === 0 ? 0 : 1;
} catch (error) {
  say(colours.red(error.message));
  process.exitCode = 1;
}
