// The monitor record: what the reader reports about each read, to the application and to the decode server.

import { Difference } from './difference.mjs';

/** The record's keys, in the order and with the kind of value in which they are written. */
const FIELDS = [
  { key: 'reqid', kind: 'text' },
  { key: 'result_code', kind: 'number' },
  { key: 'decode_times', kind: 'number' },
  { key: 'time_delay', kind: 'number' },
  { key: 'nfc_err_code', kind: 'number' },
  { key: 'nfc_err_cmd', kind: 'text' },
  { key: 'card_type', kind: 'number' },
  { key: 'device_id', kind: 'text' },
  { key: 'appid', kind: 'text' },
  { key: 'sod_file', kind: 'text' },
  { key: 'stickCard_id', kind: 'text' },
];

/** The record's text, byte for byte as the reader writes it. */
export function formatMonitorRecord(record) {
  const members = FIELDS.map(({ key, kind }) =>
    `"${key}": ${kind === 'text' ? JSON.stringify(record[key]) : record[key]}`);
  return `{${members.join(', ')}}`;
}

/**
 * Reads a record's text. Keys, their order and the kinds of their values must be right; with `exact`, every
 * blank as well. Throws a Difference.
 */
export function parseMonitorRecord(text, at = 'monitor record', exact = true) {
  let record;
  try {
    record = JSON.parse(text);
  } catch {
    throw new Difference(at, 'monitor text', 'JSON', JSON.stringify(text));
  }
  const keys = record !== null && typeof record === 'object' ? Object.keys(record).join(' ') : '';
  const wanted = FIELDS.map(({ key }) => key).join(' ');
  if (keys !== wanted) throw new Difference(at, 'keys of the monitor text', wanted, keys);
  for (const { key, kind } of FIELDS) {
    const good = kind === 'text' ? typeof record[key] === 'string' : Number.isInteger(record[key]);
    if (!good) throw new Difference(at, `"${key}" of the monitor text`, `a ${kind}`, JSON.stringify(record[key]));
  }
  if (exact && formatMonitorRecord(record) !== text) {
    throw new Difference(at, 'monitor text', formatMonitorRecord(record), text);
  }
  return record;
}
