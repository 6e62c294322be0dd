// EF.SOD: a CMS SignedData (RFC 5652) over the hashes of the data groups (ICAO Doc 9303-10 section 4.6.2), signed
// by a document signer whose certificate a country signing authority has issued. Both authorities are made up anew in
// every process.

import { createHash, createPublicKey, generateKeyPairSync, sign } from 'node:crypto';
import { algorithm, certificate, distinguishedName, KEY_USAGE } from '../certificate.mjs';
import { DER, writer } from './der.mjs';

const OID = Object.freeze({
  signedData: '1.2.840.113549.1.7.2',
  ldsSecurityObject: '2.23.136.1.1.1',
  sha256: '2.16.840.1.101.3.4.2.1',
  rsa: '1.2.840.113549.1.1.1',
  contentType: '1.2.840.113549.1.9.3',
  messageDigest: '1.2.840.113549.1.9.4',
  signingTime: '1.2.840.113549.1.9.5',
  unstructuredName: '1.2.840.113549.1.9.2',
});
const kVersions = [DER.printable('0107'), DER.printable('040000')];

export const sha256 = (data) => createHash('sha256').update(data).digest();

let authorities;
let authorityKeys;

export const newAuthorityKey = () => generateKeyPairSync('rsa', { modulusLength: 2048 }).privateKey;

/** Has the signer and the authority of this process use these private keys; for tests that start many processes. */
export function useAuthorityKeys(top, signer) {
  authorityKeys = [top, signer];
}

/**
 * The document signer of this process and the authority above it.
 * @returns {{key: KeyObject, certificate: Buffer, issuer: string, serial: number, authority: Buffer}}
 */
export function documentSigner() {
  if (authorities) return authorities;
  const [top, signer] = (authorityKeys ?? [newAuthorityKey(), newAuthorityKey()]).map((privateKey) =>
    ({ privateKey, publicKey: createPublicKey(privateKey) }));
  const issuer = 'Specimen Country Signing CA';
  const above = { issuer, issuerKey: top.privateKey, issuerPublicKey: top.publicKey };
  authorities = {
    key: signer.privateKey, issuer, serial: 0x5350,
    certificate: certificate({ ...above, serial: 0x5350, subject: 'Specimen Document Signer 1',
      publicKey: signer.publicKey, usage: KEY_USAGE.signDocuments }),
    authority: certificate({ ...above, serial: 1, subject: issuer, publicKey: top.publicKey,
      usage: KEY_USAGE.signCertificates }),
  };
  return authorities;
}

/** What the signature covers: the number and the hash of every data group. */
function ldsSecurityObject(hashes, { tlv, sequence, integer, oid, octets }, { twoByteTags }) {
  const parameters = twoByteTags ? tlv(0x5f29, Buffer.of(0)) : DER.nothing();
  return sequence(
    integer(1), sequence(oid(OID.sha256), parameters),
    sequence(...hashes.map(({ number, hash }) => sequence(integer(number), octets(hash)))),
    sequence(...kVersions),
  );
}

function signerInfo(content, signer, { tlv, sequence, integer }, { twoByteTags }) {
  const attribute = (oid, value) => DER.sequence(DER.oid(oid), DER.set(value));
  const attributes = DER.set(
    attribute(OID.contentType, DER.oid(OID.ldsSecurityObject)),
    attribute(OID.signingTime, DER.utcTime(new Date())),
    attribute(OID.messageDigest, DER.octets(sha256(content))),
  );
  const signature = sign('sha256', attributes, signer.key); // over the SET OF; it is sent under the tag [0]
  const signed = Buffer.from(attributes);
  signed[0] = 0xa0;
  // an attribute outside the signature whose value has a tag of two bytes
  const unsigned = tlv(0xa1, DER.sequence(DER.oid(OID.unstructuredName), DER.set(DER.tlv(0x7f49, DER.octets()))));
  return sequence(
    integer(1), sequence(distinguishedName(signer.issuer), integer(signer.serial)), algorithm(OID.sha256), signed,
    algorithm(OID.rsa), DER.octets(signature), ...(twoByteTags ? [unsigned] : []),
  );
}

/**
 * EF.SOD for these data groups.
 * @param {Map<number, Buffer>|Array<[number, Buffer]>} groups  the content of each data group by its number, in the
 *   order in which they are to be listed
 * @param {object} [options]
 * @param {string} [options.form]          form of the lengths: 'der', '81' or '82'
 * @param {boolean} [options.twoByteTags]  parameters of the hash algorithm, and an unsigned attribute, with tags of
 *   two bytes (5F29, 7F49)
 * @param {number} [options.outerTag]      instead of 77
 * @param {number[]} [options.listed]      numbers that the list names instead of those of `groups`; one without
 *   content gets the hash of nothing
 * @returns {Buffer}
 */
export function efSod(groups, { form = 'der', twoByteTags = false, outerTag = 0x77, listed } = {}) {
  const contents = new Map(groups);
  const signer = documentSigner();
  const ber = writer(form);
  const { tlv, sequence, explicit, integer, oid, octets } = ber;
  const numbers = listed ?? [...contents.keys()];
  const hashes = numbers.map((number) => ({ number, hash: sha256(contents.get(number) ?? Buffer.alloc(0)) }));
  const content = ldsSecurityObject(hashes, ber, { twoByteTags });
  const signedData = sequence(
    integer(3), tlv(0x31, algorithm(OID.sha256)),
    sequence(oid(OID.ldsSecurityObject), explicit(0, octets(content))),
    explicit(0, signer.certificate),
    tlv(0x31, signerInfo(content, signer, ber, { twoByteTags })),
  );
  return tlv(outerTag, sequence(oid(OID.signedData), explicit(0, signedData)));
}
