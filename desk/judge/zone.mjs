// Machine-readable zones (ICAO Doc 9303 parts 4 to 6) field by field, with their check digits.

import { checkDigit } from '../../simulator/lib/passport/mrz.mjs';

/** Fields: [name, line, from, to, place of the check digit in the same line]. */
const kForms = {
  88: { name: 'TD3', width: 44, fields: [
    ['documentType', 0, 0, 2], ['issuer', 0, 2, 5], ['names', 0, 5, 44], ['documentNumber', 1, 0, 9, 9],
    ['nationality', 1, 10, 13], ['birthDate', 1, 13, 19, 19], ['sex', 1, 20, 21], ['expiryDate', 1, 21, 27, 27],
    ['personalNumber', 1, 28, 42, 42]],
    composite: [[1, 0, 10], [1, 13, 20], [1, 21, 43]], digit: [1, 43], overflow: 'personalNumber' },
  72: { name: 'TD2', width: 36, fields: [
    ['documentType', 0, 0, 2], ['issuer', 0, 2, 5], ['names', 0, 5, 36], ['documentNumber', 1, 0, 9, 9],
    ['nationality', 1, 10, 13], ['birthDate', 1, 13, 19, 19], ['sex', 1, 20, 21], ['expiryDate', 1, 21, 27, 27],
    ['optionalData', 1, 28, 35]],
    composite: [[1, 0, 10], [1, 13, 20], [1, 21, 35]], digit: [1, 35], overflow: 'optionalData' },
  90: { name: 'TD1', width: 30, fields: [
    ['documentType', 0, 0, 2], ['issuer', 0, 2, 5], ['documentNumber', 0, 5, 14, 14], ['optionalData', 0, 15, 30],
    ['birthDate', 1, 0, 6, 6], ['sex', 1, 7, 8], ['expiryDate', 1, 8, 14, 14], ['nationality', 1, 15, 18],
    ['optionalData2', 1, 18, 29], ['names', 2, 0, 30]],
    composite: [[0, 5, 30], [1, 0, 7], [1, 8, 15], [1, 18, 29]], digit: [1, 29], overflow: 'optionalData' },
};

/** Text of a field: fillers are blanks. */
export const plain = (field) => field.replaceAll('<', ' ').trim().replace(/ +/g, ' ');

const digitOf = (field) => {
  try {
    return checkDigit(field);
  } catch {
    return undefined; // a character that a zone does not have
  }
};

function digitVerdict(name, text, stated) {
  const computed = digitOf(text);
  const filler = stated === '<' && plain(text) === ''; // an empty field may go without
  return { stated, computed, good: stated === computed || filler };
}

/** A number that is too long goes on in the optional data, its check digit at the end, and a filler in place of the digit. */
function longNumber(fields, overflow) {
  const [number, more] = ['documentNumber', overflow].map((name) => fields.find((field) => field.name === name));
  const [rest] = more.text.split('<');
  if (number.digit.stated !== '<' || rest.length < 2) return;
  const whole = number.text + rest.slice(0, -1);
  Object.assign(number, { text: whole, value: whole, digit: digitVerdict('documentNumber', whole, rest.at(-1)) });
  more.value = plain(more.text.slice(rest.length));
}

/**
 * @param {string} text  all lines in one
 * @returns {{form: string, lines: string[], fields: object[], composite: object, good: boolean}} of each field: name, text
 *   as it stands, value without fillers, and where it has a check digit `digit`: { stated, computed, good }
 */
export function readZone(text) {
  const form = kForms[text.length];
  if (!form) throw new Error(`no machine-readable zone has ${text.length} characters`);
  const lines = Array.from({ length: text.length / form.width }, (_, i) => text.slice(i * form.width, (i + 1) * form.width));
  const fields = form.fields.map(([name, line, from, to, at]) => {
    const field = { name, text: lines[line].slice(from, to), value: plain(lines[line].slice(from, to)) };
    return at === undefined ? field : { ...field, digit: digitVerdict(name, field.text, lines[line][at]) };
  });
  longNumber(fields, form.overflow);
  const covered = form.composite.map(([line, from, to]) => lines[line].slice(from, to)).join('');
  const composite = digitVerdict('composite', covered, lines[form.digit[0]][form.digit[1]]);
  const good = [composite, ...fields.map(({ digit }) => digit).filter(Boolean)].every((digit) => digit.good);
  return { form: form.name, lines, fields, composite, good };
}

/** Surname and given names, each with blanks between its parts. */
export function readNames(text) {
  const [surname, ...given] = text.replace(/<+$/, '').split('<<');
  return { surname: plain(surname), givenNames: plain(given.join(' ')) };
}
