// X.509 certificates (RFC 5280) of document signers and of countries, and the folder of country certificates that a user
// trusts.

import { readdir, readFile } from 'node:fs/promises';
import { join } from 'node:path';
import { oidText, readElement, readElements } from '../../simulator/lib/passport/der.mjs';
import { checkSignature } from './algorithms.mjs';
import { signedDataOf } from './signed-data.mjs';

const kNames = {
  '2.5.4.6': 'C', '2.5.4.8': 'ST', '2.5.4.7': 'L', '2.5.4.10': 'O', '2.5.4.11': 'OU', '2.5.4.3': 'CN', '2.5.4.5': 'serialNumber',
};
const kSubjectKeyId = '2.5.29.14';
const kAuthorityKeyId = '2.5.29.35';
const kMasterList = '2.23.136.1.1.2';

/** "C=UT, O=Specimen Authority of Utopia, CN=Specimen Document Signer 1" */
function nameText(name) {
  const parts = readElements(name.value).flatMap((set) => readElements(set.value)).map((part) => {
    const [type, value] = readElements(part.value);
    const oid = oidText(type.value);
    const text = value.tag === 0x1e ? Buffer.from(value.value).swap16().toString('utf16le') : value.value.toString('utf8');
    return `${kNames[oid] ?? oid}=${text}`;
  });
  return parts.join(', ');
}

/** Names that differ only in the case or the kind of their texts are the same name (RFC 5280 section 7.1). */
const comparable = (text) => text.toLowerCase().replace(/\s+/g, ' ').trim();

/** A UTCTime or a GeneralizedTime, to the minute. */
export function readTime({ tag, value }) {
  const text = value.toString('latin1');
  const full = tag === 0x17 ? `${Number(text.slice(0, 2)) < 50 ? '20' : '19'}${text}` : text;
  const [, year, month, day, hour, minute] = /^(\d{4})(\d\d)(\d\d)(\d\d)(\d\d)/.exec(full) ?? [];
  return new Date(`${year}-${month}-${day}T${hour}:${minute}:00Z`);
}

function keyIds(extensions) {
  const found = {};
  for (const { value } of extensions) {
    const parts = readElements(value);
    const content = () => readElement(parts.at(-1).value).value;
    const oid = oidText(parts[0].value);
    if (oid === kSubjectKeyId) found.keyId = content();
    if (oid === kAuthorityKeyId) found.issuerKeyId = readElements(content()).find(({ tag }) => tag === 0x80)?.value;
  }
  return found;
}

/**
 * @param {Buffer} der
 * @returns {{der: Buffer, subject: string, issuer: string, issuerBytes: Buffer, serial: Buffer, from: Date, until: Date,
 *   spki: Buffer, keyId?: Buffer, issuerKeyId?: Buffer, body: Buffer, algorithm: object, signature: Buffer}}
 */
export function readCertificate(der) {
  const whole = readElement(der);
  const [body, algorithm, bits] = readElements(whole.value);
  const fields = readElements(body.value);
  if (fields[0].tag === 0xa0) fields.shift(); // version
  const [serial, , issuer, validity, subject, spki] = fields;
  const [from, until] = readElements(validity.value).map(readTime);
  const extensions = fields.find(({ tag }) => tag === 0xa3);
  return {
    der: whole.bytes, subject: nameText(subject), issuer: nameText(issuer), issuerBytes: issuer.bytes, serial: serial.value,
    from, until, spki: spki.bytes, ...(extensions && keyIds(readElements(readElement(extensions.value).value))),
    body: body.bytes, algorithm, signature: bits.value.subarray(1),
  };
}

/** Has the owner of `issuer` signed `certificate`? */
export function isIssuedBy(certificate, issuer) {
  const { algorithm, body, signature } = certificate;
  return checkSignature(algorithm, issuer.spki, body, signature).good;
}

export const isValidAt = ({ from, until }, time) => from <= time && time <= until;

/** The certificates that may have issued this one: by key identifier where both tell it, by name elsewhere. */
export function possibleIssuers(certificate, among) {
  const named = among.filter(({ subject }) => comparable(subject) === comparable(certificate.issuer));
  const keyed = among.filter(({ keyId }) => keyId && certificate.issuerKeyId?.equals(keyId));
  return [...new Set([...keyed, ...named])];
}

/** Certificates in one file: DER, PEM with any number of them, or a master list (ICAO Doc 9303-12 section 9). */
export function certificatesIn(bytes) {
  const text = bytes.toString('latin1');
  if (text.includes('-----BEGIN')) {
    const blocks = text.match(/-----BEGIN [A-Z0-9 ]*-----[^-]+-----END [A-Z0-9 ]*-----/g) ?? [];
    return blocks.flatMap((block) => certificatesIn(Buffer.from(block.replace(/-----[^-]+-----/g, ''), 'base64')));
  }
  const [first] = readElements(readElement(bytes).value);
  if (first.tag !== 0x06) return [readCertificate(bytes)];
  const { contentType, content } = signedDataOf(bytes);
  if (contentType !== kMasterList) throw new Error('it is signed, but no master list');
  return readElements(readElements(readElement(content).value)[1].value).map((element) => readCertificate(element.bytes));
}

/**
 * All country certificates in the files of a folder. What cannot be read is told and left out.
 * @returns {Promise<{certificates: object[], notes: string[]}>}
 */
export async function trustedCertificates(folder) {
  const certificates = [];
  const notes = [];
  const entries = await readdir(folder, { withFileTypes: true });
  for (const { name } of entries.filter((entry) => entry.isFile() || entry.isSymbolicLink()).sort((a, b) => (a.name < b.name ? -1 : 1))) {
    try {
      certificates.push(...certificatesIn(await readFile(join(folder, name))));
    } catch (error) {
      notes.push(`${name} holds no certificate that could be read (${error.message}).`);
    }
  }
  return { certificates, notes };
}
