// The passport's own commands: 0x7201 opens a read and hands out its token; the reader hangs up, reads the chip, comes
// back and sends the files with 0x7202, in front of which the token stands.

import { FieldReader, fromHex, hex, u16 } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { readOpening } from './card-commands.mjs';
import { readTiming, resultReply } from './decode-commands.mjs';
import { parseSecret } from './frames.mjs';
import { checkWhole, expectedFiles, filesAsText, lastCoreFile, SLOTS } from './passport-files.mjs';
import { holderOf } from './passport-holder.mjs';
import { verifyPassport } from './passport-verification.mjs';

const kToken = 16;
const kChallenge = 8;
const kLongestAnswer = 300; // what a reader takes from the chip
const kPassportType = 2;

/** 0x7201: who asks, and in what mode. */
function readStart(session, request) {
  const r = new FieldReader(parseSecret(request, session.key).data, request.command);
  const opening = readOpening(session, r);
  r.done();
  return opening;
}

function replyStart(session) {
  const { token } = session.config;
  const given = token === undefined ? session.random(kToken) : fromHex(token);
  session.token = Buffer.concat([given, Buffer.alloc(kToken - given.length)]); // a shorter one is filled with zeros
  return { key: session.key, code: 0x7201, header: session.header, sealed: given };
}

/** A two-byte length and as many bytes; both must be as expected, when something is. */
function takeBlock(r, what, wanted) {
  const length = r.expectIfKnown(`length of ${what}`, wanted && u16(wanted.length), 2).readUInt16BE();
  return Buffer.from(r.expectIfKnown(what, wanted, length));
}

/** 0x7202: the files, the answer to INTERNAL AUTHENTICATE and its challenge, EF.COM, and the two times. */
function readFiles(session, request) {
  const outer = new FieldReader(request.payload, request.command);
  outer.expect('token', session.token);
  const inner = { ...request, payload: outer.take('encrypted payload', outer.left) };
  const r = new FieldReader(parseSecret(inner, session.key).data, request.command);
  const { readMode, config: { passport } } = session;
  const expected = expectedFiles(passport, readMode);
  const files = Object.fromEntries(SLOTS.map((name) => [name, takeBlock(r, name, expected(name))]));
  const answer = takeBlock(r, 'the answer to INTERNAL AUTHENTICATE');
  const challenge = Buffer.from(r.take('challenge of INTERNAL AUTHENTICATE', kChallenge));
  files['EF.COM'] = takeBlock(r, 'EF.COM', expected('EF.COM'));
  const { cardTime, fileTime } = readTiming(session, r);
  r.done();
  for (const [name, file] of Object.entries(files)) checkWhole(name, file, r.at);

  const asked = checkActive(session, { files, answer, challenge }, r.at);
  const verification = verifyPassport({ files, challenge, answer }, passport?.authority);
  checkVerdict(passport, verification, r.at);
  session.received = { files, readMode, answered: !asked || answer.length > 0 };
  return {
    files: filesAsText(files), answer: hex(answer), challenge: hex(challenge), cardTime, fileTime, verification,
    info: { ...holderOf(files), verification }, received: { files, challenge, answer },
  };
}

/** Do the answer and the challenge of INTERNAL AUTHENTICATE go together, and with the files? True when it was sent. */
function checkActive(session, { files, answer, challenge }, at) {
  const what = 'challenge of INTERNAL AUTHENTICATE';
  const core = lastCoreFile(session.readMode);
  const asked = challenge.some((byte) => byte !== 0);
  if (answer.length > kLongestAnswer) {
    throw new Difference(at, 'length of the answer to INTERNAL AUTHENTICATE', `at most ${kLongestAnswer}`, answer.length);
  }
  if (!asked && answer.length > 0) throw new Difference(at, what, 'one, since there is an answer', 'zero');
  if (!asked && files.DG15.length > 0 && files[core].length > 0) {
    throw new Difference(at, what, `one, since DG15 and ${core} were read`, 'zero');
  }
  if (asked && files[core].length === 0) {
    throw new Difference(at, what, `eight zero bytes without ${core}`, hex(challenge));
  }
  return asked;
}

/** A passport that is known to be genuine has to come through the reader as one. */
function checkVerdict(passport, verification, at) {
  for (const [what, wanted] of Object.entries(passport?.verification ?? {})) {
    if (verification[what] !== wanted) throw new Difference(at, `verdict of ${what}`, wanted, verification[what]);
  }
}

function replyFiles(session, { info }) {
  return resultReply(session, 0x7202, { idType: kPassportType, info });
}

export const PASSPORT_COMMANDS = {
  '0x7201': { read: readStart, reply: replyStart },
  '0x7202': { read: readFiles, reply: replyFiles },
};
