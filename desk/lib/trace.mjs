// A read for a bug report: lengths, codes, times and structure. Nothing of it is about a person, a document or a device: what
// is kept is listed here by name, everything else stays behind.

import { arch, release } from 'node:os';

const kNames = /^(0x[0-9A-F]{4}|(SELECT|READ)( (EF\.(COM|SOD|CardAccess)|DG\d{1,2}|APPLICATION|MASTER FILE|60\d\d|a data group))?|[A-Z][A-Z ]+|unknown command|instruction [0-9A-F]{2})$/;
const kStatuses = /^[0-9A-F]{4,6}$/;
const kFirst = 4; // bytes of a command that say what it is: class, instruction, P1, P2

const named = (text) => (kNames.test(text) ? text : 'other');

function chipStep({ name, at, ms, good, status, sent, received }, parts) {
  const command = parts?.sent ?? '';
  return { lane: 'chip', name: named(name), at, ms, good, status, sent, received, header: name.includes('AUTHENTICATE') ? command.slice(0, 4) : command.slice(0, 2 * kFirst) };
}

function serverStep({ name, at, ms, good, words, sent, received }) {
  const status = words.replace('status ', '');
  return { lane: 'server', name: named(name), at, ms, good, status: kStatuses.test(status) ? status : good ? '000000' : 'none', sent, received };
}

/** Statuses by file, from the monitor record. */
const statusesOf = (text = '') => Object.fromEntries(text.split(';').map((part) => part.split(':'))
  .filter(([name, status]) => /^(com|sod|dg\d{1,2})_str$/.test(name) && /^[0-9A-F]*$/.test(status ?? '')));

/**
 * @param {Record} record
 * @returns {object} plain data for JSON
 */
export function traceOf(record) {
  const { kind, source, state, ms, choice, result, differences, content, judged } = record;
  const all = record.allApart();
  const monitor = record.monitor?.record;
  return {
    format: 'tqreader-trace-1', kind, source, state, ms: Math.round(ms), choice: choice ?? null,
    system: { node: process.version, os: process.platform, release: release(), arch: arch() },
    result: result && { code: result.code, name: result.name },
    monitor: monitor && { result_code: monitor.result_code, decode_times: monitor.decode_times, time_delay: monitor.time_delay,
      nfc_err_code: monitor.nfc_err_code, card_type: monitor.card_type, files: statusesOf(monitor.sod_file) },
    steps: record.steps.filter(Boolean).map((step) => (step.lane === 'chip' ? chipStep(step, all.get(step.n)) : serverStep(step))),
    files: content ? Object.entries(content.files).map(([name, bytes]) => ({ name, bytes: bytes.length })) : record.files,
    activeAuthentication: content ? { asked: content.challenge.some(Boolean), answer: content.answer.length } : null,
    checks: (judged?.checks ?? []).map(({ name, verdict }) => ({ name, verdict })),
    differences: differences.map(({ by, at, what, step }) => ({ by, at: named(at ?? ''), what: fieldName(what), step })),
  };
}

/** The name of a field, and never what stands in it. */
const fieldName = (what) => (/^["\w][\w"', ().-]{0,60}$/.test(what ?? '') && !/\d{3}/.test(what) ? what : 'other');
