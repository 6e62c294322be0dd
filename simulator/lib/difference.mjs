// A difference: something that was not as the protocol, or the configured person, card and reader, would have it.

const hexOf = (bytes) => Buffer.from(bytes).toString('hex').toUpperCase();
const kLongestShown = 32; // bytes; longer fields are shown from the first differing byte on

/**
 * One difference, in words and in bytes.
 *   at        what was being looked at: a server command ("0x5001") or a card command ("READ 6011")
 *   what      the field
 *   expected  what it should be: upper-case hexadecimal, or words
 *   actual    what it is
 */
export class Difference extends Error {
  constructor(at, what, expected, actual, sentence) {
    super(sentence ?? `${at}: ${what} is ${actual}, expected ${expected}`);
    this.name = 'Difference';
    this.at = at;
    this.what = what;
    this.expected = String(expected);
    this.actual = String(actual);
  }

  /** A difference between two byte fields of the same length; `offset` is where the field starts. */
  static ofBytes(at, what, expected, actual, offset = 0) {
    if (expected.length <= kLongestShown) return new Difference(at, what, hexOf(expected), hexOf(actual));
    const first = expected.findIndex((byte, i) => byte !== actual[i]);
    const shown = (bytes) => `${hexOf(bytes.subarray(first, first + 8))}...`;
    const sentence = `${at}: ${what} differs from its byte ${first} on (offset ${offset + first}): ` +
      `${shown(actual)}, expected ${shown(expected)}`;
    return new Difference(at, what, hexOf(expected), hexOf(actual), sentence);
  }

  /** Plain form for reports and for messages between processes. */
  toJSON() {
    return { at: this.at, what: this.what, expected: this.expected, actual: this.actual, text: this.message };
  }
}
