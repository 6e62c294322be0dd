// Writes the first inputs of the fuzz targets of the location service and of TLS to seeds/: node fuzz/make_service_seeds.mjs
// Each is the choices, which stand in the target, and the content, laid out by hand.

import { mkdirSync, rmSync, writeFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';

const hex = (digits) => Buffer.from(digits.replaceAll(' ', ''), 'hex');
const sum = (bytes) => Buffer.from([bytes.reduce((total, byte) => (total + byte) & 0xff, 0)]);
const number = (value, width) => hex(value.toString(16).padStart(2 * width, '0'));
const text = (value) => Buffer.from(value);

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

// Turns of tls_handshake: a whole handshake of 5 messages (6 with a request) and what comes around it.
const good = (n) => '00'.repeat(n);
const tlsRecord = (type, content, version = '0303') => Buffer.concat([hex(type + version), number(content.length, 2), content]);
const clear = (...records) => Buffer.concat(records);
// target: { seed: [choices, content] }
const kSeeds = {
  http_response: {
    one: ['FF FF', text(chunked(`21\r\n${locationBody}`))],
    pieces: ['00 40', text(chunked('2;x=y\r\n{"', `1F\r\n${locationBody.slice(2)}`))],
    digits: ['08 FF', text(chunked(`0x21 \r\n${locationBody}`, 'g\r\n0123456789abcdef', '00\r\n'))],
    behind: ['08 FF', text(`${chunked(`21\r\n${locationBody}`)}5\r\nmore.\r\n`)],
    letters: ['FF FF', text(chunked('B\r\nabcdefghijk', 'b\r\nlmnopqrstuv', `Z\r\n${'w'.repeat(35)}`, '00000003\r\nxyz', ';\r\n'))],
    fits: ['FF 08', text(chunked(`20\r\n${'x'.repeat(32)}`))],
    too_much: ['FF 08', text(chunked(`20\r\n${'x'.repeat(32)}`, '1\r\ny'))],
    wraps_32: ['FF FF', text(chunked('100000003\r\nabc'))],
    wraps_64: ['FF FF', text(chunked('10000000000000003\r\nabc'))],
    longest_line: ['FF FF', text(chunked(`0;${'z'.repeat(8187)}\r\n`))],
    longer_line: ['FF FF', text(chunked(`0;${'z'.repeat(8188)}\r\n`))],
    inside: ['08 FF', text(chunked('8\r\nab0\r\n\r\nc'))],
    nul: ['01 FF', text(`HTTP/1.1 200 OK\0\r\n\r\n21\r\n${locationBody}\r\n0\r\n\r\n`)],
    counted: ['08 FF', text(`HTTP/1.1 200 OK\r\nContent-Length: 33\r\n\r\n${locationBody}`)],
  },
  location_answer: {
    frame: ['00 00', locationAnswer('000000', Buffer.alloc(16))],
    status: ['00 01', locationAnswer('001301', hex(''))],
    letters: ['00 01', locationAnswer('12AB34', hex(''))],
    f_and_small: ['00 01', locationAnswer('FFFF01', hex(''))],
    largest: ['00 01', locationAnswer('999999', hex(''))],
    payload: ['01 02', Buffer.alloc(16)],
    plain: ['02 00', hex('2A2A 0E0E0E0E0E0E0E0E0E0E0E0E0E0E')],
    three: ['02 01', hex('010203 0D0D0D0D0D0D0D0D0D0D0D0D0D')],
    wraps: ['02 00', hex('80FF7F 0D0D0D0D0D0D0D0D0D0D0D0D0D')],
    no_padding: ['02 00', Buffer.alloc(16)],
    nothing: ['02 00', Buffer.alloc(16, 16)],
    too_long: ['02 00', Buffer.concat([Buffer.alloc(15), hex('11')])],
    one: ['02 02', hex('00 0F0F0F0F0F0F0F0F0F0F0F0F0F0F0F')],
  },
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
    exponent_64: ['03 08 00', Buffer.concat([Buffer.alloc(8, 0xc5), modulus])],
    exponent_65: ['03 09 00', Buffer.concat([hex('01'), Buffer.alloc(8, 0xc5), modulus])],
    followed: ['03 01 01', Buffer.concat([hex('03'), modulus])],
  },
};

for (const [target, seeds] of Object.entries(kSeeds)) {
  const folder = fileURLToPath(new URL(`seeds/${target}`, import.meta.url));
  rmSync(folder, { recursive: true, force: true });
  mkdirSync(folder);
  for (const [name, [choices, content]] of Object.entries(seeds)) {
    writeFileSync(`${folder}/${name}`, Buffer.concat([hex(choices), content]));
  }
}
