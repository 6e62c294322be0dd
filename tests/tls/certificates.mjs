// RSA keys of any size and exponent, with as many prime factors as make them quickly, and certificates around them.
// The private operation is computed here, so that the padding can be looked at as it arrived.

import { generatePrimeSync } from 'node:crypto';

const bitLength = (n) => n.toString(2).length;
const bytes = (n, length) => Buffer.from(n.toString(16).padStart(2 * length, '0'), 'hex');

function power(base, exponent, modulus) {
  let result = 1n;
  for (let b = base % modulus; exponent > 0n; exponent >>= 1n, b = (b * b) % modulus) {
    if (exponent & 1n) result = (result * b) % modulus;
  }
  return result;
}

function inverse(a, modulus) {
  let [r0, r1, s0, s1] = [modulus, a % modulus, 0n, 1n];
  while (r1 > 0n) [r0, r1, s0, s1] = [r1, r0 % r1, s1, s0 - (r0 / r1) * s1];
  return r0 === 1n ? ((s0 % modulus) + modulus) % modulus : undefined;
}

function primeOf(bits, exponent) {
  for (;;) {
    const p = generatePrimeSync(bits, { bigint: true });
    if (inverse(exponent, p - 1n) !== undefined) return p;
  }
}

export function makeKey(bits, exponent = 65537n) {
  const primes = [];
  let modulus = 1n;
  for (let left = bits; left > 32; left = bits - bitLength(modulus)) {
    primes.push(primeOf(left > 1100 ? 512 : left > 600 ? left >> 1 : left, exponent));
    modulus *= primes.at(-1);
  }
  return bitLength(modulus) === bits ? new RsaKey(modulus, exponent, primes) : makeKey(bits, exponent);
}

class RsaKey {
  constructor(modulus, exponent, primes) {
    Object.assign(this, { modulus, exponent, length: Math.ceil(bitLength(modulus) / 8) });
    this.factors = primes.map((p) => ({ p, d: inverse(exponent, p - 1n), weight: (modulus / p) * inverse(modulus / p, p) }));
  }

  // The padded message, as long as the modulus.
  decrypt(ciphertext) {
    const c = BigInt(`0x${ciphertext.toString('hex')}`);
    if (c >= this.modulus) throw new Error('ciphertext above the modulus');
    return bytes(this.factors.reduce((sum, { p, d, weight }) => sum + power(c, d, p) * weight, 0n) % this.modulus, this.length);
  }
}

// DER, with lengths in their shortest form.
export function der(tag, ...parts) {
  const content = Buffer.concat(parts);
  const length = Buffer.from(content.length.toString(16).replace(/^(.)(..)*$/, '0$&'), 'hex');
  return Buffer.concat([Buffer.of(tag, ...(content.length < 0x80 ? [] : [0x80 | length.length]), ...length), content]);
}
export const oid = (hex) => der(0x06, Buffer.from(hex, 'hex'));
export const integer = (n) => der(0x02, bytes(n, (bitLength(n) >> 3) + 1));
export const rsaPublicKey = ({ modulus, exponent }) => der(0x30, integer(modulus), integer(exponent));
export const kRsaEncryption = der(0x30, oid('2A864886F70D010101'), der(0x05));
export const keyInfo = (key, algorithm = kRsaEncryption) => der(0x30, algorithm, der(0x03, Buffer.alloc(1), key));

// A certificate whose signature is worth nothing. `parts` replaces parts of it.
export function certificate({ key, ...parts }) {
  const name = der(0x30, der(0x31, der(0x30, oid('550403'), der(0x0c, Buffer.from('example.test')))));
  const algorithm = der(0x30, oid('2A864886F70D01010B'), der(0x05));
  const date = (text) => der(0x17, Buffer.from(text));
  const { version, keyInfo: info, extensions } = { version: der(0xa0, der(0x02, Buffer.of(2))), extensions: der(0xa3, der(0x30)),
    keyInfo: key && keyInfo(rsaPublicKey(key)), ...parts };
  const validity = der(0x30, date('250101000000Z'), date('350101000000Z'));
  const signed = der(0x30, version, der(0x02, Buffer.of(1)), algorithm, name, validity, name, info, extensions);
  return der(0x30, signed, algorithm, der(0x03, Buffer.alloc(257)));
}
