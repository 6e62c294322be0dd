// The process under test: the library with an application, a card and a decode server around it. Reads are described
// by plain data; see `perform`. `main.mjs` makes a program of it that the tests talk to.

import { existsSync, readdirSync, readFileSync } from 'node:fs';
import { stat } from 'node:fs/promises';
import { resolve } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';
import { CardLink } from '../../simulator/lib/card-link.mjs';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';
import { loadKeys } from '../../simulator/lib/keys.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../../simulator/lib/persona.mjs';
import { DEFAULT_LIBRARY, Reader } from '../../simulator/lib/reader.mjs';

export const LIBRARY = resolve(process.env.TQREADER_LIBRARY ?? DEFAULT_LIBRARY);
const kKeys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).decode;
const kBegin = 1_700_000_000_000; // where the application's clock stands
const kPatience = 30_000;

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
    const names = { card: 'registerCardCallback', monitor: 'registerMonitorCallback', time: 'registerTimestampCallback',
      result: 'registerResultCallback' };
    this.reader.module = Object.create(this.exports, Object.fromEntries(Object.entries(names).map(([kind, name]) => [name, {
      value: (fn) => this.exports[name]((...args) => (this.twist[kind] ? this.twist[kind](fn, ...args) : fn(...args))),
    }])));
    this.reader.on('command', ({ name, command, serial }) => {
      this.now += this.tick.card ?? 0;
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
   * Lays a card on the phone, starts a decode server and configures the library for both. `setting`: identity, server,
   * secrets, cardRules, and tick { server, card }: milliseconds that the clock moves for each exchange and command.
   */
  async open({ identity, server = {}, secrets, cardRules = [], tick = {} } = {}) {
    const who = { ...DEFAULT_IDENTITY, ...identity };
    this.card = new IdentityCard(secrets);
    this.card.on('difference', ({ message }) => this.#saw('differences', message));
    this.link = new CardLink(this.card, { rules: cardRules });
    this.reader.useLink(this.link);
    this.server = new DecodeServer({ keys: kKeys, persona: expectedPersona(who), card: this.card.secrets(),
      envIdCode: who.envIdCode, hostTimes: () => this.reader.times, ...server });
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
   * middle: `on` is a card command's name, a server command, a time in milliseconds or 'at once'; `do` is 'cancel',
   * 'cancel2' or 'start', as many `times`.
   */
  async read({ trigger, silent = false } = {}) {
    const seen = this.watch();
    const began = Date.now();
    let triggered;
    let waiting = false; // is the worker there a while after the trigger?
    const pull = () => {
      triggered = performance.now();
      setTimeout(() => { waiting = !this.idle; }, 60);
      for (let times = trigger.times ?? 1; times > 0; times -= 1) {
        if (trigger.do === 'start') this.reader.start();
        else this.reader.cancel(trigger.do === 'cancel2' ? 2 : 0);
      }
    };
    let left = trigger?.nth ?? 1;
    this.onEvent = (name) => trigger && name === trigger.on && (left -= 1) === 0 && pull();
    const { code } = this.reader.start();
    if (code !== 0) return { code };
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
    return { code, ended, latency, waiting, open: isOpen(), ms: Date.now() - began, ...told(seen) };
  }

  /** True when no worker is left. */
  get idle() {
    return entries(kTasks).every((task) => kOthers.has(task) || isKernels(task));
  }

  quiet() {
    return until(() => this.idle);
  }

  /** A plain good read with the present server and card. */
  async goodRead() {
    this.twist = {};
    this.link.setRules([]);
    this.server.update({ rules: [], answers: {}, delay: 0, opaqueLength: 0, path: undefined });
    return this.read();
  }
}

/** What a record tells the test, in plain data; of several connections, the last one's exchanges. */
function told({ commands, monitors, results, reports, exchanges: all, connections, differences }) {
  const exchanges = all.filter(({ connection }) => connection === all.at(-1).connection);
  const fields = Object.fromEntries(exchanges.map(({ command, fields: values }) => [command, values]));
  return { commands, monitors, results, reports, differences, fields,
    connections: connections.filter(({ state }) => state === 'open').length,
    server: exchanges.map(({ command }) => command) };
}

const theApp = new App();
export { theApp as app };

/** One read, and then a good one in the same process. With `nobody`, the first finds no server. */
export async function perform({ trigger, silent, nobody, again = true, ...setting }) {
  try {
    const code = await theApp.open(setting);
    if (code !== 0) return { code };
    if (nobody) await theApp.close();
    const outcome = await theApp.read({ trigger, silent });
    if (nobody) await theApp.reopen();
    return again ? { ...outcome, again: await theApp.goodRead() } : outcome;
  } finally {
    await theApp.close();
  }
}

// The threads of the file system's pool exist from now on, so that only workers come and go.
await Promise.all(Array.from({ length: 8 }, () => stat('/')));
const kOthers = new Set(entries(kTasks));
