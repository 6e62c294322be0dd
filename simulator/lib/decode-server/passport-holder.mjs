// The holder of a passport, as a decode server tells it: from the machine-readable zone in DG1 (ICAO Doc 9303-4, form
// TD3), and further details from DG11.

import { elementAt, readElements } from '../passport/der.mjs';
import { checkDigit } from '../passport/mrz.mjs';

const kLine = 44;

const plain = (field) => field.replaceAll('<', ' ').trim().replace(/ +/g, ' ');

/** Fields of the zone's second line: start and end, and where their check digit stands. */
const kChecked = {
  documentNumber: [0, 9, 9], birthDate: [13, 19, 19], expiryDate: [21, 27, 27], personalNumber: [28, 42, 42],
};

function parseZone(text) {
  const [first, second] = [text.slice(0, kLine), text.slice(kLine)];
  const [surname, ...given] = first.slice(5).split('<<');
  const fields = Object.fromEntries(Object.entries(kChecked).map(([name, [from, to]]) => [name, second.slice(from, to)]));
  const nothing = plain(fields.personalNumber) === ''; // its check digit may then be a filler
  const long = second[9] === '<'; // the number goes on in the optional data, up to a filler, its check digit before that
  const [rest] = fields.personalNumber.split('<');
  const number = long ? fields.documentNumber + rest.slice(0, -1) : fields.documentNumber;
  const stated = { ...Object.fromEntries(Object.entries(kChecked).map(([name, [, , at]]) => [name, second[at]])),
    ...(long && { documentNumber: rest.at(-1) }) };
  const mayBeFiller = (name) => name === 'personalNumber' && nothing;
  const isGood = (name, field) => stated[name] === checkDigit(field) || (mayBeFiller(name) && stated[name] === '<');
  const digits = Object.entries({ ...fields, documentNumber: number }).map(([name, field]) => isGood(name, field));
  const composite = second.slice(0, 10) + second.slice(13, 20) + second.slice(21, 43);
  const holder = {
    documentType: plain(first.slice(0, 2)), issuer: plain(first.slice(2, 5)), surname: plain(surname),
    givenNames: plain(given.join(' ')), documentNumber: plain(number),
    nationality: plain(second.slice(10, 13)), birthDate: fields.birthDate, sex: plain(second[20]),
    expiryDate: fields.expiryDate,
  };
  if (!nothing && !long) holder.personalNumber = plain(fields.personalNumber);
  const good = [...digits, second[43] === checkDigit(composite)].every(Boolean);
  return { ...holder, checkDigits: good ? 'good' : 'wrong' };
}

/** Details of DG11 that are passed on (ICAO Doc 9303-10, DG11). */
const kDetails = {
  0x5f0e: 'fullName', 0x5f11: 'placeOfBirth', 0x5f42: 'address', 0x5f12: 'telephone', 0x5f13: 'profession',
};

function parseDetails(file) {
  const known = readElements(elementAt(file, 0).value).filter(({ tag }) => kDetails[tag]);
  return Object.fromEntries(known.map(({ tag, value }) => [kDetails[tag], plain(value.toString('utf8'))]));
}

/** Who the holder is; nothing for files that cannot be read. */
export function holderOf(files) {
  const attempt = (read) => {
    try {
      return read();
    } catch {
      return {};
    }
  };
  const zone = attempt(() => {
    const text = elementAt(files.DG1, 0, '5F1F').value.toString('latin1');
    return text.length === 2 * kLine ? parseZone(text) : {};
  });
  return { ...zone, ...attempt(() => parseDetails(files.DG11)) };
}
