#!/usr/bin/env node
// Three whole reads, told as they happen: the library against a simulated identity card, two simulated passports and a
// simulated decode server; then a question to each of the two small services.

import { closeSync, mkdirSync, mkdtempSync, openSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join, relative } from 'node:path';
import { fileURLToPath } from 'node:url';
import { expectBuilt, fail, parseOptions } from '../lib/command-line.mjs';
import { DemoAccount } from '../lib/demo-account.mjs';
import { checkCard, checkPassport, perform, portraitIn } from '../lib/demo-read.mjs';
import { askServices, checkServices } from '../lib/demo-services.mjs';
import { IdentityCard } from '../lib/identity-card.mjs';
import { loadKeys } from '../lib/keys.mjs';
import { PASSPORT_PACE } from '../lib/passport/chip.mjs';
import { issuePassport } from '../lib/passport/specimen.mjs';
import { expectedPassport, packPassport } from '../lib/passport-persona.mjs';
import { DEFAULT_IDENTITY } from '../lib/persona.mjs';
import { DEFAULT_LIBRARY } from '../lib/reader.mjs';

const kCardSteps = 26; // of a good read: 19 card commands, and 6 or 7 server exchanges
const kMoreForPace = 7; // nine more, and neither GET CHALLENGE nor EXTERNAL AUTHENTICATE
const kQuestions = 2; // one for each service
const kRounds = 3;
const kPhone = { manufacturer: 'SPECIMEN', marketName: 'Specimen Phone 1' };
const kPassportSteps = 117; // 113 commands for the chip and 4 server exchanges

const options = parseOptions(`Usage: demo.mjs [options]

Reads a simulated resident identity card and two simulated passports, one with Basic Access Control and one with PACE
alone, through libtqreader.so, asks latency server and location server, and tells what happens.`, {
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
  portrait: {
    value: 'FILE', default: fileURLToPath(new URL('../../build/portrait.jpg', import.meta.url)),
    text: 'where the passport\'s portrait goes',
  },
  keep: { text: 'keep what the library itself writes (log lines and hex dumps)' },
});
const { library } = options;
expectBuilt(library);

const account = new DemoAccount();
const folder = mkdtempSync(join(tmpdir(), 'tqreader-demo-'));
process.on('exit', () => {
  if (!options.keep) rmSync(folder, { recursive: true, force: true });
});
for (const signal of ['SIGINT', 'SIGTERM']) process.once(signal, () => process.exit(1));
const output = join(folder, 'library.log');
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

/** Reads a passport of a kind, whose portrait goes to `portraitFile`. */
async function readPassport(title, kind, numSteps, portraitFile) {
  const passport = issuePassport({ persona: kind });
  const { perByte } = PASSPORT_PACE;
  const seen = await perform(account, {
    ...common, title, numSteps, teller: 'passport',
    server: { ...server, document: 'passport', passport: expectedPassport(passport) },
    reader: { ...reader, passport: packPassport(passport), cardDelay: options.cardDelay, perByte },
  });
  const portrait = portraitFile && portraitIn(seen);
  if (portrait) {
    mkdirSync(dirname(portraitFile), { recursive: true });
    writeFileSync(portraitFile, portrait);
    account.say(`\n  The portrait (${portrait.length} bytes) is in ${relative(process.cwd(), portraitFile)}`);
  }
  return conclude(seen, checkPassport(seen, passport, options.readMode), 'The holder of the passport (specimen data)');
}

async function askBoth() {
  account.begin(Date.now(), 'The two services', kQuestions);
  const { appid } = identity;
  const asked = await askServices({
    library, delay: options.serverDelay, keys: loadKeys(options.keys).location, output: file, latency: { rounds: kRounds },
    location: { ...kPhone, appid, environment: 268 },
  });
  const { delay, location } = asked.answers;
  account.service('getTimeDelay', delay, `${kRounds} rounds: ${delay.result} ms on average`);
  account.service('getDeviceNFCLocation', location, `${kPhone.marketName}: antenna at place ${location.result}`);
  const rows = checkServices(asked, kRounds, options.serverDelay);
  account.checks(rows);
  return rows.every(([, good]) => good);
}

account.introduction({ ...options, keys: relative(process.cwd(), options.keys) });
const goodParts = [];
const parts = [
  readCard,
  () => readPassport('The passport, step by step', 'usual', kPassportSteps, options.portrait),
  () => readPassport('A passport without Basic Access Control, step by step', 'paceAlone', kPassportSteps + kMoreForPace),
  askBoth,
];
for (const part of parts) goodParts.push(await part().catch((error) => fail(error.message)));
const good = goodParts.every(Boolean);
account.conclusion(good, good ? 'All is well.' : 'Something is wrong; see the checks above.');
closeSync(file);
const lines = readFileSync(output, 'utf8').split('\n').length - 1;
account.say(options.keep ? `  What the library itself wrote (${lines} lines of log and hex dumps) is in ${output}`
  : `  The library itself wrote ${lines} lines of log and hex dumps; with --keep they can be read afterwards.`);
account.say(`
  What else there is, each with --help:
     simulator/bin/read-card.mjs, read-passport.mjs   one read, with other documents, servers and misbehaviour
     simulator/bin/decode-server.mjs                  a decode server for an application of yours
     simulator/bin/ask-services.mjs                   the two small services
     ./run desk                                       a page where reads are started, watched and looked at
     ./run test, ./run check, ./run ohos              the tests; what is slower; the library for the phone`);
process.exitCode = good ? 0 : 1;
