// The specimen passport: a complete, made-up document of Utopia (UTO, the state of ICAO's own specimens), issued anew
// with keys of its own. PERSONAS are the same document with something unusual about the chip.

import { createPublicKey, generateKeyPairSync } from 'node:crypto';
import { DATA_GROUP_TAGS, FILE_ID, dataGroup, dataGroupId, efCom } from './lds.mjs';
import { td3Lines } from './mrz.mjs';
import { cardAccess } from './pace.mjs';
import { documentSigner, efSod } from './security-object.mjs';

/** The holder of the specimen. Nobody. */
export const HOLDER = Object.freeze({
  surname: 'SPECIMEN', givenNames: 'TESSA UTOPIA', sex: 'F', state: 'UTO', nationality: 'UTO',
  personalNumber: 'ZE000000X',
  placeOfBirth: 'SPECIMEN CITY<UTOPIA', address: '1 SPECIMEN STREET<SPECIMEN CITY<UTOPIA', profession: 'SPECIMEN',
  authority: 'SPECIMEN AUTHORITY OF UTOPIA', issueDate: '20250101',
});

const kDefaults = {
  documentNumber: 'SPEC01234', birthDate: '900101', expiryDate: '341231', dataGroups: [1, 2, 11, 14, 15],
  portraitSize: 17000, aaBits: 1024, refusals: 'naked', sod: {}, overrides: {}, missing: [], refused: {},
  cardAccessTail: '',
};

/**
 * Issues a passport.
 * @param {object} [options]
 * @param {string} [options.persona]         a name from PERSONAS, whose options come before these
 * @param {string} [options.documentNumber]  5 to 20 letters and digits
 * @param {string} [options.birthDate]       YYMMDD; so is expiryDate
 * @param {object} [options.holder]          members of HOLDER to change
 * @param {number[]} [options.dataGroups]    numbers of the data groups on the chip, in the order in which EF.COM and
 *   EF.SOD list them
 * @param {number[]|Buffer} [options.comTags] the tag list of EF.COM, when it is not that of the data groups
 * @param {string} [options.form]            form of the lengths of EF.COM and of the data groups' outer lengths
 * @param {object} [options.sod]             options of `efSod`
 * @param {number} [options.portraitSize]    bytes of the image in DG2, from 13000
 * @param {number} [options.aaBits]          length of the RSA key of Active Authentication, up to 1536
 * @param {KeyObject} [options.aaKey]        that key, when it is not to be made anew
 * @param {Object<string, Buffer>} [options.overrides]  by file identifier ('0x011E', or a number): content instead of
 *   what belongs there
 * @param {number[]} [options.missing]       identifiers of files that are listed but not on the chip
 * @param {object} [options.refused]         by file identifier: { on: 'select' or 'read', status } for files that
 *   the chip keeps to itself
 * @param {string} [options.refusals]        'naked' or 'protected': how the chip refuses a protected command
 * @param {object[]} [options.pace]          what EF.CardAccess offers, see `cardAccess` in pace.mjs: { cipher, mapping, curve }
 * @param {string} [options.cardAccessTail]  bytes behind it, hexadecimal
 * @param {object} [options.withoutBac]      { on, status }: the chip wants PACE; it refuses SELECT APPLICATION, GET CHALLENGE
 *   or EXTERNAL AUTHENTICATE
 * @returns {{documentNumber: string, birthDate: string, expiryDate: string, files: Map<number, Buffer>,
 *   holder: object, mrz: [string, string], aaKey: KeyObject, aaPublicKey: KeyObject,
 *   authority: Buffer, dataGroups: number[], refused: Map<number, object>, refusals: string}} the first three as the
 *   application gives them to the reader; `files` by identifier; `mrz` the two lines; `authority` the certificate of
 *   the country's signing authority
 */
export function issuePassport(options = {}) {
  const persona = options.persona === undefined ? {} : personaOptions(options.persona);
  const given = { ...kDefaults, ...persona, ...options };
  const { documentNumber, birthDate, expiryDate, dataGroups } = given;
  const aaKey = given.aaKey ?? generateKeyPairSync('rsa', { modulusLength: given.aaBits }).privateKey;
  const aaPublicKey = createPublicKey(aaKey);
  const number = documentNumber.toUpperCase();
  const holder = holderOf({ ...HOLDER, ...given.holder, documentNumber: number, birthDate, expiryDate });
  const chipKey = generateKeyPairSync('ec', { namedCurve: 'prime256v1' }).publicKey;
  const details = { ...given, aaPublicKey, chipKey };
  const overrides = new Map(Object.entries(given.overrides).map(([id, content]) => [Number(id), content]));
  const groups = new Map(dataGroups.map((number) =>
    [number, overrides.get(dataGroupId(number)) ?? dataGroup(number, holder, details)]));
  const files = new Map([
    [FILE_ID.COM, efCom(given.comTags ?? dataGroups.map((number) => DATA_GROUP_TAGS[number]), given.form)],
    [FILE_ID.SOD, efSod(groups, given.sod)],
    ...[...groups].map(([number, content]) => [dataGroupId(number), content]),
    ...overrides,
  ]);
  if (given.pace) files.set(FILE_ID.CARD_ACCESS, overrides.get(FILE_ID.CARD_ACCESS) ?? Buffer.concat([cardAccess(given.pace), Buffer.from(given.cardAccessTail, 'hex')]));
  for (const id of given.missing) files.delete(id);
  return {
    documentNumber, birthDate, expiryDate, files, holder, mrz: td3Lines(holder), aaKey, aaPublicKey, dataGroups,
    authority: documentSigner().authority,
    refused: new Map(Object.entries(given.refused).map(([id, refusal]) => [Number(id), refusal])),
    refusals: given.refusals, pace: given.pace, withoutBac: given.withoutBac,
  };
}

/** The holder with the date of birth in full; years that lie ahead belong to the last century. */
function holderOf(holder) {
  const year = Number(holder.birthDate.slice(0, 2));
  const century = year > new Date().getFullYear() % 100 ? '19' : '20';
  return { ...holder, fullBirthDate: century + holder.birthDate };
}

function personaOptions(name) {
  const names = Object.keys(PERSONAS);
  if (!names.includes(name)) throw new TypeError(`no such persona: ${name}; there are ${names.join(', ')}`);
  return PERSONAS[name];
}

/** Options of `issuePassport` under a name. README.md says what each is for. */
export const PERSONAS = Object.freeze({
  usual: {},
  eightCharacters: { documentNumber: 'SPEC0123' },
  nineCharacters: { documentNumber: 'SPEC01234' },
  twelveCharacters: { documentNumber: 'SPEC01234567' },
  twentyCharacters: { documentNumber: 'SPEC0123456789ABCDEF' },
  withoutCom: { missing: [FILE_ID.COM] },
  comUnreadable: { refused: { [FILE_ID.COM]: { on: 'read', status: '6982' } } },
  comEmpty: { comTags: [] },
  comStrangeTags: { comTags: [0x60, 0x61, 0x77, 0x62, 0x75, 0x00, 0x6b, 0x6f] },
  comMalformed: { overrides: { [FILE_ID.COM]: Buffer.from('60155F0104303130375F36063034303030305C20617500', 'hex') } },
  comLongLengths: { form: '82' },
  withoutDg15: { dataGroups: [1, 2, 11, 14] },
  dg15Missing: { missing: [FILE_ID.DG15] },
  dg3Refused: { dataGroups: [1, 2, 3, 11, 14, 15], refused: { [FILE_ID.DG3]: { on: 'select', status: '6982' } } },
  dg3Unreadable: { dataGroups: [1, 2, 3, 11, 14, 15], refused: { [FILE_ID.DG3]: { on: 'read', status: '6982' } } },
  protectedRefusals: { dataGroups: [1, 2, 3, 11, 14, 15], refusals: 'protected',
    refused: { [FILE_ID.DG3]: { on: 'select', status: '6982' } } },
  dg1Refused: { refused: { [FILE_ID.DG1]: { on: 'select', status: '6982' } } },
  dg2Refused: { refused: { [FILE_ID.DG2]: { on: 'select', status: '6A82' } } },
  sodMissing: { missing: [FILE_ID.SOD] },
  sodLengths81: { comTags: [], sod: { form: '81' } },
  sodLengths82: { comTags: [], sod: { form: '82' } },
  sodTwoByteTags: { comTags: [], sod: { form: '82', twoByteTags: true } },
  sodOtherTag: { comTags: [], sod: { outerTag: 0x7f77 } },
  onlyMandatory: { dataGroups: [1, 2] },
  allGroups: { dataGroups: [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16] },
  otherOrder: { dataGroups: [14, 2, 12, 15, 1, 11] },
  bigPortrait: { portraitSize: 40000 },
  paceAlone: { pace: [{ cipher: 'aes128', curve: 13 }], withoutBac: { on: 'SELECT APPLICATION', status: '6982' } },
  paceToo: { pace: [{ cipher: 'aes128', curve: 13 }] },
});
