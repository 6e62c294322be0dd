// The chip's side of Basic Access Control (ICAO Doc 9303-11 section 4.3) and its signature of Active Authentication
// (section 6.1; ISO/IEC 9796-2, scheme 1).

import { constants, createHash, privateEncrypt } from 'node:crypto';
import { u8 } from '../bytes.mjs';
import { mrzInformation } from './mrz.mjs';
import { SecureChannel, decrypt, deriveKeys, encrypt, retailMac } from './secure-messaging.mjs';

const sha1 = (...parts) => createHash('sha1').update(Buffer.concat(parts)).digest();
const differently = (bytes) => Buffer.from(bytes.map((byte, i) => (i === 0 ? byte ^ 1 : byte)));

/** The keys that open the chip: derived from what stands in the machine-readable zone. */
export function accessKeys(document) {
  return deriveKeys(sha1(Buffer.from(mrzInformation(document), 'ascii')).subarray(0, 16));
}

/**
 * EXTERNAL AUTHENTICATE.
 * @param {{enc: Buffer, mac: Buffer}} keys  accessKeys
 * @param {Buffer} rndIc      the challenge that the chip has given, 8 bytes
 * @param {Buffer} kIc        the chip's key material, 16 bytes
 * @param {Buffer} cryptogram 32 bytes and 8 of MAC
 * @param {object} [faults]   wrongRndIc, wrongRndIfd, wrongMac (booleans): what to do wrong in the answer
 * @returns {{failed: {what, expected, actual}}|{answer: Buffer, channel: SecureChannel}} bytes
 */
export function mutualAuthentication(keys, rndIc, kIc, cryptogram, faults = {}) {
  const sealed = cryptogram.subarray(0, 32);
  const mac = retailMac(keys.mac, sealed);
  if (!mac.equals(cryptogram.subarray(32))) {
    return { failed: { what: 'MAC', expected: mac, actual: cryptogram.subarray(32) } };
  }
  const plain = decrypt(keys.enc, sealed);
  const [rndIfd, echoed, kIfd] = [plain.subarray(0, 8), plain.subarray(8, 16), plain.subarray(16)];
  if (!echoed.equals(rndIc)) return { failed: { what: 'RND.IC', expected: rndIc, actual: echoed } };
  const answer = encrypt(keys.enc, Buffer.concat([
    faults.wrongRndIc ? differently(rndIc) : rndIc, faults.wrongRndIfd ? differently(rndIfd) : rndIfd, kIc,
  ]));
  const answerMac = retailMac(keys.mac, answer);
  const seed = Buffer.from(kIfd.map((byte, i) => byte ^ kIc[i]));
  const counter = Buffer.concat([rndIc.subarray(4), rndIfd.subarray(4)]).readBigUInt64BE();
  return {
    answer: Buffer.concat([answer, faults.wrongMac ? differently(answerMac) : answerMac]),
    channel: new SecureChannel({ ...deriveKeys(seed), counter }),
  };
}

/**
 * INTERNAL AUTHENTICATE: the signature over the reader's eight bytes, with SHA-1 and the trailer BC.
 * @param {KeyObject} key       private RSA key
 * @param {Buffer} challenge
 * @param {(count: number) => Buffer} random  for the recoverable part of the message
 */
export function activeSignature(key, challenge, random) {
  const size = key.asymmetricKeyDetails.modulusLength / 8;
  const recoverable = random(size - 22);
  const block = Buffer.concat([u8(0x6a), recoverable, sha1(recoverable, challenge), u8(0xbc)]);
  return privateEncrypt({ key, padding: constants.RSA_NO_PADDING }, block);
}
