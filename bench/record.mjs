// Records one good read against the simulator, with an application clock that stands still so that every later read
// sends the same bytes. Usage: record.mjs LIBRARY FILE [passport]. The file has a line for each thing that a replay
// needs:
//
//   init NAME VALUE               an argument of initSdk; the value may be empty
//   time MILLISECONDS             the clock's only reading
//   server REQUEST RESPONSE       one exchange with the decode server, hex
//   card SERIAL COMMAND ANSWER    one exchange with the card, hex
//
// The nonces of a passport read cannot be repeated, so there stand the passport's own values instead of a card's:
//
//   mrz NUMBER BIRTH EXPIRY       what the application gives
//   file ID CONTENT               an elementary file, hex; EF.COM, EF.SOD and DG1, DG2 (18,000 bytes), DG11, DG14, DG15
//   passport JSON                 all of it, as the simulator's chip takes it, in Base64

import { writeFileSync } from 'node:fs';
import { DecodeServer } from '../simulator/lib/decode-server/server.mjs';
import { IdentityCard } from '../simulator/lib/identity-card.mjs';
import { loadKeys } from '../simulator/lib/keys.mjs';
import { PassportChip } from '../simulator/lib/passport/chip.mjs';
import { FILE_ID } from '../simulator/lib/passport/lds.mjs';
import { issuePassport } from '../simulator/lib/passport/specimen.mjs';
import { expectedPassport, packPassport } from '../simulator/lib/passport-persona.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../simulator/lib/persona.mjs';
import { Reader } from '../simulator/lib/reader.mjs';

const [library, file, kind] = process.argv.slice(2);
const kTime = 1_700_000_000_000;
const kPortraitFile = 18000;

function issueWithPortrait(size) {
  const around = issuePassport({ portraitSize: size }).files.get(FILE_ID.DG2).length - size;
  const passport = issuePassport({ portraitSize: size - around });
  if (passport.files.get(FILE_ID.DG2).length !== size) throw new Error('the portrait has not the size that was asked for');
  return passport;
}

const passport = kind === 'passport' ? issueWithPortrait(kPortraitFile) : undefined;
const card = passport ? new PassportChip(passport, { readMode: 2 }) : new IdentityCard();
const server = new DecodeServer({
  keys: loadKeys(new URL('../keys/development_keys.h', import.meta.url).pathname).decode,
  envIdCode: DEFAULT_IDENTITY.envIdCode,
  persona: expectedPersona(DEFAULT_IDENTITY),
  ...(passport ? { document: 'passport', passport: expectedPassport(passport) } : { card: card.secrets() }),
});
const { host, port } = await server.start();
const reader = new Reader({ library, card, clock: () => kTime });
const result = await reader.read({ identity: { ip: host, port }, passport });
await server.stop();

const faults = [...server.differences, ...card.differences, ...reader.differences];
if (result.code !== 0 || faults.length > 0) throw new Error(`no good read to record: ${result.code} ${faults.map(String)}`);

const lines = Object.entries(DEFAULT_IDENTITY).map(([name, value]) => `init ${name} ${value}`);
lines.push(`time ${kTime}`);
for (const { request, response } of server.exchanges) {
  lines.push(`server ${request.toString('hex')} ${response.toString('hex')}`);
}
if (passport) {
  lines.push(`mrz ${passport.documentNumber} ${passport.birthDate} ${passport.expiryDate}`);
  for (const [id, content] of passport.files) lines.push(`file ${id.toString(16)} ${content.toString('hex')}`);
  lines.push(`passport ${Buffer.from(JSON.stringify(packPassport(passport))).toString('base64')}`);
} else {
  for (const { serial, command, answer } of result.steps) lines.push(`card ${serial} ${command} ${answer}`);
}
writeFileSync(file, `${lines.join('\n')}\n`);
