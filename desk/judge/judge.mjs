// What the files of a real document say, and what speaks for them. Whatever cannot be read is told with its reason; nothing
// here ends a read.

import { readElement, readElements } from '../../simulator/lib/passport/der.mjs';
import { checkActiveAuthentication } from './active-authentication.mjs';
import { trustedCertificates } from './certificate.mjs';
import { readDetails } from './details.mjs';
import { readFaces } from './face.mjs';
import { mayStandAs, transliterate } from './names.mjs';
import { showable } from './picture.mjs';
import { checkHashes, checkSigner, readSecurityObject } from './security-object.mjs';
import { readNames, readZone } from './zone.mjs';

const kSod = 0x011d;
const kDataGroups = 16;

/** Runs `read`; when it fails, notes why, with the bytes that could not be read. */
function attempt(notes, what, file, read) {
  try {
    return read();
  } catch (error) {
    const bytes = file.toString('hex').toUpperCase();
    const shown = bytes.length > 120 ? `${bytes.slice(0, 120)}… (${file.length} bytes)` : bytes;
    notes.push(`${what} could not be read (${error.message}): ${shown}`);
    return undefined;
  }
}

function dataGroups(files) {
  const present = [...files].filter(([id, content]) => id > 0x0100 && id <= 0x0100 + kDataGroups && content.length > 0);
  return new Map(present.map(([id, content]) => [id - 0x0100, content]));
}

function zoneOf(file) {
  const zone = readElements(readElement(file).value).find(({ tag }) => tag === 0x5f1f);
  if (!zone) throw new Error('it has no machine-readable zone');
  return readZone(zone.value.toString('latin1'));
}

function holderOfZone({ fields }) {
  const { names, ...others } = Object.fromEntries(fields.map(({ name, value, text }) => [name, name === 'names' ? text : value]));
  return { ...others, ...readNames(names) };
}

/** The name in national characters beside what the zone has. */
function nameCheck(fullName, zone) {
  const { text, unknown } = transliterate(fullName);
  const stated = zone.fields.find(({ name }) => name === 'names').text.replace(/<+$/, '');
  if (unknown.length > 0) return { transliteration: text, words: `No table has the letters ${unknown.join(' ')}.` };
  const fits = mayStandAs(fullName, stated.replaceAll('<', ' '));
  return { transliteration: text, words: fits ? 'As in the machine-readable zone.'
    : 'The machine-readable zone has it otherwise, as an issuer may choose.' };
}

async function portraitOf(groups) {
  if (!groups.has(2)) return { portrait: { reason: 'DG2 was not read.' }, faces: [] };
  let faces;
  try {
    faces = readFaces(groups.get(2));
  } catch (error) {
    return { portrait: { reason: `DG2 could not be read: ${error.message}.` }, faces: [] };
  }
  return { portrait: await showable(faces[0]), faces };
}

async function passiveChecks(files, groups, trustFolder, notes) {
  const sod = files.get(kSod);
  const failed = (words) => [{ name: 'Signature over the list', verdict: 'unchecked', words }];
  if (!sod?.length) return failed('EF.SOD was not read: nothing tells who issued these files.');
  const object = attempt(notes, 'EF.SOD', sod, () => readSecurityObject(sod));
  if (!object) return failed('EF.SOD could not be read.');
  let trusted;
  if (trustFolder) {
    const found = await trustedCertificates(trustFolder);
    notes.push(...found.notes);
    trusted = found.certificates;
  }
  const signer = attempt(notes, 'The signature in EF.SOD', sod, () => checkSigner(object, trusted)) ??
    failed('The signature could not be judged.');
  return [...signer, ...checkHashes(object, groups)];
}

/**
 * Judges a document by its files.
 * @param {object} document
 * @param {Map<number, Buffer>} document.files  contents by file identifier; those that did not come are left out or empty
 * @param {{challenge: Buffer, answer: Buffer}} [document.activeAuthentication]
 * @param {string} [document.trustFolder]  folder of country certificates; without one nobody is trusted
 * @returns {Promise<{holder: object, mrz: object|undefined, portrait: object, faces: object[], checks: object[],
 *   notes: string[]}>} mrz: see readZone; portrait: { type, bytes } or { reason }; checks: { name, verdict: 'good', 'bad' or
 *   'unchecked', words }
 */
export async function judgeDocument({ files, activeAuthentication, trustFolder }) {
  const notes = [];
  const groups = dataGroups(files);
  const read = (number, reader) => groups.has(number) && attempt(notes, `DG${number}`, groups.get(number), () => reader(groups.get(number)));
  const mrz = read(1, zoneOf) || undefined;
  const person = read(11, (file) => readDetails(11, file)) || { fields: {}, notes: [] };
  const paper = read(12, (file) => readDetails(12, file)) || { fields: {}, notes: [] };
  notes.push(...person.notes, ...paper.notes);
  const holder = { ...(mrz && holderOfZone(mrz)), ...person.fields, ...paper.fields };
  if (person.fullName && mrz) holder.nameInZone = nameCheck(person.fullName, mrz);
  const checks = await passiveChecks(files, groups, trustFolder, notes);
  const active = checkActiveAuthentication(groups, activeAuthentication);
  if (active) checks.push(active);
  if (mrz) {
    checks.push({ name: 'Check digits', verdict: mrz.good ? 'good' : 'bad',
      words: mrz.good ? 'All check digits of the machine-readable zone are right.' : 'A check digit of the machine-readable zone is wrong.' });
  }
  return { holder, mrz, ...await portraitOf(groups), checks, notes };
}
