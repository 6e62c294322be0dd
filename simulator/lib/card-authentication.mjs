// The mutual authentication of the simulated identity card. Card and decode server share a 16-byte card key;
// each proves that it knows it with some bytes of HMAC-SM3 over what the other one sent. The reader only
// relays these bytes, exactly as it relays a real card's.

import { mac } from './crypto.mjs';

const kProof = 8;
const labelled = (label, ...parts) => Buffer.concat([Buffer.from(label, 'ascii'), ...parts]);

/** The card's answer to INTERNAL AUTHENTICATE over the server's eight bytes: 8 bytes, or 18 on some cards. */
export function cardProof(cardKey, managementData, serverChallenge, length) {
  return mac(cardKey, labelled('card', managementData, serverChallenge), length);
}

/** The server's EXTERNAL AUTHENTICATE bytes over the card's challenge. */
export function serverProof(cardKey, serverChallenge, cardChallenge) {
  return mac(cardKey, labelled('server', serverChallenge, cardChallenge), kProof);
}
