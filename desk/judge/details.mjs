// DG11 and DG12: additional details of person and document (ICAO Doc 9303-10 sections 4.7.11 and 4.7.12).

import { readElement, readElements } from '../../simulator/lib/passport/der.mjs';

const text = (value) => {
  try {
    return new TextDecoder('utf-8', { fatal: true }).decode(value);
  } catch {
    return value.toString('latin1'); // some issuers write in the Latin alphabet's old code
  }
};

const lines = (value) => text(value).split('<').map((part) => part.trim()).filter(Boolean).join(', ');

/** A name: the primary part, two fillers, the others. */
function name(value) {
  const [primary, ...others] = text(value).split('<<');
  const clean = (part) => part.replaceAll('<', ' ').trim();
  return [primary, others.join(' ')].map(clean).filter(Boolean).join(', ');
}

/** Digits, as characters or two to a byte. */
const digits = (value) => (/^\d+$/.test(value.toString('latin1')) ? value.toString('latin1') : value.toString('hex'));

function date(value) {
  const [, year, month, day] = /^(\d{4})(\d\d)(\d\d)/.exec(digits(value)) ?? [];
  return year ? `${year}-${month}-${day}` : digits(value);
}

const size = (value) => `${value.length} bytes of a picture`;

const kFields = {
  11: {
    0x5f0e: ['fullName', name], 0x5f0f: ['otherName', name], 0x5f10: ['personalNumber', lines], 0x5f2b: ['fullBirthDate', date],
    0x5f11: ['placeOfBirth', lines], 0x5f42: ['address', lines], 0x5f12: ['telephone', lines], 0x5f13: ['profession', lines],
    0x5f14: ['title', lines], 0x5f15: ['personalSummary', lines], 0x5f16: ['proofOfCitizenship', size],
    0x5f17: ['otherDocuments', lines], 0x5f18: ['custody', lines],
  },
  12: {
    0x5f19: ['issuingAuthority', lines], 0x5f26: ['issueDate', date], 0x5f1a: ['otherPerson', name],
    0x5f1b: ['endorsements', lines], 0x5f1c: ['taxOrExit', lines], 0x5f1d: ['imageOfFront', size], 0x5f1e: ['imageOfRear', size],
    0x5f55: ['personalisedOn', date], 0x5f56: ['personalisationSystem', lines],
  },
};

const kList = 0x5c;
const kCount = 0x02;
const kGroup = 0xa0; // other names, other persons

/**
 * @param {number} number  11 or 12
 * @param {Buffer} file
 * @returns {{fields: object, notes: string[], fullName?: string}} fields: text by name; fullName: as it stands in the chip
 */
export function readDetails(number, file) {
  const found = { fields: {}, notes: [] };
  const elements = readElements(readElement(file).value).flatMap((each) => (each.tag === kGroup ? readElements(each.value) : [each]));
  for (const { tag, value } of elements.filter((each) => ![kList, kCount].includes(each.tag))) {
    const [field, read] = kFields[number][tag] ?? [];
    if (!field) {
      found.notes.push(`DG${number} has an element ${tag.toString(16).toUpperCase()} that is not known: ${value.toString('hex').toUpperCase()}`);
      continue;
    }
    if (tag === 0x5f0e) found.fullName = text(value);
    const said = read(value);
    if (said !== '') found.fields[field] = found.fields[field] ? `${found.fields[field]}; ${said}` : said;
  }
  return found;
}
