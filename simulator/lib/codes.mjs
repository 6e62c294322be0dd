// Codes and status words in words.

import { readFileSync } from 'node:fs';

/** The library's codes by number, from the table in the declarations of the native module. */
const kCodes = new Map([...readFileSync(new URL('../../package/src/main/cpp/types/libtqreader/index.d.ts', import.meta.url), 'utf8')
  .matchAll(/^ \* \| (-?\d+) \| ([A-Z_]+) \| (.*) \|$/gm)].map(([, code, name, meaning]) => [Number(code), `${name}: ${meaning}`]));

const kStatusWords = { // ISO/IEC 7816-4 section 5.6
  '0000': 'no answer', '6282': 'end of the file', '6300': 'the key is wrong', '6700': 'wrong length',
  '6982': 'not allowed before authentication, or to this reader', '6985': 'not now', '6986': 'no file is selected',
  '6988': 'secure messaging is not as it should be', '6A82': 'there is no such file', '6A86': 'wrong parameters',
  '6A88': 'there is no such key or object', '6B00': 'behind the end of the file', '6D00': 'unknown instruction',
  '6E00': 'unknown class', '9000': 'good',
};

/** "-93001 (NO_CARD_ANSWER: the card did not answer)" */
export function codeInWords(code) {
  if (code === 0) return '0';
  const known = kCodes.get(code) ?? (code < 0 ? `status ${String(-code).padStart(6, '0')} of the server` : undefined);
  return known === undefined ? String(code) : `${code} (${known})`;
}

/** "25218 (6282: end of the file)" for a number as the monitor record has it. */
export function statusInWords(number) {
  const digits = number.toString(16).toUpperCase().padStart(4, '0');
  const words = kStatusWords[digits.slice(-4)];
  return `${number} (${digits}${words ? `: ${words}` : ''})`;
}
