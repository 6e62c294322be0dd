// What the location server answers: built in stages, each of which a rule of misbehaviour may change.

import { fromHex, sum8, u16, u8 } from '../bytes.mjs';
import { encryptBlocks, keyBlock, pad } from '../crypto.mjs';

const kParameter = 8;
const kType = 0xaa;
const kHead = 'HTTP/1.1 200 OK\r\nServer: specimen\r\nContent-Type: application/json\r\n';
const kSuccess = '000000';
const kEnd = '0\r\n\r\n';

/** A frame from its fields: header, length, command, status, parameter, type, payload, checksum. */
function encodeFrame({ header = 0x93, length, command = 0x9300, status, parameter = kParameter, type = kType, payload,
  checksum }) {
  const total = length ?? 12 + payload.length;
  const body = Buffer.concat([u16(total), u16(command), fromHex(status), u16(parameter), u8(type), payload]);
  return Buffer.concat([u8(header), body, u8(checksum ?? sum8(body))]);
}

/** One chunk: `size` instead of its own, `form` of the size line, `end` behind the data. */
export function chunk(data, { size = data.length, upperCase = true, prefix = '', extension = '', end = '\r\n' } = {}) {
  const digits = size.toString(16);
  return `${prefix}${upperCase ? digits.toUpperCase() : digits}${extension}\r\n${data}${end}`;
}

/** A text as chunks of at most `size` characters and the end. */
export function chunked(text, { size = text.length, ...form } = {}) {
  const pieces = text.match(new RegExp(`.{1,${Math.max(1, size)}}`, 'gs')) ?? [];
  return `${pieces.map((piece) => chunk(piece, form)).join('')}${kEnd}`;
}

/**
 * The whole response.
 * @param {object} reply  location (0 to 255) or status (six digits); sessionId; chunks: form of the chunks, see `chunked`
 * @param {Buffer} key    of the environment
 * @param {(stage: string, value: any) => any} change  for each stage: 'plain' (Buffer; checksum included), 'padded'
 *   (Buffer), 'frame' (fields, see encodeFrame), 'members' (of the JSON text: name and value), 'json' (text), 'chunks' (text),
 *   'head' (text), 'response' (text); for 'chunks' and 'response' the JSON text comes with it
 */
export function encodeResponse({ location, status = kSuccess, sessionId, chunks }, key, change) {
  const told = Buffer.of(location & 0xff);
  const plain = change('plain', Buffer.concat([told, u8(sum8(told))]));
  const sealed = encryptBlocks(keyBlock(key), change('padded', pad(plain)));
  const frame = encodeFrame(change('frame', { status, payload: status === kSuccess ? sealed : Buffer.alloc(0) }));
  const members = change('members', [['data', frame.toString('base64')], ['sessionId', sessionId]]);
  const json = change('json', `{${members.map(([name, value]) => `"${name}":"${value}"`).join(',')}}`);
  const head = change('head', `${kHead}Transfer-Encoding: chunked\r\n\r\n`);
  return change('response', `${head}${change('chunks', chunked(json, chunks), json)}`, json);
}
