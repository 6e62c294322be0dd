// Numbers and names as people read them.

export const number = (value) => String(Math.round(value)).replace(/\B(?=(\d{3})+$)/g, ',');

/** "840 ms", "4.1 s". */
export function duration(ms) {
  if (ms === 0) return '0';
  if (ms < 10) return `${Math.round(ms * 10) / 10} ms`;
  return ms < 1000 ? `${Math.round(ms)} ms` : `${(ms / 1000).toFixed(ms < 10000 ? 2 : 1)} s`;
}

export const bytes = (count) => `${number(count)} ${count === 1 ? 'byte' : 'bytes'}`;
export const counted = (count, one, many = `${one}s`) => `${number(count)} ${count === 1 ? one : many}`;

const two = (value) => String(value).padStart(2, '0');
export const clock = (time) => {
  const date = new Date(time);
  return [date.getHours(), date.getMinutes(), date.getSeconds()].map(two).join(':');
};
export const day = (time) => {
  const date = new Date(time);
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
};

export const STATES = { running: 'Running', good: 'Read', failed: 'Failed', cancelled: 'Cancelled' };
export const KINDS = { identityCard: 'Identity card', passport: 'Passport' };
export const SOURCES = { simulated: 'simulated', reader: 'on a USB reader', phone: 'on a phone' };

const kHolder = {
  surname: 'Surname', givenNames: 'Given names', fullName: 'Full name', nameInZone: 'Name in the zone', otherNames: 'Other names',
  documentType: 'Document type', issuer: 'Issuing state', documentNumber: 'Document number', nationality: 'Nationality', birthDate: 'Date of birth',
  fullBirthDate: 'Date of birth', sex: 'Sex', expiryDate: 'Date of expiry', personalNumber: 'Personal number', placeOfBirth: 'Place of birth',
  address: 'Address', telephone: 'Telephone', profession: 'Profession', title: 'Title', summary: 'Personal summary', optionalData: 'Optional data',
  optionalData2: 'More optional data', names: 'Names', composite: 'The zone as a whole', authority: 'Issuing authority', issuingAuthority: 'Issuing authority', issueDate: 'Date of issue', name: 'Name',
  nation: 'Ethnic group', idNumber: 'Identity number', validFrom: 'Valid from', validTo: 'Valid to', custody: 'Custody information',
};

/** "placeOfBirth" as a label. */
export const label = (name) => kHolder[name] ?? name.replace(/([A-Z]+)/g, ' $1').replace(/_/g, ' ').replace(/^./, (letter) => letter.toUpperCase());
