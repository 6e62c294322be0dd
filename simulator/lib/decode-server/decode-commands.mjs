// Decode commands 0x6002, 0x6102 and 0x6113: the card's files come in, the decoded person goes out.

import { commandName, FieldReader, fromHex, u8 } from '../bytes.mjs';
import { Difference } from '../difference.mjs';
import { HEADER, parseSecret } from './frames.mjs';

const kResultType = 0x99;
const kTail = Buffer.alloc(64, 0xff);
const kTimingSlack = 50; // ms; host and server read different clocks

/** The files of the first decode exchange, for 0x6002 alone and for 0x6102 with its tail. */
function takeFiles(session, r) {
  const { card } = session.config;
  r.expect('management data', session.managementData);
  r.expect('marker of file 6011', '6011');
  const file6011 = r.expectIfKnown('file 6011', card.file6011, 214);
  r.expect('marker of file 6012', '6012');
  const file6012 = r.expectIfKnown('file 6012', card.file6012, 256);
  return { file6011: file6011.toString('hex'), file6012: file6012.toString('hex') };
}

/**
 * Average answer time of the card and time spent on its files, in milliseconds; both 0 without timing. Neither can be
 * longer than the read has taken, by the host's clock when its readings are known.
 */
export function readTiming(session, r) {
  const timing = { cardTime: r.u16('card answer time'), fileTime: r.u16('file reading time') };
  const times = session.config.hostTimes?.();
  const span = times ? Math.max(...times) - Math.min(...times) : session.age() + kTimingSlack;
  const most = session.config.timing ? span : 0;
  for (const [what, value] of [['card answer time', timing.cardTime], ['file reading time', timing.fileTime]]) {
    if (value > most) throw new Difference(r.at, what, `at most ${most} ms`, `${value} ms`);
  }
  return timing;
}

function readShort(session, request) {
  const r = new FieldReader(parseSecret(request, session.key).data, request.command);
  const files = takeFiles(session, r);
  r.done();
  return files;
}

function readFull(session, request) {
  const { data, trailing } = parseSecret(request, session.key, 4);
  const r = new FieldReader(data, request.command);
  const files = takeFiles(session, r);
  r.expect('bytes behind the files', kTail);
  r.done();
  return { ...files, ...readTiming(session, new FieldReader(trailing, request.command)) };
}

function readLast(session, request) {
  const { data, trailing } = parseSecret(request, session.key, 4);
  const r = new FieldReader(data, request.command);
  const file6013 = r.expectIfKnown('file 6013', session.config.card.file6013, 1024);
  r.expect('bytes behind the file', kTail);
  r.done();
  return { file6013: file6013.toString('hex'), ...readTiming(session, new FieldReader(trailing, request.command)) };
}

/**
 * One tag of the decoded data:
 *   { idType: 1 }             document type number
 *   { info: object or text }  the person, as JSON text; `lengthBytes` (default 2) sizes its length field
 *   { backCardId: "12AB" }    the back-card id, hexadecimal
 *   { raw: "..." }            any bytes, hexadecimal
 */
function encodeTag(tag) {
  if (tag.idType !== undefined) return Buffer.of(0, 1, tag.idType);
  if (tag.backCardId !== undefined) {
    const id = fromHex(tag.backCardId);
    return Buffer.concat([Buffer.of(2), u8(id.length), id]);
  }
  if (tag.info !== undefined) {
    const text = Buffer.from(typeof tag.info === 'string' ? tag.info : JSON.stringify(tag.info), 'utf8');
    const size = tag.lengthBytes ?? 2;
    const length = Buffer.alloc(size);
    for (let i = size - 1, rest = text.length; i >= 0; i -= 1, rest = Math.floor(rest / 256)) length[i] = rest % 256;
    return Buffer.concat([Buffer.of(1), u8(size), length, text]);
  }
  return fromHex(tag.raw);
}

/**
 * The content of a result answer: { flag: 1, tags: [...] }, or { flag, data } with hexadecimal `data`.
 * Without either, a document of type `idType` with this `info` is sent.
 */
function encodeResult(answer, { idType, info }) {
  const { flag = 1, tags, data } = answer ?? {};
  if (data !== undefined) return { flag, data: fromHex(data) };
  if (flag !== 1) return { flag, data: Buffer.alloc(0) };
  return { flag, data: Buffer.concat((tags ?? [{ idType }, { info }]).map(encodeTag)) };
}

function replyShort(session) {
  const data = fromHex(session.config.answers['0x6002']?.data ?? '9000');
  return { key: session.key, code: 0x6002, header: HEADER.identityCard, secret: { code: 0x6002, data } };
}

/** The answer with a result: what is configured for this command, or else the `decoded` document. */
export function resultReply(session, code, decoded) {
  const answer = session.config.answers[commandName(code)];
  const reply = { key: session.key, code, header: session.header, type: kResultType };
  if (answer?.status !== undefined) return { ...reply, status: fromHex(answer.status) };
  return { ...reply, flagged: encodeResult(answer, decoded) };
}

const replyPerson = (code) => (session) => resultReply(session, code, { idType: 1, info: session.config.person });

export const DECODE_COMMANDS = {
  '0x6002': { read: readShort, reply: replyShort },
  '0x6102': { read: readFull, reply: replyPerson(0x6102) },
  '0x6113': { read: readLast, reply: replyPerson(0x6113) },
};
