// EF.SOD: a CMS SignedData (RFC 5652) over the LDS security object, which lists the hashes of the data groups
// (ICAO Doc 9303-10, EF.SOD; 9303-11, passive authentication).

import { constants, createHash, verify, X509Certificate } from 'node:crypto';
import { elementAt, oidText, readElement, readElements } from '../passport/der.mjs';

const kHashes = {
  '1.3.14.3.2.26': 'sha1',
  '2.16.840.1.101.3.4.2.1': 'sha256',
  '2.16.840.1.101.3.4.2.2': 'sha384',
  '2.16.840.1.101.3.4.2.3': 'sha512',
  '2.16.840.1.101.3.4.2.4': 'sha224',
};
const kMessageDigest = '1.2.840.113549.1.9.4';
const kRsaPss = '1.2.840.113549.1.1.10';
const kSet = 0x31;
const kContext0 = 0xa0;

/** The object identifier at the start of an AlgorithmIdentifier or an Attribute. */
const oidOf = (element) => oidText(readElement(element.value).value);

/** ContentInfo [0] SignedData: file, ContentInfo, content, SignedData. */
const signedData = (file) => elementAt(file, 0, 0, 'A0', 0).value;

/** The octets that are signed: the encoded LDS security object. */
const signedContent = (file) => elementAt(signedData(file), 2, 'A0', 0).value;

/** The list of EF.SOD: its hash algorithm by name, and { number, hash } per data group. Throws for any other file. */
export function hashList(file) {
  const [, algorithm, list] = readElements(elementAt(signedContent(file), 0).value);
  const hashes = readElements(list.value).map(({ value }) => readElements(value))
    .map(([number, hash]) => ({ number: number.value.at(-1), hash: hash.value }));
  return { algorithm: kHashes[oidOf(algorithm)], hashes };
}

function messageDigest(attributes) {
  const found = readElements(attributes.value).find((attribute) => oidOf(attribute) === kMessageDigest);
  return elementAt(found.value, 1, 0).value;
}

/**
 * Is the signature over the list the one of the document signer whose certificate comes with it, and has the authority
 * issued that?
 * @param {Buffer} file
 * @param {Buffer} [authority]  the authority's certificate; without one any signer will do
 * @returns {{good: boolean, signer: string}} signer: the certificate's subject
 */
export function checkSignature(file, authority) {
  const content = signedContent(file);
  const fields = readElements(signedData(file));
  const certificate = new X509Certificate(elementAt(signedData(file), 'A0', 0).bytes);
  const signer = certificate.subject.replaceAll('\n', ', ');
  if (authority && !certificate.verify(new X509Certificate(authority).publicKey)) return { good: false, signer };
  const [, , hashName, ...others] = readElements(elementAt(fields.at(-1).value, 0).value); // version, signer's name
  const algorithm = kHashes[oidOf(hashName)];
  const attributes = others[0].tag === kContext0 ? others.shift() : null;
  const [signatureName, signature] = others;
  let signed = content;
  if (attributes) {
    if (!createHash(algorithm).update(content).digest().equals(messageDigest(attributes))) return { good: false, signer };
    signed = Buffer.concat([Buffer.of(kSet), attributes.bytes.subarray(1)]); // as it was when it was signed
  }
  const key = { key: certificate.publicKey };
  if (oidOf(signatureName) === kRsaPss) key.padding = constants.RSA_PKCS1_PSS_PADDING;
  return { good: verify(algorithm, signed, key, signature.value), signer };
}
