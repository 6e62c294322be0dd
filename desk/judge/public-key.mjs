// Public keys as documents hold them (RFC 5280, RFC 3279). Many spell their curve out instead of naming it: such a curve is
// looked up among the named ones.

import { createPublicKey, generateKeyPairSync, getCurves } from 'node:crypto';
import { DER, oidText, readElement, readElements } from '../../simulator/lib/passport/der.mjs';

const kEcPublicKey = '1.2.840.10045.2.1';
const kRsaPss = '1.2.840.113549.1.1.10';
const kRsaEncryption = '1.2.840.113549.1.1.1';
const kCurves = ['prime256v1', 'secp384r1', 'secp521r1', 'secp224r1', 'prime192v1',
  ...[256, 384, 512, 320, 224, 192].flatMap((bits) => [`brainpoolP${bits}r1`, `brainpoolP${bits}t1`])];

const number = (bytes) => BigInt(`0x${bytes.toString('hex') || '0'}`);

/** What tells a curve: prime, both coefficients, the first coordinate of its base point, and its order. */
function fingerprint(parameters) {
  const [, field, curve, base, order] = readElements(parameters.value);
  const [, prime] = readElements(field.value);
  const [a, b] = readElements(curve.value);
  const p = number(prime.value);
  const width = Math.ceil(p.toString(2).length / 8);
  return [p, number(a.value), number(b.value), number(base.value.subarray(1, 1 + width)), number(order.value)].join();
}

/** Algorithm identifier of a fresh key on a curve. */
function keyAlgorithm(namedCurve, paramEncoding) {
  const { publicKey } = generateKeyPairSync('ec', { namedCurve, paramEncoding });
  const [identifier] = readElements(readElement(publicKey.export({ type: 'spki', format: 'der' })).value);
  return readElements(identifier.value)[1];
}

let curvesByFingerprint;

/** The named form of parameters that are spelled out. */
function namedParameters(parameters) {
  const there = getCurves();
  curvesByFingerprint ??= new Map(kCurves.filter((name) => there.includes(name))
    .map((name) => [fingerprint(keyAlgorithm(name, 'explicit')), keyAlgorithm(name, 'named').bytes]));
  const found = curvesByFingerprint.get(fingerprint(parameters));
  if (!found) throw new Error('the key lies on a curve that is not known');
  return found;
}

/**
 * @param {Buffer} spki  SubjectPublicKeyInfo
 * @returns {{key: KeyObject, words: string}} words: "RSA 2048" or the name of the curve
 */
export function publicKeyFrom(spki) {
  const [identifier, bits] = readElements(readElement(spki).value);
  const [name, parameters] = readElements(identifier.value);
  const oid = oidText(name.value);
  const { sequence, oid: named, nothing } = DER;
  let der = spki;
  if (oid === kEcPublicKey && parameters.tag === 0x30) {
    der = sequence(sequence(named(kEcPublicKey), namedParameters(parameters)), bits.bytes);
  } else if (oid === kRsaPss) { // what the key may be used for does not matter here
    der = sequence(sequence(named(kRsaEncryption), nothing()), bits.bytes);
  }
  const key = createPublicKey({ key: der, format: 'der', type: 'spki' });
  const { namedCurve, modulusLength } = key.asymmetricKeyDetails;
  return { key, words: namedCurve ?? `${key.asymmetricKeyType.toUpperCase()} ${modulusLength}` };
}
