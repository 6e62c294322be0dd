#!/usr/bin/env node
// Two whole reads, told as they happen: the library against a simulated identity card, a simulated passport and a
// simulated decode server; then a question to each of the two small services.

import { closeSync, existsSync, mkdtempSync, openSync, readFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, relative } from 'node:path';
import { fileURLToPath } from 'node:url';
import { fail, parseOptions } from '../lib/command-line.mjs';
import { DemoAccount } from '../lib/demo-account.mjs';
import { checkCard, checkPassport, perform } from '../lib/demo-read.mjs';
import { askServices } from '../lib/demo-services.mjs';
import { IdentityCard } from '../lib/identity-card.mjs';
import { loadKeys } from '../lib/keys.mjs';
import { PASSPORT_PACE } from '../lib/passport/chip.mjs';
import { issuePassport } from '../lib/passport/specimen.mjs';
import { expectedPassport, packPassport } from '../lib/passport-persona.mjs';
import { DEFAULT_IDENTITY } from '../lib/persona.mjs';
import { DEFAULT_LIBRARY } from '../lib/reader.mjs';

const kCardSteps = 26; // of a good read: 19 card commands, and 6 or 7 server exchanges
const kQuestions = 2; // one for each service
const kPassportSteps = 117; // 113 commands for the chip and 4 server exchanges

const options = parseOptions(`Usage: demo.mjs [options]

Reads a simulated resident identity card and a simulated passport through libtqreader.so, asks latency server and
location server, and tells what happens.`, {
  library: { value: 'FILE', default: DEFAULT_LIBRARY, text: 'the library' },
  keys: {
    value: 'FILE', default: fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url)),
    text: 'key header that the library was built with',
  },
  'card-delay': { value: 'MS', default: '8', number: true, text: 'milliseconds that every card command takes' },
  'server-delay': { value: 'MS', default: '40', number: true, text: 'milliseconds before every answer of the server' },
  'read-mode': {
    value: 'N', default: '2', number: true,
    text: '1: two files of the card when they suffice, no portrait; 2: always all',
  },
  output: { value: 'FILE', text: 'where the library\'s own output goes (default: a new temporary file)' },
});
const { library } = options;
if (!existsSync(library)) {
  fail(`There is no library at ${library}. Build it first, or name it with --library.`);
}

const account = new DemoAccount();
const output = options.output ?? join(mkdtempSync(join(tmpdir(), 'tqreader-demo-')), 'library.log');
const file = openSync(output, 'w');
const identity = { ...DEFAULT_IDENTITY, readMode: options.readMode };
const common = { identity, output: file };
const server = { keys: loadKeys(options.keys).decode, delay: options.serverDelay };
const reader = { library };

/** Tells what came of a read. */
function conclude(seen, rows, personTitle) {
  const { data, monitor } = seen.result;
  if (data?.info) account.person(personTitle, data.info);
  if (data?.info?.verification) account.verification(data.info.verification);
  if (monitor?.record) account.monitor(monitor.record);
  account.checks(rows);
  return rows.every(([, good]) => good);
}

async function readCard() {
  const card = new IdentityCard().secrets();
  const seen = await perform(account, {
    ...common, title: 'The identity card, step by step', numSteps: kCardSteps, teller: 'card',
    server: { ...server, document: 'identityCard', card }, reader: { ...reader, card, cardDelay: options.cardDelay },
  });
  return conclude(seen, checkCard(seen), 'The decoded person (specimen data)');
}

async function readPassport() {
  const passport = issuePassport();
  const { perByte } = PASSPORT_PACE;
  const seen = await perform(account, {
    ...common, title: 'The passport, step by step', numSteps: kPassportSteps, teller: 'passport',
    server: { ...server, document: 'passport', passport: expectedPassport(passport) },
    reader: { ...reader, passport: packPassport(passport), cardDelay: options.cardDelay, perByte },
  });
  return conclude(seen, checkPassport(seen, passport, options.readMode), 'The holder of the passport (specimen data)');
}

async function askBoth() {
  account.begin(Date.now(), 'The two services', kQuestions);
  const { serverDelay } = options;
  const rows = await askServices(account, {
    library, identity, serverDelay, keys: loadKeys(options.keys).location, output: file,
  });
  account.checks(rows);
  return rows.every(([, good]) => good);
}

account.introduction({ ...options, keys: relative(process.cwd(), options.keys) });
const goodParts = [];
for (const part of [readCard, readPassport, askBoth]) goodParts.push(await part().catch((error) => fail(error.message)));
const good = goodParts.every(Boolean);
account.conclusion(good, good ? 'All is well.' : 'Something is wrong; see the checks above.');
closeSync(file);
const lines = readFileSync(output, 'utf8').split('\n').length - 1;
account.say(`  What the library itself wrote (log lines and hex dumps, ${lines} lines): ${output}`);
process.exitCode = good ? 0 : 1;
