// Names of algorithms as they stand in security objects, certificates and keys (RFC 5754, RFC 4055, RFC 5758, BSI TR-03111),
// and the check of a signature under any of them.

import { constants, createPublicKey, verify } from 'node:crypto';
import { DER, oidText, readElement, readElements } from '../../simulator/lib/passport/der.mjs';
import { publicKeyFrom } from './public-key.mjs';

const kHashes = {
  '1.3.14.3.2.26': 'sha1',
  '2.16.840.1.101.3.4.2.4': 'sha224',
  '2.16.840.1.101.3.4.2.1': 'sha256',
  '2.16.840.1.101.3.4.2.2': 'sha384',
  '2.16.840.1.101.3.4.2.3': 'sha512',
};

const kRsa = '1.2.840.113549.1.1';
const kRsaPss = `${kRsa}.10`;
const kEcdsa = '1.2.840.10045.4';
const kPlainEcdsa = '0.4.0.127.0.7.1.1.4.1';

/** Signature algorithms: family, and the hash where the name tells it; elsewhere the context does. */
const kSignatures = {
  [`${kRsa}.1`]: ['RSA'], [`${kRsa}.5`]: ['RSA', 'sha1'], [`${kRsa}.14`]: ['RSA', 'sha224'],
  [`${kRsa}.11`]: ['RSA', 'sha256'], [`${kRsa}.12`]: ['RSA', 'sha384'], [`${kRsa}.13`]: ['RSA', 'sha512'],
  [kRsaPss]: ['RSA-PSS'],
  '1.2.840.10045.2.1': ['ECDSA'], // the name of the key, where some issuers put it
  [`${kEcdsa}.1`]: ['ECDSA', 'sha1'], [`${kEcdsa}.3.1`]: ['ECDSA', 'sha224'], [`${kEcdsa}.3.2`]: ['ECDSA', 'sha256'],
  [`${kEcdsa}.3.3`]: ['ECDSA', 'sha384'], [`${kEcdsa}.3.4`]: ['ECDSA', 'sha512'],
  [`${kPlainEcdsa}.1`]: ['plain ECDSA', 'sha1'], [`${kPlainEcdsa}.2`]: ['plain ECDSA', 'sha224'],
  [`${kPlainEcdsa}.3`]: ['plain ECDSA', 'sha256'], [`${kPlainEcdsa}.4`]: ['plain ECDSA', 'sha384'],
  [`${kPlainEcdsa}.5`]: ['plain ECDSA', 'sha512'],
};

/** "SHA-256" for "sha256". */
export const hashWords = (hash) => hash.replace('sha', 'SHA-');

/** The hash that an AlgorithmIdentifier names. */
export function hashOf(identifier) {
  const oid = oidText(readElement(identifier.value).value);
  if (!kHashes[oid]) throw new Error(`the hash algorithm ${oid} is not known`);
  return kHashes[oid];
}

/**
 * Family and hash of a signature algorithm by its object identifier; the hash is undefined where the name leaves it open.
 * @returns {{family: string, hash: string|undefined}}
 */
export function signatureAlgorithm(oid) {
  if (!kSignatures[oid]) throw new Error(`the signature algorithm ${oid} is not known`);
  const [family, hash] = kSignatures[oid];
  return { family, hash };
}

/** RSASSA-PSS-params (RFC 4055 section 3.1); what is left out has its default. */
function pssParameters(sequence) {
  const given = new Map(sequence ? readElements(sequence.value).map(({ tag, value }) => [tag, readElement(value)]) : []);
  const hash = given.has(0xa0) ? hashOf(given.get(0xa0)) : 'sha1';
  const mask = given.has(0xa1) ? hashOf(readElements(given.get(0xa1).value)[1]) : 'sha1';
  const salt = given.has(0xa2) ? given.get(0xa2).value.readUIntBE(0, Math.min(4, given.get(0xa2).length)) : 20;
  return { hash, mask, salt };
}

/** A key that carries the parameters of the signature, among them a mask hash of its own. */
function pssKey(spki, parameters) {
  const [, bits] = readElements(readElement(spki).value);
  const { sequence, oid } = DER;
  const der = sequence(sequence(oid(kRsaPss), ...(parameters ? [parameters.bytes] : [sequence()])), bits.bytes);
  return createPublicKey({ key: der, format: 'der', type: 'spki' });
}

/**
 * Is this the signature over `data`?
 * @param {object} identifier    element of the AlgorithmIdentifier that names the signature
 * @param {Buffer} spki          SubjectPublicKeyInfo of the signer
 * @param {string} [contextHash] the hash where the algorithm's name leaves it open
 * @returns {{good: boolean, how: string}} how: "ECDSA, brainpoolP256r1, SHA-256"
 */
export function checkSignature(identifier, spki, data, signature, contextHash) {
  const [name, parameters] = readElements(identifier.value);
  const { family, hash: named } = signatureAlgorithm(oidText(name.value));
  const { key, words } = publicKeyFrom(spki);
  const elliptic = key.asymmetricKeyType === 'ec';
  if (elliptic !== family.includes('ECDSA')) return { good: false, how: `${family}, but the key is for ${words}` };
  if (family === 'RSA-PSS') {
    const { hash, mask, salt } = pssParameters(parameters);
    const pss = { key: pssKey(spki, parameters), padding: constants.RSA_PKCS1_PSS_PADDING, saltLength: salt };
    const how = `${words}, PSS, ${hashWords(hash)}${mask === hash ? '' : `, mask ${hashWords(mask)}`}`;
    return { good: verify(hash, data, pss, signature), how };
  }
  const hash = named ?? contextHash;
  const how = `${elliptic ? 'ECDSA, ' : ''}${words}${elliptic ? '' : ', PKCS #1 v1.5'}, ${hashWords(hash)}`;
  const encoding = family === 'plain ECDSA' ? 'ieee-p1363' : 'der';
  return { good: verify(hash, data, elliptic ? { key, dsaEncoding: encoding } : { key }, signature), how };
}
