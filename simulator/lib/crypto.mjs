// The ciphers and digests of the simulators, all from Node.js itself:
// SM3 (GB/T 32905), SM4 in CBC mode (GB/T 32907) with PKCS #7 padding, HMAC-SM3 (RFC 2104).

import { createCipheriv, createDecipheriv, createHash, createHmac, randomBytes } from 'node:crypto';
import { hex } from './bytes.mjs';
import { Difference } from './difference.mjs';

const kBlock = 16;

export function sm3(data) {
  return createHash('sm3').update(data).digest();
}

/** The initial vector that belongs to a key: both halves of the key's SM3 digest, folded by XOR. */
export function foldedVector(key) {
  const digest = sm3(key);
  return Buffer.from(digest.subarray(0, 16).map((byte, i) => byte ^ digest[i + 16]));
}

/** A key block: SM4 key and CBC vector. Every message under one block starts from the same vector. */
export function keyBlock(key, vector = foldedVector(key)) {
  return { key: Buffer.from(key), vector: Buffer.from(vector) };
}

/** PKCS #7: one to sixteen bytes, each holding their count. */
export function pad(data) {
  const count = kBlock - (data.length % kBlock);
  return Buffer.concat([data, Buffer.alloc(count, count)]);
}

/** Encrypts whole blocks as they are; the caller has padded them. */
export function encryptBlocks(block, padded) {
  const cipher = createCipheriv('sm4-cbc', block.key, block.vector).setAutoPadding(false);
  return Buffer.concat([cipher.update(padded), cipher.final()]);
}

export function encrypt(block, data) {
  return encryptBlocks(block, pad(data));
}

/** Decrypts and takes the padding off; anything but exact PKCS #7 padding throws a Difference. */
export function decrypt(block, data, at, what) {
  if (data.length === 0 || data.length % kBlock !== 0) {
    throw new Difference(at, `length of ${what}`, 'a multiple of 16 above 0', data.length);
  }
  const decipher = createDecipheriv('sm4-cbc', block.key, block.vector).setAutoPadding(false);
  const padded = Buffer.concat([decipher.update(data), decipher.final()]);
  const count = padded.at(-1);
  const padding = padded.subarray(-Math.max(1, Math.min(count, kBlock)));
  if (count < 1 || count > kBlock || padding.some((byte) => byte !== count)) {
    throw new Difference(at, `padding of ${what}`, 'one to sixteen bytes that hold their count', hex(padding));
  }
  return padded.subarray(0, padded.length - count);
}

/** A source of random bytes, (count) => bytes; with a seed (a text) always the same ones. */
export function randomFrom(seed) {
  let drawn = 0;
  const next = () => `${seed} ${drawn += 1}`;
  return seed === undefined ? randomBytes : (count) => createHash('shake256', { outputLength: count }).update(next()).digest();
}

/** First `count` bytes of HMAC-SM3. */
export function mac(key, data, count) {
  return createHmac('sm3', key).update(data).digest().subarray(0, count);
}

/**
 * The reader's pseudo-random bytes for one reading of the host's clock: the linear congruential generator
 * (214013, 2531011) in 64 bits, seeded with the milliseconds modulo 10^9.
 */
export function hostRandom(milliseconds, count) {
  let state = BigInt.asUintN(64, BigInt(milliseconds) % 1000000000n);
  const bytes = Buffer.alloc(count);
  for (let i = 0; i < count; i += 1) {
    state = BigInt.asUintN(64, state * 214013n + 2531011n);
    const r = state >> 16n;
    bytes[i] = Number(BigInt.asUintN(8, r + (r & 0x7fffn) / 255n));
  }
  return bytes;
}
