// The decode server's configuration: every setting with its default.

import { fromHex, hex } from '../bytes.mjs';
import { randomFrom } from '../crypto.mjs';
import { DEVELOPMENT_CARD_KEY, SPECIMEN_PERSON } from '../persona.mjs';
import { HEADER } from './frames.mjs';
import { completePassport } from './passport-files.mjs';

const DEFAULTS = {
  host: '127.0.0.1', // where to listen
  port: 0, //           0: any free port
  keys: {}, //          protocol keys by environment code: { 268: 16 bytes or 32 digits, ... }
  envIdCode: 268,
  persona: {}, //       expected identity (appid, sn, packageName, terId, reqidType, readMode, decodeMode,
  //                    queryInfo, frameFlag); what is undefined is checked in its structure only
  card: {}, //          the card's secrets: cardKey, managementData, file6011, file6012, file6013 (hexadecimal)
  //                    and proofLength (8 or 18); what is undefined is taken as the reader sends it
  document: undefined, // 'identityCard' or 'passport': what must be read; undefined: either
  passport: undefined, // the passport: { files: by name ("DG1", "EF.COM"), bytes or hexadecimal; statuses: by name, where
  //                    reading does not end with "9000"; verification: { activeAuthentication: 'passed', ... }: what
  //                    must come of it; authority: certificate of who has issued the signer's }; undefined: any passport
  judge: undefined, //  ({ files, challenge, answer }) => what is answered about a passport, or a promise of it; undefined:
  //                    what this server itself makes of the files
  token: undefined, //  what 0x7201 hands out, hexadecimal, up to 16 bytes; undefined: random
  random: undefined, //  a text from which keys, challenges and tokens come, always the same ones
  timing: false, //     ask the reader to time the card
  opaqueLength: 0, //   opaque bytes in front of the 0x7500 answer
  businessId: 'SIMULATED-READ-000001',
  newStickCardId: 'C0FFEE00000000000000000000000001',
  person: SPECIMEN_PERSON, // who is decoded
  answers: {}, //       other answers of '0x6002', '0x6102', '0x6113' and '0x7202', see decode-commands.mjs
  path: undefined, //   'fast' or 'slow': the way of card authentication that the reader must take
  hostTimes: undefined, // () => all readings of the host's clock so far; none of them may give the reader's random bytes away
  monitorText: 'exact', // 'record': other spacing will do; 'any': not looked at
  delay: 0, //          milliseconds before every answer
  rules: [], //         misbehaviour, see misbehaviour.mjs
  onDifference: 'close', // or 'silence', 'reset', or 'status:001301' to answer with that status
};

/** A complete configuration from a partial one. Throws a TypeError for an unknown or bad setting. */
export function completeConfig(partial) {
  for (const name of Object.keys(partial)) {
    if (!(name in DEFAULTS)) throw new TypeError(`the decode server has no setting "${name}"`);
  }
  const given = Object.fromEntries(Object.entries(partial).filter(([, value]) => value !== undefined));
  const config = { ...DEFAULTS, ...given };
  config.keys = Object.fromEntries(Object.entries(config.keys).map(([code, key]) => [code, asBytes(key)]));
  if (config.keys[config.envIdCode]?.length !== 16) {
    throw new TypeError(`no 16-byte key for environment ${config.envIdCode}`);
  }
  const secrets = Object.entries(config.card).filter(([, value]) => value !== undefined)
    .map(([name, value]) => [name, typeof value === 'number' ? value : asBytes(value)]);
  config.card = { cardKey: fromHex(DEVELOPMENT_CARD_KEY), ...Object.fromEntries(secrets) };
  config.card.cardKey = hex(config.card.cardKey);
  config.passport = completePassport(config.passport);
  if (config.document !== undefined && !(config.document in HEADER)) {
    throw new TypeError(`document cannot be ${JSON.stringify(config.document)}`);
  }
  if (config.token !== undefined && !(config.token.length <= 32)) throw new TypeError('token is longer than 16 bytes');
  if (!/^(close|silence|reset|status:[0-9a-fA-F]{6})$/.test(config.onDifference)) {
    throw new TypeError(`onDifference cannot be ${JSON.stringify(config.onDifference)}`);
  }
  if (config.newStickCardId.length !== 32) throw new TypeError('newStickCardId is not 32 hexadecimal digits');
  return config;
}

const asBytes = (value) => (typeof value === 'string' ? fromHex(value) : Buffer.from(value));
