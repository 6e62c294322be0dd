// Status bytes of an answer and the result code that the reader makes of them.

import { hex } from '../bytes.mjs';

/**
 * The reader's result code for three status bytes: their six hexadecimal digits with every F read as 0, as a
 * decimal number up to the first digit that is not decimal, negated. Digits that read as zero, and the one that
 * collides with the reader's general failure, are a malformed answer.
 */
export function resultOfStatus(status, malformed = -35006) {
  const digits = hex(status).replaceAll('F', '0');
  const value = -Number.parseInt(digits.match(/^[0-9]*/)[0] || '0', 10);
  return value === 0 || value === -1 ? malformed : value;
}
