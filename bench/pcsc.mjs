#!/usr/bin/env node
// How much longer a read takes over PC/SC: the same passport at the same pace, in a virtual reader and attached directly.
// Needs pcscd and vsmartcard-vpcd; ./run check desk installs them.

import { fileURLToPath } from 'node:url';
import { startReading } from '../desk/lib/reading.mjs';
import { ReaderWatch } from '../desk/lib/pcsc.mjs';
import { CardLink } from '../simulator/lib/card-link.mjs';
import { loadKeys } from '../simulator/lib/keys.mjs';
import { PASSPORT_PACE, PassportChip } from '../simulator/lib/passport/chip.mjs';
import { issuePassport } from '../simulator/lib/passport/specimen.mjs';
import { packPassport } from '../simulator/lib/passport-persona.mjs';
import { VirtualCard, startService } from '../tests/desk/virtual-reader.mjs';

const kRounds = Number(process.argv[2] ?? 5);
const pathOf = (name) => fileURLToPath(new URL(`../${name}`, import.meta.url));
const passport = issuePassport();
const { documentNumber, birthDate, expiryDate } = passport;
const printed = { documentNumber, birthDate, expiryDate };
const { decode: keys } = loadKeys(pathOf('keys/development_keys.h'));

async function read(options) {
  const { done } = startReading({ id: 1, kind: 'passport', source: 'simulated', title: '' },
    { library: pathOf('build/host/libtqreader.so'), keys, read: { printed, ...options }, server: { document: 'passport' } });
  const record = await done;
  if (record.state !== 'good') throw new Error(record.result.message);
  return record.ms;
}

const direct = () => read({ passport: packPassport(passport), pace: PASSPORT_PACE, rules: [] });

async function overReader(watch) {
  const link = new CardLink(new PassportChip(passport), PASSPORT_PACE);
  const card = new VirtualCard((command) => new Promise((resolve) => { link.transmit(command, undefined, ({ data }) => resolve(data)); }));
  card.insert();
  try {
    return await read({ reader: await watch.readerWithCard({ waitMs: 10000 }) });
  } finally {
    await card.remove();
    while (watch.readers.some(({ state }) => state !== 'empty')) await new Promise((resolve) => { setTimeout(resolve, 50); });
  }
}

const service = await startService();
const watch = new ReaderWatch();
const times = { direct: [], pcsc: [] };
for (let round = 0; round < kRounds; round += 1) {
  times.direct.push(await direct());
  times.pcsc.push(await overReader(watch));
}
await watch.close();
await service.stop();
const median = (list) => [...list].sort((a, b) => a - b)[Math.floor(list.length / 2)];
for (const [name, list] of Object.entries(times)) console.log(`${name.padEnd(8)} ${list.map((ms) => Math.round(ms)).join(' ')} ms`);
for (const [name, of] of [['medians', median], ['shortest', (list) => Math.min(...list)]]) { // on a busy machine the shortest tell more
  const [a, b] = [of(times.direct), of(times.pcsc)];
  console.log(`${name} of ${kRounds}: ${Math.round(a)} and ${Math.round(b)} ms, ${((b / a - 1) * 100).toFixed(1)} % more over PC/SC`);
}
process.exit();
