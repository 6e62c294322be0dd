// The machine-readable zone of a passport booklet (ICAO Doc 9303-4, TD3: two lines of 44 characters) and what opens
// its chip (ICAO Doc 9303-11 section 4.3: the MRZ information).

const kWeights = [7, 3, 1];

/** Value of a character: digits as they are, A to Z from 10 on, the filler 0 (ICAO Doc 9303-3 section 4.9). */
function valueOf(character) {
  if (character === '<') return 0;
  const value = Number.parseInt(character, 36);
  if (Number.isNaN(value)) throw new TypeError(`no character of a machine-readable zone: ${character}`);
  return value;
}

/** The check digit of a field, as text. */
export function checkDigit(field) {
  const sum = [...field].reduce((total, character, i) => total + valueOf(character) * kWeights[i % 3], 0);
  return String(sum % 10);
}

const filled = (text, length) => text.toUpperCase().replace(/[^A-Z0-9]/g, '<').slice(0, length).padEnd(length, '<');

/**
 * The fields for document number and optional data. A number of more than nine characters goes on in the optional
 * data, and a filler stands in the place of its check digit (the rule of ICAO Doc 9303-5 for long numbers).
 */
function numberFields(documentNumber, optional) {
  if (documentNumber.length <= 9) {
    const field = filled(documentNumber, 9);
    return { field, digit: checkDigit(field), optional: filled(optional, 14) };
  }
  const rest = `${documentNumber.slice(9)}${checkDigit(documentNumber)}<`;
  if (rest.length > 14) throw new TypeError(`a document number of ${documentNumber.length} characters does not fit`);
  return { field: documentNumber.slice(0, 9), digit: '<', optional: filled(rest + optional, 14) };
}

/**
 * Both lines of a TD3 zone.
 * @param {object} holder  documentNumber (upper case), birthDate, expiryDate (YYMMDD), surname, givenNames, sex
 *   ('F', 'M' or '<'), state and nationality (three letters), personalNumber (up to 14 characters)
 * @returns {[string, string]}
 */
export function td3Lines(holder) {
  const { documentNumber, birthDate, expiryDate, surname, givenNames, sex, state, nationality } = holder;
  const number = numberFields(documentNumber, holder.personalNumber ?? '');
  const names = `${filled(surname, surname.length)}<<${filled(givenNames, givenNames.length)}`;
  const birth = birthDate + checkDigit(birthDate);
  const expiry = expiryDate + checkDigit(expiryDate);
  const optional = number.optional + (/^<+$/.test(number.optional) ? '<' : checkDigit(number.optional));
  const composite = checkDigit(number.field + number.digit + birth + expiry + optional);
  return [
    `P<${state}${filled(names, 39)}`,
    `${number.field}${number.digit}${nationality}${birth}${sex}${expiry}${optional}${composite}`,
  ];
}

/** The text from which the chip's access keys are derived: the three fields with their check digits. */
export function mrzInformation({ documentNumber, birthDate, expiryDate }) {
  const number = documentNumber.toUpperCase().padEnd(9, '<');
  return [number, birthDate, expiryDate].map((field) => field + checkDigit(field)).join('');
}
