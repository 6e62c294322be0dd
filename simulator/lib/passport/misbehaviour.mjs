// What a chip can do otherwise in one answer than a good one does. A rule says when and what:
//
//   { on: 'READ DG2', nth: 3, do: 'shortData', count: 100 }
//
//   on, nth  as for the link (card-link.mjs), with the names of the chip's steps
//   do       a row of ACTIONS; `protected` says how a refusal is sent (default: in plain)
//
// A reply is { status, data, isProtected, counted, faults, ends }: `counted` is whether the chip's send sequence
// counter counts the answer, `faults` are those of `SecureChannel.seal`, `ends` ends the session.

import { fromHex, hex, u8 } from '../bytes.mjs';
import { DER } from './der.mjs';

const kNothing = Buffer.alloc(0);
const withFault = (reply, fault) => ({ ...reply, faults: { ...reply.faults, ...fault } });

/** `data` cut or, with filler behind it, stretched to `count` bytes. */
const ofLength = (data, count) =>
  Buffer.concat([data, Buffer.alloc(Math.max(0, count - data.length), 0x5a)]).subarray(0, count);

/** A status without data. A chip counts a refusal that it protects, and no other. */
const refusal = (reply, rule, status) => ({ ...reply, status, data: kNothing,
  isProtected: reply.channel !== undefined && rule.protected === true, counted: rule.counted ?? rule.protected === true });

/** 6700, or 6C and the number of bytes that would do. */
const wrongLe = (rule, le) => (rule.status === '6C' ? `6C${hex(u8(le))}` : '6700');

const ACTIONS = {
  statusWord: (reply, rule) => refusal(reply, rule, rule.status),
  warning: (reply, rule) => ({ ...reply, status: rule.status ?? '6281', counted: rule.counted ?? reply.counted }),
  mostLe: (reply, rule, le) => (le === undefined || reply.signature || (le !== 0 && le <= rule.le) ? reply : refusal(reply, rule, wrongLe(rule, rule.le))),
  exactLe: (reply, rule, le) => (le === rule.le ? reply : refusal(reply, rule, wrongLe(rule, rule.le))),
  loseSession: (reply, rule) => ({ ...reply, status: rule.status ?? '6988', data: kNothing, isProtected: false,
    counted: false, ends: true }),
  wrongMac: (reply) => (reply.isProtected ? withFault(reply, { wrongMac: true }) : reply),
  noMac: (reply) => withFault(reply, { noMac: true }),
  noStatusObject: (reply) => withFault(reply, { noStatusObject: true }),
  innerStatus: (reply, rule) => withFault(reply, { innerStatus: rule.status ?? '6A82' }),
  noData: (reply) => ({ ...reply, data: kNothing }),
  shortData: (reply, rule) => ({ ...reply, data: reply.data.subarray(0, rule.count) }),
  longData: (reply, rule) => ({ ...reply, data: ofLength(reply.data, rule.count) }),
  plainData: (reply, rule) => ({ ...reply, data: fromHex(rule.data) }),
  badPadding: (reply, rule) => withFault(reply, { tail: fromHex(rule.tail ?? '01') }),
  noObject: (reply) => withFault(reply, { bare: true }),
  cryptogram: (reply, rule) => withFault(reply, { sealed: fromHex(rule.data) }),
  lengthForm: (reply, rule) => withFault(reply, { form: rule.form ?? '82' }),
  skipCounter: (reply, rule) => withFault(reply, { skip: rule.by ?? 1 }),
  wrongRndIc: (reply) => reply, // both are done where the answer is made
  wrongRndIfd: (reply) => reply,
};

/** What `do` may be in a rule of the chip. */
export const CHIP_ACTIONS = Object.freeze(Object.keys(ACTIONS));

/** The data that a reader finds which drops zeros and one 80 from the end. */
function withoutPadding(padded) {
  const end = padded.findLastIndex((byte) => byte !== 0);
  return padded.subarray(0, end < 0 ? 0 : padded[end] === 0x80 ? end : end + 1);
}

/** Does a reader use the data of an answer with this status, once its MAC holds? (62xx: a warning; 61xx: more is there.) */
const bringsData = ({ status, signature }) => status === '9000' || (signature ? /^61/ : /^62/).test(status);

/**
 * Applies rules to a reply and puts the answer together.
 * @param {{status: string, data: Buffer, isProtected: boolean, refusedByReader?: boolean, odd?: boolean,
 *   signature?: boolean}} reply  the reader
 *   refuses an answer with wrong random numbers, whatever its status; `odd`: the instruction was; `signature`: the answer
 *   is that of INTERNAL AUTHENTICATE
 * @param {object[]} rules
 * @param {SecureChannel} [channel]  the session that the command came in, when it came protected
 * @param {number} [le]              the length that the command expects
 * @returns {{answer: Buffer, understood: Buffer|null, status: string, inStep: boolean, ends: boolean}} `understood` is the
 *   data that the reader gets, or null when it takes the answer for a failure; `inStep` is whether its counter agrees
 *   with the chip's afterwards: the reader counts an answer of 9000, and any other whose MAC holds
 */
export function misbehave(reply, rules, channel, le) {
  let made = { ...reply, channel, counted: reply.isProtected, faults: { odd: reply.odd }, ends: false };
  for (const rule of rules) made = ACTIONS[rule.do](made, rule, le);
  const { status, data, isProtected, faults } = made;
  const body = reply.odd && data.length > 0 && !faults.bare ? DER.tlv(0x53, data) : data;
  const end = { status, ends: made.ends };
  if (!isProtected) {
    if (channel && made.counted) channel.counter += 1n;
    const readerCounts = channel !== undefined && status === '9000';
    const understood = status === '9000' && !made.refusedByReader && !channel ? data : null;
    const inStep = !made.ends && (!channel || made.counted === readerCounts);
    return { ...end, answer: Buffer.concat([body, fromHex(status)]), understood, inStep };
  }
  const before = channel.counter;
  const answer = channel.seal(body, status, faults);
  if (!made.counted) channel.counter = before;
  const holds = !faults.wrongMac && !faults.noMac && !faults.skip;
  const seen = data.length > 0 || faults.tail ? withoutPadding(channel.padded(data, faults.tail)) : kNothing;
  const readable = holds && !faults.sealed && !faults.bare && bringsData(made) && (status === '9000' || data.length > 0);
  const readerCounts = status === '9000' || holds ? 1n : 0n;
  const chipCounts = BigInt.asUintN(64, channel.counter - before);
  return { ...end, answer, understood: readable ? seen : null, inStep: chipCounts === readerCounts };
}
