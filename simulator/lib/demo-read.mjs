// One read of the demo: decode server and reader in processes of their own, the account told as things happen, and what
// has to be right afterwards.

import { isDeepStrictEqual } from 'node:util';
import { hex } from './bytes.mjs';
import { expectedPersona, SPECIMEN_PERSON } from './persona.mjs';
import { filesByName } from './passport-persona.mjs';
import { startReaderProcess, startServerProcess, Timeline } from './processes.mjs';

const kTimeout = 30000;
const kTimeToEnd = 5000;

/**
 * Performs one read and tells it.
 * @param {DemoAccount} account
 * @param {object} read  title and numSteps for the account; `teller`: its method for the steps ('card' or 'passport');
 *   identity; `server` and `reader`: settings for their processes; `output`: file descriptor for the library's output
 * @returns {Promise<object>} everything that was seen
 */
export async function perform(account, { title, numSteps, teller, identity, server: settings, reader: options, output }) {
  const seen = { exchanges: [], serverMonitors: [], verifications: [], differences: { server: [], chip: [], reader: [] } };
  const server = await startServerProcess({
    persona: expectedPersona(identity), timing: true, envIdCode: identity.envIdCode, ...settings,
  });
  const timeline = new Timeline();
  timeline.add(server, { exchange: (exchange) => {
    seen.exchanges.push(exchange);
    account.server(exchange);
  } });
  server.on('monitor', (monitor) => seen.serverMonitors.push(monitor));
  server.on('verification', (verification) => seen.verifications.push(verification));
  server.on('difference', (difference) => seen.differences.server.push(difference));

  const address = { ip: server.host, port: server.port };
  const reader = startReaderProcess({ ...options, identity: { ...identity, ...address }, timeoutMs: kTimeout }, output);
  timeline.add(reader, {
    started: ({ at }) => account.begin(at, title, numSteps),
    step: (step) => account[teller](step),
  });
  reader.on('card-difference', (difference) => seen.differences.chip.push(difference));
  reader.on('reader-difference', (difference) => seen.differences.reader.push(difference));
  seen.result = await reader.result.catch((error) => ({ failure: error.message }));
  await timeline.caughtUp();
  seen.ending = await endOf(reader);
  await server.stop();
  return seen;
}

/** Lets the reader process go; it has to end by itself. */
async function endOf(reader) {
  reader.release();
  let timer;
  const tooLong = new Promise((resolve) => {
    timer = setTimeout(resolve, kTimeToEnd, { stuck: true });
  });
  const ending = await Promise.race([reader.exited, tooLong]);
  clearTimeout(timer);
  if (ending.stuck) reader.kill();
  return ending;
}

const found = (list) => (list.length === 0 ? 'none' : list.map(({ text }) => text).join('; '));
const row = (what, good, detail, instead) => [what, good, good ? detail : instead];

/** What is to be checked after either read: rows of [what, good, detail]; `own` are those of the document. */
function checks({ result, ending, differences, serverMonitors }, chip, path, own) {
  const told = result.progress?.at(-1)?.commands ?? 0;
  const reported = serverMonitors.length === 1 && serverMonitors[0].raw === result.monitor?.raw;
  const endText = ending.stuck ? `still running after ${kTimeToEnd} ms`
    : ending.signal ? `killed by ${ending.signal}` : `exit code ${ending.code}`;
  const outcome = result.failure ?? result.error?.message ?? (result.ms ? `${result.code}, after ${result.ms} ms${path}` : result.code);
  return [
    ['result code', result.code === 0, outcome],
    ...own,
    row('progress was told of every command', told === result.steps?.length && told > 0, `${told} commands`, `${told} of them`),
    row('monitor record reached application and server', reported, 'the same text',
      `${serverMonitors.length} at the server`),
    ['differences found by the decode server', differences.server.length === 0, found(differences.server)],
    [`differences found by the ${chip}`, differences.chip.length === 0, found(differences.chip)],
    ['differences found by the application', differences.reader.length === 0, found(differences.reader)],
    ['reader process ended by itself', !ending.stuck && ending.code === 0, endText],
  ];
}

export function checkCard(seen) {
  const took = (command) => seen.exchanges.some((exchange) => exchange.command === command);
  const path = took('0x5032') ? ' (fast path)' : took('0x5012') ? ' (slow path)' : '';
  const info = seen.result.data?.info;
  const same = isDeepStrictEqual(info, { ...SPECIMEN_PERSON });
  return checks(seen, 'card', path, [
    row('decoded person is the one on the card', same, 'the same', JSON.stringify(info) ?? 'none'),
  ]);
}

export function checkPassport(seen, passport, readMode) {
  const { holder } = passport;
  const { info } = seen.result.data ?? {};
  const told = ['surname', 'givenNames', 'sex', 'nationality', 'documentNumber', 'birthDate', 'expiryDate'];
  const same = info !== undefined && told.every((name) => info[name] === holder[name]);
  const sent = seen.exchanges.find(({ command }) => command === '0x7202')?.fields?.files ?? {};
  const wanted = Object.entries(filesByName(passport)).filter(([name]) => readMode !== 1 || name !== 'DG2')
    .map(([name, content]) => [name, hex(content)]);
  const missing = wanted.filter(([name, content]) => sent[name] !== content).map(([name]) => name);
  const verdicts = seen.verifications[0] ?? {};
  const statuses = seen.result.monitor?.record?.sod_file ?? '';
  const good = statuses.split(';').filter((entry) => entry.endsWith(':9000')).length;
  const passed = (name) => row(`${name} authentication`, verdicts[`${name}Authentication`] === 'passed', 'passed',
    verdicts[`${name}Authentication`] ?? 'not done');
  return checks(seen, 'passport', '', [
    row('decoded holder is the one in the passport', same, 'the same', JSON.stringify(info) ?? 'none'),
    row('files reached the server byte for byte', missing.length === 0, `${wanted.length} files`,
      `not ${missing.join(', ')}`),
    passed('passive'), passed('active'),
    row('status text tells of every file', good === wanted.length, `${good} times 9000`, statuses || 'empty'),
  ]);
}

const kImage = /FFD8FF|0000000C6A502020/; // a JPEG or a JPEG 2000 begins

/** The image in the DG2 that reached the server; undefined without one. */
export function portraitIn({ exchanges }) {
  const dg2 = exchanges.find(({ command }) => command === '0x7202')?.fields?.files?.DG2 ?? '';
  const at = dg2.search(kImage);
  return at < 0 ? undefined : Buffer.from(dg2.slice(at), 'hex');
}
