// Reads through the package, described by plain data; see `perform`.

import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';
import { Worker } from 'node:worker_threads';
import { Application, configOf } from '../../simulator/lib/application.mjs';
import { CardLink } from '../../simulator/lib/card-link.mjs';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';
import { loadKeys } from '../../simulator/lib/keys.mjs';
import { CancelHandle, TqReader } from '../../simulator/lib/package.mjs';
import { PassportChip } from '../../simulator/lib/passport/chip.mjs';
import { FILE_ID } from '../../simulator/lib/passport/lds.mjs';
import { issuePassport } from '../../simulator/lib/passport/specimen.mjs';
import { expectedPassport, filesByName } from '../../simulator/lib/passport-persona.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../../simulator/lib/persona.mjs';
import { app as threads, LIBRARY, numDescriptors, numThreads, until } from '../e2e/rig.mjs';

const kKeys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).decode;
const kSmallPortrait = Buffer.from(`75820130${'5A'.repeat(0x130)}`, 'hex');

const issued = new Map();
function passportOf(options) {
  const name = JSON.stringify(options);
  if (!issued.has(name)) issued.set(name, issuePassport({ overrides: { [FILE_ID.DG2]: kSmallPortrait }, ...options }));
  return issued.get(name);
}

/** What a connection does with a command instead of carrying it; `good` carries it. */
const kBehaviour = {
  throws: () => { throw new Error('the radio is off'); },
  throwsNothing: () => { throw undefined; },
  rejects: () => Promise.reject(new Error('tag lost')),
  rejectsLate: () => sleep(20).then(() => { throw new Error('tag lost'); }),
  rejectsNothing: () => Promise.reject(),
  rejectsUnprintable: () => Promise.reject(Object.create(null)),
  givesNothing: () => undefined,
  givesText: () => Promise.resolve('9000'),
  givesArray: () => Promise.resolve([0x90, 0x00]),
  givesTooMuch: () => Promise.resolve(new Uint8Array(301)),
  givesNoBytes: () => Promise.resolve(new Uint8Array(0)),
  hostileThenable: () => ({ get then() { throw new Error('no then'); } }),
  twoFacedThenable: () => ({ then(resolve, reject) {
    reject(new Error('first'));
    resolve(Uint8Array.of(0x90, 0x00));
    throw new Error('again');
  } }),
  never: () => new Promise(() => {}),
  late: () => sleep(60).then(() => Uint8Array.of(0x90, 0x00)),
  lateFailure: () => sleep(60).then(() => { throw new Error('tag lost'); }),
  swallows: (good) => good().then(() => { throw new Error('tag lost'); }),
  emptyFile: () => Promise.resolve(Uint8Array.of(0x90, 0x00)),
  thenable: (good) => ({ then: (resolve, reject) => good().then(resolve, reject) }),
  slow: (good) => sleep(50).then(good),
};

/** Outcomes as a message between processes can carry them. */
const settled = (promise) => promise.then(
  ({ bytes, ...result }) => ({ result: { ...result, bytes: Buffer.from(bytes).toString('hex') } }),
  (error) => ({ error: { isError: error instanceof Error, ...error, name: error.name, message: error.message } }));

const unhandled = [];
for (const event of ['unhandledRejection', 'uncaughtException']) {
  process.on(event, (error) => unhandled.push(`${event}: ${error?.stack ?? error}`));
}

/** The application of this process, as on a phone; what lies on it changes. */
class Stage {
  app = new Application({ library: LIBRARY });
  seen = null;

  constructor() {
    this.app.module.on('command', ({ serial }) => this.#saw('commands', serial));
    this.app.module.on('answer', ({ serial, skips }) => this.#saw(skips ? 'skips' : 'answers', serial));
    this.app.on('difference', ({ message }) => this.#saw('differences', message));
  }

  #saw(what, value) {
    this.seen?.[what].push(value);
  }

  get reader() {
    return this.app.reader;
  }

  async open({ identity, passport, claims, chip, server = {} } = {}) {
    this.watch();
    const who = { ...DEFAULT_IDENTITY, ...identity };
    const issuedNow = passport && passportOf(passport === true ? {} : passport);
    this.mrz = passport && { ...issuedNow, ...claims };
    this.document = passport ? new PassportChip(issuedNow, { readMode: who.readMode, ...chip }) : new IdentityCard();
    this.document.on('difference', ({ message }) => this.#saw('differences', message));
    this.app.useLink(new CardLink(this.document));
    this.server = new DecodeServer({ keys: kKeys, persona: expectedPersona(who), envIdCode: who.envIdCode,
      ...(passport ? { document: 'passport', passport: expectedPassport(issuedNow) } : { card: this.document.secrets() }), ...server });
    this.server.on('difference', ({ message }) => this.#saw('differences', message));
    this.server.on('connection', ({ state }) => this.#saw('connections', state));
    this.server.on('exchange', ({ command }) => {
      this.#saw('exchanges', command);
      this.onEvent?.(command);
    });
    const { host, port } = await this.server.start();
    this.config = configOf({ ip: host, port, ...who });
    this.reader.configure(this.config);
  }

  watch() {
    this.seen = { commands: [], answers: [], skips: [], differences: [], steps: [], exchanges: [], connections: [], progress: [] };
    return this.seen;
  }

  /** A connection that misbehaves at the `nth` command with this serial number. */
  connection({ behaviour, serial, nth = 1 } = {}) {
    const good = this.app.connection((step) => this.#saw('steps', step.name));
    let left = nth;
    return { transmit: (command) => {
      const now = this.app.module.oldest.serial;
      this.onEvent?.(now);
      const hit = now === serial && (left -= 1) === 0;
      return hit ? kBehaviour[behaviour](() => good.transmit(command)) : good.transmit(command);
    } };
  }

  start(options, reader = this.reader) {
    if (!this.mrz) return reader.readIdentityCard(options);
    const { documentNumber, birthDate, expiryDate } = this.mrz;
    return reader.readPassport({ documentNumber, birthDate, expiryDate }, options);
  }

  /** A plain good read of what lies on the phone. */
  async goodRead(reader) {
    this.onEvent = null;
    this.server.update({ rules: [], answers: {} });
    const { differences } = this.watch();
    return { ...await settled(this.start({ connection: this.connection(), cancel: null }, reader)), differences };
  }

  close() {
    this.onEvent = null;
    return this.server.stop();
  }
}

const stage = new Stage();

/**
 * One read, and a good one after it in the same process. A row may have
 *   identity, passport, claims, chip, server   see `Stage.open`; `nobody`: no server listens for the first read
 *   connection    see `Stage.connection`
 *   cancel        { on, times, afterMs }: at a command with this serial number, at a server command, at 'start', at 'CONNECT' (in
 *                 the progress function), or so many milliseconds after the start
 *   progress      'throws', 'rejects': what the progress function does
 *   silenceLimit  see ReadOptions
 *   atOnce        the good read begins in the same moment as the first one ends; otherwise when its worker is gone
 */
export async function perform({ connection, cancel, progress, silenceLimit, nobody, atOnce = false, ...setting } = {}) {
  await stage.open(setting);
  try {
    if (nobody) await stage.server.stop();
    const { seen } = stage;
    const handle = new CancelHandle();
    let pulledAt;
    const pull = () => {
      pulledAt ??= performance.now();
      for (let times = cancel.times ?? 1; times > 0; times -= 1) handle.cancel();
    };
    const options = { connection: stage.connection(connection), cancel: handle, silenceLimit, onProgress: (event) => {
      seen.progress.push({ ...event });
      if (cancel?.on === event.step) pull();
      if (progress === 'throws') throw new Error('the screen is gone');
      return progress === 'rejects' ? Promise.reject(new Error('the screen is gone')) : undefined;
    } };
    stage.onEvent = (event) => {
      if (event === cancel?.on) pull();
    };
    const began = performance.now();
    const reading = settled(stage.start(options));
    if (cancel?.on === 'start') pull();
    if (cancel?.afterMs !== undefined) setTimeout(pull, cancel.afterMs);
    const outcome = await reading;
    const ms = performance.now() - began;
    const latency = pulledAt === undefined ? null : performance.now() - pulledAt;
    stage.onEvent = null;
    if (nobody) await stage.server.start(stage.server.update({ port: stage.config.port }));
    const next = atOnce ? stage.goodRead() : null;
    const idle = next ? null : await until(() => threads.idle, 3000);
    if (!next) await sleep(pulledAt === undefined ? 0 : 80); // whatever comes late
    handle.cancel(); // a read that is over does not mind
    const came = structuredClone(seen);
    const again = await (next ?? stage.goodRead());
    return { ...outcome, ...came, ms, latency, idle, again, unhandled: unhandled.splice(0) };
  } finally {
    await stage.close();
  }
}

/** What lies in the files of the passport that `perform` reads with these options: lengths by name. */
export const fileLengths = (options) =>
  Object.fromEntries(Object.entries(filesByName(passportOf(options === true ? {} : options))).map(([name, file]) => [name, file.length]));

/** Calls with wrong arguments: what each comes to, and what has left the application meanwhile. */
export async function misuse() {
  await stage.open({ passport: true });
  const { reader, mrz } = stage;
  const connection = stage.connection();
  const native = stage.app.module;
  const cancelled = new CancelHandle();
  cancelled.cancel();
  const configure = (change, on = reader) => settled(new Promise((resolve) => {
    on.configure({ ...stage.config, ...change });
    resolve({ bytes: [] });
  }));
  const rows = {};
  const connections = { none: undefined, null: null, empty: {}, noFunction: { transmit: 1 } };
  for (const [name, value] of Object.entries(connections)) {
    rows[`connection: ${name}`] = await settled(reader.readIdentityCard({ connection: value }));
    rows[`passport connection: ${name}`] = await settled(reader.readPassport(mrz, { connection: value }));
  }
  const hostile = { get transmit() { throw new Error('no transmit'); } };
  rows['connection: hostile'] = await settled(reader.readIdentityCard({ connection: hostile }));
  rows['no options'] = await settled(reader.readIdentityCard());
  const wrong = { documentNumber: ['', ' \t', 'A'.repeat(21), 'SPEC<0123', 'ÄBC', undefined, 7, null], birthDate: ['', '9001', '9001O1', '1990-01-01', 900101],
    expiryDate: ['', '34123\n', '3412310', undefined] };
  for (const [name, values] of Object.entries(wrong)) {
    for (const value of values) rows[`mrz: ${name} ${JSON.stringify(value)}`] = await settled(reader.readPassport({ ...mrz, [name]: value }, { connection }));
  }
  rows['mrz: none'] = await settled(reader.readPassport(undefined, { connection }));
  rows['cancel: already'] = await settled(reader.readIdentityCard({ connection, cancel: cancelled }));
  rows['cancel: no handle'] = await settled(reader.readIdentityCard({ connection, cancel: { cancel() {} } }));
  rows['not configured'] = await settled(new TqReader(native).readIdentityCard({ connection }));
  rows['no library'] = await settled(new TqReader(undefined).readIdentityCard({ connection }));
  rows['no library: configure'] = await configure({}, new TqReader(undefined));
  for (const nothing of [undefined, null]) {
    rows[`${nothing} for a configuration`] = await settled(new Promise(() => reader.configure(nothing)));
    rows[`${nothing} for a query`] = await settled(reader.antennaLocation(nothing));
  }
  for (const environment of [0, 269, '268', undefined, NaN]) rows[`environment ${environment}`] = await configure({ environment });
  rows['appid'] = await configure({ appid: 'short' });
  rows['after a bad configuration'] = await settled(reader.readIdentityCard({ connection }));
  rows['sn'] = await configure({ serialNumber: 'S'.repeat(65) });
  rows['port'] = await configure({ port: 65536 });
  rows['readMode'] = await configure({ readMode: 3 });
  const seen = structuredClone(stage.seen);
  reader.configure(stage.config);
  const again = await stage.goodRead();
  await stage.close();
  return { rows, seen, again, unhandled };
}

/** What is refused while a read runs, by the reader itself and by another of the same library. */
export async function busy({ passport } = {}) {
  await stage.open({ passport });
  const other = new TqReader(stage.app.module);
  const refused = {};
  let asked;
  const ask = async () => {
    const { mrz = { documentNumber: 'A1', birthDate: '900101', expiryDate: '300101' } } = stage;
    const connection = stage.connection();
    refused.card = await settled(stage.reader.readIdentityCard({ connection }));
    refused.passport = await settled(stage.reader.readPassport(mrz, { connection }));
    refused.delay = await settled(stage.reader.measureDelay('127.0.0.1', 1));
    refused.location = await settled(stage.reader.antennaLocation({ environment: 268 }));
    refused.other = await settled(other.readIdentityCard({ connection }));
    refused.configure = await settled(new Promise(() => stage.reader.configure(stage.config)));
    refused.otherConfigure = await settled(new Promise(() => other.configure(stage.config)));
  };
  stage.onEvent = (event) => {
    if (event === 2) asked = ask();
  };
  const first = await settled(stage.start({ connection: stage.connection({ behaviour: 'slow', serial: 2 }) }));
  await asked;
  const differences = [...stage.seen.differences];
  const again = await stage.goodRead();
  await stage.close();
  return { first, refused, differences, again };
}

/** Two readers with configurations of their own take turns: the appids that the server has seen. */
export async function twoReaders() {
  await stage.open();
  const other = new TqReader(stage.app.module);
  const appid = 'ANOTHERREADER0000002';
  other.configure({ ...stage.config, appid });
  const appids = [];
  for (const reader of [stage.reader, other, other, stage.reader]) {
    stage.server.update({ persona: expectedPersona({ ...DEFAULT_IDENTITY, ...(reader === other && { appid }) }) });
    const { result, differences } = await stage.goodRead(reader);
    appids.push(differences.length > 0 ? differences : result?.monitor.appid);
  }
  await stage.close();
  return appids;
}

/** Many reads that are cancelled at any moment, each followed at once by a good one: what was not as it should be. */
export async function races({ count, passport }) {
  const numbers = () => ({ descriptors: numDescriptors(), threads: numThreads() });
  await stage.open({ passport });
  await stage.goodRead();
  await until(() => threads.idle);
  await stage.close();
  const before = numbers();
  await stage.open({ passport });
  const bad = [];
  for (let i = 0; i < count; i += 1) {
    stage.watch();
    const cancel = new CancelHandle();
    const reading = settled(stage.start({ connection: stage.connection(), cancel }));
    await sleep(i % 12);
    cancel.cancel();
    const [first, next] = await Promise.all([reading, reading.then(() => stage.goodRead())]);
    const fine = first.result ? first.result.code === 0 : first.error.name === 'CANCELLED';
    if (!fine || next.result?.code !== 0 || next.differences.length > 0) bad.push({ i, first, next });
  }
  await until(() => threads.idle);
  await stage.close();
  await until(() => numDescriptors() <= before.descriptors, 1000);
  return { bad, before, after: numbers(), unhandled };
}

/** Starts a read that is cancelled while its card is silent, and leaves everything else to the process. */
export async function abandoned() {
  await stage.open();
  const cancel = new CancelHandle();
  stage.onEvent = (event) => {
    if (event === 2) setTimeout(() => cancel.cancel(), 20);
  };
  const outcome = await settled(stage.start({ connection: stage.connection({ behaviour: 'never', serial: 2 }), cancel }));
  await stage.close();
  return outcome;
}

/** The two small services, with the real library. */
export async function services(rows) {
  const reader = new TqReader(stage.app.module);
  const latency = new Worker(new URL('./latency-worker.mjs', import.meta.url));
  const host = await new Promise((resolve) => { latency.once('message', resolve); });
  const outcomes = [await settled(reader.measureDelay(host, 2).then((value) => ({ value, bytes: [] })))];
  for (const [name, argument] of rows) {
    outcomes.push(await settled(reader[name](argument).then((value) => ({ value, bytes: [] }))));
  }
  await latency.terminate();
  return outcomes;
}
