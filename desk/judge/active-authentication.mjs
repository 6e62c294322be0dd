// Active authentication (ICAO Doc 9303-11 section 6.1): the chip signs a challenge with a key that it cannot give away, and
// whose public half is in DG15.

import { createHash, constants, publicDecrypt, verify } from 'node:crypto';
import { oidText, readElement, readElements } from '../../simulator/lib/passport/der.mjs';
import { hashWords, signatureAlgorithm } from './algorithms.mjs';
import { publicKeyFrom } from './public-key.mjs';

const kActiveAuthenticationInfo = '2.23.136.1.1.5';
const kHashes = ['sha256', 'sha1', 'sha224', 'sha384', 'sha512'];

/** Hashes by the first byte of a trailer of two (ISO/IEC 10118-3). */
const kTrailerHashes = { 0x33: 'sha1', 0x34: 'sha256', 0x35: 'sha512', 0x36: 'sha384', 0x38: 'sha224' };

/** What a message representative of ISO/IEC 9796-2 scheme 1 says: the recovered part of the message, its hash. */
function openRepresentative(bytes) {
  const short = bytes.at(-1) === 0xbc;
  const algorithm = short ? 'sha1' : bytes.at(-1) === 0xcc && kTrailerHashes[bytes.at(-2)];
  if (!algorithm || (bytes[0] & 0xc0) !== 0x40) return undefined;
  let start = 1;
  if ((bytes[0] & 0x0f) === 0x0b) { // padded with BB up to a BA
    while (bytes[start] === 0xbb) start += 1;
    if (bytes[start] !== 0xba) return undefined;
    start += 1;
  } else if ((bytes[0] & 0x0f) !== 0x0a) {
    return undefined;
  }
  const end = bytes.length - (short ? 1 : 2);
  const hashAt = end - createHash(algorithm).digest().length;
  if (hashAt < start) return undefined;
  return { algorithm, message: bytes.subarray(start, hashAt), hash: bytes.subarray(hashAt, end) };
}

function checkRsa(key, challenge, answer) {
  const opened = publicDecrypt({ key, padding: constants.RSA_NO_PADDING }, answer);
  // The standard lets the signer send the smaller of a number and its negative.
  const modulus = BigInt(`0x${Buffer.from(key.export({ format: 'jwk' }).n, 'base64url').toString('hex')}`);
  const negative = modulus - BigInt(`0x${opened.toString('hex')}`);
  const other = Buffer.from(negative.toString(16).padStart(opened.length * 2, '0'), 'hex');
  for (const bytes of [opened, other]) {
    const parts = openRepresentative(bytes);
    if (!parts) continue;
    const { algorithm, message, hash } = parts;
    if (createHash(algorithm).update(message).update(challenge).digest().equals(hash)) return algorithm;
  }
  return undefined;
}

/** The hash that DG14 names for signatures on an elliptic curve. */
function namedHash(dg14) {
  if (!dg14) return undefined;
  const infos = readElements(readElement(readElement(dg14).value).value).map(({ value }) => readElements(value));
  const info = infos.find(([oid]) => oidText(oid.value) === kActiveAuthenticationInfo);
  return info?.[2] && signatureAlgorithm(oidText(info[2].value)).hash;
}

function checkEcdsa(key, challenge, answer, dg14) {
  let named;
  try {
    named = namedHash(dg14);
  } catch {
    named = undefined; // a DG14 that cannot be read does not tell
  }
  const isGood = (hash) => ['ieee-p1363', 'der'].some((dsaEncoding) => {
    try {
      return verify(hash, challenge, { key, dsaEncoding }, answer);
    } catch {
      return false; // not of this encoding
    }
  });
  return (named ? [named] : kHashes).find(isGood);
}

/**
 * @param {Map<number, Buffer>} groups  data groups by number
 * @param {{challenge: Buffer, answer: Buffer}} [exchange]  of INTERNAL AUTHENTICATE
 * @returns {object|undefined} a check, or nothing for a document that has no such key
 */
export function checkActiveAuthentication(groups, exchange) {
  const name = 'The chip is no copy';
  const file = groups.get(15);
  if (!file) return undefined;
  const { challenge, answer } = exchange ?? {};
  if (!challenge || challenge.every((byte) => byte === 0)) {
    return { name, verdict: 'unchecked', words: 'The chip has a key for active authentication, but was not asked to use it.' };
  }
  if (!answer?.length) return { name, verdict: 'bad', words: 'The chip was asked to sign a challenge and gave no signature.' };
  try {
    const { key, words } = publicKeyFrom(readElement(file).value);
    const check = key.asymmetricKeyType === 'ec' ? checkEcdsa : checkRsa;
    const hash = check(key, challenge, answer, groups.get(14));
    if (!hash) return { name, verdict: 'bad', words: `The chip's signature (${words}) is wrong: this is not the chip that was issued.` };
    return { name, verdict: 'good', words: `The chip signed a fresh challenge (${words}, ${hashWords(hash)}) with the key of DG15.` };
  } catch (error) {
    return { name, verdict: 'unchecked', words: `The signature could not be judged: ${error.message}.` };
  }
}
