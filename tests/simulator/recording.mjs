// Good reads of the library, recorded: what card or chip and decode server were sent, to be sent to others that hold the
// same secrets and draw the same random numbers, as it was or with something changed.

import assert from 'node:assert/strict';
import { fileURLToPath } from 'node:url';
import { fromHex } from '../../simulator/lib/bytes.mjs';
import { completeConfig } from '../../simulator/lib/decode-server/config.mjs';
import { Session } from '../../simulator/lib/decode-server/session.mjs';
import { unpackPassport } from '../../simulator/lib/passport-persona.mjs';
import { DEFAULT_IDENTITY, IdentityCard, PassportChip, expectedPassport, expectedPersona, loadKeys } from '../../simulator/index.mjs';
import { alone } from '../e2e/support.mjs';

const kKeys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).decode;
const random = 'the same';

/** Records a read: of a passport by options of the rig, or of a card; `slow` milliseconds for each exchange with the server. */
export async function recordRead({ passport, readMode = 1, slow = 0 }) {
  const chipSettings = { readMode, rndIc: '0011223344556677', kIc: '5A'.repeat(16) };
  const identity = { readMode };
  const { code, differences, commands, requests, secrets, passport: issued } = await alone('recorded', { identity, passport, chip: chipSettings,
    secrets: { random }, server: { random }, tick: { server: slow } });
  assert.deepEqual([code, differences], [0, []]);
  const document = issued && unpackPassport(issued);
  const config = completeConfig({ keys: kKeys, persona: expectedPersona({ ...DEFAULT_IDENTITY, ...identity }), random,
    ...(document ? { document: 'passport', passport: expectedPassport(document) } : { document: 'identityCard', card: secrets }) });
  return { document, config, openSession: () => new Session(config),
    layCard: () => (document ? new PassportChip(document, chipSettings) : new IdentityCard({ ...secrets, random })),
    commands: commands.map(({ command, serial }) => ({ command: fromHex(command), serial })),
    requests: requests.map(({ request, connection }) => ({ request: fromHex(request), connection })) };
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
      session.answered(session.handle(request).command, Buffer.alloc(3), false);
    } catch (error) {
      if (error.name !== 'Difference') throw error;
      return error.message;
    }
  }
  return undefined;
}
