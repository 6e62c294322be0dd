// The elementary files of the logical data structure (ICAO Doc 9303-10): EF.COM and the data groups.

import { u8, u16 } from '../bytes.mjs';
import { DER, writer } from './der.mjs';
import { biometricTemplates, faceRecord, portrait } from './face-record.mjs';
import { td3Lines } from './mrz.mjs';

/** Identifiers of the elementary files. Data group n is 0x0100 + n. EF.CardAccess is a file of the chip, not of the application. */
export const FILE_ID = Object.freeze({ CARD_ACCESS: 0x011c, COM: 0x011e, SOD: 0x011d, DG1: 0x0101, DG2: 0x0102, DG3: 0x0103,
  DG11: 0x010b, DG14: 0x010e, DG15: 0x010f });

/** Outer tags of the data groups: the place in the list is the number of the group. */
export const DATA_GROUP_TAGS = Object.freeze([undefined, 0x61, 0x75, 0x63, 0x76, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a,
  0x6b, 0x6c, 0x6d, 0x6e, 0x6f, 0x70]);

/** "EF.COM", "EF.SOD", "EF.CardAccess", "DG1" ... "DG16", or the identifier in hexadecimal. */
export function fileName(fileId) {
  if (fileId === FILE_ID.COM) return 'EF.COM';
  if (fileId === FILE_ID.SOD) return 'EF.SOD';
  if (fileId === FILE_ID.CARD_ACCESS) return 'EF.CardAccess';
  if (fileId > 0x0100 && fileId <= 0x0110) return `DG${fileId - 0x0100}`;
  return `file ${fileId.toString(16).toUpperCase().padStart(4, '0')}`;
}

export const dataGroupId = (number) => 0x0100 + number;

/**
 * EF.COM: LDS version 1.7, Unicode version 4.0.0, tag list.
 * @param {Buffer|number[]} tags  one byte for each listed data group
 * @param {string} [form]         form of its lengths, see `writer`
 */
export function efCom(tags, form = 'der') {
  const { tlv } = writer(form);
  return tlv(0x60, tlv(0x5f01, Buffer.from('0107')), tlv(0x5f36, Buffer.from('040000')), tlv(0x5c, Buffer.from(tags)));
}

function dg1(holder) {
  return [DER.tlv(0x5f1f, Buffer.from(td3Lines(holder).join(''), 'ascii'))];
}

function dg2(holder, { portraitSize }) {
  return [biometricTemplates(faceRecord(portrait(portraitSize)))];
}

/** Fingers: a record that only claims to be one. Real chips keep it behind Extended Access Control. */
function dg3() {
  const record = Buffer.concat([Buffer.from('FIR\x00010\x00', 'latin1'), Buffer.alloc(200, 'SPECIMEN')]);
  return [biometricTemplates(record, { type: 0x08, format: 0x0007 })];
}

/** Additional personal details: a list of the tags that follow, then each of them. */
function dg11(holder) {
  const details = [
    [0x5f0e, `${holder.surname}<<${holder.givenNames}`.replaceAll(' ', '<')],
    [0x5f2b, holder.fullBirthDate],
    [0x5f11, holder.placeOfBirth],
    [0x5f42, holder.address],
    [0x5f13, holder.profession],
  ];
  const tags = details.map(([tag]) => u16(tag));
  return [DER.tlv(0x5c, ...tags), ...details.map(([tag, text]) => DER.tlv(tag, Buffer.from(text, 'utf8')))];
}

/** Additional document details: the issuing authority and the date of issue. */
function dg12(holder) {
  return [DER.tlv(0x5c, u16(0x5f19), u16(0x5f26)),
    DER.tlv(0x5f19, Buffer.from(holder.authority, 'utf8')), DER.tlv(0x5f26, Buffer.from(holder.issueDate, 'ascii'))];
}

/** Security infos for Chip Authentication (ICAO Doc 9303-11 section 9.2): a protocol and a real public key. */
function dg14(holder, { chipKey }) {
  const { sequence, set, oid, integer } = DER;
  const spki = chipKey.export({ type: 'spki', format: 'der' });
  return [set(
    sequence(oid('0.4.0.127.0.7.2.2.3.2.1'), integer(1)), // id-CA-ECDH-3DES-CBC-CBC, version 1
    sequence(oid('0.4.0.127.0.7.2.2.1.2'), spki), // id-PK-ECDH
  )];
}

/** The public key of Active Authentication. */
function dg15(holder, { aaPublicKey }) {
  return [aaPublicKey.export({ type: 'spki', format: 'der' })];
}

const CONTENTS = { 1: dg1, 2: dg2, 3: dg3, 11: dg11, 12: dg12, 14: dg14, 15: dg15 };

/**
 * A data group. Numbers without contents of their own hold a plain octet string of filler.
 * @param {number} number
 * @param {object} holder   whose data they are; the members are those of HOLDER in specimen.mjs
 * @param {object} details  portraitSize in bytes, chipKey and aaPublicKey (public KeyObjects), form (of the outer
 *   length, see `writer`)
 */
export function dataGroup(number, holder, details) {
  const contents = CONTENTS[number] ?? (() => [DER.octets(Buffer.alloc(40 + number, u8(number)))]);
  return writer(details.form).tlv(DATA_GROUP_TAGS[number], ...contents(holder, details));
}
