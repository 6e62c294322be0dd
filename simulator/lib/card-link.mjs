// The NFC link between the application and a card: carries each command to the card and says what the
// application hands back to the reader, and when. This is where a card, or the link, can go wrong on purpose.
// A rule says when and what:
//
//   { on: 'READ 6011', nth: 2, do: 'answer', data: '6A82' }
//
//   on     the name of a step ('SELECT 6002'), its serial number (2), or 'any'
//   nth    only the nth time (or times: a list) that the rule's `on` matches since the rules were set
//   do     a row of ACTIONS, or an action of the card's own when it has some (`card.actions`)

import { setTimeout as sleep } from 'node:timers/promises';
import { fromHex } from './bytes.mjs';
import { RuleList } from './rules.mjs';

const kCardFailed = -1;
const kMostLate = 5; // milliseconds; more is no timer's lateness
const endsWell = (bytes) => bytes.subarray(-2).equals(Buffer.from([0x90, 0x00]));

/** Deliveries of a good answer become other deliveries. Each is { data, serial, status, after } (`after` in ms). */
export const ACTIONS = {
  silence: () => [],
  delay: (good, rule) => [{ ...good, after: good.after + rule.ms }],
  status: (good, rule) => [{ ...good, status: rule.status ?? kCardFailed }],
  gone: (good) => [{ ...good, data: Buffer.alloc(0), status: kCardFailed }], // and so is every answer after it
  answer: (good, rule) => [{ ...good, data: fromHex(rule.data) }],
  empty: (good) => [{ ...good, data: Buffer.alloc(0) }],
  nothingButSuccess: (good) => [{ ...good, data: fromHex('9000') }],
  trailingZero: (good) => [{ ...good, data: Buffer.concat([good.data, Buffer.alloc(1)]) }],
  cut: (good, rule) => [{ ...good, data: good.data.subarray(0, rule.at < 0 ? good.data.length + rule.at : rule.at) }],
  shorten: (good, rule) => [{ ...good, data: Buffer.concat([good.data.subarray(0, rule.count), fromHex('9000')]) }],
  oversize: (good, rule) => [{ ...good, data: longAnswer(good.data, rule.size ?? 301) }],
  wrongSerial: (good, rule) => [{ ...good, serial: rule.serial }],
  repeat: (good, rule) => Array.from({ length: 1 + (rule.times ?? 1) }, () => ({ ...good })),
  extraAnswer: (good, rule) => [good, {
    data: fromHex(rule.data ?? '9000'), serial: rule.serial ?? good.serial, status: rule.status ?? 0,
    after: rule.after ?? 0,
  }],
};

/** Actions that leave the reader with the card's answer as it was. */
const kHarmless = ['delay', 'trailingZero'];

/** `size` bytes in all that begin like the card's answer and end in 90 00. */
function longAnswer(data, size) {
  return Buffer.concat([data.subarray(0, -2), Buffer.alloc(Math.max(0, size - data.length)), fromHex('9000')]);
}

/** A link to one card. */
export class CardLink {
  #rules;
  #cardRules; // those that the card itself applies, to name them
  #passedOn = false; // the card has rules from here
  #freeAt = 0;
  #late = 0; // by how much the timers overshot last time
  #gone = false; // the card has left the field

  /**
   * @param {{respond: Function, spoiled: Function, actions?: string[], setRules?: Function}} card
   * @param {{delay?: number, perByte?: number, rules?: object[]}} [options]  delay: milliseconds that every command
   *   takes; perByte: milliseconds more for each byte in either direction
   */
  constructor(card, { delay = 0, perByte = 0, rules = [] } = {}) {
    this.card = card;
    this.delay = delay;
    this.perByte = perByte;
    this.setRules(rules);
  }

  /** The rules from now on; those with an action of the card's own go to the card. */
  setRules(rules) {
    this.#gone = false;
    const forCard = rules.filter((rule) => this.card.actions?.includes(rule.do));
    const others = rules.filter((rule) => !forCard.includes(rule));
    this.#rules = new RuleList(others, [...Object.keys(ACTIONS), ...(this.card.actions ?? [])]);
    this.#cardRules = new RuleList(forCard, this.card.actions ?? []);
    if (forCard.length > 0 || this.#passedOn) this.card.setRules(forCard);
    this.#passedOn = forCard.length > 0;
  }

  /**
   * Carries a command to the card.
   * @param {Buffer} command
   * @param {number} serial
   * @param {(delivery: {data: Buffer, serial: number, status: number}) => void} deliver  called once for
   *   everything that goes back to the reader
   * @returns {{name: string, answer: Buffer, rules: string[], done: Promise<void>}} `rules`: what has been applied
   */
  transmit(command, serial, deliver) {
    const { name, answer } = this.card.respond(command, serial);
    const after = this.#pace(this.delay + this.perByte * (command.length + answer.length));
    let deliveries = [{ data: answer, serial, status: 0, after }];
    if (this.#gone) {
      deliveries = ACTIONS.gone(deliveries[0]);
      this.card.spoiled(name, undefined, true);
    }
    const rules = this.#rules.matching(name, serial);
    for (const rule of rules) {
      deliveries = deliveries.flatMap((delivery) => ACTIONS[rule.do](delivery, rule));
      this.#gone ||= rule.do === 'gone';
      if (kHarmless.includes(rule.do)) continue;
      this.card.spoiled(name, this.#reached(command, deliveries), deliveries.length > 1);
    }
    const applied = [...this.#cardRules.matching(name, serial), ...rules].map((rule) => rule.do);
    return { name, answer, rules: applied, done: this.#hand(deliveries, deliver) };
  }

  /**
   * How long to wait with an answer that takes `ms`. Commands that come at once are carried one after the other. What
   * timers have overshot is taken off the next wait, so that many commands take the time that was asked for.
   */
  #pace(ms) {
    if (ms === 0) return 0;
    const now = performance.now();
    this.#freeAt = Math.max(now - this.#late, this.#freeAt) + ms;
    this.#late = 0;
    return this.#freeAt - now;
  }

  /** Where a READ leaves the reader when one answer took the place of the card's; undefined when unknown. */
  #reached(command, deliveries) {
    if (deliveries.length !== 1 || command.length !== 5) return undefined;
    const { data } = deliveries[0];
    return endsWell(data) ? command.readUInt16BE(2) + data.length - 2 : undefined;
  }

  async #hand(deliveries, deliver) {
    for (const { after, ...delivery } of deliveries) {
      const due = performance.now() + after;
      if (after > 0) await sleep(after);
      else await undefined;
      if (after > 0) this.#late = Math.min(kMostLate, Math.max(0, performance.now() - due));
      deliver(delivery);
    }
  }
}

