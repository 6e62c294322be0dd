// The process under test: the library with an application, a card and a decode server around it. Reads are described
// by plain data; see `perform`. `main.mjs` makes a program of it that the tests talk to.

import { generateKeyPairSync } from 'node:crypto';
import { existsSync, readdirSync, readFileSync } from 'node:fs';
import { stat } from 'node:fs/promises';
import { resolve } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';
import { fromHex } from '../../simulator/lib/bytes.mjs';
import { CardLink } from '../../simulator/lib/card-link.mjs';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';
import { loadKeys } from '../../simulator/lib/keys.mjs';
import { PassportChip } from '../../simulator/lib/passport/chip.mjs';
import { FILE_ID } from '../../simulator/lib/passport/lds.mjs';
import { issuePassport, PERSONAS } from '../../simulator/lib/passport/specimen.mjs';
import { expectedPassport } from '../../simulator/lib/passport-persona.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../../simulator/lib/persona.mjs';
import { DEFAULT_LIBRARY, Reader } from '../../simulator/lib/reader.mjs';
import '../authorities.mjs';

export const LIBRARY = resolve(process.env.TQREADER_LIBRARY ?? DEFAULT_LIBRARY);
const kKeys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).decode;
const kBegin = 1_700_000_000_000; // where the application's clock stands
const kPatience = 30_000;
const kTick = 20; // ms

const kTasks = '/proc/self/task';
const entries = (path) => (existsSync(path) ? readdirSync(path) : []);
export const numThreads = () => entries(kTasks).length;
export const numDescriptors = () => entries('/proc/self/fd').length;

/** Is this thread one that the kernel runs for the process? */
function isKernels(task) {
  try {
    return readFileSync(`${kTasks}/${task}/comm`, 'utf8').startsWith('iou-');
  } catch {
    return true; // it has just ended
  }
}

/** Waits until `condition()` holds; false when it does not within the time. */
export async function until(condition, ms = kPatience, every = 2) {
  for (const end = Date.now() + ms; !condition();) {
    if (Date.now() > end) return false;
    await sleep(every);
  }
  return true;
}

const kSmallPortrait = `75820130${'5A'.repeat(0x130)}`; // in place of DG2: what matters is that it takes several READs
const kIssued = new Map();
let theKey;

/**
 * A passport by options of `issuePassport`; `overrides` are hexadecimal. With `portrait` it has a real DG2. A `brief` one is
 * read quickly, since its EF.SOD is no more than an envelope. Issued once in a process; all have the same key of Active
 * Authentication.
 */
function passportOf({ portrait = false, brief = false, overrides, ...options } = {}) {
  const name = JSON.stringify([portrait, brief, overrides, options]);
  if (!kIssued.has(name)) {
    theKey ??= generateKeyPairSync('rsa', { modulusLength: 1024 }).privateKey;
    const texts = { ...(!portrait && { [FILE_ID.DG2]: kSmallPortrait }), ...(brief && { [FILE_ID.SOD]: '7703020100' }), ...overrides };
    const others = Object.entries(texts).map(([id, text]) => [Number(id), fromHex(text)]);
    kIssued.set(name, { brief, ...issuePassport({ aaKey: theKey, ...options,
      overrides: { ...PERSONAS[options.persona]?.overrides, ...Object.fromEntries(others) } }) });
  }
  return kIssued.get(name);
}
const kAfterwards = { brief: true, dataGroups: [1, 2, 15], overrides: { [FILE_ID.DG2]: '75045A5A5A5A' } };

/** What the server expects of it, with `changes` to its members; no particular passport when they are null. */
function expectationOf(passport, changes) {
  if (changes === null) return undefined;
  const expected = expectedPassport(passport);
  if (passport.brief) expected.verification.passiveAuthentication = 'failed';
  return Object.fromEntries(Object.entries(expected).map(([name, value]) =>
    [name, changes?.[name] ? { ...value, ...changes[name] } : value]));
}

/** What a trigger can `do`; the number is what `cancelCard` is called with. */
const kCancels = { cancel: 0, cancel1: 1, cancel2: 2 };
const kStarts = { start: undefined, startCard: 'card', startPassport: 'passport' };

/**
 * An application with twists. `twist.card(fn, text)` and so on take the place of an application's function; `fn` is
 * the good one. The clock is `now`, moved by hand, so that every time in every report can be foretold.
 */
export class App {
  now = kBegin;
  twist = {};
  seen = null;

  constructor() {
    this.reader = new Reader({ library: LIBRARY, clock: () => this.now });
    this.exports = this.reader.module;
    const registrations = { card: 'registerCardCallback', monitor: 'registerMonitorCallback', time: 'registerTimestampCallback',
      result: 'registerResultCallback' };
    const twisted = Object.entries(registrations).map(([kind, name]) => [name,
      (fn) => this.exports[name]((...args) => (this.twist[kind] ? this.twist[kind](fn, ...args) : fn(...args)))]);
    this.reader.module = Object.create(this.exports, Object.fromEntries(twisted.map(([name, value]) => [name, { value }])));
    this.reader.on('command', ({ name, command, serial }) => {
      this.now += this.tick[name] ?? this.tick.card ?? 0;
      this.#saw('commands', { name, command, serial });
    });
    this.reader.on('step', (step) => this.#saw('steps', step));
    this.reader.on('monitor', ({ raw }) => this.#saw('monitors', raw));
    this.reader.on('result', ({ raw }) => this.#saw('results', raw));
    this.reader.on('difference', ({ message }) => this.#saw('differences', message));
  }

  #saw(what, value) {
    this.seen?.[what].push(value);
    this.seen?.order.push({ what, value });
    if (what === 'commands') this.onEvent?.(value.name);
    if (what === 'exchanges') this.onEvent?.(value.command);
  }

  /**
   * Lays a document on the phone, starts a decode server and configures the library for both. `setting`:
   *   identity, server, secrets, cardRules
   *   tick      { server, card, ... }: milliseconds that the clock moves for each exchange and command, or for those of a name
   *   passport  options of `passportOf`: then a passport is read; an identity card is at hand as well
   *   kind      'card': the identity card is read first although there is a passport
   *   chip      settings of the chip;  claims: what the application says of the passport, when it is not what is so
   *   expects   see `expectationOf`
   */
  async open({ identity, server = {}, secrets, cardRules = [], tick = {}, passport, kind, chip, claims, expects } = {}) {
    const who = { ...DEFAULT_IDENTITY, ...identity };
    this.kind = kind ?? (passport ? 'passport' : 'card');
    this.readMode = who.readMode;
    this.card = new IdentityCard(secrets);
    this.card.on('difference', ({ message }) => this.#saw('differences', message));
    this.links = { card: new CardLink(this.card) };
    if (passport) this.#layPassport(passportOf(passport === true ? {} : passport), chip, claims);
    this.link = this.links[this.kind];
    this.link.setRules(cardRules);
    this.reader.useLink(this.link);
    this.server = new DecodeServer({ keys: kKeys, persona: expectedPersona(who), card: this.card.secrets(),
      passport: passport && expectationOf(this.chip.passport, expects), envIdCode: who.envIdCode,
      hostTimes: () => this.reader.times, ...server });
    this.server.on('difference', ({ message }) => this.#saw('differences', message));
    this.server.on('monitor', ({ raw }) => this.#saw('reports', raw));
    this.server.on('connection', (connection) => this.#saw('connections', connection));
    this.server.on('exchange', (exchange) => {
      this.now += this.tick.server ?? 0;
      this.#saw('exchanges', exchange);
    });
    this.tick = tick;
    const { host, port } = await this.server.start();
    this.port = port;
    const code = this.reader.init({ ip: host, port, ...who });
    return code === 0 ? Object.values(this.reader.register()).find((value) => value !== 0) ?? 0 : code;
  }

  #layPassport(passport, settings, claims) {
    this.chip = new PassportChip(passport, { readMode: this.readMode, ...settings });
    this.chip.on('difference', ({ message }) => this.#saw('differences', message));
    this.links.passport = new CardLink(this.chip);
    this.claims = { ...passport, ...claims };
  }

  /** Starts a read of this kind. */
  start(kind = this.kind) {
    this.reader.useLink(this.links[kind]);
    return this.reader.start(kind === 'passport' ? this.claims : undefined);
  }

  close() {
    return this.server?.stop();
  }

  /** Listens again where the server listened before. */
  reopen() {
    this.server.update({ port: this.port });
    return this.server.start();
  }

  /** Forgets what was seen; gives the new record. */
  watch() {
    this.reader.times.length = 0;
    this.seen = { commands: [], steps: [], monitors: [], results: [], reports: [], exchanges: [], connections: [],
      differences: [], order: [] };
    return this.seen;
  }

  /**
   * Performs one read and waits until its worker thread is gone. A `trigger` { on, nth, do } does something in its
   * middle: `on` is a card command's name, a server command, a time in milliseconds or 'at once'; `do` is a
   * row of kCancels or kStarts, as many `times`, 'stop' (the server listens no more, or
   * `again` after so many milliseconds) or 'answers' (those of the other kind of document). With `after` it
   * happens that many milliseconds later, when the worker waits for the answer.
   */
  async read({ trigger, silent = false, kind } = {}) {
    const seen = this.watch();
    const began = Date.now();
    let lag = 0; // milliseconds for which this process was kept from running
    let last = began;
    const ticks = setInterval(() => {
      lag += Math.max(0, Date.now() - last - 2 * kTick);
      last = Date.now();
    }, kTick);
    let triggered;
    let waiting = false; // is the worker there when the answer comes that was outstanding at the trigger?
    const pull = () => {
      triggered = performance.now();
      this.reader.once('step', () => { waiting = !this.idle; });
      for (let times = trigger.times ?? 1; times > 0; times -= 1) {
        if (trigger.do in kStarts) this.start(kStarts[trigger.do]);
        else if (trigger.do in kCancels) this.reader.cancel(kCancels[trigger.do]);
        else if (trigger.do === 'answers') this.#answerOther();
        else this.close().then(() => trigger.again && sleep(trigger.again)).then(() => trigger.again && this.reopen());
      }
    };
    let left = trigger?.nth ?? 1;
    this.onEvent = (name) => {
      if (!trigger || name !== trigger.on || (left -= 1) !== 0) return;
      if (trigger.after) setTimeout(pull, trigger.after);
      else pull();
    };
    const { code } = this.start(kind);
    if (code !== 0) {
      clearInterval(ticks);
      return { code };
    }
    if (typeof trigger?.on === 'number') setTimeout(pull, trigger.on);
    if (trigger?.on === 'at once') pull();
    if (!silent) await until(() => seen.results.length > 0);
    const tookToEnd = performance.now() - triggered;
    const ended = await until(() => this.idle && (!trigger || triggered));
    const latency = silent ? performance.now() - triggered : tookToEnd;
    await sleep(silent ? 20 : 0); // whatever the worker has still posted arrives
    const isOpen = () => seen.connections.reduce((open, { state }) => open + (state === 'open' ? 1 : -1), 0) > 0;
    await until(() => !isOpen(), 200);
    this.onEvent = null;
    clearInterval(ticks);
    return { code, ended, latency, waiting, open: isOpen(), ms: Date.now() - began, lag, ...told(seen) };
  }

  /** Hands over answers to every step through the handler that belongs to the other kind of document. */
  #answerOther() {
    const handler = this.kind === 'card' ? 'passportHandler' : 'idCardHandler';
    for (let serial = 0; serial < 14; serial += 1) this.exports[handler](serial % 2 ? '9000' : '6A82', serial, 0);
  }

  /** True when no worker is left. */
  get idle() {
    return entries(kTasks).every((task) => kOthers.has(task) || isKernels(task));
  }

  quiet() {
    return until(() => this.idle);
  }

  /** A plain good read with the present server, of a plain card or a quick passport. */
  async goodRead(kind = this.kind) {
    this.twist = {};
    this.link.setRules([]);
    const passport = kind === 'passport' ? passportOf(kAfterwards) : undefined;
    if (passport) this.#layPassport(passport);
    this.server.update({ rules: [], answers: {}, delay: 0, opaqueLength: 0, path: undefined,
      ...(passport && { passport: expectationOf(passport) }) });
    return { kind, ...await this.read({ kind }) };
  }
}

/** What a record tells the test, in plain data; of several reads, the last one's exchanges. */
function told({ commands, monitors, results, reports, exchanges: all, connections, differences }) {
  const exchanges = all.slice(Math.max(0, all.findLastIndex(({ command }) => command === '0x7500')));
  const fields = Object.fromEntries(exchanges.map(({ command, fields: values }) => [command, values]));
  return { commands, monitors, results, reports, differences, fields,
    connections: connections.filter(({ state }) => state === 'open').length,
    server: exchanges.map(({ command }) => command) };
}

const theApp = new App();
export { theApp as app };

/**
 * One read, and then a good one in the same process; when there is a passport, one of each kind. With `nobody`, the first
 * finds no server.
 */
export async function perform({ trigger, silent, nobody, again = true, ...setting }) {
  try {
    const code = await theApp.open(setting);
    if (code !== 0) return { code };
    if (nobody) await theApp.close();
    const outcome = await theApp.read({ trigger, silent });
    if (nobody) await theApp.reopen();
    if (!again) return outcome;
    return { ...outcome, again: await theApp.goodRead(),
      ...(setting.passport && { other: await theApp.goodRead(theApp.kind === 'card' ? 'passport' : 'card') }) };
  } finally {
    await theApp.close();
  }
}

// The threads of the file system's pool exist from now on, so that only workers come and go.
await Promise.all(Array.from({ length: 8 }, () => stat('/')));
const kOthers = new Set(entries(kTasks));
