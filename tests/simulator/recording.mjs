// Good reads of the library, recorded: what card or chip and decode server were sent, to be sent to others that hold the
// same secrets and draw the same random numbers, as it was or with something changed.

import assert from 'node:assert/strict';
import { fork } from 'node:child_process';
import { createHash } from 'node:crypto';
import { once } from 'node:events';
import { fileURLToPath } from 'node:url';
import { fromHex, hex } from '../../simulator/lib/bytes.mjs';
import { completeConfig } from '../../simulator/lib/decode-server/config.mjs';
import { Session } from '../../simulator/lib/decode-server/session.mjs';
import { unpackPassport } from '../../simulator/lib/passport-persona.mjs';
import { DEFAULT_LIBRARY } from '../../simulator/lib/reader.mjs';
import { CardLink, DEFAULT_IDENTITY, DecodeServer, IdentityCard, PassportChip, Reader, expectedPassport, expectedPersona, loadKeys } from '../../simulator/index.mjs';
import '../authorities.mjs';

const kKeys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).decode;
const bytesOf = (size) => hex(Buffer.from(Array.from({ length: size }, (_, i) => (i * 7 + size) & 0xff)));
const kCard = { managementData: bytesOf(32), file6011: bytesOf(214), file6012: bytesOf(256), file6013: bytesOf(1024) };

/** The same random numbers each time. */
function sameRandom() {
  let drawn = 0;
  return (count) => createHash('shake256', { outputLength: count }).update(String(drawn += 1)).digest();
}

/** What takes part in a read; `passport` in its plain form. */
function participants({ passport, readMode }) {
  const identity = { ...DEFAULT_IDENTITY, readMode };
  const document = passport && unpackPassport(passport);
  const config = { keys: kKeys, persona: expectedPersona(identity), document: passport ? 'passport' : 'identityCard',
    ...(passport ? { passport: expectedPassport(document) } : { card: kCard }) };
  return { identity, document, serverConfig: () => ({ ...config, random: sameRandom() }),
    layCard: () => (passport ? new PassportChip(document, { readMode, rndIc: '0011223344556677', kIc: '5A'.repeat(16) })
      : new IdentityCard({ ...kCard, random: sameRandom() })) };
}

/** One good read. `slow`: each look at the clock takes this long. */
async function record({ slow = 0, ...setting }) {
  let now = 1_700_000_000_000;
  const { identity, document, serverConfig, layCard } = participants(setting);
  const server = new DecodeServer(serverConfig());
  const { host, port } = await server.start();
  const card = layCard();
  const reader = new Reader({ library: process.env.TQREADER_LIBRARY ?? DEFAULT_LIBRARY, link: new CardLink(card), clock: () => (now += slow) });
  const commands = [];
  reader.on('command', ({ command, serial }) => commands.push({ command, serial }));
  const { code } = await reader.read({ identity: { ...identity, ip: host, port }, passport: document });
  await server.stop();
  const requests = server.exchanges.map(({ request, connection }) => ({ request: hex(request), connection }));
  return { code, differences: [...server.differences, ...card.differences, ...reader.differences].map(String), commands, requests };
}

if (process.argv[2] === 'record') {
  process.once('message', async (settings) => {
    for (const setting of settings) process.send(await record(setting));
    process.disconnect();
  });
}

/** Records reads in a process of its own, since the library writes to the standard output. */
export async function recordReads(settings) {
  const child = fork(fileURLToPath(import.meta.url), ['record'], { stdio: ['ignore', 'ignore', 'ignore', 'ipc'] });
  child.send(settings);
  const reads = [];
  child.on('message', (read) => reads.push(read));
  await once(child, 'close');
  return reads.map(({ code, differences, commands, requests }, i) => {
    assert.deepEqual([code, differences], [0, []]);
    const { layCard, serverConfig } = participants(settings[i]);
    return { layCard, openSession: () => new Session(completeConfig(serverConfig())),
      commands: commands.map(({ command, serial }) => ({ command: fromHex(command), serial })),
      requests: requests.map(({ request, connection }) => ({ request: fromHex(request), connection })) };
  });
}

/** What a card has to say against some commands. */
export function saidOfCommands({ layCard }, commands) {
  const card = layCard();
  for (const { command, serial } of commands) card.respond(command, serial);
  return card.differences.map(({ message }) => message);
}

/** What a server has to say against some requests; undefined when it answers them all. */
export function saidOfRequests({ openSession }, requests, session = openSession()) {
  let last = requests[0]?.connection;
  for (const { request, connection } of requests) {
    try {
      if (connection !== last) session.left(), session.resume('another connection');
      last = connection;
      const { command } = session.handle(request);
      session.answered(command, Buffer.alloc(3), false);
    } catch (error) {
      if (error.name !== 'Difference') throw error;
      return error.message;
    }
  }
  return undefined;
}
