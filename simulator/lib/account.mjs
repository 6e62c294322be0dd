// Words and layout for people: what each step of a read means, and lines that look right in a terminal.

import { codeInWords, statusInWords } from './codes.mjs';

/** What each server command is for. */
export const SERVER_STEPS = {
  '0x7500': 'reader shows who it is; session key, business id',
  '0x5001': 'card\'s management data; server\'s challenge',
  '0x5012': 'card\'s proof; server asks for the card\'s challenge',
  '0x5022': 'card\'s challenge; server\'s proof for the card',
  '0x5032': 'card\'s proof and challenge at once; server\'s proof',
  '0x6002': 'the first files; server wants the last one too',
  '0x6102': 'the first files; decoded person',
  '0x6113': 'the last file; decoded person',
  '0x7201': 'opens the read of a passport; token for coming back',
  '0x7202': 'all files of the passport; decoded holder',
  '0x7219': 'monitor record of this read',
};

/** What each card command is for, except the READs of the files. */
export const CARD_STEPS = {
  REQB: 'is there a card?',
  ATTRIB: 'select this card',
  'SELECT 6002': 'choose its management file',
  'READ 6002': '32 bytes that say which card it is',
  'INTERNAL AUTHENTICATE': 'prove yourself (server\'s challenge)',
  'GET CHALLENGE': 'give a challenge of your own',
  'EXTERNAL AUTHENTICATE': 'check the server\'s proof, open the files',
  'SELECT 6011': 'choose the first file',
  'SELECT 6012': 'choose the second file',
  'SELECT 6013': 'choose the last file',
};

/** What each command to a passport's chip is for, except those that read files. */
export const PASSPORT_STEPS = {
  'SELECT APPLICATION': 'are you a passport?',
  'GET CHALLENGE': 'give a challenge',
  'EXTERNAL AUTHENTICATE': 'prove to know the printed data; new keys',
  'INTERNAL AUTHENTICATE': 'sign a challenge: are you the original?',
  'SELECT MF': 'leave the application',
  'MSE SET AT': 'open by PACE, with the printed data',
  'PACE NONCE': 'give a number, encrypted under them',
  'PACE MAPPING': 'agree on a base point with it',
  'PACE KEY AGREEMENT': 'agree on new keys',
  'PACE TOKEN': 'prove to have the same keys',
};

/** What is in each file of a passport. */
export const PASSPORT_FILES = {
  'EF.CardAccess': 'how it opens by PACE',
  'EF.COM': 'which data groups there are',
  'EF.SOD': 'their hashes, signed by the issuer',
  DG1: 'machine-readable zone',
  DG2: 'portrait',
  DG11: 'more about the holder',
  DG12: 'more about the document',
  DG14: 'public key for access control',
  DG15: 'public key of the chip',
};

const kCodes = { bold: '1', dim: '2', red: '31', green: '32', yellow: '33', cyan: '36' };

/** Colours for a stream: functions that leave text alone unless it is a terminal that wants colours. */
export function coloursFor(stream) {
  const on = stream.isTTY && !('NO_COLOR' in process.env);
  return Object.fromEntries(Object.entries(kCodes)
    .map(([name, code]) => [name, (text) => (on ? `\x1b[${code}m${text}\x1b[0m` : text)]));
}

/** Text from elsewhere as a terminal may have it: what would move the cursor or turn the text around is shown as �. */
export const printable = (text) => String(text).replace(/[\p{Cc}\u061C\u200E\u200F\u202A-\u202E\u2066-\u2069]/gu, '\uFFFD');

/** "label ........ value" */
export function dotted(label, value, width = 18) {
  return `  ${`${label} `.padEnd(width, '.')} ${printable(value)}`;
}

/** Bytes as hexadecimal text for a dump, in lines of 32 bytes. */
export function dump(bytes, indent = '      ') {
  const text = Buffer.from(bytes).toString('hex').toUpperCase();
  return (text.match(/.{1,64}/g) ?? ['(nothing)']).map((line) => indent + line).join('\n');
}

const kLongestShown = 64; // digits or characters of a field

function fieldText(value) {
  if (value instanceof Uint8Array) return fieldText(Buffer.from(value).toString('hex').toUpperCase());
  const text = printable(typeof value === 'string' ? value : JSON.stringify(value) ?? 'none');
  const size = /^([0-9A-Fa-f]{2})+$/.test(text) ? `${text.length / 2} bytes` : `${text.length} characters`;
  return text.length <= kLongestShown ? text || '(empty)' : `${text.slice(0, kLongestShown)}... (${size})`;
}

/** What a message says, by name: a line for each field, those of records with the record's name in front. */
export function fieldLines(fields, indent = '      ', prefix = '') {
  const width = Math.max(18, ...Object.keys(fields).map((name) => prefix.length + name.length + 2));
  return Object.entries(fields).flatMap(([name, value]) => {
    const isRecord = value !== null && typeof value === 'object' && !Array.isArray(value) && !(value instanceof Uint8Array);
    return isRecord ? fieldLines(value, indent, `${prefix}${name} `)
      : [`${indent}${`${prefix}${name} `.padEnd(width, '.')} ${fieldText(value)}`];
  });
}

/** The monitor record's values, codes in words. */
export const recordTexts = (record) => Object.entries(record).map(([name, value]) => {
  const words = { result_code: codeInWords, nfc_err_code: statusInWords }[name];
  return [name, words ? words(value) : value];
});
