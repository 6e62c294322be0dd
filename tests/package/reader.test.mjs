// The package's reader against the built library, with a card, a passport and a decode server that watch every byte. That
// each command is answered exactly once is watched as well: an answer too many or too few is a difference.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { SPECIMEN_PERSON } from '../../simulator/lib/persona.mjs';
import { Process } from '../e2e/support.mjs';

const kMain = fileURLToPath(new URL('./scenarios.mjs', import.meta.url));
const kBusinessId = 'SIMULATED-READ-000001';
const silentAt = (on) => ({ rules: [{ on, nth: 1, do: 'silence' }] });
const refusedAt = (on, status) => ({ server: { rules: [{ on, do: 'status', status }] }, error: ['SERVER_STATUS', -Number(status)] });

/** Is this a good read of what lay on the phone? */
function checkGood({ result, differences }, passport) {
  assert.deepEqual(differences, []);
  assert.deepEqual([result?.code, result?.businessId], [0, kBusinessId], JSON.stringify(result));
  if (passport) assert.equal(result.info.surname, 'SPECIMEN');
  else assert.deepEqual(result.info, { ...SPECIMEN_PERSON });
  assert.equal(result.monitor.card_type, passport ? 1 : 0);
}

/**
 * Compares what came of a read with its row: `error` [name, code], its `detail` and `reason`; `id`: whether the error names the read;
 * without `error` the read is a good one. `within` so many milliseconds. `again`: the error of the read after it, when that is not
 * a good one. `sodFile`: file statuses of the record. Each command is answered once.
 */
function check(outcome, { error: expected, id, within, passport, claims, cancel, atOnce, again, sodFile, ...row }) {
  const error = atOnce && cancel.afterMs !== undefined && outcome.result ? undefined : expected; // it may have been quicker
  if (error) {
    const { name, code, businessId, monitor } = outcome.error ?? {};
    assert.deepEqual([name, code], error, JSON.stringify(outcome.result ?? outcome.error));
    for (const told of ['detail', 'reason']) assert.equal(outcome.error[told], row[told] ?? outcome.error[told]);
    if (id !== undefined) assert.deepEqual([businessId, monitor?.reqid], id ? [kBusinessId, kBusinessId] : ['', undefined]);
    if (!claims) assert.deepEqual(outcome.differences, []); // the chip objects to a wrong key
  } else {
    checkGood(outcome, passport);
  }
  if (sodFile) assert.match(outcome.result.monitor.sod_file, sodFile);
  if (!atOnce) assert.deepEqual([outcome.idle, outcome.answers], [true, outcome.commands], 'the worker is gone');
  if (cancel && error) assert.equal(outcome.cancelled, 'just now'); // the read ends in the same turn of the event loop
  if (within !== undefined) assert.ok(outcome.ms < within, `${outcome.ms} ms`);
  if (again) assert.deepEqual([outcome.again.error?.name, outcome.again.error?.code], again);
  else checkGood(outcome.again, passport);
}

function testReads(title, rows) {
  test(title, async (t) => {
    let child = new Process({ main: kMain });
    for (const row of rows) {
      await t.test(row.name, async () => {
        if (child.ending !== undefined) child = new Process({ main: kMain });
        check(await child.call('perform', row), row);
      });
    }
    await t.test('the process ends by itself', () => child.end());
  });
}

const kBoth = [['card', {}], ['passport', { passport: true }]];

testReads('good reads', [
  { name: 'a card' }, { name: 'a card, less of it', identity: { readMode: 1 } }, { name: 'a card, every answer timed', server: { timing: true } },
  { name: 'a passport', passport: true }, { name: 'a passport without portrait', passport: true, identity: { readMode: 1 } },
  { name: 'a passport that keeps DG3', passport: { persona: 'dg3Refused' } }, { name: 'a passport with PACE alone', passport: { persona: 'paceAlone' } },
  { name: 'blanks around the numbers', passport: true, claims: { documentNumber: ' \tspec01234 ', birthDate: '900101\t' } },
  ...kBoth.flatMap(([kind, row]) => ['throws', 'rejects'].map((progress) => ({ name: `${kind}: the progress function ${progress}`, ...row, progress }))),
  ...[0, 1].map((serial) => ({ name: `the card does not answer command ${serial}`, connection: { behaviour: 'swallows', serial } })),
  { name: 'a thenable in place of a promise', connection: { behaviour: 'thenable', serial: 4 } },
  { name: 'a slow card and a short limit for the library', connection: { behaviour: 'slow', serial: 8 }, silenceLimit: 40 },
]);

test('progress', async () => {
  const child = new Process({ main: kMain });
  const [card, passport, pace] = [await child.call('perform', {}), await child.call('perform', { passport: true }), await child.call('perform', { passport: { persona: 'paceAlone' } })];
  await child.end();
  for (const { progress, steps } of [card, passport, pace]) {
    const told = progress.slice(1, -1);
    assert.deepEqual(told.map(({ step, commands }) => [step, commands]), steps.map((name, i) => [name.replace(/DG\d+$/, 'DG'), i + 1]));
    assert.deepEqual([progress[0].step, progress.at(-1).step], ['CONNECT', 'REPORT']);
  }
  const told = card.progress.filter(({ file }) => file !== '').map(({ file, fileNumber, bytes, totalBytes }) => `${fileNumber} ${file} ${bytes}/${totalBytes}`);
  assert.deepEqual(told, ['1 6002 0/32', '1 6002 32/32', '2 6011 0/214', '2 6011 212/214', '2 6011 214/214', '3 6012 0/256', '3 6012 212/256',
    '3 6012 256/256', '4 6013 0/1024', '4 6013 212/1024', '4 6013 424/1024', '4 6013 636/1024', '4 6013 848/1024', '4 6013 1024/1024']);
  const read = passport.progress.filter(({ step }) => step.startsWith('READ'));
  const ends = read.filter((event, i) => read[i + 1]?.fileNumber !== event.fileNumber).map(({ fileNumber, file, bytes }) => [fileNumber, file, bytes]);
  assert.deepEqual(ends, ['EF.COM', 'EF.SOD', 'DG15', 'DG11', 'DG1', 'DG2', 'DG14'].map((name, i) => [i + 1, name.replace(/DG\d+/, 'DG'), passport.lengths[name]]));
});

// --- connections that fail -----------------------------------------------------------------------------------------------

const kGone = ['NO_CARD_ANSWER', -93001];
testReads('connections that fail', [
  { name: 'card: throws', connection: { behaviour: 'throws', serial: 3 }, error: kGone, detail: 'the radio is off', id: true },
  ...[[2, 4, 5, 6, 7, 8, 9, 10, 11, 12], [0, 1, 2, 3, 4, 5, 6, 7]].flatMap((serials, kind) => serials.map((serial) => ({ name: `${kBoth[kind][0]}: gone at command ${serial}`,
    ...kBoth[kind][1], connection: { behaviour: 'rejects', serial }, error: kGone, detail: 'tag lost', reason: 'DOCUMENT_MOVED', id: true }))),
]);

const kGroups = 'dg15_str:9000;dg11_str:9000;dg1_str:9000;dg2_str:9000;';
testReads('documents that are not as usual', [
  // a group that a passport keeps to itself is left out, whether the refusal is protected or not
  ...['naked', 'protected'].map((refusals) => ({ name: `DG3 refused (${refusals})`, passport: { persona: 'dg3Unreadable', refusals },
    sodFile: new RegExp(`;${kGroups}dg3_str:\\w+;dg14_str:9000$`) })),
  { name: 'without EF.COM', passport: { persona: 'withoutCom' } },
  { name: 'gone after it has proved itself', passport: true, connection: { behaviour: 'rejects', serial: 8, nth: 10 }, server: { passport: null, monitorText: 'any' } },
  { name: 'DG1 refused', passport: true, chip: { order: 'any', rules: [{ on: 'READ DG1', nth: 1, do: 'statusWord', status: '6982' }] },
    error: ['FAILED', -1], reason: 'DOCUMENT_REFUSED', id: true },
  { name: 'another date of birth', passport: true, claims: { birthDate: '900102' }, error: ['AUTHENTICATION_REFUSED', -53001],
    reason: 'WRONG_NUMBER_OR_DATES', id: true, again: ['AUTHENTICATION_REFUSED', -53001] },
  { name: 'card: an empty file', connection: { behaviour: 'emptyFile', serial: 8 }, error: ['NO_RESULT', 7], reason: 'NONSENSE',
    detail: 'the card gave an empty file', within: 2000 },
  { name: 'card: the server is silent for longer than the limit', server: silentAt('0x5001'), silenceLimit: 300, error: ['NO_RESULT', 7], reason: 'NETWORK', within: 3000 },
  { name: 'card: the server is silent for less', server: { rules: [{ on: '0x6113', do: 'delay', ms: 400 }] }, silenceLimit: 1000 },
]);

// --- the server ----------------------------------------------------------------------------------------------------------

testReads('failures of the server', [
  ...kBoth.flatMap(([kind, row]) => [
    { name: `${kind}: refused at the start`, ...row, ...refusedAt('0x7500', '003501'), id: false },
    { name: `${kind}: nobody listens`, ...row, nobody: true, error: ['CONNECT_FAILED', -20001], id: false },
    { name: `${kind}: hangs up`, ...row, server: { rules: [{ on: '0x7500', do: 'close' }] }, error: ['EXCHANGE_FAILED', -22003], id: false },
  ]),
  { name: 'card: refused later', ...refusedAt('0x6113', '001301'), id: true }, { name: 'passport: refused later', passport: true, ...refusedAt('0x7202', '001301'), id: true },
  { name: 'card: malformed', server: { rules: [{ on: '0x5001', do: 'malformed', kind: 'checksum' }] }, error: ['RESPONSE_MALFORMED', -35006], id: true },
]);

// --- cancelling ----------------------------------------------------------------------------------------------------------

const kCancelled = ['CANCELLED', 1];
const kSerials = { card: [...Array(13).keys()], passport: [...Array(10).keys()] };
const kExchanges = { card: ['0x7500', '0x5001', '0x5032', '0x6002', '0x6113', '0x7219'], passport: ['0x7500', '0x7201', '0x7202', '0x7219'] };
testReads('cancelled reads', kBoth.flatMap(([kind, row]) => [
  ...kSerials[kind].flatMap((serial) => ['never', 'late', 'lateFailure'].map((behaviour) => ({
    name: `${kind}: at command ${serial}, whose answer comes ${behaviour}`, ...row, connection: { behaviour, serial }, cancel: { on: serial } }))),
  ...kExchanges[kind].map((on) => ({ name: `${kind}: at ${on}`, ...row, server: silentAt(on), cancel: { on } })),
  { name: `${kind}: in the same moment as the start`, ...row, cancel: { on: 'start', times: 2 } },
  { name: `${kind}: in the progress function`, ...row, cancel: { on: 'CONNECT' } },
  { name: `${kind}: in the progress function, after an answer`, ...row, cancel: { on: 'GET CHALLENGE' } },
  { name: `${kind}: while the library connects`, ...row, nobody: true, cancel: { afterMs: 100 } },
  { name: `${kind}: while a card that never answers is waited for`, ...row, connection: { behaviour: 'never', serial: 3 }, silenceLimit: 50, cancel: { afterMs: 1500 } },
]).map((row) => ({ ...row, error: kCancelled, id: false })));

testReads('a read that begins in the moment in which another one is cancelled', kBoth.flatMap(([kind, row]) => [
  ...[0, 3, 8].map((serial) => ({ name: `${kind}: at command ${serial}`, ...row, connection: { behaviour: 'never', serial }, cancel: { on: serial } })),
  ...kExchanges[kind].map((on) => ({ name: `${kind}: at ${on}`, ...row, server: silentAt(on), cancel: { on } })),
  { name: `${kind}: in the same moment as the start`, ...row, cancel: { on: 'start' } },
  ...Array.from({ length: 20 }, (_, i) => ({ name: `${kind}: after ${i} ms`, ...row, cancel: { afterMs: i } })),
]).map((row) => ({ ...row, error: kCancelled, atOnce: true })));
