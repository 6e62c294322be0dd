// Writes the first inputs of the fuzz targets, one good case each, to seeds/: node fuzz/make_seeds.mjs
// The frames are laid out by hand and ciphered with Node's own SM4.

import { createCipheriv } from 'node:crypto';
import { mkdirSync, writeFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

const kSeeds = join(dirname(fileURLToPath(import.meta.url)), 'seeds');
const kKey = Buffer.from('000102030405060708090A0B0C0D0E0F', 'hex');
const kVector = Buffer.from('101112131415161718191A1B1C1D1E1F', 'hex');

const hex = (text) => Buffer.from(text.replaceAll(' ', ''), 'hex');
const sum = (bytes) => Buffer.from([bytes.reduce((total, byte) => (total + byte) & 0xff, 0)]);
const number = (value, width) => hex(value.toString(16).padStart(2 * width, '0'));
const seal = (plain) => {
  const cipher = createCipheriv('sm4-cbc', kKey, kVector);
  return Buffer.concat([cipher.update(plain), cipher.final()]);
};
const widthOf = (command) => (command === 0x7201 || command === 0x7202 ? 4 : 2);

function response(command, payload, { type = 0xaa, parameter = 8, status = '000000', code = command } = {}) {
  const width = widthOf(command);
  const length = number(payload.length + 10 + width, width);
  const body = Buffer.concat([length, number(code, 2), hex(status), number(parameter, 2), number(type, 1), payload]);
  return Buffer.concat([hex('70'), body, sum(body)]);
}

function secret(command, data) {
  const width = widthOf(command);
  const body = Buffer.concat([number(data.length + 8 + width, width), number(command, 2), data]);
  return Buffer.concat([hex('FFFFFF'), body, sum(body), hex('FEFE')]);
}

function authenticationBlock(command) {
  const values = [kKey];
  if (command === 0x7500) values.push(hex('0009'), Buffer.from('BIZ-00001'), Buffer.alloc(16, 0xc5), hex('10'));
  const content = Buffer.concat(values);
  const body = Buffer.concat([number(content.length + 3, 2), content]);
  return Buffer.concat([body, sum(body)]);
}

const eight = hex('A1A2A3A4A5A6A7A8');
const text = (value) => Buffer.from(value);
const identity = '{"name":"SPECIMEN"}';
const flagged = { type: 0x99 };

// target: { seed: [choices, content] }; what the choices mean stands in the target.
const seeds = {
  command_frame: {
    plain: ['00 01 00 FF', response(0x7500, text('payload'))],
    sealed: ['00 00 00 FF', response(0x5012, seal(eight))],
    flagged: ['00 02 01 FF', response(0x6102, Buffer.concat([hex('01'), seal(eight)]), flagged)],
    long: ['00 03 00 FF', response(0x7202, seal(eight))],
    status: ['00 00 00 FF', response(0x5012, hex('00'), { status: '001301' })],
    error: ['00 01 00 FF', response(0x7500, hex('00'), { status: '0F0200', code: 0xffff })],
    payload: ['01 02 01 FF', Buffer.concat([hex('00'), eight])],
    content: ['02 00 00 FF', eight],
  },
  secret_frame: {
    short: ['00 00 FF', secret(0x5022, eight)],
    long: ['00 02 FF', secret(0x7201, eight)],
    data: ['01 01 FF', eight],
  },
  server_authentication: {
    full: ['00 00 00 00', response(0x7500, seal(authenticationBlock(0x7500)))],
    opaque: ['00 00 00 00', response(0x7500, Buffer.concat([eight, seal(authenticationBlock(0x7500))]), { parameter: 16 })],
    former: ['00 01 00 00', response(0x7100, seal(authenticationBlock(0x7100)))],
    compact: ['00 00 01 00', response(0x7500, seal(hex('0909')))],
    block: ['01 00 00 03', authenticationBlock(0x7500)],
    corrected: ['02 00 00 00', authenticationBlock(0x7500)],
  },
  card_auth: {
    first: ['00 00 FF', response(0x5001, seal(secret(0x5001, eight)))],
    second: ['00 01 FF', response(0x5012, seal(secret(0x5012, hex('0084000008'))))],
    both: ['00 03 FF', response(0x5032, seal(secret(0x5022, eight)))],
    inner: ['01 02 FF', secret(0x5022, eight)],
    data: ['02 03 FF', eight],
  },
  data_decode: {
    files: ['00 00 FF', response(0x6002, seal(secret(0x6002, eight)))],
    identity: ['00 01 FF', response(0x6102, Buffer.concat([hex('01'), seal(text(identity))]), flagged)],
    photo: ['00 02 FF', response(0x6113, Buffer.concat([hex('00'), eight]), flagged)],
    inner: ['01 00 FF', secret(0x6002, eight)],
    data: ['02 01 FF', text(identity)],
  },
  result_report: {
    nothing: ['00', hex('')],
    info: ['01 01 02', Buffer.concat([number(identity.length, 2), text(identity)])],
    parts: ['01', hex('00FF01 020212AB')],
    all: ['01', Buffer.concat([hex('000063 0203123456 0101'), number(identity.length, 1), text(identity)])],
    raw: ['02', eight],
  },
  json_scan: {
    quoted: ['', text('key\0{"other":"x","key":"value"}')],
    braced: ['', text('key\0{"key":{"inner":"value"}}')],
    spaced: ['', text('key\0{"key": "value"}')],
  },
  card_relay: {
    data: ['FF', Buffer.concat([eight, hex('9000')])],
    trailing: ['08', Buffer.concat([eight, hex('900000')])],
    refused: ['FF', hex('6986')],
    failed: ['FF', hex('6A8200')],
    one: ['FF', hex('02')],
    long: ['FF', hex('AABBCC6A0000')],
  },
};

for (const [target, cases] of Object.entries(seeds)) {
  mkdirSync(join(kSeeds, target), { recursive: true });
  for (const [name, [choices, content]] of Object.entries(cases)) {
    writeFileSync(join(kSeeds, target, name), Buffer.concat([hex(choices), content]));
  }
}
