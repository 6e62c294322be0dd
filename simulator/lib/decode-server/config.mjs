// The decode server's configuration: every setting with its default.

import { fromHex, hex } from '../bytes.mjs';
import { DEVELOPMENT_CARD_KEY, SPECIMEN_PERSON } from '../persona.mjs';

const DEFAULTS = {
  host: '127.0.0.1', // where to listen
  port: 0, //           0: any free port
  keys: {}, //          protocol keys by environment code: { 268: 16 bytes or 32 digits, ... }
  envIdCode: 268,
  persona: {}, //       expected identity (appid, sn, packageName, terId, reqidType, readMode, decodeMode,
  //                    queryInfo, frameFlag); what is undefined is checked in its structure only
  card: {}, //          the card's secrets: cardKey, managementData, file6011, file6012, file6013 (hexadecimal)
  //                    and proofLength (8 or 18); what is undefined is taken as the reader sends it
  timing: false, //     ask the reader to time the card
  opaqueLength: 0, //   opaque bytes in front of the 0x7500 answer
  businessId: 'SIMULATED-READ-000001',
  newStickCardId: 'C0FFEE00000000000000000000000001',
  person: SPECIMEN_PERSON, // who is decoded
  answers: {}, //       other answers of '0x6002', '0x6102' and '0x6113', see decode-commands.mjs
  path: undefined, //   'fast' or 'slow': the way of card authentication that the reader must take
  hostTimes: undefined, // () => all readings of the host's clock so far; makes the reader's random bytes checkable
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
  if (!/^(close|silence|reset|status:[0-9a-fA-F]{6})$/.test(config.onDifference)) {
    throw new TypeError(`onDifference cannot be ${JSON.stringify(config.onDifference)}`);
  }
  if (config.newStickCardId.length !== 32) throw new TypeError('newStickCardId is not 32 hexadecimal digits');
  return config;
}

const asBytes = (value) => (typeof value === 'string' ? fromHex(value) : Buffer.from(value));
