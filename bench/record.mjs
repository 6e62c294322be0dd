// Records one good read against the simulator, with an application clock that stands still so that every later read
// sends the same bytes. Usage: record.mjs LIBRARY FILE. The file has a line for each thing that a replay needs:
//
//   init NAME VALUE               an argument of initSdk; the value may be empty
//   time MILLISECONDS             the clock's only reading
//   server REQUEST RESPONSE       one exchange with the decode server, hex
//   card SERIAL COMMAND ANSWER    one exchange with the card, hex

import { writeFileSync } from 'node:fs';
import { DecodeServer } from '../simulator/lib/decode-server/server.mjs';
import { IdentityCard } from '../simulator/lib/identity-card.mjs';
import { loadKeys } from '../simulator/lib/keys.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../simulator/lib/persona.mjs';
import { Reader } from '../simulator/lib/reader.mjs';

const [library, file] = process.argv.slice(2);
const kTime = 1_700_000_000_000;

const card = new IdentityCard();
const server = new DecodeServer({
  keys: loadKeys(new URL('../keys/development_keys.h', import.meta.url).pathname).decode,
  envIdCode: DEFAULT_IDENTITY.envIdCode,
  persona: expectedPersona(DEFAULT_IDENTITY),
  card: card.secrets(),
});
const { host, port } = await server.start();
const reader = new Reader({ library, card, clock: () => kTime });
const result = await reader.read({ identity: { ip: host, port } });
await server.stop();

const faults = [...server.differences, ...card.differences, ...reader.differences];
if (result.code !== 0 || faults.length > 0) throw new Error(`no good read to record: ${result.code} ${faults.map(String)}`);

const lines = Object.entries(DEFAULT_IDENTITY).map(([name, value]) => `init ${name} ${value}`);
lines.push(`time ${kTime}`);
for (const { request, response } of server.exchanges) {
  lines.push(`server ${request.toString('hex')} ${response.toString('hex')}`);
}
for (const { serial, command, answer } of result.steps) lines.push(`card ${serial} ${command} ${answer}`);
writeFileSync(file, `${lines.join('\n')}\n`);
