// Writes the first inputs of the fuzz targets to seeds/: node fuzz/make_seeds.mjs
// Each is the choices, which stand in the target, and the content. Where a target can seal and frame its content, that
// is left to it; a few that are sealed under the targets' key stand here as they are, since no target would come upon
// them. The seeds of text_decoders are kept by hand.

import { mkdirSync, rmSync, writeFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';

const kEight = 'A1A2A3A4A5A6A7A8';
const text = (value) => Buffer.from(value).toString('hex');
const kIdentity = text('{"name":"SPECIMEN"}');
const kKey = '000102030405060708090A0B0C0D0E0F';

const kSeeds = {
  responses: {
    plain: `00 01 40 ${kEight}`,
    sealed: `01 02 40 ${kEight}`,
    flagged: `02 02 FF ${kEight}`,
    secret: `03 03 40 ${kEight}`,
    secret_frame: `03 00 40 FFFFFF 0012 5022 ${kEight} A8 FEFE`,
    wrong_end: `03 00 40 FFFFFF 0012 5022 ${kEight} A8 FE00`,
    wrong_start: '03 00 40 FFFF00 0012 5022',
    no_room: `05 03 01 ${kEight}`,
    long: `04 03 FF ${kEight}`,
    first: `05 03 40 ${kEight}`,
    second: '06 03 FF 0084000008',
    both: `07 03 40 ${kEight}`,
    files: `08 03 FF ${kEight}`,
    identity: `09 02 40 ${kIdentity}`,
    photo: `0A 01 40 00 ${kEight}`,
    token: `0B 02 04 ${kEight} ${kEight}`,
    decoded: `0C 02 FF ${kIdentity}`,
    raw: `0C 01 40 02 ${kEight}`,
    inner: '05 02 FF FFFFFF 0012 5001',
    frame: '01 00 40 70001C50120000000008AA C27E7EAE08B234D36A7FD9AE7CC4AFCE 8A',
    authenticated: '07 00 40 70002C50320000000008AA 31C1C7DE842B7ACC86C1B3866B3E5DEC'
      + '126DFCD2B3A5241AF56B644C33777227 94',
    status: '01 00 40 70 000D 5012 001301 0008 AA 00 00',
    error: '00 00 40 70 000D FFFF 0F0200 0008 AA 00 00',
    long_status: '0C 00 40 72 0000000F 7202 001301 0008 99 00 00',
  },
  server_authentication: {
    full: `02 00 00 00 00 0000 ${kKey} 00 09 ${text('BIZ-00001')} ${'C5'.repeat(16)} 10 00`,
    opaque: `02 00 00 03 00 0000 ${kKey} 00 00 ${'C5'.repeat(16)} 10 00`,
    former: `02 01 00 00 00 0000 ${kKey} 00`,
    block: `01 00 00 03 00 002F ${kKey} 00 09 ${text('BIZ-00001')} ${'C5'.repeat(16)} 10 13`,
    compact: '01 00 01 00 00 0909',
    frame: '00 00 00 00 00 70003C75000000000008AA A72AABC0F51F943AFFE6D4E2729C3619E8ABBB4CF82B559595792C1F08060B44'
      + 'CC97BDE973361F5526DB1BC7EBE8DD54E3',
    compact_frame: '00 00 01 00 00 70001C75000000000008AA 42509FB1518498C39642424FF28F1242 93',
    former_frame: '00 01 00 00 00 70002C71000000000008AA 050D68EFF379D2E8FDD37E3F826C22A3'
      + '6477D084412170CEE0389AF94433AC1E D9',
    status: '00 00 00 00 00 70 000D FFFF 0F0200 0008 AA 00 00',
  },
  result_report: {
    nothing: '00',
    info: `01 01 02 0013 ${kIdentity}`,
    parts: '01 00FF01 020212AB',
    all: `01 000063 0203123456 0101 13 ${kIdentity}`,
    raw: `02 ${kEight}`,
  },
  json_scan: {
    quoted: text('key\0{"other":"x","key":"value"}'),
    braced: text('key\0{"key":{"inner":"value"}}'),
    spaced: text('key\0{"key": "value"}'),
    elsewhere: text('key\0{"other":"key","key":"value"}'),
    empty: text('key\0{"key":""}'),
  },
  card_relay: {
    data: `FF ${kEight} 9000`,
    trailing: `08 ${kEight} 900000`,
    refused: 'FF 6986',
    failed: 'FF 6A8200',
    one: 'FF 02',
    long: 'FF AABBCC6A0000',
    zeros: 'FF 00000000',
  },
  secure_messaging: {
    answer: '00 40 00 871101 0AE4B9453A3C12F55589D171F0DB77B0 99029000 8E08 E7F74413FC7ED0E8',
    objects: `01 40 07 870901 ${kEight} 99029000`,
    wraps: '01 FF FF 99029000',
    status: '01 01 08 99029000',
    blocks: '02 FF 09 6014 5F01 0000 0000',
    data: `03 40 0A ${kEight}`,
  },
  data_groups: {
    com: '00 60 6014 5F010430313036 5F3606303430303030 5C026175',
    com_long: '00 02 608119 5F01820004 30313037 5F368106303430303030 5C82000361756F',
    sod: '01 60 7730302E 0600A02A 3028 020103 3100 30210600A01D 041B 3019 020100 3000 3012'
      + '30070201010402AAAA 30070201020402BBBB',
    list: '02 60 3007020101 0402AAAA 3007020102 0402BBBB',
  },
  asn1_reader: {
    length: '00 00 82000201FF',
    tag: '00 04 048102 01FF',
    integer: '01 00 0203010203',
    boolean: '02 00 0101FF',
    bits: '03 00 03020780',
    sequence: '04 02 3006 020105 020106',
    walk: '05 00 5F010430313036 7F6182000141 8000',
  },
  passport_session: {
    whole: '00 D4 00 0000 00000000 007F',
    text: '0B D4 00 0000 00000000 007F',
    small: '01 20 00 0000 00000000 007F',
    without_com: '00 D4 00 0000 00000000 081E0000 007F',
    other_files: '00 D4 00 0000 00000000 081E000C 600A 5F010131 5C0461636F75 0802200475820200 007F',
    late: '00 D4 00 0000 00000000 0011 07', // the chip goes silent while its files are read
    status: '00 D4 00 0000 00000000 000C 0402 6982 007F',
    data: '00 D4 00 0000 00000000 0002 01029000 0100 0104 60050102 0103 030405 007F',
    blocks: '00 D4 00 0000 00000000 0004 0208 6014800000000000 0304 99029000 007F',
    spoiled: '00 D4 00 0000 00000000 0007 050301 007F',
    shortened: '00 D4 00 0000 00000000 0003 0604 007F',
    steps: '00 D4 00 0000 00000000 0009 A006 A7 0000',
    cancelled: '00 D4 00 0000 00000000 0008 09 0000',
    unreachable: '00 D4 01 0000 00000000',
    not_again: '00 D4 02 0000 00000000 007F',
    memory: '00 D4 00 0040 00000000 007F',
    statuses: '00 D4 00 0000 00000200 007F',
    sealed: '00 D4 00 0000 00000303000102 00 007F',
    payload: '00 D4 00 0000 00000403000109 00 007F',
    frame: '00 D4 00 0000 00000503720000 00 007F',
  },
  passport_file: {
    short: 'D4 0404 610F0102 040D 030405060708090A0B0C0D0E0F',
    chunks: '04 0404 75810A01 0404 02030405 0404 06070809 0404 0A000000',
    files: '08 0404 61820005 0804 75050102 0405 0102030405 0803 030405',
    less: '08 0402 610F 0403 010203 0400',
    blocks: 'D4 0508 610F0102 80000000',
    objects: 'D4 0604 99029000',
    refused: 'D4 0702 6982 0404 61050102 0703 6A8200',
  },
};

for (const [target, seeds] of Object.entries(kSeeds)) {
  const folder = fileURLToPath(new URL(`seeds/${target}`, import.meta.url));
  rmSync(folder, { recursive: true, force: true });
  mkdirSync(folder);
  for (const [name, bytes] of Object.entries(seeds)) {
    writeFileSync(`${folder}/${name}`, Buffer.from(bytes.replaceAll(' ', ''), 'hex'));
  }
}
