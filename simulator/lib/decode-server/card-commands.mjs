// Card authentication, commands 0x5001, 0x5012, 0x5022 and 0x5032: the reader relays the card's answers, the
// server answers with what the card is to be sent next.

import { FieldReader, fromHex, hex } from '../bytes.mjs';
import { cardProof, serverProof } from '../card-authentication.mjs';
import { Difference } from '../difference.mjs';
import { checkHostRandom, readDeviceId } from './authentication.mjs';
import { HEADER, parseSecret } from './frames.mjs';

const kGetChallenge = fromHex('0084000008');
const kSuccess = '9000';

function secretReply(session, code, secretCode, data) {
  return { key: session.key, code, header: HEADER.identityCard, secret: { code: secretCode, data } };
}

/** How the first command after server authentication begins, for either document: who asks, and in what mode. */
export function readOpening(session, r) {
  const { persona } = session;
  const random = r.take('random bytes', 4);
  checkHostRandom(session, 'random bytes', random);
  const sn = readDeviceId(persona, r);
  const modes = readNibbles(r, 'byte A', {
    low: ['decodeMode', persona.decodeMode, 1],
    high: ['readMode', persona.readMode === undefined ? undefined : Number(persona.readMode === 1), 1],
  });
  const query = persona.queryInfo ?? [];
  const flags = readNibbles(r, 'byte B', {
    low: ['first query-info parameter', query[0], 2],
    high: ['frame flag', persona.frameFlag, 1],
  });
  const rest = readNibbles(r, 'byte C', {
    low: ['third query-info parameter', query[2], 1],
    high: ['second query-info parameter', query[1], 1],
  });
  session.readMode = modes.high;
  session.decodeMode = modes.low;
  return {
    random: hex(random), sn, decodeMode: modes.low, readMode: modes.high, frameFlag: flags.high,
    queryInfo: [flags.low, rest.high, rest.low],
  };
}

/** A byte of two four-bit fields, each given as [name, expected value or undefined, largest value]. */
function readNibbles(r, what, { low, high }) {
  const byte = r.u8(what);
  const wanted = [high, low].map(([, value]) => (value ?? '?').toString(16)).join('');
  const fits = (value, [, expected, largest]) => value <= largest && (expected === undefined || value === expected);
  if (!fits(byte & 0x0f, low) || !fits(byte >> 4, high)) {
    const shown = byte.toString(16).toUpperCase().padStart(2, '0');
    throw new Difference(r.at, `${what} (${high[0]}, ${low[0]})`, `0x${wanted}`, `0x${shown}`);
  }
  return { low: byte & 0x0f, high: byte >> 4 };
}

/** 0x5001: the opening and the card's management data. */
function readFirst(session, request) {
  const r = new FieldReader(parseSecret(request, session.key).data, request.command);
  const opening = readOpening(session, r);
  r.expect('byte before the card bytes', '20');
  const managementData = r.expectIfKnown('management data', session.config.card.managementData, 32);
  r.done();
  session.managementData = Buffer.from(managementData);
  return { ...opening, managementData: hex(managementData) };
}

/** The server's challenge; the reader makes it an INTERNAL AUTHENTICATE for the card. */
function replyFirst(session) {
  session.serverChallenge = session.random(8);
  return secretReply(session, 0x5001, 0x5001, session.serverChallenge);
}

/** 0x5012: the card's proof. */
function readProof(session, request) {
  const r = new FieldReader(parseSecret(request, session.key).data, request.command);
  if (r.left !== 10 && r.left !== 20) throw new Difference(r.at, 'length of the data', '10 or 20', r.left);
  const proof = expectProof(session, r, session.config.card.proofLength ?? r.left - 2);
  r.expect('end of the card bytes', kSuccess);
  r.done();
  return { proof: hex(proof) };
}

function expectProof(session, r, length) {
  return r.expect('card\'s proof', cardProof(session.cardKey, session.managementData, session.serverChallenge, length));
}

function replyProof(session) {
  return secretReply(session, 0x5012, 0x5012, kGetChallenge);
}

/** 0x5022: the card's challenge. */
function readChallenge(session, request) {
  const r = new FieldReader(parseSecret(request, session.key).data, request.command);
  return takeChallenge(session, r);
}

/** 0x5032: the first eight bytes of the card's proof and its challenge, both at once. */
function readBoth(session, request) {
  const r = new FieldReader(parseSecret(request, session.key).data, request.command);
  const proof = expectProof(session, r, 8);
  r.expect('end of the card\'s proof', kSuccess);
  return { proof: hex(proof), ...takeChallenge(session, r) };
}

function takeChallenge(session, r) {
  session.cardChallenge = Buffer.from(r.take('card\'s challenge', 8));
  r.expect('end of the card bytes', kSuccess);
  r.done();
  return { challenge: hex(session.cardChallenge) };
}

/** The server's proof; the reader makes it an EXTERNAL AUTHENTICATE for the card. */
function replyChallenge(code) {
  return (session) =>
    secretReply(session, code, 0x5022, serverProof(session.cardKey, session.serverChallenge, session.cardChallenge));
}

export const CARD_COMMANDS = {
  '0x5001': { read: readFirst, reply: replyFirst },
  '0x5012': { read: readProof, reply: replyProof },
  '0x5022': { read: readChallenge, reply: replyChallenge(0x5022) },
  '0x5032': { read: readBoth, reply: replyChallenge(0x5032) },
};
