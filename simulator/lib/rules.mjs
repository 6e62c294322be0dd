// Rules of misbehaviour of a card, its chip or the link to it: which rule applies to which command.

/** A list of rules `{ on, do, nth, ... }` that counts what has matched; `nth` is a number or a list of them. */
export class RuleList {
  #entries;

  /**
   * @param {object[]} rules
   * @param {string[]} actions  the words that `do` may be; another one throws
   */
  constructor(rules, actions) {
    this.#entries = rules.map((rule) => {
      if (!actions.includes(rule.do)) {
        throw new TypeError(`no such action: ${JSON.stringify(rule)}; there are ${actions.join(', ')}`);
      }
      return { rule, matched: 0 };
    });
  }

  /** The rules for this command, by name of its step or serial number; `nth` counts the matches of each. */
  matching(name, serial) {
    return this.#entries.filter((entry) => {
      if (![name, serial, 'any'].includes(entry.rule.on)) return false;
      entry.matched += 1;
      return [entry.rule.nth ?? entry.matched].flat().includes(entry.matched);
    }).map(({ rule }) => rule);
  }
}
