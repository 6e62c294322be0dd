#!/usr/bin/env node
// Reads a simulated passport through libtqreader.so, against a given decode server or one of its own.

import { dotted } from '../lib/account.mjs';
import { parseOptions } from '../lib/command-line.mjs';
import { FileTally } from '../lib/file-tally.mjs';
import { PASSPORT_PACE } from '../lib/passport/chip.mjs';
import { PERSONAS } from '../lib/passport/specimen.mjs';
import { packPassport, unpackPassport } from '../lib/passport-persona.mjs';
import { colours, readingOptions, runReadingProgram, say } from '../lib/reading-program.mjs';

const kUsage = `Usage: read-passport.mjs [options]

Reads a simulated passport once and prints the result. Without --host the decode server is one of its own that
expects exactly this reader and this passport. To use another: write a persona with --save-persona, start
decode-server.mjs with it, and read with the same --persona and the server's --host and --port.

Kinds of passports:
  ${Object.keys(PERSONAS).join(', ').replace(/(.{60,}?), /g, '$1,\n  ')}`;

const options = parseOptions(kUsage, readingOptions({
  kind: { value: 'NAME', text: 'kind of passport (default: the persona\'s, or usual)' },
  number: { value: 'TEXT', text: 'document number that the application gives (default: the passport\'s)' },
  birth: { value: 'YYMMDD', text: 'date of birth that it gives' },
  expiry: { value: 'YYMMDD', text: 'date of expiry that it gives' },
  'real-pace': { text: 'have the chip take its time, as a real one does' },
}));

const note = (text) => say(colours.dim(`  ${text}`));
const tally = new FileTally(
  ({ name, ms }) => note(`chip   ${name} (${ms} ms)`),
  ({ name, bytes, commands, ms, status }) => note(`file   ${name} (${bytes} bytes, ${commands} commands, ${ms} ms, ${status})`),
);
const teller = {
  server: ({ command }) => {
    tally.flush();
    note(`server ${command}`);
  },
  step: (step) => tally.step(step),
  person: ({ verification, ...info }) => {
    for (const [name, value] of Object.entries(info)) say(dotted(name, value));
    for (const [name, value] of Object.entries(verification ?? {})) {
      say(dotted(name, typeof value === 'string' ? value : JSON.stringify(value), 24));
    }
  },
};

await runReadingProgram(options, (persona) => {
  const given = options.kind === undefined ? persona.passport : { persona: options.kind };
  const passport = packPassport(unpackPassport(given));
  const { number, birth, expiry } = options;
  const claimed = {
    documentNumber: number ?? passport.documentNumber, birthDate: birth ?? passport.birthDate,
    expiryDate: expiry ?? passport.expiryDate,
  };
  const settings = { passport, claimed, perByte: options.realPace ? PASSPORT_PACE.perByte : 0 };
  if (options.realPace && options.cardDelay === 0) options.cardDelay = PASSPORT_PACE.delay;
  return { persona: { ...persona, passport }, kind: 'passport', settings, teller };
});
