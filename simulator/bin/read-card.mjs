#!/usr/bin/env node
// Reads a simulated identity card through libtqreader.so, against a given decode server or one of its own.

import { dotted } from '../lib/account.mjs';
import { parseOptions } from '../lib/command-line.mjs';
import { IdentityCard } from '../lib/identity-card.mjs';
import { SPECIMEN_PERSON } from '../lib/persona.mjs';
import { colours, readingOptions, runReadingProgram, say } from '../lib/reading-program.mjs';

const kUsage = `Usage: read-card.mjs [options]

Reads a simulated resident identity card once and prints the result. Without --host the decode server is one of
its own that expects exactly this reader and this card. To use another: write a persona with --save-persona,
start decode-server.mjs with it, and read with the same --persona and the server's --host and --port.`;

const teller = {
  server: ({ command }) => say(colours.dim(`  server ${command}`)),
  step: ({ name, ms }) => say(colours.dim(`  card   ${name} (${ms} ms)`)),
  person: (info) => Object.entries(info).forEach(([name, value]) => say(dotted(name, value))),
};

await runReadingProgram(parseOptions(kUsage, readingOptions()), (persona) => {
  const card = new IdentityCard(persona.card).secrets();
  const person = persona.person ?? { ...SPECIMEN_PERSON };
  return { persona: { ...persona, card, person }, kind: 'identityCard', settings: { card }, teller };
});
