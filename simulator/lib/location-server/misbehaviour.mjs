// What a location server can do wrong, on purpose. A rule says when and what:
//
//   { on: 'request', do: 'malformed', kind: 'noEnd' }
//
//   on   'connect' (before the TLS handshake) or 'request'
//   nth  only the nth time that the rule's `on` matches since the rules were set (1 is the first)
//   do   a row of ACTIONS
//
// Several rules may meet in one answer; they are applied in their order.

import { pad } from '../crypto.mjs';
import { chunk, chunked } from './answer.mjs';

const without = (name) => (members) => members.filter(([member]) => member !== name);
const renamed = (from, to) => (members) => members.map(([name, value]) => [name === from ? to : name, value]);
const set = (field, standard) => (fields, rule) => ({ ...fields, [field]: rule.value ?? standard });
const withoutChunks = (json) => `HTTP/1.1 200 OK\r\nContent-Length: ${json.length}\r\n\r\n${json}`;

/** Malformed answers: the stage of the answer that is changed, and how. What is built later fits the change. */
export const MALFORMED = {
  // the frame
  header: { stage: 'frame', change: set('header', 0x92) },
  frameLength: { stage: 'frame', change: set('length', 29) },
  command: { stage: 'frame', change: set('command', 0x9301) },
  parameterSmall: { stage: 'frame', change: set('parameter', 7) },
  typeByte: { stage: 'frame', change: set('type', 0xab) },
  checksum: { stage: 'frame', change: (fields) => ({ ...fields, checksum: 0x5a }) },
  emptyPayload: { stage: 'frame', change: (fields) => ({ ...fields, payload: Buffer.alloc(0) }) },
  payloadLength: { stage: 'frame', change: (fields, rule) => ({ ...fields, payload: Buffer.alloc(rule.value ?? 32) }) },
  plainChecksum: { stage: 'plain', change: (plain) => Buffer.of(plain[0], plain[1] ^ 0x01) },
  nothingInside: { stage: 'padded', change: () => pad(Buffer.alloc(0)) },
  badPadding: { stage: 'padded', change: (padded, rule) => Buffer.concat([padded.subarray(0, 15), Buffer.of(rule.value ?? 17)]) },
  // the JSON text
  noData: { stage: 'members', change: without('data') },
  noSessionId: { stage: 'members', change: without('sessionId') },
  otherName: { stage: 'members', change: renamed('data', 'Data') },
  emptyData: { stage: 'members', change: (members) => members.map(([name, value]) => [name, name === 'data' ? '' : value]) },
  blankBeforeValue: { stage: 'json', change: (json) => json.replace('"data":', '"data": ') },
  numberForData: { stage: 'json', change: (json) => json.replace(/"data":"[^"]*"/, '"data":1') },
  noBraces: { stage: 'json', change: (json) => json.slice(1, -1) },
  notJson: { stage: 'json', change: (_json, rule) => rule.text ?? 'Internal error' },
  blankBehind: { stage: 'json', change: (json) => `${json} ` },
  longBody: { stage: 'json', change: (json, rule) => json.replace('{', `{"padding":"${'x'.repeat(rule.value ?? 2000)}",`) },
  // the chunks
  noChunks: { stage: 'response', change: (_response, _rule, json) => withoutChunks(json) },
  noEnd: { stage: 'chunks', change: (_chunks, _rule, json) => chunk(json) },
  noLineEnd: { stage: 'chunks', change: (_chunks, _rule, json) => `${chunk(json, { end: '' })}0\r\n\r\n` },
  sizeTooSmall: { stage: 'chunks', change: (_chunks, _rule, json) => `${chunk(json, { size: json.length - 1 })}0\r\n\r\n` },
  sizeTooLarge: { stage: 'chunks', change: (_chunks, _rule, json) => `${chunk(json, { size: json.length + 1 })}0\r\n\r\n` },
  sizeHuge: { stage: 'chunks', change: (_chunks, _rule, json) => `${chunk(json, { size: 0xffffffff })}0\r\n\r\n` },
  sizeLineEndless: { stage: 'chunks', change: (_chunks, _rule, json) => chunked(json, { extension: `;${'x'.repeat(9000)}` }) },
  endInside: { stage: 'chunks', change: (_chunks, _rule, json) => chunked(`${json.slice(0, -1)},"more":"0\r\n\r\n"}`) },
  // the head
  headEndsWithZero: { stage: 'head', change: (head) => head.replace('\r\n\r\n', '\r\nX-Count: 10\r\n\r\n') },
  // everything
  empty: { stage: 'response', change: () => '' },
  onlyNul: { stage: 'response', change: () => '\0' },
  cut: { stage: 'response', change: (response, rule) => response.slice(0, rule.at ?? response.length - 1) },
  oversize: { stage: 'response', change: (response) => `${'H'.repeat(80000)}${response}` },
};

/** What a rule does: `reply` changes what is answered, `deliver` how it is sent, `then` what comes after it. */
export const ACTIONS = {
  status: { reply: (reply, rule) => ({ ...reply, status: rule.status }) },
  location: { reply: (reply, rule) => ({ ...reply, location: rule.location }) },
  sessionId: { reply: (reply, rule) => ({ ...reply, sessionId: rule.text }) },
  chunks: { reply: (reply, { size, upperCase, prefix, extension }) =>
    ({ ...reply, chunks: { ...reply.chunks, size, upperCase, prefix, extension } }) },
  malformed: { deliver: () => ({ then: 'close' }) }, // the reader may wait for more
  delay: { deliver: (rule) => ({ delay: rule.ms }) },
  pieces: { deliver: (rule) => ({ pieces: { size: rule.size ?? 1, everyMs: rule.everyMs ?? 0 } }) },
  endless: { deliver: (rule) => ({ endless: { everyMs: rule.everyMs ?? 100 } }) },
  extra: { deliver: (rule) => ({ extra: rule.text ?? 'more' }) },
  silence: { deliver: () => ({ silent: true }) },
  hangup: { deliver: () => ({ then: 'hangup' }) },
  close: { deliver: () => ({ silent: true, then: 'close' }) },
  reset: { deliver: () => ({ silent: true, then: 'reset' }) },
  plainText: {},
};
const kOnConnect = ['delay', 'silence', 'close', 'reset', 'plainText'];

/** A list of rules that counts what has matched. */
export class Misbehaviour {
  #entries;

  constructor(rules) {
    this.#entries = rules.map((rule) => {
      if (!ACTIONS[rule.do] || !['connect', 'request'].includes(rule.on) ||
          (rule.on === 'connect' ? !kOnConnect.includes(rule.do) : rule.do === 'plainText')) {
        throw new TypeError(`no such rule: ${JSON.stringify(rule)}`);
      }
      if (rule.do === 'status' && !/^[0-9A-Fa-f]{6}$/.test(rule.status)) throw new TypeError(`no such status: ${JSON.stringify(rule)}`);
      if (rule.do === 'malformed' && !MALFORMED[rule.kind]) throw new TypeError(`no such kind: ${JSON.stringify(rule)}`);
      return { rule, matched: 0 };
    });
  }

  matching(event) {
    return this.#entries.filter((entry) => {
      if (entry.rule.on !== event) return false;
      entry.matched += 1;
      return (entry.rule.nth ?? entry.matched) === entry.matched;
    }).map(({ rule }) => rule);
  }
}

/** What some rules make of one answer: the reply to build, the changes of its stages, and its delivery. */
export function applyRules(rules, reply) {
  const plan = { reply, delivery: { delay: 0 } };
  for (const rule of rules) {
    const { reply: changed, deliver } = ACTIONS[rule.do];
    if (changed) plan.reply = changed(plan.reply, rule);
    if (!deliver) continue;
    const { delay = 0, ...rest } = deliver(rule);
    plan.delivery = { ...plan.delivery, ...rest, delay: plan.delivery.delay + delay };
  }
  const malformed = rules.filter((rule) => rule.do === 'malformed');
  plan.change = (stage, value, ...more) => malformed.filter((rule) => MALFORMED[rule.kind].stage === stage)
    .reduce((changed, rule) => MALFORMED[rule.kind].change(changed, rule, ...more), value);
  return plan;
}
