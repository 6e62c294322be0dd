// CMS SignedData (RFC 5652 section 5), as EF.SOD and master lists have it.

import { oidText, readElement, readElements } from '../../simulator/lib/passport/der.mjs';

const kSignedData = '1.2.840.113549.1.7.2';
const kContext0 = 0xa0;
const kOctets = 0x04;

/** The bytes of an octet string, which may come in pieces. */
function octets({ tag, value }) {
  return tag === kOctets ? value : Buffer.concat(readElements(value).map((piece) => piece.value));
}

function signerInfo(element) {
  const [, sid, hash, ...others] = readElements(element.value);
  const attributes = others[0].tag === kContext0 ? others.shift() : undefined;
  const [algorithm, signature] = others;
  return { sid, hash, attributes, algorithm, signature: signature.value };
}

/**
 * @param {Buffer} file  a ContentInfo
 * @returns {{contentType: string, content: Buffer, certificates: Buffer[], signers: object[]}} of each signer: sid, hash and
 *   algorithm as elements, attributes likewise where there are signed ones, signature as bytes
 */
export function signedDataOf(file) {
  const [type, wrapped] = readElements(readElement(file).value);
  if (oidText(type.value) !== kSignedData) throw new Error('it is no signed data');
  const [, , inner, ...others] = readElements(readElement(wrapped.value).value);
  const [contentType, content] = readElements(inner.value);
  const certificates = others.find(({ tag }) => tag === kContext0);
  return {
    contentType: oidText(contentType.value),
    content: octets(readElement(content.value)),
    certificates: certificates ? readElements(certificates.value).filter(({ tag }) => tag === 0x30).map(({ bytes }) => bytes) : [],
    signers: readElements(others.at(-1).value).map(signerInfo),
  };
}

/** Values of the signed attributes by object identifier. */
export function attributeValues(attributes) {
  const rows = readElements(attributes.value).map(({ value }) => {
    const [oid, values] = readElements(value);
    return [oidText(oid.value), readElement(values.value)];
  });
  return new Map(rows);
}
