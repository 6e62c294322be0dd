// The package's reader against the built library, with a card, a passport and a decode server that watch every byte. That
// each command is answered exactly once is watched as well: an answer too many or too few is a difference.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { SPECIMEN_PERSON } from '../../simulator/lib/persona.mjs';
import { Process, SANITIZED } from '../e2e/support.mjs';

const kMain = fileURLToPath(new URL('./main.mjs', import.meta.url));
const kSoon = SANITIZED ? 500 : 20; // ms for a cancel to end a read
const kBusinessId = 'SIMULATED-READ-000001';
const silentAt = (on) => ({ rules: [{ on, nth: 1, do: 'silence' }] });

/** Is this a good read of what lay on the phone? */
function checkGood({ result, differences }, passport) {
  assert.deepEqual(differences, []);
  assert.deepEqual([result?.code, result?.businessId], [0, kBusinessId], JSON.stringify(result));
  if (passport) assert.equal(result.info.surname, 'SPECIMEN');
  else assert.deepEqual(result.info, { ...SPECIMEN_PERSON });
  assert.equal(result.monitor.card_type, passport ? 1 : 0);
}

/**
 * Compares what came of a read with its row: `error` [name, code] and its `detail`; `id`: whether the error names the read;
 * without `error` the read is a good one. `within` so many milliseconds. `woken`: the library may have got one answer more
 * than it has sent commands. `again`: the error of the read after it, when that is not a good one. `skipped`: so many data
 * groups were skipped after a refused READ; `sodFile`: file statuses of the record, from the last group on that matters.
 */
function check(outcome, { error, detail, id, within, passport, cancel, atOnce, woken = false, again, skipped = 0, sodFile }) {
  assert.deepEqual(outcome.unhandled, []);
  if (error) {
    const { isError, name, code, meaning, message, businessId } = outcome.error ?? {};
    assert.deepEqual([name, code, isError], [...error, true], JSON.stringify(outcome.result ?? outcome.error));
    assert.ok(meaning.length > 0 && message.includes(meaning) && message.includes(String(code)), message);
    if (detail !== undefined) assert.equal(outcome.error.detail, detail);
    if (id !== undefined) assert.equal(businessId, id ? kBusinessId : '');
    if (id) assert.equal(outcome.error.monitor.reqid, kBusinessId);
    assert.deepEqual(outcome.differences, []);
  } else {
    checkGood(outcome, passport);
  }
  assert.equal(outcome.skips.length, skipped);
  if (sodFile) assert.match(outcome.result.monitor.sod_file, sodFile);
  if (!atOnce) {
    assert.ok(outcome.idle, 'the worker is gone');
    const extra = outcome.answers.length - outcome.commands.length;
    assert.ok(extra === 0 || (woken && extra === 1), `${outcome.commands} answered by ${outcome.answers}`);
  }
  if (cancel && error) assert.ok(outcome.latency < kSoon, `${outcome.latency} ms`);
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

async function alone(name, argument) {
  const child = new Process({ main: kMain });
  const value = await child.call(name, argument);
  await child.end();
  return value;
}

const kBoth = [['card', {}], ['passport', { passport: true }]];

testReads('good reads', [
  { name: 'a card' }, { name: 'a card, less of it', identity: { readMode: 1 } }, { name: 'a card, every answer timed', server: { timing: true } },
  { name: 'a passport', passport: true }, { name: 'a passport without portrait', passport: true, identity: { readMode: 1 } },
  { name: 'a passport that keeps DG3', passport: { persona: 'dg3Refused' } },
  { name: 'blanks around the numbers', passport: true, claims: { documentNumber: ' \tspec01234 ', birthDate: '900101\t' } },
  ...kBoth.flatMap(([kind, row]) => ['throws', 'rejects'].map((progress) => ({ name: `${kind}: the progress function ${progress}`, ...row, progress }))),
  ...[0, 1].map((serial) => ({ name: `the card does not answer command ${serial}`, connection: { behaviour: 'swallows', serial } })),
  { name: 'a thenable in place of a promise', connection: { behaviour: 'thenable', serial: 4 } },
  { name: 'a slow card and a short limit for the library', connection: { behaviour: 'slow', serial: 8 }, silenceLimit: 40 },
]);

test('progress of a card', async () => {
  const { progress } = await alone('perform', {});
  assert.deepEqual([progress[0].step, progress.at(-1).step], ['CONNECT', 'REPORT']);
  const steps = progress.slice(1, -1);
  assert.deepEqual(steps.map(({ commands }) => commands), steps.map((_, i) => i + 1));
  assert.deepEqual([...new Set(steps.map(({ step }) => step))], ['REQB', 'ATTRIB', 'SELECT 6002', 'READ 6002', 'INTERNAL AUTHENTICATE',
    'GET CHALLENGE', 'EXTERNAL AUTHENTICATE', 'SELECT 6011', 'READ 6011', 'SELECT 6012', 'READ 6012', 'SELECT 6013', 'READ 6013']);
  const told = steps.filter(({ file }) => file !== '').map(({ file, fileNumber, bytes, totalBytes }) => `${fileNumber} ${file} ${bytes}/${totalBytes}`);
  assert.deepEqual(told, ['1 6002 0/32', '1 6002 32/32', '2 6011 0/214', '2 6011 212/214', '2 6011 214/214', '3 6012 0/256', '3 6012 212/256',
    '3 6012 256/256', '4 6013 0/1024', '4 6013 212/1024', '4 6013 424/1024', '4 6013 636/1024', '4 6013 848/1024', '4 6013 1024/1024']);
});

test('progress of a passport', async () => {
  const child = new Process({ main: kMain });
  const { progress, steps } = await child.call('perform', { passport: true });
  const lengths = await child.call('fileLengths', true);
  await child.end();
  const order = ['EF.COM', 'EF.SOD', 'DG15', 'DG11', 'DG1', 'DG2', 'DG14'];
  const read = progress.filter(({ step }) => step.startsWith('READ'));
  const ends = read.filter((event, i) => read[i + 1]?.fileNumber !== event.fileNumber);
  assert.deepEqual(ends.map(({ fileNumber, file, bytes }) => [fileNumber, file, bytes]),
    order.map((name, i) => [i + 1, name.startsWith('DG') ? 'DG' : name, lengths[name]]));
  assert.deepEqual(progress.slice(1, -1).map(({ step }) => step), steps.map((name) => name.replace(/DG\d+$/, 'DG')));
});

// --- connections that fail -----------------------------------------------------------------------------------------------

const kDetails = {
  throws: 'the radio is off', throwsNothing: undefined, rejects: 'tag lost', rejectsLate: 'tag lost', rejectsNothing: undefined,
  rejectsUnprintable: 'the connection failed', givesNothing: 'transmit() gave no Uint8Array', givesText: 'transmit() gave no Uint8Array',
  givesArray: 'transmit() gave no Uint8Array', givesTooMuch: 'the answer has 301 bytes, more than 300', givesNoBytes: '',
  hostileThenable: 'no then', twoFacedThenable: 'first',
};
const kGone = ['NO_CARD_ANSWER', -93001];
testReads('connections that fail', [
  ...Object.entries(kDetails).flatMap(([behaviour, detail]) => [
    { name: `card: ${behaviour}`, connection: { behaviour, serial: 3 }, error: kGone, detail, id: true },
    { name: `passport: ${behaviour}`, passport: true, connection: { behaviour, serial: 6, nth: 2 }, error: kGone, detail, id: true },
  ]),
  ...[2, 4, 5, 6, 7, 8, 9, 10, 11, 12].map((serial) => ({ name: `card: gone at command ${serial}`,
    connection: { behaviour: 'rejects', serial }, error: kGone, id: true })),
  ...[0, 1, 2, 3, 4, 5, 6, 7, 8].map((serial) => ({ name: `passport: gone at step ${serial}`, passport: true,
    connection: { behaviour: 'rejects', serial }, error: kGone, id: true })),
  // when EF.COM cannot be selected, two commands come together
  { name: 'passport: without EF.COM', passport: { persona: 'withoutCom' }, error: ['CARD_FAILED', -93006], id: true, again: ['CARD_FAILED', -93006] },
  ...['rejects', 'rejectsLate', 'throws'].map((behaviour) => ({ name: `passport: ${behaviour} while another command waits`, passport: { persona: 'withoutCom' },
    connection: { behaviour, serial: 5 }, error: kGone, id: true, again: ['CARD_FAILED', -93006] })),
]);

// A passport that lets a data group be selected and refuses to have it read. Such a group has two rows in the record.
const refusedGroup = { skipped: 1 };
const refuses = (on, nth) => ({ chip: { order: 'any', rules: [{ on, nth, do: 'statusWord', status: '6982' }] } });
testReads('data groups that are not to be read', [
  ...[['with proof', {}], ['without proof', { dataGroups: [1, 2, 3, 11, 14] }]].flatMap(([proof, options]) => [
    { name: `DG3 refused in plain, ${proof}`, ...refusedGroup, passport: { persona: 'dg3Unreadable', ...options },
      sodFile: /;dg2_str:9000;dg3_str:6982;dg3_str:6982;dg14_str:9000$/ },
    // the chip alone counts a protected refusal, and refuses what comes after it
    { name: `DG3 refused under secure messaging, ${proof}`, ...refusedGroup, chip: {}, passport: { persona: 'dg3Unreadable', refusals: 'protected', ...options },
      sodFile: /;dg2_str:9000;dg3_str:99026982;dg3_str:99026982;dg14_str:6988$/ },
  ]),
  { name: 'DG3 refused, text alone', ...refusedGroup, passport: { persona: 'dg3Unreadable' }, identity: { readMode: 1 } },
  { name: 'two groups refused, the last one among them', ...refusedGroup, skipped: 2, sodFile: /;dg3_str:6A82;dg3_str:6A82;dg14_str:6982;dg14_str:6982$/,
    passport: { persona: 'dg3Unreadable', refused: { '0x0103': { on: 'read', status: '6A82' }, '0x010E': { on: 'read', status: '6982' } } } },
  { name: 'DG11 refused, before the groups that are needed', ...refusedGroup, passport: { refused: { '0x010B': { on: 'read', status: '6982' } } },
    sodFile: /;dg11_str:6982;dg11_str:6982;dg1_str:9000;/ },
  { name: 'DG11 refused in its middle', passport: true, ...refusedGroup, ...refuses('READ DG11', 2), server: { monitorText: 'any', passport: null } },
  ...['DG1', 'DG2'].map((name) => ({ name: `${name} refused`, passport: true, ...refuses(`READ ${name}`, 1), skipped: 1, error: ['FAILED', -1], id: true })),
  { name: 'cancelled in the progress function, after a refusal', passport: true, ...refuses('READ DG15', 1), cancel: { on: 'READ DG' },
    error: ['CANCELLED', 1], woken: true },
]);

test('what is asked of a passport after DG3 has been refused', async () => {
  const { steps } = await alone('perform', { ...refusedGroup, passport: { persona: 'dg3Unreadable' } });
  const from = steps.indexOf('SELECT DG3');
  assert.deepEqual(steps.slice(from - 1, from + 4), ['INTERNAL AUTHENTICATE', 'SELECT DG3', 'READ DG3', 'SELECT DG14', 'READ DG14']);
});

testReads('reads at a standstill', [
  { name: 'card: an empty file', connection: { behaviour: 'emptyFile', serial: 8 }, error: ['NO_RESULT', 7],
    detail: 'the card gave an empty file', woken: true, within: 2000 },
  // behind INTERNAL AUTHENTICATE the library would wait for another answer: the tenth READ of a data group is DG14's first
  { name: 'passport: gone after it has proved itself', passport: true, connection: { behaviour: 'rejects', serial: 8, nth: 10 }, error: kGone,
    detail: 'tag lost', woken: true, within: 2000 },
  { name: 'passport: nothing comes back after it has proved itself', passport: true, connection: { behaviour: 'givesNoBytes', serial: 8, nth: 10 },
    error: kGone, woken: true, within: 2000 },
  { name: 'passport: a data group cannot be opened', passport: true, chip: { rules: [{ on: 'READ DG14', nth: 1, do: 'wrongMac' }] },
    silenceLimit: 300, error: ['NO_RESULT', 7], woken: true, within: 3000 },
  { name: 'the server is silent for longer than the limit', server: silentAt('0x5001'), silenceLimit: 300, error: ['NO_RESULT', 7], woken: true, within: 3000 },
  { name: 'the server is silent for less', server: { rules: [{ on: '0x6113', do: 'delay', ms: 400 }] }, silenceLimit: 1000 },
]);

// --- the server ----------------------------------------------------------------------------------------------------------

testReads('failures of the server', [
  ...kBoth.flatMap(([kind, row]) => [
    { name: `${kind}: refused at the start`, ...row, server: { rules: [{ on: '0x7500', do: 'status', status: '003501' }] }, error: ['SERVER_STATUS', -3501], id: false },
    { name: `${kind}: nobody listens`, ...row, nobody: true, error: ['CONNECT_FAILED', -20001], id: false },
    { name: `${kind}: hangs up`, ...row, server: { rules: [{ on: '0x7500', do: 'close' }] }, error: ['EXCHANGE_FAILED', -22003], id: false },
  ]),
  { name: 'card: refused later', server: { rules: [{ on: '0x6113', do: 'status', status: '001301' }] }, error: ['SERVER_STATUS', -1301], id: true },
  { name: 'card: malformed', server: { rules: [{ on: '0x5001', do: 'malformed', kind: 'checksum' }] }, error: ['RESPONSE_MALFORMED', -35006], id: true },
  { name: 'passport: refused later', passport: true, server: { rules: [{ on: '0x7202', do: 'status', status: '001301' }] }, error: ['SERVER_STATUS', -1301], id: true },
]);

test('answers of the server', async () => {
  const child = new Process({ main: kMain });
  const read = async (answer) => (await child.call('perform', { server: { answers: { '0x6113': answer } } })).result;
  const { info: none, businessId } = await read({ flag: 0 });
  assert.deepEqual([none, businessId], [null, kBusinessId]);
  const { bytes, info, businessId: noId } = await read({ flag: 2, data: '01ABFF' });
  assert.deepEqual([bytes, info, noId], ['01abff', null, '']);
  assert.deepEqual((await read({ tags: [{ idType: 1 }, { backCardId: '12AB' }] })).info, { idType: '01', backCardId: '12AB' });
  assert.equal((await read({ tags: [{ info: '[1]' }] })).info, null);
  const failed = await child.call('perform', { server: { answers: { '0x6113': { tags: [{ info: '{"name":' }] } } } });
  assert.deepEqual([failed.error.name, failed.error.detail], ['RESPONSE_MALFORMED', 'the result is no JSON text']);
  await child.end();
});

test('a wrong date of birth', async () => {
  const { error, again, ...outcome } = await alone('perform', { passport: true, claims: { birthDate: '900102' } });
  assert.deepEqual([error.name, error.code, error.monitor.result_code], ['AUTHENTICATION_REFUSED', -53001, -53001]);
  assert.equal(outcome.answers.length, outcome.commands.length);
  assert.equal(again.error.name, 'AUTHENTICATION_REFUSED');
});

// --- cancelling ----------------------------------------------------------------------------------------------------------

const kCancelled = ['CANCELLED', 1];
const kCardSerials = Array.from({ length: 13 }, (_, serial) => serial);
const kPassportSerials = Array.from({ length: 10 }, (_, serial) => serial);
const kExchanges = { card: ['0x7500', '0x5001', '0x5032', '0x6002', '0x6113', '0x7219'], passport: ['0x7500', '0x7201', '0x7202', '0x7219'] };
testReads('cancelled reads', kBoth.flatMap(([kind, row]) => [
  ...(kind === 'card' ? kCardSerials : kPassportSerials).flatMap((serial) => ['never', 'late', 'lateFailure'].map((behaviour) => ({
    name: `${kind}: at command ${serial}, whose answer comes ${behaviour}`, ...row, connection: { behaviour, serial }, cancel: { on: serial } }))),
  ...kExchanges[kind].map((on) => ({ name: `${kind}: at ${on}`, ...row, server: silentAt(on), cancel: { on }, woken: true })),
  { name: `${kind}: in the same moment as the start`, ...row, cancel: { on: 'start', times: 2 } },
  { name: `${kind}: in the progress function`, ...row, cancel: { on: 'CONNECT' } },
  { name: `${kind}: in the progress function, after an answer`, ...row, cancel: { on: 'GET CHALLENGE' }, woken: true },
  { name: `${kind}: while the library connects`, ...row, nobody: true, cancel: { afterMs: 100 } },
  { name: `${kind}: while a card that never answers is waited for`, ...row, connection: { behaviour: 'never', serial: 3 }, silenceLimit: 50, cancel: { afterMs: 1500 } },
]).map((row) => ({ ...row, error: kCancelled, id: false })));

testReads('a read that begins in the moment in which another one is cancelled', kBoth.flatMap(([kind, row]) => [
  ...[0, 3, 8].map((serial) => ({ name: `${kind}: at command ${serial}`, ...row, connection: { behaviour: 'never', serial }, cancel: { on: serial } })),
  ...kExchanges[kind].map((on) => ({ name: `${kind}: at ${on}`, ...row, server: silentAt(on), cancel: { on } })),
  { name: `${kind}: in the same moment as the start`, ...row, cancel: { on: 'start' } },
]).map((row) => ({ ...row, error: kCancelled, atOnce: true })));

testReads('a read that begins while the command of one that has its result is still with the card', ['late', 'lateFailure', 'never'].map((behaviour) => (
  { name: `its answer comes ${behaviour}`, passport: { persona: 'withoutCom' }, connection: { behaviour, serial: 4 }, error: ['CARD_FAILED', -93006], id: true,
    atOnce: true, again: ['CARD_FAILED', -93006] })));

for (const [kind, { passport }] of kBoth) {
  test(`${kind}: cancelled at any moment, and another read at once`, async () => {
    const { bad, before, after, unhandled } = await alone('races', { count: SANITIZED ? 24 : 60, passport });
    assert.deepEqual([bad, unhandled, after], [[], [], before]);
  });
}

test('a cancelled read whose card never answers keeps no program', async () => {
  assert.equal((await alone('abandoned')).error.name, 'CANCELLED');
});

// --- wrong use -----------------------------------------------------------------------------------------------------------

test('wrong use is refused before anything is sent', async () => {
  const { rows, seen, again, unhandled } = await alone('misuse');
  const expected = [[/connection: |no options/, 'NO_CONNECTION'], [/^mrz: /, 'BAD_MRZ'], [/^cancel: already/, 'CANCELLED'], [/^cancel: no/, 'OUT_OF_RANGE'],
    [/not configured|after a bad/, 'NOT_CONFIGURED'], [/no library/, 'NO_LIBRARY'], [/^environment/, 'UNKNOWN_ENVIRONMENT'], [/^appid/, 'BAD_APPID'],
    [/^sn/, 'BAD_SERIAL_NUMBER'], [/^port|^readMode|^undefined for|^null for/, 'OUT_OF_RANGE']];
  assert.equal(Object.keys(rows).length, 47);
  for (const [name, { error }] of Object.entries(rows)) {
    const [, wanted] = expected.find(([pattern]) => pattern.test(name));
    assert.equal(error?.name, wanted, name);
    assert.ok(error.isError && error.meaning.length > 0 && Number.isInteger(error.code), name);
  }
  assert.match(rows['mrz: birthDate "9001O1"'].error.detail, /date of birth/);
  assert.deepEqual([seen.connections, seen.commands, seen.exchanges, unhandled], [[], [], [], []]);
  checkGood(again, true);
});

for (const [kind, { passport }] of kBoth) {
  test(`nothing else begins during a read of a ${kind}`, async () => {
    const { first, refused, differences, again } = await alone('busy', { passport });
    assert.deepEqual(Object.values(refused).map(({ error }) => error?.name), Array(7).fill('BUSY'));
    checkGood({ ...first, differences }, passport);
    checkGood(again, passport);
  });
}

test('two readers take turns with configurations of their own', async () => {
  const [one, other] = ['SIMULATEDREADER00001', 'ANOTHERREADER0000002'];
  assert.deepEqual(await alone('twoReaders'), [one, other, other, one]);
});

test('the two services', async () => {
  const query = { appid: 'SIMULA1', environment: 268, host: '127.0.0.1', port: 1, manufacturer: 'M', marketName: 'P' };
  const [delay, ...others] = await alone('services', [['measureDelay', '127.9.9.9'], ['measureDelay', ''], ['antennaLocation', query],
    ['antennaLocation', { ...query, appid: 'EIGHTCHR' }], ['antennaLocation', { ...query, marketName: 'P'.repeat(65) }],
    ['antennaLocation', { ...query, environment: 1 }]]);
  assert.ok(delay.result?.value >= 19 && delay.result.value < 200, JSON.stringify(delay));
  assert.deepEqual(others.map(({ error }) => error?.name), ['PROBE_CONNECT_FAILED', 'PROBE_FAILED', 'EXCHANGE_FAILED', 'BAD_APPID', 'OUT_OF_RANGE',
    'UNKNOWN_ENVIRONMENT']);
});
