// What a chip can do wrong in one answer. A rule says when and what:
//
//   { on: 'READ DG2', nth: 3, do: 'shortData', count: 100 }
//
//   on, nth  as for the link (card-link.mjs), with the names of the chip's steps
//   do       a row of ACTIONS
//
// A reply is { status, data, isProtected, counted, faults, ends }: `counted` is whether the chip's send sequence
// counter counts the answer, `faults` are those of `SecureChannel.seal`, `ends` ends the session.

import { fromHex } from '../bytes.mjs';
import { pad } from './secure-messaging.mjs';

const kNothing = Buffer.alloc(0);
const withFault = (reply, fault) => ({ ...reply, faults: { ...reply.faults, ...fault } });

/** `data` cut or, with filler behind it, stretched to `count` bytes. */
const ofLength = (data, count) =>
  Buffer.concat([data, Buffer.alloc(Math.max(0, count - data.length), 0x5a)]).subarray(0, count);

const ACTIONS = {
  /** Another status without data. A protected one is counted by the chip alone: the reader looks no further. */
  statusWord: (reply, rule) => ({ ...reply, status: rule.status, data: kNothing,
    isProtected: reply.channel !== undefined && rule.protected === true,
    counted: rule.counted ?? rule.protected === true }),
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
  badPadding: (reply, rule) => withFault(reply, { padded: badlyPadded(reply.data, fromHex(rule.tail ?? '01')) }),
  lengthForm: (reply, rule) => withFault(reply, { form: rule.form ?? '82' }),
  skipCounter: (reply, rule) => withFault(reply, { skip: rule.by ?? 1 }),
  wrongRndIc: (reply) => reply, // both are done where the answer is made
  wrongRndIfd: (reply) => reply,
};

/** What `do` may be in a rule of the chip. */
export const CHIP_ACTIONS = Object.freeze(Object.keys(ACTIONS));

/** The data with `tail` and zeros up to a whole block, instead of 80 and zeros. */
function badlyPadded(data, tail) {
  const bytes = Buffer.concat([data, tail]);
  return Buffer.concat([bytes, Buffer.alloc((8 - (bytes.length % 8)) % 8)]);
}

/** The data that a reader finds which drops zeros and one 80 from the end. */
function withoutPadding(padded) {
  const end = padded.findLastIndex((byte) => byte !== 0);
  return padded.subarray(0, end < 0 ? 0 : padded[end] === 0x80 ? end : end + 1);
}

/**
 * Applies rules to a reply and puts the answer together.
 * @param {{status: string, data: Buffer, isProtected: boolean, refusedByReader?: boolean}} reply  the reader refuses
 *   an answer with wrong random numbers, whatever its status
 * @param {object[]} rules
 * @param {SecureChannel} [channel]  the session that the command came in, when it came protected
 * @returns {{answer: Buffer, understood: Buffer|null, inStep: boolean, ends: boolean}} `understood` is the data
 *   that the reader gets, or null when it takes the answer for a failure; `inStep` is whether its counter agrees
 *   with the chip's afterwards
 */
export function misbehave(reply, rules, channel) {
  let made = { ...reply, channel, counted: reply.isProtected, faults: {}, ends: false };
  for (const rule of rules) made = ACTIONS[rule.do](made, rule);
  const { status, data, isProtected, faults } = made;
  const success = status === '9000';
  const end = { ends: made.ends };
  if (!isProtected) {
    if (channel && made.counted) channel.counter += 1n;
    const inStep = !made.ends && (!channel || !made.counted);
    const understood = success && !made.refusedByReader && !channel ? data : null;
    return { ...end, answer: Buffer.concat([data, fromHex(status)]), understood, inStep };
  }
  const before = channel.counter;
  const answer = channel.seal(data, status, faults);
  if (!made.counted) channel.counter = before;
  const unreadable = faults.wrongMac || faults.noMac || faults.skip;
  const seen = withoutPadding(faults.padded ?? (data.length > 0 ? pad(data) : kNothing));
  const readerCounts = success && !faults.noMac ? 1n : 0n;
  const chipCounts = BigInt.asUintN(64, channel.counter - before);
  return { ...end, answer, understood: success && !unreadable ? seen : null, inStep: chipCounts === readerCounts };
}
