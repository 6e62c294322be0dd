// What tests of an application need: documents, the link to them, servers, and the bare reader. The application that reads through
// the package is in lib/application.mjs, since it needs the package's build.

export { CardLink } from './lib/card-link.mjs';
export { DecodeServer } from './lib/decode-server/server.mjs';
export { IdentityCard } from './lib/identity-card.mjs';
export { loadKeys } from './lib/keys.mjs';
export { LatencyServer } from './lib/latency-server.mjs';
export { LocationServer } from './lib/location-server.mjs';
export { PASSPORT_PACE, PassportChip } from './lib/passport/chip.mjs';
export { issuePassport } from './lib/passport/specimen.mjs';
export { expectedPassport } from './lib/passport-persona.mjs';
export { DEFAULT_IDENTITY, expectedPersona } from './lib/persona.mjs';
export { Reader } from './lib/reader.mjs';
