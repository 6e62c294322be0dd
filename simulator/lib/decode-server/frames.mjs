// The two framings of the decode-server protocol: the command frame with its plain header, and inside its
// payload, for most commands, an SM4-encrypted secret command frame. Requests are taken apart strictly;
// answers are put together in stages so that misbehaviour can reach into any of them (see misbehaviour.mjs).

import { commandName, FieldReader, hex, sum8, u16, u32, u8 } from '../bytes.mjs';
import { decrypt, encryptBlocks, pad } from '../crypto.mjs';
import { Difference } from '../difference.mjs';

/** First byte of every frame, by kind of document. */
export const HEADER = { identityCard: 0x70, passport: 0x72 };
const kHeaders = [0x70, 0x71, 0x72];

/** Request type bytes; every command that is not listed has the usual one. */
const kRequestTypes = { '0x7500': 0xa8, '0x7219': 0x19 };
const kUsualType = 0xaa;

/** Commands whose length fields have four bytes instead of two. */
const kLongForm = [0x7201, 0x7202];
const kWithToken = [0x7202, 0x7219];
const isLong = (code) => kLongForm.includes(code);
const lengthField = (code, length) => (isLong(code) ? u32(length) : u16(length));

/** How long a frame with these fields is. */
export const frameLength = (f) => f.payload.length + (isLong(f.form ?? f.code) ? 14 : 12);

const isLongRequest = (bytes) => bytes[0] === HEADER.passport && isLong(bytes.readUInt16BE(5));

/** The command code of a request of which at least seven bytes are there. */
export const codeOf = (bytes) => bytes.readUInt16BE(isLongRequest(bytes) ? 5 : 3);

const kSmallestRequest = 12;
const kLargestRequest = 1 << 20;

/**
 * How long the request at the start of `bytes` is: its length field, or 0 while too few bytes are there.
 * Throws a Difference for a header byte or a length that no request can have.
 */
export function requestLength(bytes) {
  if (bytes.length > 0 && !kHeaders.includes(bytes[0])) {
    throw new Difference('request', 'header byte', '70, 71 or 72', bytes[0].toString(16).toUpperCase());
  }
  if (bytes.length < 7) return 0;
  const length = isLongRequest(bytes) ? bytes.readUInt32BE(1) : bytes.readUInt16BE(1);
  if (length < kSmallestRequest || length > kLargestRequest) {
    throw new Difference('request', 'length field', `${kSmallestRequest} to ${kLargestRequest}`, length);
  }
  return length;
}

/** The token in front of what a passport's reader sends when it comes back: { code, token }; else undefined. */
export function tokenOf(bytes) {
  const code = codeOf(bytes);
  if (bytes[0] !== HEADER.passport || !kWithToken.includes(code)) return undefined;
  const start = isLong(code) ? 12 : 10;
  return { code, token: bytes.subarray(start, start + 16) };
}

/**
 * Takes a whole request apart.
 * @param {Buffer} bytes  exactly one frame
 * @param {number} header the header byte that the session must use
 * @returns {{command: string, code: number, parameter: number, payload: Buffer}}
 */
export function parseRequest(bytes, header) {
  const code = codeOf(bytes);
  const command = commandName(code);
  const r = new FieldReader(bytes, command);
  r.expect('header byte', u8(header));
  r.expect('length field', lengthField(code, bytes.length));
  r.take('command code', 2);
  r.expect('reserved byte', '00');
  r.expect('version byte', '09');
  const parameter = r.u16('frame parameter');
  r.expect('type byte', u8(kRequestTypes[command] ?? kUsualType));
  const payload = r.take('payload', r.left - 1);
  r.checksum('frame checksum', 1);
  r.done();
  if (command !== '0x7500' && parameter !== 7) {
    throw new Difference(command, 'frame parameter', '0007', parameter.toString(16).padStart(4, '0').toUpperCase());
  }
  return { command, code, parameter, payload };
}

/**
 * Decrypts a request's payload and takes the secret command frame apart.
 * @param {number} trailing  bytes that follow the end marker, outside the frame's own length
 * @returns {{data: Buffer, trailing: Buffer}}
 */
export function parseSecret(request, block, trailing = 0) {
  const plain = decrypt(block, request.payload, request.command, 'the encrypted payload');
  const r = new FieldReader(plain, request.command);
  const inside = plain.length - trailing;
  r.expect('start marker of the secret frame', 'FFFFFF');
  r.expect('length of the secret frame', lengthField(request.code, inside));
  r.expect('command code of the secret frame', u16(request.code));
  const data = r.take('data of the secret frame', Math.max(0, inside - r.position - 3));
  r.checksum('checksum of the secret frame', 3);
  r.expect('end marker of the secret frame', 'FEFE');
  const rest = r.take('bytes behind the secret frame', trailing);
  r.done();
  return { data, trailing: rest };
}

/** The plain block of a server-authentication answer. Fields that are left undefined are worked out here. */
function encodeBlock(f) {
  const id = Buffer.concat([f.key, u8(f.unused), u8(f.businessIdLength ?? f.businessId.length), f.businessId,
    f.stickCardId, u8(f.flags)]);
  const block = Buffer.concat([u16(f.length ?? id.length + 3), id]);
  return Buffer.concat([block, u8(f.checksum ?? sum8(block))]);
}

function encodeSecret(f) {
  const length = f.data.length + (isLong(f.code) ? 12 : 10);
  const body = Buffer.concat([lengthField(f.code, f.length ?? length), u16(f.code), f.data]);
  return Buffer.concat([f.start, body, u8(f.checksum ?? sum8(body)), f.end]);
}

function encodeFrame(f) {
  const length = lengthField(f.form ?? f.code, f.length ?? frameLength(f));
  const header = [length, u16(f.code), f.status, u16(f.parameter), u8(f.type)];
  const body = Buffer.concat([...header, f.payload]);
  return Buffer.concat([u8(f.header), body, u8(f.checksum ?? sum8(body))]);
}

/**
 * Puts an answer together.
 *
 * A reply names its `code`, `header`, `status` (three bytes) and its content, one of
 *   block    fields of the server-authentication answer, behind `opaque` bytes; encrypted
 *   secret   { code, data } of a secret command frame; encrypted
 *   sealed   bytes, encrypted as they are
 *   flagged  { flag, data }: the flag byte in plain, the data encrypted when the flag is 1
 *   none     an empty payload
 *
 * @param {object} reply
 * @param {object} key      the key block to encrypt under
 * @param {(stage: string, value: any) => any} change  sees the value of each stage (`block`, `secret`, `sealed`,
 *   `flagged`, `padded`, `payload`, `frame`, `wire`) and returns what takes its place
 */
export function encodeReply(reply, key, change = (_stage, value) => value) {
  const sealed = (plain) => encryptWhole(key, change('padded', pad(plain)));
  const opaque = reply.opaque ?? Buffer.alloc(0);
  let payload = Buffer.alloc(0);
  if (reply.block) {
    payload = Buffer.concat([opaque, sealed(encodeBlock(change('block', { ...reply.block })))]);
  } else if (reply.secret) {
    const fields = { start: Buffer.alloc(3, 0xff), end: Buffer.alloc(2, 0xfe), ...reply.secret };
    payload = sealed(encodeSecret(change('secret', fields)));
  } else if (reply.sealed) {
    payload = sealed(change('sealed', reply.sealed));
  } else if (reply.flagged) {
    const { flag, data } = change('flagged', { ...reply.flagged });
    payload = Buffer.concat([u8(flag), flag === 1 ? sealed(data) : data]);
  }
  payload = change('payload', payload);
  const frame = change('frame', {
    header: reply.header,
    code: reply.code,
    form: reply.code,
    status: reply.status ?? Buffer.alloc(3),
    parameter: reply.parameter ?? 8 + opaque.length,
    type: reply.type ?? kUsualType,
    payload,
  });
  return change('wire', encodeFrame(frame));
}

/** What an answer says, in plain and by name, for people: status, and its content as `encodeReply` takes it. */
export function replyFields({ status = Buffer.alloc(3), block, secret, sealed, flagged }) {
  const shown = ([name, value]) => [name, Buffer.isBuffer(value) ? hex(value) : value];
  const { businessId } = block ?? {};
  const content = { ...block, ...(businessId && { businessId: businessId.toString('utf8') }), ...(secret && { data: secret.data }),
    ...(sealed && { token: sealed }), ...flagged };
  return { status: hex(status), ...Object.fromEntries(Object.entries(content).map(shown)) };
}

/** Misbehaviour may have left a length that is no multiple of the block size: such bytes go out as they are. */
function encryptWhole(key, padded) {
  return padded.length % 16 === 0 ? encryptBlocks(key, padded) : padded;
}
