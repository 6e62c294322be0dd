// The process under test: an application that reads through the package, with a card, a passport and a decode server around it. Told
// to by its parent's messages it performs scenarios, described by plain data (see `perform`), and answers with what came of them.

import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';
import { CardLink, DecodeServer, DEFAULT_IDENTITY, expectedPassport, expectedPersona, IdentityCard, issuePassport, loadKeys,
  PassportChip } from '../../simulator/index.mjs';
import { Application, configOf } from '../../simulator/lib/application.mjs';
import { CancelHandle } from '../../simulator/lib/package.mjs';
import { app as threads, LIBRARY, until } from '../e2e/rig.mjs';

const keys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).decode;
const kSmallPortrait = { '0x0102': Buffer.from(`75820130${'5A'.repeat(0x130)}`, 'hex') };
const issued = new Map();
function passportOf(options) {
  const name = JSON.stringify(options);
  if (!issued.has(name)) issued.set(name, issuePassport({ overrides: kSmallPortrait, ...options }));
  return issued.get(name);
}

/** What a connection does with a command instead of carrying it; `good` carries it. */
const kBehaviour = {
  throws: () => { throw new Error('the radio is off'); },
  rejects: () => Promise.reject(new Error('tag lost')),
  never: () => new Promise(() => {}),
  late: () => sleep(60).then(() => Uint8Array.of(0x90, 0x00)),
  lateFailure: () => sleep(60).then(() => { throw new Error('tag lost'); }),
  swallows: (good) => good().then(() => { throw new Error('tag lost'); }),
  emptyFile: () => Promise.resolve(Uint8Array.of(0x90, 0x00)),
  thenable: (good) => ({ then: (resolve, reject) => good().then(resolve, reject) }),
  slow: (good) => sleep(50).then(good),
};

/** Outcomes as a message between processes can carry them. */
const settled = (promise) => promise.then((result) => ({ result }), (error) => ({ error: { ...error, name: error.name, message: error.message } }));

/** The application of this process, as on a phone; what lies on it changes. */
class Stage {
  app = new Application({ library: LIBRARY });

  constructor() {
    for (const what of ['command', 'answer']) this.app.module.on(what, ({ serial }) => this.#saw(`${what}s`, serial));
    this.app.on('difference', ({ message }) => this.#saw('differences', message));
  }

  #saw(what, value) {
    this.seen?.[what].push(value);
  }

  async open({ identity, passport, claims, chip, server = {} } = {}) {
    this.watch();
    const who = { ...DEFAULT_IDENTITY, ...identity };
    const issuedNow = passport && passportOf(passport === true ? {} : passport);
    this.mrz = passport && { ...issuedNow, ...claims };
    this.document = passport ? new PassportChip(issuedNow, { readMode: who.readMode, ...chip }) : new IdentityCard();
    this.document.on('difference', ({ message }) => this.#saw('differences', message));
    this.app.useLink(new CardLink(this.document));
    this.server = new DecodeServer({ keys, persona: expectedPersona(who), envIdCode: who.envIdCode,
      ...(passport ? { document: 'passport', passport: expectedPassport(issuedNow) } : { card: this.document.secrets() }), ...server });
    this.server.on('difference', ({ message }) => this.#saw('differences', message));
    this.server.on('exchange', ({ command, fields }) => {
      if (fields?.files) this.seen.lengths = Object.fromEntries(Object.entries(fields.files).map(([name, file]) => [name, file.length / 2]));
      this.onEvent?.(command);
    });
    const { host, port } = await this.server.start();
    this.config = configOf({ ip: host, port, ...who });
    this.app.reader.configure(this.config);
  }

  watch() {
    return (this.seen = { commands: [], answers: [], differences: [], steps: [], progress: [] });
  }

  /** A connection that misbehaves at the `nth` command with this serial number. */
  connection({ behaviour, serial, nth = 1 } = {}) {
    const good = this.app.connection((step) => this.#saw('steps', step.name));
    let left = nth;
    return { transmit: (command) => {
      const now = this.app.module.open.serial;
      this.onEvent?.(now);
      return now === serial && (left -= 1) === 0 ? kBehaviour[behaviour](() => good.transmit(command)) : good.transmit(command);
    } };
  }

  start(options) {
    return this.mrz ? this.app.reader.readPassport(this.mrz, options) : this.app.reader.readIdentityCard(options);
  }

  /** A plain good read of what lies on the phone. */
  async goodRead() {
    this.onEvent = null;
    this.server.update({ rules: [], answers: {} });
    const { differences } = this.watch();
    return { ...await settled(this.start({ connection: this.connection(), cancel: null })), differences };
  }
}

const stage = new Stage();

/**
 * One read, and a good one after it in the same process. A row may have
 *   identity, passport, claims, chip, server (see `Stage.open`), connection (see `Stage.connection`), silenceLimit (see ReadOptions)
 *   nobody    no server listens for the first read
 *   cancel    { on, times, afterMs }: at a command with this serial number, at a server command, at 'start', at 'CONNECT' (in the
 *             progress function), or so many milliseconds after the start; `progress`: what the progress function does
 *   atOnce    the good read begins in the same moment as the first one ends; otherwise when its worker is gone
 */
async function perform({ connection, cancel, progress, silenceLimit, nobody, atOnce = false, ...setting } = {}) {
  await stage.open(setting);
  try {
    if (nobody) await stage.server.stop();
    const { seen } = stage;
    const handle = new CancelHandle();
    let pulled = null; // 'just now', then 'before'
    const pull = () => {
      pulled ??= 'just now';
      setImmediate(() => { pulled = 'before'; });
      for (let times = cancel.times ?? 1; times > 0; times -= 1) handle.cancel();
    };
    const onEvent = (event) => event === cancel?.on && pull();
    const options = { connection: stage.connection(connection), cancel: handle, silenceLimit, onProgress: (event) => {
      seen.progress.push({ ...event });
      onEvent(event.step);
      return progress && kBehaviour[progress]();
    } };
    stage.onEvent = onEvent;
    const began = performance.now();
    const reading = settled(stage.start(options));
    if (cancel?.on === 'start') pull();
    if (cancel?.afterMs !== undefined) setTimeout(pull, cancel.afterMs);
    const outcome = await reading;
    const ms = performance.now() - began;
    const cancelled = pulled;
    stage.onEvent = null;
    if (nobody) await stage.server.start(stage.server.update({ port: stage.config.port }));
    const next = atOnce ? stage.goodRead() : null;
    const idle = next ? null : await until(() => threads.idle, 3000);
    if (!next && pulled) await sleep(80); // whatever comes late
    handle.cancel(); // a read that is over does not mind
    return { ...outcome, ...structuredClone(seen), ms, cancelled, idle, again: await (next ?? stage.goodRead()) };
  } finally {
    stage.onEvent = null;
    await stage.server.stop();
  }
}

process.on('message', ({ id, argument }) => perform(argument)
  .then((value) => process.send({ id, value }), (error) => process.send({ id, error: error.stack })));
