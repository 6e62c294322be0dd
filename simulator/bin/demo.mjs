#!/usr/bin/env node
// One whole read, told as it happens: the library against a simulated card and a simulated decode server.

import { closeSync, existsSync, mkdtempSync, openSync, readFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, relative } from 'node:path';
import { fileURLToPath } from 'node:url';
import { isDeepStrictEqual } from 'node:util';
import { fail, parseOptions } from '../lib/command-line.mjs';
import { DemoAccount } from '../lib/demo-account.mjs';
import { IdentityCard } from '../lib/identity-card.mjs';
import { loadKeys } from '../lib/keys.mjs';
import { DEFAULT_IDENTITY, expectedPersona, SPECIMEN_PERSON } from '../lib/persona.mjs';
import { startReaderProcess, startServerProcess } from '../lib/processes.mjs';
import { DEFAULT_LIBRARY } from '../lib/reader.mjs';

const kTimeout = 30000;
const kTimeToEnd = 5000;

const options = parseOptions(`Usage: demo.mjs [options]

Reads a simulated resident identity card through libtqreader.so and tells what happens.`, {
  library: { value: 'FILE', default: DEFAULT_LIBRARY, text: 'the library' },
  keys: {
    value: 'FILE', default: fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url)),
    text: 'key header that the library was built with',
  },
  'card-delay': { value: 'MS', default: '8', number: true, text: 'milliseconds that every card command takes' },
  'server-delay': { value: 'MS', default: '40', number: true, text: 'milliseconds before every answer of the server' },
  'read-mode': { value: 'N', default: '2', number: true, text: '1: two files when they suffice; 2: always three' },
  output: { value: 'FILE', text: 'where the library\'s own output goes (default: a new temporary file)' },
});
if (!existsSync(options.library)) {
  fail(`There is no library at ${options.library}. Build it first, or name it with --library.`);
}

const account = new DemoAccount();
const output = options.output ?? join(mkdtempSync(join(tmpdir(), 'tqreader-demo-')), 'library.log');

/** Everything that the two processes report, with the account told as it comes. */
async function perform(card, identity) {
  const seen = { exchanges: [], serverMonitors: [], differences: { server: [], card: [], reader: [] } };
  const server = await startServerProcess({
    keys: loadKeys(options.keys).decode, persona: expectedPersona(identity), card: card.secrets(),
    timing: true, delay: options.serverDelay, envIdCode: identity.envIdCode,
  });
  server.on('exchange', (exchange) => {
    seen.exchanges.push(exchange);
    account.server(exchange);
  });
  server.on('monitor', (monitor) => seen.serverMonitors.push(monitor));
  server.on('difference', (difference) => seen.differences.server.push(difference));

  const file = openSync(output, 'w');
  const reader = startReaderProcess({
    library: options.library, identity: { ...identity, ip: server.host, port: server.port }, card: card.secrets(),
    cardDelay: options.cardDelay, timeoutMs: kTimeout,
  }, file);
  closeSync(file);
  reader.on('started', ({ at }) => account.begin(at));
  reader.on('step', (step) => account.card(step));
  reader.on('card-difference', (difference) => seen.differences.card.push(difference));
  reader.on('reader-difference', (difference) => seen.differences.reader.push(difference));
  seen.result = await reader.result.catch((error) => ({ failure: error.message }));
  seen.ending = await endOf(reader);
  await server.stop();
  return seen;
}

/** Lets the reader process go; it has to end by itself. */
async function endOf(reader) {
  reader.release();
  let timer;
  const tooLong = new Promise((resolve) => {
    timer = setTimeout(resolve, kTimeToEnd, { stuck: true });
  });
  const ending = await Promise.race([reader.exited, tooLong]);
  clearTimeout(timer);
  if (ending.stuck) reader.kill();
  return ending;
}

/** Rows of [what, good, detail] for the account. */
function check({ result, ending, differences, serverMonitors, exchanges }) {
  const found = (list) => (list.length === 0 ? 'none' : list.map(({ text }) => text).join('; '));
  const info = result.data?.info;
  const reported = serverMonitors.length === 1 && serverMonitors[0].raw === result.monitor?.raw;
  const endText = ending.stuck ? `still running after ${kTimeToEnd} ms`
    : ending.signal ? `killed by ${ending.signal}` : `exit code ${ending.code}`;
  const took = (command) => exchanges.some((exchange) => exchange.command === command);
  const path = took('0x5032') ? ' (fast path)' : took('0x5012') ? ' (slow path)' : '';
  const outcome = result.failure ?? (result.ms ? `${result.code}, after ${result.ms} ms${path}` : result.code);
  const samePerson = isDeepStrictEqual(info, { ...SPECIMEN_PERSON });
  const both = reported ? 'the same text' : `${serverMonitors.length} at the server`;
  return [
    ['result code', result.code === 0, outcome],
    ['decoded person is the one on the card', samePerson, samePerson ? 'the same' : JSON.stringify(info) ?? 'none'],
    ['monitor record reached application and server', reported, both],
    ['differences found by the decode server', differences.server.length === 0, found(differences.server)],
    ['differences found by the card', differences.card.length === 0, found(differences.card)],
    ['differences found by the application', differences.reader.length === 0, found(differences.reader)],
    ['reader process ended by itself', !ending.stuck && ending.code === 0, endText],
  ];
}

const identity = { ...DEFAULT_IDENTITY, readMode: options.readMode };
account.introduction({ ...options, keys: relative(process.cwd(), options.keys) });
const seen = await perform(new IdentityCard(), identity).catch((error) => fail(error.message));
if (seen.result.data?.info) account.person(seen.result.data.info);
if (seen.result.monitor?.record) account.monitor(seen.result.monitor.record);
const rows = check(seen);
account.checks(rows);
const good = rows.every(([, ok]) => ok);
const lines = readFileSync(output, 'utf8').split('\n').length - 1;
account.conclusion(good, good ? 'All is well.' : 'Something is wrong; see the checks above.');
account.say(`  What the library itself wrote (log lines and hex dumps, ${lines} lines): ${output}`);
process.exitCode = good ? 0 : 1;
