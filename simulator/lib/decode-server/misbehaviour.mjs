// What a decode server can do wrong, on purpose. A rule says when and what:
//
//   { on: '0x5001', do: 'malformed', kind: 'checksum' }
//
//   on          '0x5001' (a command), 3 (the fourth request of a connection), 'any', or 'connect'
//   nth         only the nth time that the rule's `on` matches since the rules were set (1 is the first)
//   connection  only on the nth connection since the server started
//   do          a row of ACTIONS (for 'connect': delay, close, reset or silence)
//
// Several rules may meet in one answer; they are applied in their order.

import { commandName, fromHex, u16 } from '../bytes.mjs';
import { frameLength } from './frames.mjs';

const kReaderPatience = 4999; // ms; a reader gives up on an answer after this
const kLargestField = 0xffff;
const kTokenTooLong = '17'.repeat(17);

const fixed = (field, value) => (fields) => ({ ...fields, [field]: value });
const drop = (bytes, count) => bytes.subarray(0, Math.max(0, bytes.length - count));
const withLastByte = (bytes, value) => Buffer.concat([drop(bytes, 1), Buffer.of(value)]);

function flipBit(bytes, bit) {
  const flipped = Buffer.from(bytes);
  const index = Math.floor(bit / 8) % flipped.length;
  flipped[index] ^= 0x80 >> bit % 8;
  return flipped;
}

const otherSum = (bytes) => withLastByte(bytes, (bytes.at(-1) + 1) & 0xff);

/** Moves a checksum in the middle of a secret frame or at the end of a block: worked out, then one too high. */
function secretSum(fields) {
  const body = [u16(fields.data.length + 10), u16(fields.code), fields.data].flatMap((part) => [...part]);
  return { ...fields, checksum: body.reduce((sum, byte) => sum + byte, 1) & 0xff };
}

function blockSum(fields) {
  const length = 38 + fields.businessId.length;
  const body = [...u16(length), ...fields.key, fields.unused, fields.businessId.length, ...fields.businessId,
    ...fields.stickCardId, fields.flags];
  return { ...fields, checksum: body.reduce((sum, byte) => sum + byte, 1) & 0xff };
}

/**
 * Malformed answers: the stage of the answer that is changed, and how. Everything that is built after the
 * changed field, lengths and checksums above all, fits it again, so that one thing is wrong and no other.
 */
export const MALFORMED = {
  // the command frame
  headerByte: { stage: 'frame', change: (f, rule) => ({ ...f, header: rule.byte ?? 0x71 }) },
  lengthShort: { stage: 'frame', change: (f) => ({ ...f, length: frameLength(f) - 1 }) },
  lengthLong: { stage: 'frame', change: (f) => ({ ...f, length: frameLength(f) + 1 }) },
  lengthHuge: { stage: 'frame', change: fixed('length', kLargestField) },
  commandCode: { stage: 'frame', change: (f, rule) => ({ ...f, code: rule.code ?? f.code ^ 0x0001 }) },
  errorCommand: {
    stage: 'frame',
    change: (f, rule) => ({ ...f, code: 0xffff, status: fromHex(rule.status ?? '000000') }),
  },
  parameterSmall: { stage: 'frame', change: (f, rule) => ({ ...f, parameter: rule.parameter ?? 7 }) },
  opaqueAll: { stage: 'frame', change: (f) => ({ ...f, parameter: 8 + f.payload.length }) },
  opaquePast: { stage: 'frame', change: fixed('parameter', kLargestField) },
  typeByte: { stage: 'frame', change: (f, rule) => ({ ...f, type: rule.byte ?? 0xab }) },
  checksum: { stage: 'wire', change: otherSum },
  emptyPayload: { stage: 'payload', change: () => Buffer.alloc(0) },
  payload: { stage: 'payload', change: (_payload, rule) => fromHex(rule.bytes) },
  // the secret command frame
  secretStart: { stage: 'secret', change: fixed('start', fromHex('FFFFFE')) },
  secretLength: { stage: 'secret', change: (f, rule) => ({ ...f, length: rule.length ?? f.data.length + 11 }) },
  secretCommand: { stage: 'secret', change: (f, rule) => ({ ...f, code: rule.code ?? f.code ^ 0x0001 }) },
  secretChecksum: { stage: 'secret', change: secretSum },
  secretEnd: { stage: 'secret', change: fixed('end', fromHex('FEFD')) },
  secretEmpty: { stage: 'secret', change: fixed('data', Buffer.alloc(0)) },
  secretData: { stage: 'secret', change: (f, rule) => ({ ...f, data: fromHex(rule.bytes) }) },
  // the token of the 0x7201 answer
  token: { stage: 'sealed', change: (_token, rule) => fromHex(rule.bytes ?? kTokenTooLong) },
  // padding and encryption
  notBlockMultiple: { stage: 'payload', change: (payload, rule) => drop(payload, rule.bytes ?? 1) },
  badPadding: { stage: 'padded', change: (padded, rule) => withLastByte(padded, rule.byte ?? 0xff) },
  // the server-authentication block
  blockLength: { stage: 'block', change: (f) => ({ ...f, length: 39 + f.businessId.length }) },
  blockShort: { stage: 'padded', change: () => Buffer.concat([u16(15), Buffer.alloc(13), Buffer.of(1)]) },
  businessIdPastEnd: { stage: 'block', change: (f, rule) => ({ ...f, businessIdLength: rule.length ?? 0xff }) },
  blockChecksum: { stage: 'block', change: blockSum },
  // the decoded data
  flagByte: { stage: 'flagged', change: (f, rule) => ({ ...f, flag: rule.byte ?? 3 }) },
  unknownTag: {
    stage: 'flagged',
    change: (f, rule) => {
      const tag = Buffer.of(rule.tag ?? 3, 1, 0);
      return { ...f, data: Buffer.concat(rule.front ? [tag, f.data] : [f.data, tag]) };
    },
  },
  tagLengthPastEnd: {
    stage: 'flagged',
    change: (f, rule) => ({ ...f, data: Buffer.concat([f.data, fromHex(rule.tail ?? '0102FFFF7B')]) }),
  },
  // the finished frame
  cut: { stage: 'wire', change: (wire, rule) => wire.subarray(0, rule.at) },
  flip: { stage: 'wire', change: (wire, rule) => flipBit(wire, rule.bit) },
  replace: { stage: 'wire', change: (_wire, rule) => fromHex(rule.bytes) },
};

const always = () => true;
const never = () => false;

/**
 * Everything a rule can `do`. A row may change the reply before it is built (`reply`), say how its bytes are
 * delivered (`deliver`, see connection.mjs), and tells whether the reader still gets a good answer in time
 * (`spoils`).
 */
export const ACTIONS = {
  status: {
    spoils: never,
    reply: ({ code, header, type }, rule) => ({ code, header, type, status: fromHex(rule.status) }),
  },
  malformed: { spoils: always },
  delay: { spoils: (rule) => rule.ms >= kReaderPatience, deliver: (rule) => ({ delay: rule.ms }) },
  pieces: {
    spoils: never,
    deliver: (rule) => ({ pieces: { size: rule.size ?? 7, everyMs: rule.everyMs ?? 2 } }),
  },
  trickle: { spoils: always, deliver: (rule) => ({ pieces: { size: 1, everyMs: rule.everyMs ?? 200 } }) },
  extra: { spoils: always, deliver: (rule) => ({ extra: fromHex(rule.bytes ?? '00') }) },
  silence: { spoils: always, deliver: () => ({ silent: true }) },
  hangup: { spoils: always, deliver: () => ({ then: 'close' }) },
  close: { spoils: always, deliver: () => ({ silent: true, then: 'close' }) },
  reset: { spoils: always, deliver: () => ({ silent: true, then: 'reset' }) },
};

/** A server's rules, with the count of how often each has matched. */
export class Misbehaviour {
  #rules;

  constructor(rules = []) {
    this.#rules = rules.map((rule) => ({ rule: checkRule(rule), matched: 0 }));
  }

  /** The rules for an event: 'connect', or the `index`th request of a connection with its command. */
  matching(event, { index, connection }) {
    return this.#rules.filter((entry) => {
      const { on } = entry.rule;
      const hit = on === event || (event !== 'connect' && (on === 'any' || on === index));
      if (!hit || (entry.rule.connection ?? connection) !== connection) return false;
      entry.matched += 1;
      return (entry.rule.nth ?? entry.matched) === entry.matched;
    }).map(({ rule }) => rule);
  }
}

function checkRule(rule) {
  if (!ACTIONS[rule.do]) {
    throw new TypeError(`no such action: ${JSON.stringify(rule)}; there are ${Object.keys(ACTIONS).join(', ')}`);
  }
  if (rule.do === 'malformed' && !MALFORMED[rule.kind]) {
    throw new TypeError(`no such kind: ${JSON.stringify(rule)}; there are ${Object.keys(MALFORMED).join(', ')}`);
  }
  const on = typeof rule.on === 'number' && rule.on > 100 ? commandName(rule.on) : rule.on;
  if (rule.do === 'status' && !/^[0-9a-fA-F]{6}$/.test(rule.status ?? '')) {
    throw new TypeError(`a status is six hexadecimal digits: ${JSON.stringify(rule)}`);
  }
  return { ...rule, on };
}

/** What some rules make of one answer: the reply to build, the changes of its stages, and its delivery. */
export function applyRules(rules, reply) {
  const plan = { reply, spoiled: false, delivery: { delay: 0 } };
  for (const rule of rules) {
    const action = ACTIONS[rule.do];
    if (action.reply) plan.reply = action.reply(plan.reply, rule);
    if (action.deliver) {
      const { delay = 0, ...rest } = action.deliver(rule);
      plan.delivery = { ...plan.delivery, ...rest, delay: plan.delivery.delay + delay };
    }
    plan.spoiled ||= action.spoils(rule);
  }
  const malformed = rules.filter((rule) => rule.do === 'malformed');
  plan.change = (stage, value) => malformed.filter((rule) => MALFORMED[rule.kind].stage === stage)
    .reduce((changed, rule) => MALFORMED[rule.kind].change(changed, rule), value);
  return plan;
}
