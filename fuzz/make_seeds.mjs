// Writes the first inputs of the fuzz targets, one good case each, to seeds/: node fuzz/make_seeds.mjs
// The frames are laid out by hand and ciphered with Node's own SM4 and triple DES.

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

// Secure messaging: the first key ciphers, the second makes the MAC. Two equal halves make single DES.
const kZeros = Buffer.alloc(8);
const kMacKey = hex('101112131415161718191A1B1C1D1E1F');
const tripleDes = (key, vector, blocks) => {
  const cipher = createCipheriv('des-ede-cbc', key, vector).setAutoPadding(false);
  return Buffer.concat([cipher.update(blocks), cipher.final()]);
};
const padded = (bytes) => Buffer.concat([bytes, hex('80'), Buffer.alloc(7 - (bytes.length % 8))]);
const cryptogram = (blocks) => Buffer.concat([hex('87'), number(blocks.length + 1, 1), hex('01'), tripleDes(kKey, kZeros, blocks)]);

function protectedAnswer(counter, objects) {
  const input = padded(Buffer.concat([hex(counter), objects]));
  const half = kMacKey.subarray(0, 8);
  const chain = tripleDes(Buffer.concat([half, half]), kZeros, input.subarray(0, -8)).subarray(-8);
  return Buffer.concat([objects, hex('8E08'), tripleDes(kMacKey, chain, input.subarray(-8))]);
}

// The way through an EF.SOD to its list of hashes; all else is as short as may be.
const element = (tag, ...parts) => {
  const content = Buffer.concat(parts);
  return Buffer.concat([hex(tag), number(content.length, 1), content]);
};
function securityObject(list) {
  const object = element('30', hex('020100 3000'), element('30', list));
  const content = element('30', hex('0600'), element('A0', element('04', object)));
  return element('77', element('30', hex('0600'), element('A0', element('30', hex('020103 3100'), content))));
}

function response(command, payload, { type = 0xaa, parameter = 8, status = '000000', code = command, header = '70' } = {}) {
  const width = widthOf(command);
  const length = number(payload.length + 10 + width, width);
  const body = Buffer.concat([length, number(code, 2), hex(status), number(parameter, 2), number(type, 1), payload]);
  return Buffer.concat([hex(header), body, sum(body)]);
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

// What the location server sends. Its answer's payload is given in plain: the target encrypts it.
const chunked = (...chunks) => `HTTP/1.1 200 OK\r\nX: y\r\n\r\n${chunks.map((chunk) => `${chunk}\r\n`).join('')}0\r\n\r\n`;
const locationBody = '{"data":"AQI=","sessionId":"abc"}';
function locationAnswer(status, payload) {
  const body = Buffer.concat([number(payload.length + 12, 2), hex('9300'), hex(status), hex('0008AA'), payload]);
  return Buffer.concat([hex('93'), body, sum(body)]);
}

// A certificate with an RSA key of 1024 bits whose other parts are empty.
const modulus = Buffer.alloc(128, 0xc5);
const derElement = (tag, ...parts) => {
  const content = Buffer.concat(parts);
  return Buffer.concat([hex(tag), content.length < 128 ? hex('') : hex('81'), number(content.length, 1), content]);
};
const publicKey = () => derElement('30', derElement('02', hex('00'), modulus), hex('020103'));
const keyInformation = () =>
  derElement('30', hex('300D06092A864886F70D0101010500'), derElement('03', hex('00'), publicKey()));
const certificate = () =>
  derElement('30', derElement('30', hex('A003020102 020105 3000 3000 3000 3000'), keyInformation()), hex('3000 030100'));

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
  http_response: {
    one: ['FF FF', text(chunked(`21\r\n${locationBody}`))],
    pieces: ['00 40', text(chunked('2;x=y\r\n{"', `1F\r\n${locationBody.slice(2)}`))],
    digits: ['08 FF', text(chunked(`0x21 \r\n${locationBody}`, 'g\r\n0123456789abcdef', '00\r\n'))],
    behind: ['08 FF', text(`${chunked(`21\r\n${locationBody}`)}5\r\nmore.\r\n`)],
    inside: ['08 FF', text(chunked('8\r\nab0\r\n\r\nc'))],
    nul: ['01 FF', text(`HTTP/1.1 200 OK\0\r\n\r\n21\r\n${locationBody}\r\n0\r\n\r\n`)],
    counted: ['08 FF', text(`HTTP/1.1 200 OK\r\nContent-Length: 33\r\n\r\n${locationBody}`)],
  },
  location_answer: {
    frame: ['00 00', locationAnswer('000000', Buffer.alloc(16))],
    status: ['00 01', locationAnswer('001301', hex(''))],
    payload: ['01 02', Buffer.alloc(16)],
    plain: ['02 00', hex('2A2A 0E0E0E0E0E0E0E0E0E0E0E0E0E0E')],
    three: ['02 01', hex('010203 0D0D0D0D0D0D0D0D0D0D0D0D0D')],
    one: ['02 02', hex('00 0F0F0F0F0F0F0F0F0F0F0F0F0F0F0F')],
  },
  scp_json: {
    data: ['', text(`data\0${locationBody}`)],
    session: ['', text(`sessionId\0${locationBody}`)],
    spaced: ['', text('key\0{"key": "value"}')],
    elsewhere: ['', text('key\0{"other":"key","key":"value"}')],
  },
  card_relay: {
    data: ['FF', Buffer.concat([eight, hex('9000')])],
    trailing: ['08', Buffer.concat([eight, hex('900000')])],
    refused: ['FF', hex('6986')],
    failed: ['FF', hex('6A8200')],
    one: ['FF', hex('02')],
    long: ['FF', hex('AABBCC6A0000')],
  },
  secure_messaging: {
    full: ['00 40 00', protectedAnswer('FFFFFFFFFFFFFF01', Buffer.concat([cryptogram(padded(eight)), hex('99029000')]))],
    trailing: ['00 40 00', Buffer.concat([protectedAnswer('FFFFFFFFFFFFFF01', hex('99029000')), hex('0000')])],
    wraps: ['00 FF FF', protectedAnswer('0000000000000000', hex('99029000'))],
    objects: ['01 40 07', Buffer.concat([cryptogram(padded(eight)), hex('99029000')])],
    status: ['01 01 08', hex('99029000')],
    blocks: ['02 FF 09', hex('6014 5F01 0000 0000')],
    data: ['03 40 0A', eight],
  },
  data_groups: {
    com: ['00 60', hex('6014 5F010430313036 5F3606303430303030 5C026175')],
    com_long: ['00 02', hex('608119 5F01820004 30313037 5F368106303430303030 5C82000361756F')],
    sod: ['01 60', securityObject(hex('3007020101 0402AAAA 3007020102 0402BBBB'))],
    list: ['02 60', hex('3007020101 0402AAAA 3007020102 0402BBBB')],
  },
  asn1_reader: {
    length: ['00 00', hex('82000201FF')],
    tag: ['00 04', hex('048102 01FF')],
    integer: ['01 00', hex('0203010203')],
    boolean: ['02 00', hex('0101FF')],
    bits: ['03 00', hex('03020780')],
    sequence: ['04 02', hex('3006 020105 020106')],
    walk: ['05 00', hex('5F010430313036 7F6182000141 8000')],
  },
  passport_commands: {
    token: ['00 00 10', response(0x7201, seal(Buffer.concat([eight, eight])), { header: '72' })],
    short: ['01 00 10', eight],
    result: ['00 01 FF', response(0x7202, Buffer.concat([hex('01'), seal(hex('0102'))]), { ...flagged, header: '72' })],
    sealed: ['01 01 40', text(identity)],
    plain: ['02 01 FF', hex('00 000109')],
    raw: ['02 01 40', Buffer.concat([hex('02'), eight])],
    status: ['00 01 40', response(0x7202, hex('00'), { ...flagged, header: '72', status: '001301' })],
  },
  passport_session: {
    whole: ['00 D4 00 0000 00000000', hex('007F')],
    text: ['0B D4 00 0000 00000000', hex('007F')],
    small: ['01 20 00 0000 00000000', hex('007F')],
    without_com: ['00 D4 00 0000 00000000', hex('081E0000 007F')],
    other_files: ['00 D4 00 0000 00000000', hex('081E000C 600A 5F010131 5C0461636F75 0802200475820200 007F')],
    late: ['00 D4 00 0000 00000000', hex('0011 07')], // the chip goes silent while its files are read
    status: ['00 D4 00 0000 00000000', hex('000C 0402 6982 007F')],
    data: ['00 D4 00 0000 00000000', hex('0002 01029000 0100 0104 60050102 0103 030405 007F')],
    blocks: ['00 D4 00 0000 00000000', hex('0004 0208 6014800000000000 0304 99029000 007F')],
    spoiled: ['00 D4 00 0000 00000000', hex('0007 050301 007F')],
    shortened: ['00 D4 00 0000 00000000', hex('0003 0604 007F')],
    steps: ['00 D4 00 0000 00000000', hex('0009 A006 A7 0000')],
    cancelled: ['00 D4 00 0000 00000000', hex('0008 09 0000')],
    unreachable: ['00 D4 01 0000 00000000', hex('')],
    not_again: ['00 D4 02 0000 00000000', hex('007F')],
    memory: ['00 D4 00 0040 00000000', hex('007F')],
    statuses: ['00 D4 00 0000 00000200', hex('007F')],
    sealed: ['00 D4 00 0000 00000303000102 00', hex('007F')],
    payload: ['00 D4 00 0000 00000403000109 00', hex('007F')],
    frame: ['00 D4 00 0000 00000503720000 00', hex('007F')],
  },
  passport_file: {
    short: ['D4', hex('0404 610F0102 040D 030405060708090A0B0C0D0E0F')],
    chunks: ['04', hex('0404 75810A01 0404 02030405 0404 06070809 0404 0A000000')],
    files: ['08', hex('0404 61820005 0804 75050102 0405 0102030405 0803 030405')],
    less: ['08', hex('0402 610F 0403 010203 0400')],
    blocks: ['D4', hex('0508 610F0102 80000000')],
    objects: ['D4', hex('0604 99029000')],
    refused: ['D4', hex('0702 6982 0404 61050102 0703 6A8200')],
  },
};

// Turns of tls_handshake: a whole handshake of 5 messages (6 with a request) and what comes around it.
const good = (n) => '00'.repeat(n);
const tlsRecord = (type, content, version = '0303') => Buffer.concat([hex(type + version), number(content.length, 2), content]);
const clear = (...records) => Buffer.concat(records);
Object.assign(seeds, {
  tls_record: {
    messages: ['00 FF FF', clear(tlsRecord('16', text('one'), '0301'), tlsRecord('16', text('two')))],
    pieces: ['01 00 00', clear(tlsRecord('16', text('handshake')), tlsRecord('14', hex('01')), tlsRecord('17', text('data')))],
    empty: ['01 02 04', clear(tlsRecord('16', hex('')), tlsRecord('16', hex('')), tlsRecord('16', text('a')))],
    warnings: ['01 FF FF', clear(tlsRecord('15', hex('0170')), tlsRecord('15', hex('0164')), tlsRecord('17', text('a')))],
    closed: ['01 FF FF', clear(tlsRecord('17', text('a')), tlsRecord('15', hex('0100')), tlsRecord('17', text('b')))],
    fatal: ['00 FF FF', clear(tlsRecord('15', hex('0228')))],
    cut: ['01 FF FF', tlsRecord('17', text('not all')).subarray(0, -2)],
    long: ['01 FF FF', hex('17 0303 4001')],
  },
  tls_handshake: {
    whole: ['00 FF 00', hex(`${good(9)} 0A`)],
    sha1: ['01 FF 01', hex(`${good(9)} 0A`)],
    rc4: ['02 FF 02', hex(`${good(10)} 0A`)],
    md5: ['03 FF 03', hex(`${good(10)} 0A`)],
    fragments: ['00 00 02', hex(`0701 ${good(10)} 0A`)],
    mixed: ['00 10 00', hex('08 00 0970 00 0702 00 08 00 0700 08 00 00 08 0970 00 08 00 0A')],
    changed: ['00 FF 00', hex('00 01000901 00 00')],
    hello: ['00 FF 00', hex('01002A01 00 00 00 00 00 0A')],
    finished: ['00 FF 00', hex(`${good(4)} 01000501`)],
    cut: ['00 FF 00', hex('020023')],
    longer: ['00 FF 00', hex('00 030101 00')],
    message: ['00 FF 00', hex('00 00 040C000401020304')],
    record: ['00 FF 00', hex(`${good(6)} 05160004 00000000 00 0517000161 05150002 0228`)],
    raw: ['00 FF 00', hex(`${good(6)} 060007 1703030002ABCD`)],
    early: ['00 FF 00', hex('00 0B 00 0C 00 0A')],
  },
  tls_certificate: {
    whole: ['00', certificate()],
    information: ['01', keyInformation()],
    key: ['02', publicKey()],
    numbers: ['03 01 00', Buffer.concat([hex('03'), modulus])],
    long_exponent: ['03 80 00', Buffer.concat([Buffer.alloc(128, 0x55), modulus])],
    followed: ['03 01 01', Buffer.concat([hex('03'), modulus])],
  },
});

for (const [target, cases] of Object.entries(seeds)) {
  mkdirSync(join(kSeeds, target), { recursive: true });
  for (const [name, [choices, content]] of Object.entries(cases)) {
    writeFileSync(join(kSeeds, target, name), Buffer.concat([hex(choices), content]));
  }
}
