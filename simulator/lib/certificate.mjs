// X.509 certificates (RFC 5280) in DER, signed with RSA and SHA-256, and the key pairs that go with them. All of them are
// made up anew in every process.

import { createHash, generateKeyPairSync, sign } from 'node:crypto';
import { DER } from './passport/der.mjs';

const kSha256WithRsa = '1.2.840.113549.1.1.11';
const kDay = 24 * 3600 * 1000;

/** Bits of the extension "key usage", as [bytes, unused bits]. */
export const KEY_USAGE = Object.freeze({
  signCertificates: [Buffer.of(0x06), 1],
  signDocuments: [Buffer.of(0x80), 7],
  encipherKeys: [Buffer.of(0x20), 5],
});

const sha1 = (data) => createHash('sha1').update(data).digest();

export const algorithm = (oid) => DER.sequence(DER.oid(oid), DER.nothing());

/** A name of country, organisation and common name; "UT" stands for the Utopia of specimens. */
export function distinguishedName(commonName) {
  const part = (oid, value) => DER.set(DER.sequence(DER.oid(oid), value));
  return DER.sequence(part('2.5.4.6', DER.printable('UT')), part('2.5.4.10', DER.utf8('Specimen Authority of Utopia')),
    part('2.5.4.3', DER.utf8(commonName)));
}

/**
 * A certificate in DER. `usage` is a row of KEY_USAGE; who signs certificates is marked as an authority.
 */
export function certificate({ serial, subject, issuer, publicKey, issuerKey, issuerPublicKey, usage }) {
  const { sequence, explicit, integer, oid, bits, octets, boolean, tlv, utcTime } = DER;
  const keyId = (key) => sha1(key.export({ type: 'pkcs1', format: 'der' }));
  const extension = (id, critical, value) =>
    sequence(oid(id), ...(critical ? [boolean(true)] : []), octets(value));
  const authority = usage === KEY_USAGE.signCertificates;
  const now = Date.now();
  const body = sequence(
    explicit(0, integer(2)), integer(serial), algorithm(kSha256WithRsa), distinguishedName(issuer),
    sequence(utcTime(new Date(now - kDay)), utcTime(new Date(now + 3650 * kDay))), distinguishedName(subject),
    publicKey.export({ type: 'spki', format: 'der' }),
    explicit(3, sequence(
      extension('2.5.29.35', false, sequence(tlv(0x80, keyId(issuerPublicKey)))),
      extension('2.5.29.14', false, octets(keyId(publicKey))),
      extension('2.5.29.15', true, bits(...usage)),
      ...(authority ? [extension('2.5.29.19', true, sequence(boolean(true), integer(0)))] : []),
    )),
  );
  return sequence(body, algorithm(kSha256WithRsa), bits(sign('sha256', body, issuerKey)));
}

/** A key pair and the certificate that it has issued for itself, as PEM texts for a TLS server. */
export function serverIdentity({ subject = 'Specimen Server', modulusLength = 2048 } = {}) {
  const { privateKey, publicKey } = generateKeyPairSync('rsa', { modulusLength });
  const der = certificate({ serial: 1, subject, issuer: subject, publicKey, issuerKey: privateKey,
    issuerPublicKey: publicKey, usage: KEY_USAGE.encipherKeys });
  const lines = der.toString('base64').match(/.{1,64}/g).join('\n');
  return {
    key: privateKey.export({ type: 'pkcs8', format: 'pem' }),
    cert: `-----BEGIN CERTIFICATE-----\n${lines}\n-----END CERTIFICATE-----\n`,
  };
}
