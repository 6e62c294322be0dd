// The monitor report, command 0x7219, that closes a session.

import { FieldReader, u16 } from '../bytes.mjs';
import { decrypt } from '../crypto.mjs';
import { Difference } from '../difference.mjs';
import { parseMonitorRecord } from '../monitor-record.mjs';
import { HEADER } from './frames.mjs';
import { checkStatusText, endedBadly } from './passport-files.mjs';

const kCardAnswered = 0x9000;
const kMostErrorCommand = 32; // bytes of the failed card command
const kCardTypes = { [HEADER.identityCard]: 0, [HEADER.passport]: 1 };

function read(session, request) {
  const outer = new FieldReader(request.payload, request.command);
  const [usual, ...others] = session.reportPrefixes;
  const prefix = request.payload.subarray(0, usual.length);
  outer.expect('report prefix', others.find((other) => other.equals(prefix)) ?? usual);
  const plain = decrypt(session.key, outer.take('encrypted report', outer.left), request.command, 'the report');
  const r = new FieldReader(plain, request.command);
  r.expect('length of the report', u16(plain.length));
  const raw = r.take('monitor text', Math.max(0, r.left - 1)).toString('utf8');
  r.checksum('checksum of the report', 0);
  r.done('report');
  if (session.config.monitorText === 'any') return { raw, record: null };
  const record = parseMonitorRecord(raw, request.command, session.config.monitorText === 'exact');
  checkRecord(session, record, request.command);
  return { raw, record };
}

function checkRecord(session, record, at) {
  const { config } = session;
  const wanted = {
    reqid: config.businessId,
    card_type: kCardTypes[session.header],
    device_id: session.persona.sn,
    appid: session.persona.appid,
    stickCard_id: config.newStickCardId.toUpperCase(),
  };
  for (const [key, value] of Object.entries(wanted)) {
    if (value !== undefined && record[key] !== value) throw new Difference(at, `"${key}"`, value, record[key]);
  }
  checkStatusText(record.sod_file, session.received, config.passport?.statuses, at);
  checkResult(session.outcome(), record, at);
  const command = record.nfc_err_cmd;
  if (!/^([0-9A-F]{2})*$/.test(command) || command.length > 2 * kMostErrorCommand) {
    throw new Difference(at, '"nfc_err_cmd"', 'at most 32 bytes as upper-case hexadecimal', command);
  }
  if (record.nfc_err_code < 0 || record.nfc_err_code > 0xffffffff) {
    throw new Difference(at, '"nfc_err_code"', '0 to 4294967295', record.nfc_err_code);
  }
  const mayFail = session.received && endedBadly(session.received, record.sod_file);
  if (record.result_code === 0 && !mayFail && (record.nfc_err_code !== kCardAnswered || command !== '')) {
    throw new Difference(at, '"nfc_err_code" and "nfc_err_cmd" of a good read', `${kCardAnswered} and nothing`,
      `${record.nfc_err_code} and ${command || 'nothing'}`);
  }
}

/** `outcome` is what the server knows of the result: a code, 'failed' for some negative code, or undefined. */
function checkResult(outcome, record, at) {
  const code = record.result_code;
  const good = outcome === undefined || (outcome === 'failed' ? code < 0 : code === outcome);
  if (!good) throw new Difference(at, '"result_code"', outcome === 'failed' ? 'a negative code' : outcome, code);
}

function reply(session) {
  return {
    key: session.key, code: 0x7219, header: session.header, secret: { code: 0x7219, data: Buffer.alloc(1) },
  };
}

export const MONITOR = { '0x7219': { read, reply } };
