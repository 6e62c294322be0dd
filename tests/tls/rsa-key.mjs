// RSA keys of any size and exponent, with as many prime factors as make them quickly, and certificates around them.
// The private operation is computed here, so that the padding can be looked at as it arrived.

import { generatePrimeSync } from 'node:crypto';

const kPrimeBits = 512;
const bitLength = (n) => n.toString(2).length;
const bytes = (n, length) => Buffer.from(n.toString(16).padStart(2 * length, '0'), 'hex');
export const toNumber = (buffer) => BigInt(`0x${buffer.toString('hex') || '0'}`);

function power(base, exponent, modulus) {
  let result = 1n;
  for (let b = base % modulus; exponent > 0n; exponent >>= 1n, b = (b * b) % modulus) {
    if (exponent & 1n) result = (result * b) % modulus;
  }
  return result;
}

function inverse(a, modulus) {
  let [r0, r1, s0, s1] = [modulus, ((a % modulus) + modulus) % modulus, 0n, 1n];
  while (r1 > 0n) {
    const q = r0 / r1;
    [r0, r1, s0, s1] = [r1, r0 - q * r1, s1, s0 - q * s1];
  }
  return r0 === 1n ? ((s0 % modulus) + modulus) % modulus : undefined;
}

function primeFor(bits, exponent, taken) {
  for (;;) {
    const p = generatePrimeSync(bits, { bigint: true });
    if (!taken.includes(p) && inverse(exponent, p - 1n) !== undefined) return p;
  }
}

export function makeKey(bits, exponent = 65537n) {
  const primes = [];
  let product = 1n;
  while (bits - bitLength(product) > 2 * kPrimeBits) {
    primes.push(primeFor(kPrimeBits, exponent, primes));
    product *= primes.at(-1);
  }
  const half = (bits - bitLength(product)) >> 1;
  for (;;) {
    const middle = primeFor(half, exponent, primes);
    for (const more of [0, 1]) {
      const last = primeFor(bits - bitLength(product * middle) + more, exponent, [...primes, middle]);
      if (bitLength(product * middle * last) === bits) return new RsaKey([...primes, middle, last], exponent);
    }
  }
}

class RsaKey {
  constructor(primes, exponent) {
    this.exponent = exponent;
    this.modulus = primes.reduce((a, b) => a * b, 1n);
    this.length = Math.ceil(bitLength(this.modulus) / 8);
    this.factors = primes.map((p) => {
      const rest = this.modulus / p;
      return { p, d: inverse(exponent, p - 1n), weight: rest * inverse(rest, p) };
    });
  }

  // The padded message, as long as the modulus.
  decrypt(ciphertext) {
    const c = toNumber(ciphertext);
    if (c >= this.modulus) throw new Error('ciphertext above the modulus');
    const m = this.factors.reduce((sum, { p, d, weight }) => sum + power(c, d, p) * weight, 0n) % this.modulus;
    return bytes(m, this.length);
  }
}

// DER, with lengths in their shortest form unless `content` is given as it is.
export function der(tag, ...parts) {
  const content = Buffer.concat(parts);
  const length = content.length < 0x80 ? '' : content.length.toString(16).replace(/^(.)(..)*$/, '0$&');
  const head = length ? [tag, 0x80 | (length.length / 2), ...Buffer.from(length, 'hex')] : [tag, content.length];
  return Buffer.concat([Buffer.from(head), content]);
}
export const oid = (hex) => der(0x06, Buffer.from(hex, 'hex'));
const kSignature = der(0x30, oid('2A864886F70D01010B'), der(0x05));
export const name = (text) => der(0x30, der(0x31, der(0x30, oid('550403'), der(0x0c, Buffer.from(text)))));

export function integer(n) {
  const hex = n.toString(16).padStart(n.toString(16).length + (n.toString(16).length % 2), '0');
  const magnitude = Buffer.from(hex, 'hex');
  return der(0x02, magnitude[0] >= 0x80 ? Buffer.concat([Buffer.alloc(1), magnitude]) : magnitude);
}
export const rsaPublicKey = ({ modulus, exponent }) => der(0x30, integer(modulus), integer(exponent));
export const kRsaEncryption = der(0x30, oid('2A864886F70D010101'), der(0x05));
export const keyInfo = (key, algorithm = kRsaEncryption) =>
  der(0x30, algorithm, der(0x03, Buffer.alloc(1), key));

// A certificate. `parts` replaces parts of it; without the function `sign` its signature is worth nothing.
export function certificate(parts = {}) {
  const fields = {
    version: der(0xa0, der(0x02, Buffer.from([2]))),
    serial: der(0x02, Buffer.from([1])),
    signature: kSignature,
    issuer: name('Test CA'),
    validity: der(0x30, der(0x17, Buffer.from('250101000000Z')), der(0x17, Buffer.from('350101000000Z'))),
    subject: name('example.test'),
    keyInfo: parts.key ? keyInfo(rsaPublicKey(parts.key)) : Buffer.alloc(0),
    extensions: der(0xa3, der(0x30)),
    ...parts,
  };
  const { version, serial, signature, issuer, validity, subject, keyInfo: info, extensions } = fields;
  const signed = der(0x30, version, serial, signature, issuer, validity, subject, info, extensions);
  const bits = parts.sign ? Buffer.concat([Buffer.alloc(1), parts.sign(signed)]) : Buffer.alloc(257);
  return der(0x30, signed, kSignature, der(0x03, bits));
}
