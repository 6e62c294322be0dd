// What a decode server makes of a passport: is what is in its files signed by its issuer, and is the chip the one that
// the files belong to?

import { constants, createHash, createPublicKey, publicDecrypt } from 'node:crypto';
import { elementAt } from '../passport/der.mjs';
import { checkSignature, hashList } from './passport-signature.mjs';

const kHash = 20; // SHA-1
const kHeader = 0x6a; // partial recovery
const kTrailer = 0xbc; // SHA-1 as the implicit hash

/**
 * Active authentication (ICAO Doc 9303-11): the answer to INTERNAL AUTHENTICATE is a signature with message recovery,
 * ISO/IEC 9796-2 scheme 1 with RSA and SHA-1, over bytes of the chip's own and the challenge.
 * @param {Buffer} file       DG15: the chip's public key
 * @param {Buffer} challenge  8 bytes
 * @param {Buffer} answer
 */
export function isGenuineAnswer(file, challenge, answer) {
  try {
    const key = createPublicKey({ key: elementAt(file, 0).value, format: 'der', type: 'spki' });
    const opened = publicDecrypt({ key, padding: constants.RSA_NO_PADDING }, answer);
    if (opened[0] !== kHeader || opened.at(-1) !== kTrailer) return false;
    const recovered = opened.subarray(1, -1 - kHash);
    return createHash('sha1').update(recovered).update(challenge).digest().equals(opened.subarray(-1 - kHash, -1));
  } catch {
    return false;
  }
}

/** How each data group stands to its hash in EF.SOD: 'good', 'differs', 'not listed', or 'not read'. */
function compareHashes(files) {
  const { algorithm, hashes } = hashList(files['EF.SOD']);
  const listed = new Map(hashes.map(({ number, hash }) => [`DG${number}`, hash]));
  const verdict = (name) => {
    const file = files[name];
    if (!file || file.length === 0) return 'not read';
    if (!listed.has(name)) return 'not listed';
    return createHash(algorithm).update(file).digest().equals(listed.get(name)) ? 'good' : 'differs';
  };
  const read = Object.keys(files).filter((name) => name.startsWith('DG') && files[name].length > 0);
  const numbers = [...new Set([...read, ...listed.keys()])].sort((a, b) => a.slice(2) - b.slice(2));
  return Object.fromEntries(numbers.map((name) => [name, verdict(name)]));
}

function verifyPassively(files, authority) {
  try {
    const hashes = compareHashes(files);
    const { good, signer } = checkSignature(files['EF.SOD'], authority);
    const verdicts = Object.values(hashes);
    const passed = good && verdicts.includes('good') && verdicts.every((each) => ['good', 'not read'].includes(each));
    return { passiveAuthentication: passed ? 'passed' : 'failed', signature: good ? 'good' : 'wrong', signer, hashes };
  } catch (error) {
    return { passiveAuthentication: 'failed', signature: `not readable (${error.message})`, signer: '', hashes: {} };
  }
}

/**
 * Both authentications of a passport.
 * @param {object} read  files: bytes by name, empty for those that did not come; challenge and answer of INTERNAL
 *   AUTHENTICATE
 * @param {Buffer} [authority]  certificate of the authority whose signers are trusted; all are without one
 * @returns {{passiveAuthentication: string, activeAuthentication: string, signature: string, signer: string,
 *   hashes: object}} both are 'passed' or 'failed'; the active one can also be 'not done'
 */
export function verifyPassport({ files, challenge, answer }, authority) {
  const { DG15 } = files;
  const done = challenge.some((byte) => byte !== 0) && DG15?.length > 0;
  const active = !done ? 'not done' : isGenuineAnswer(DG15, challenge, answer) ? 'passed' : 'failed';
  return { activeAuthentication: active, ...verifyPassively(files, authority) };
}
