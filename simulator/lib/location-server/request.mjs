// What a reader sends to the location server: an HTTP request around JSON around Base64 around the 9300 frame around a
// text that says which phone it is. Everything is checked byte for byte.

import { FieldReader, hex } from '../bytes.mjs';
import { decrypt, keyBlock } from '../crypto.mjs';
import { Difference } from '../difference.mjs';

const kAt = 'POST';
const kFrameAt = '0x9300';
const kPath = '/orvoCloud/nfc/getPlace';
const kHeadEnd = '\r\n\r\n';
const kLongestHead = 512;
const kTimeDigits = 13;
const kFrameOverhead = 32;

/** The length of the request at the start of `bytes`, 0 while its head is incomplete. Throws a Difference. */
export function requestLength(bytes) {
  const end = bytes.indexOf(kHeadEnd);
  if (end < 0 && bytes.length > kLongestHead) {
    throw new Difference(kAt, 'head', `complete within ${kLongestHead} bytes`, 'longer');
  }
  if (end < 0) return 0;
  const lines = bytes.subarray(0, end).toString('latin1').split('\r\n');
  const length = /^Content-Length: ([1-9][0-9]{0,4})$/.exec(lines.at(-1))?.[1];
  if (!length) throw new Difference(kAt, 'last header', 'Content-Length: and a number', JSON.stringify(lines.at(-1)));
  return end + kHeadEnd.length + Number(length);
}

/** The lines of the head. @returns {{host: string, port: number}} what the reader was told to connect to */
function readHead(head, expected) {
  const lines = head.split('\r\n');
  const wanted = [`POST ${kPath} HTTP/1.1`, 'HOST: ', 'Accept: */*', 'Content-Type:application/json', 'Content-Length: '];
  wanted.forEach((line, i) => {
    const open = line.endsWith(': ');
    const same = open ? lines[i]?.startsWith(line) : lines[i] === line;
    if (!same) throw new Difference(kAt, `line ${i + 1}`, JSON.stringify(line), JSON.stringify(lines[i] ?? 'nothing'));
  });
  if (lines.length !== wanted.length) throw new Difference(kAt, 'number of lines', wanted.length, lines.length);
  const found = /^HOST: ([^:]{1,127}):(0|[1-9][0-9]{0,4})$/.exec(lines[1]);
  if (!found) throw new Difference(kAt, 'line 2', 'HOST: name:port', JSON.stringify(lines[1]));
  const fields = { host: found[1], port: Number(found[2]) };
  for (const name of ['host', 'port']) {
    if (expected[name] !== undefined && fields[name] !== expected[name]) {
      throw new Difference(kAt, `${name} in line 2`, expected[name], fields[name]);
    }
  }
  return fields;
}

/** The frame in the body. */
function readBody(body) {
  const found = /^\{"data":"([A-Za-z0-9+/]+={0,2})","sessionId":"([^"]*)"\}$/.exec(body);
  if (!found) throw new Difference(kAt, 'body', '{"data":"Base64","sessionId":""}', JSON.stringify(body));
  if (found[2] !== '') throw new Difference(kAt, 'sessionId', 'empty, always', JSON.stringify(found[2]));
  const frame = Buffer.from(found[1], 'base64');
  if (frame.toString('base64') !== found[1]) {
    throw new Difference(kAt, 'data', 'Base64 in whole groups, with zero bits at its end', JSON.stringify(found[1]));
  }
  return frame;
}

/** The frame around the ciphertext. */
function readFrame(frame) {
  const reader = new FieldReader(frame, kFrameAt);
  reader.expect('first byte', '93');
  const length = reader.u16('length');
  if (length !== frame.length) throw new Difference(kFrameAt, 'length', frame.length, length);
  reader.expect('command', '9300');
  reader.expect('bytes 5 and 6', '0001');
  reader.expect('bytes 7 and 8', '001C');
  reader.expect('byte 9', 'A1');
  reader.expect('byte 10', '10');
  const appid = reader.take('appid', 20);
  const sealed = reader.take('ciphertext', Math.max(0, length - kFrameOverhead));
  reader.checksum('checksum', 1);
  reader.done();
  return { appid, sealed };
}

const text = (bytes) => bytes.toString('utf8');

/** What was encrypted. */
function readPlain(plain, appid) {
  const reader = new FieldReader(plain, `${kFrameAt} plaintext`);
  reader.expect('first byte', '10');
  reader.expect('appid', appid);
  const time = text(reader.take('time', kTimeDigits));
  const type = reader.u8('type');
  const manufacturer = reader.take('manufacturer', reader.u8('length of the manufacturer'));
  const model = reader.take('model', reader.u8('length of the model'));
  reader.checksum('checksum', 0);
  reader.done();
  for (const [what, name] of [['manufacturer', manufacturer], ['model', model]]) {
    if (name.length > 64) throw new Difference(kFrameAt, `length of the ${what}`, 'at most 64', name.length);
  }
  return { appid: text(appid), time, type, manufacturer: text(manufacturer), model: text(model) };
}

/** Compares with what the configuration expects; the time must be one that the reader's clock has given. */
function compare(fields, expected) {
  for (const name of ['appid', 'type', 'manufacturer', 'model']) {
    if (expected[name] !== undefined && fields[name] !== expected[name]) {
      throw new Difference(kFrameAt, name, JSON.stringify(expected[name]), JSON.stringify(fields[name]));
    }
  }
  if (expected.times && !expected.times.map(String).includes(fields.time)) {
    throw new Difference(kFrameAt, 'time', `one of ${expected.times.join(', ')}`, fields.time);
  }
  if (!expected.times && !/^[1-9][0-9]{12}$/.test(fields.time)) {
    throw new Difference(kFrameAt, 'time', '13 digits', JSON.stringify(fields.time));
  }
}

/**
 * Takes a whole request apart. `expected`: host, port, appid, type, manufacturer, model, times; what is undefined is
 * checked in its structure only. Throws a Difference.
 * @returns {object} host, port, appid, time, type, manufacturer, model, frame (hexadecimal)
 */
export function readRequest(bytes, key, expected) {
  const head = bytes.indexOf(kHeadEnd);
  const address = readHead(bytes.subarray(0, head).toString('latin1'), expected);
  const frame = readBody(bytes.subarray(head + kHeadEnd.length).toString('latin1'));
  const { appid, sealed } = readFrame(frame);
  const plain = decrypt(keyBlock(key), sealed, kFrameAt, 'the ciphertext');
  const fields = readPlain(plain, appid);
  compare(fields, expected);
  return { ...address, ...fields, frame: hex(frame) };
}
