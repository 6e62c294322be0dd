// Passive authentication (ICAO Doc 9303-11 section 5.1): EF.SOD lists the hashes of the data groups, a document signer has
// signed the list, and a country has issued the signer's certificate.

import { createHash } from 'node:crypto';
import { readElement, readElements } from '../../simulator/lib/passport/der.mjs';
import { checkSignature, hashOf, hashWords } from './algorithms.mjs';
import { isIssuedBy, isValidAt, possibleIssuers, readCertificate, readTime } from './certificate.mjs';
import { attributeValues, signedDataOf } from './signed-data.mjs';

const kMessageDigest = '1.2.840.113549.1.9.4';
const kSigningTime = '1.2.840.113549.1.9.5';
const kSet = 0x31;
const kSubjectKeyId = 0x80;

const day = (date) => date.toISOString().slice(0, 10);

/**
 * What EF.SOD holds.
 * @returns {{hash: string, hashes: Map<number, Buffer>, content: Buffer, signer: object, certificates: object[]}}
 */
export function readSecurityObject(file) {
  const outer = readElement(file);
  const { content, certificates, signers } = signedDataOf(outer.value);
  const [, algorithm, list] = readElements(readElement(content).value);
  const rows = readElements(list.value).map(({ value }) => readElements(value));
  if (signers.length === 0) throw new Error('nobody has signed it');
  return {
    hash: hashOf(algorithm), content, signer: signers[0], certificates: certificates.map(readCertificate),
    hashes: new Map(rows.map(([number, hash]) => [number.value.at(-1), hash.value])),
  };
}

/** One check for each data group that was read or is listed. */
export function checkHashes({ hash, hashes }, groups) {
  const numbers = [...new Set([...hashes.keys(), ...groups.keys()])].sort((a, b) => a - b);
  return numbers.map((number) => {
    const name = `DG${number} unchanged`;
    const content = groups.get(number);
    if (!content) return { name, verdict: 'unchecked', words: 'The signed list names it, but it was not read.' };
    if (!hashes.has(number)) return { name, verdict: 'bad', words: 'It was read, but the signed list does not name it.' };
    const good = createHash(hash).update(content).digest().equals(hashes.get(number));
    const words = good ? `Its hash (${hashWords(hash)}) is the one in the signed list.`
      : `Its hash (${hashWords(hash)}) is not the one in the signed list: it was changed, or not issued with this document.`;
    return { name, verdict: good ? 'good' : 'bad', words };
  });
}

/** The certificate that the signer's identifier means. */
function signersCertificate({ signer, certificates }) {
  if (signer.sid.tag === kSubjectKeyId) return certificates.find(({ keyId }) => keyId?.equals(signer.sid.value));
  const [, serial] = readElements(signer.sid.value);
  return certificates.find((each) => each.serial.equals(serial.value)) ?? (certificates.length === 1 ? certificates[0] : undefined);
}

function signatureCheck({ content, signer }, certificate) {
  const name = 'Signature over the list';
  const hash = hashOf(signer.hash);
  let signed = content;
  if (signer.attributes) {
    const digest = attributeValues(signer.attributes).get(kMessageDigest);
    if (!digest?.value.equals(createHash(hash).update(content).digest())) {
      return { name, verdict: 'bad', words: 'The signature is about another list of hashes.' };
    }
    signed = Buffer.concat([Buffer.of(kSet), signer.attributes.bytes.subarray(1)]); // as it was when it was signed
  }
  const { good, how } = checkSignature(signer.algorithm, certificate.spki, signed, signer.signature, hash);
  const words = good ? `Good (${how}), by ${certificate.subject}.` : `Wrong (${how}): it is not by ${certificate.subject}.`;
  return { name, verdict: good ? 'good' : 'bad', words };
}

/** The moment at which the document was signed, where it tells that. */
function signingTime({ signer }) {
  const value = signer.attributes && attributeValues(signer.attributes).get(kSigningTime);
  return value && readTime(value);
}

/**
 * @param {object[]|undefined} trusted  the country certificates that the user trusts; undefined when there are none
 */
function issuerCheck(object, certificate, trusted) {
  const name = "The signer's country";
  const { subject, issuer } = certificate;
  if (!trusted) {
    return { name, verdict: 'unchecked', words: `Signed by ${subject}, not checked against a country certificate.` };
  }
  const candidates = possibleIssuers(certificate, trusted);
  if (candidates.length === 0) {
    return { name, verdict: 'unchecked',
      words: `Signed by ${subject}; its issuer, ${issuer}, is not among the ${trusted.length} country certificates.` };
  }
  const country = candidates.find((each) => isIssuedBy(certificate, each));
  if (!country) {
    return { name, verdict: 'bad', words: `${subject} was not issued by the ${issuer} whose certificate is trusted.` };
  }
  const time = signingTime(object);
  const at = time ?? certificate.from;
  if (!isValidAt(certificate, at)) {
    return { name, verdict: 'bad', words: `${subject} was valid from ${day(certificate.from)} until ${day(certificate.until)}, `
      + `but signed on ${day(at)}.` };
  }
  return { name, verdict: 'good', words: `${subject} was issued by ${country.subject}, which you trust.` };
}

/**
 * Both checks of who signed.
 * @returns {object[]} checks: { name, verdict, words }
 */
export function checkSigner(object, trusted) {
  const certificate = signersCertificate(object);
  if (!certificate) {
    return [{ name: 'Signature over the list', verdict: 'unchecked', words: "EF.SOD does not carry the signer's certificate." }];
  }
  return [signatureCheck(object, certificate), issuerCheck(object, certificate, trusted)];
}
