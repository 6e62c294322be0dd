// Server authentication, command 0x7500: the reader shows who it is and brings a key of its own; the server
// answers with the session's key, a business id and a new stick-card id.

import { FieldReader, fromHex, hex, u8 } from '../bytes.mjs';
import { decrypt, hostRandom, keyBlock, sm3 } from '../crypto.mjs';
import { Difference } from '../difference.mjs';

const kCommand = '0x7500';
const kAppid = 20;
const kEnvelope = 32; // nineteen bytes and their padding, encrypted
const kFixedPart = 1 + kAppid + kEnvelope;
const kNewStickCard = Buffer.alloc(16, 0xff);
const kReserved = Buffer.alloc(16, 0xff);

function read(session, request) {
  const { persona } = session;
  const encrypted = request.payload.length - kFixedPart;
  if (encrypted < 16) throw new Difference(kCommand, 'length of the body', 'at least 69 bytes', request.payload.length);
  if (request.parameter !== encrypted + 28) {
    throw new Difference(kCommand, 'frame parameter', encrypted + 28, request.parameter);
  }
  const body = new FieldReader(request.payload, kCommand);
  body.expect('first byte of the body', '10');
  const appid = body.expectIfKnown('appid', asciiOrNothing(persona.appid), kAppid);
  const sealed = body.take('authentication block', encrypted);
  const envelope = body.take('key envelope', kEnvelope);
  body.done();

  const clientKey = readEnvelope(session, envelope);
  checkHostRandom(session, 'key of the envelope', clientKey);
  const own = keyBlock(clientKey);
  const fields = readBlock(persona, decrypt(own, sealed, kCommand, 'the authentication block'), appid);
  session.clientKey = own;
  const told = { appid: appid.toString('latin1'), sn: fields.sn };
  session.persona = { ...persona, ...told };
  return { ...fields, ...told, clientKey: hex(clientKey) };
}

/** The reader's key; when the envelope is one for another environment, the difference says for which. */
function readEnvelope({ config: { keys, envIdCode } }, envelope) {
  try {
    return openEnvelope(keys[envIdCode], envIdCode, envelope);
  } catch (error) {
    if (!(error instanceof Difference)) throw error;
    const fitting = Object.keys(keys).find((code) => code !== String(envIdCode) && opens(keys[code], code, envelope));
    const actual = fitting ? `${fitting}: its key opens the envelope` : 'none of these, or other keys: no key opens the envelope';
    const known = `${envIdCode} (of ${Object.keys(keys).join(', ')})`;
    throw Object.keys(keys).length > 1 ? new Difference(kCommand, 'environment of the reader', known, actual) : error;
  }
}

function opens(...envelope) {
  try {
    return openEnvelope(...envelope).length > 0;
  } catch {
    return false;
  }
}

function openEnvelope(protocolKey, envIdCode, envelope) {
  const what = `the key envelope, under the key of environment ${envIdCode}`;
  const r = new FieldReader(decrypt(keyBlock(protocolKey), envelope, kCommand, what), kCommand);
  r.expect('length of the key envelope', '0013');
  const key = r.take('key of the envelope', 16);
  r.checksum('checksum of the key envelope', 0);
  r.done('key envelope');
  return key;
}

function readBlock(persona, block, appid) {
  const r = new FieldReader(block, kCommand);
  r.expect('authentication mode', '00');
  r.expect('second byte of the authentication block', '10');
  const terId = r.expectIfKnown('terminal id', persona.terId === undefined ? undefined : u8(persona.terId), 1)[0];
  r.expect('appid of the authentication block', appid);
  const { reqidType, digest } = readPackage(persona, r);
  r.expect('byte before the stick-card id', '0F');
  r.expect('stick-card id', kNewStickCard);
  const sn = readDeviceId(persona, r);
  r.expect('reserved bytes', kReserved);
  r.expect('byte before the checksum', '02');
  r.checksum('checksum of the authentication block', 0);
  r.done('authentication block');
  return { terId, reqidType, digest, sn };
}

/** Request-id version and, when the application named its package, the digest of that name. */
function readPackage(persona, r) {
  const flags = r.u8('reqid version and digest flag');
  const reqidType = flags >> 4;
  const present = flags & 0x0f;
  if (present > 1) throw new Difference(kCommand, 'digest flag', '0 or 1', present);
  if (reqidType > 1 || (persona.reqidType !== undefined && reqidType !== persona.reqidType)) {
    throw new Difference(kCommand, 'reqid version', persona.reqidType ?? '0 or 1', reqidType);
  }
  const { packageName } = persona;
  if (packageName !== undefined && present !== (packageName === '' ? 0 : 1)) {
    throw new Difference(kCommand, 'digest flag', packageName === '' ? 0 : 1, present);
  }
  if (!present) return { reqidType, digest: null };
  const wanted = packageName === undefined ? undefined : sm3(Buffer.from(packageName, 'utf8'));
  return { reqidType, digest: hex(r.expectIfKnown('digest of the package name', wanted, 32)) };
}

/** The device id with its length byte; 0x5001 carries it in the same form. */
export function readDeviceId(persona, r) {
  const wanted = persona.sn === undefined ? undefined : Buffer.from(persona.sn, 'utf8');
  const length = r.expectIfKnown('length of the device id', wanted && u8(wanted.length), 1)[0];
  if (length > 68) throw new Difference(r.at, 'length of the device id', 'at most 68', length);
  return r.expectIfKnown('device id', wanted, length).toString('utf8');
}

/** With a record of the host's clock readings, it can be told whether the clock gives the reader's random bytes away. */
export function checkHostRandom(session, what, bytes) {
  const times = session.config.hostTimes?.();
  if (!times) return;
  if (times.some((time) => hostRandom(time, bytes.length).equals(bytes))) {
    throw new Difference(session.at, what, 'more than the host\'s clock gives away', hex(bytes));
  }
}

function asciiOrNothing(text) {
  return text === undefined ? undefined : Buffer.from(text, 'ascii');
}

function reply(session) {
  const { businessId, newStickCardId, opaqueLength, timing } = session.config;
  const key = session.random(16);
  session.key = keyBlock(key, session.clientKey.vector);
  return {
    key: session.clientKey,
    code: 0x7500,
    header: session.header,
    opaque: session.random(opaqueLength),
    block: {
      key,
      unused: 0x0f,
      businessId: Buffer.from(businessId, 'utf8'),
      stickCardId: fromHex(newStickCardId),
      flags: timing ? 0x10 : 0x00,
    },
  };
}

/** What command 0x7500 means: how its request is read and what is answered. */
export const AUTHENTICATION = { [kCommand]: { read, reply } };
