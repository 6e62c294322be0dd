// What the processes under test can be asked to do, beside single reads.

import { once } from 'node:events';
import { setTimeout as sleep } from 'node:timers/promises';
import { Worker } from 'node:worker_threads';
import { packPassport } from '../../simulator/lib/passport-persona.mjs';
import { app, LIBRARY, numDescriptors, numThreads, perform, until } from './rig.mjs';

export { perform };

const hex = (bytes) => Buffer.from(bytes).toString('hex').toUpperCase();

/** A good read with everything that should stand in the logs; `order` is what goes to standard output. */
export async function logged(setting) {
  await app.open(setting);
  await app.read();
  const { steps, order, monitors, results, exchanges } = app.seen;
  app.reader.cancel(2);
  await app.close();
  const dumped = order.flatMap(({ what, value }) => {
    if (what === 'exchanges') return [`Send SR: ${hex(value.request)}`, `Recv SR: ${hex(value.response)}`];
    return what === 'steps' ? [`---cmd: ${value.command}`, `---recv: ${value.answer}`] : [];
  });
  const info = exchanges.find(({ command }) => command === '0x7202')?.fields.info;
  return { steps, monitors, results, order: dumped, port: app.port, info };
}

/** The code of `getPassportInfo` with each of these lists of arguments; texts among them stand for other things. */
export async function passportArguments(lists) {
  const others = { undefined, null: null, number: 900101, true: true, object: {}, array: ['900101'], function: () => '900101',
    symbol: Symbol('900101'), bigint: 900101n, String: Object('900101') };
  const codes = [];
  await app.open({ passport: true });
  for (const list of lists) {
    const code = app.exports.getPassportInfo(...list.map((value) => (value?.kind ? others[value.kind] : value)));
    codes.push(code);
    if (code !== 0) continue;
    app.reader.cancel(1);
    await app.quiet();
  }
  await app.close();
  return codes;
}

/** `getPassportInfo` before its time, and the steps that make it possible: their codes. */
export async function earlyPassport() {
  const start = (...list) => app.exports.getPassportInfo(...list);
  const given = ['SPEC01234', '900101', '341231'];
  const codes = [start(...given), start(), Object.values(app.reader.register()).find((code) => code !== 0) ?? 0, start(...given),
    await app.open({ passport: true })];
  await app.close();
  return codes;
}

/** The code of `initSdk` with each of these identities, and of the `getIdInfo` that follows. */
export async function configurations(identities) {
  const rows = [];
  await app.open();
  for (const identity of identities) {
    const code = app.reader.init({ ip: '127.0.0.1', port: app.port, ...identity });
    const started = app.reader.module.getIdInfo();
    rows.push({ code, started });
    if (started !== 0) continue;
    await sleep(30); // by now it is connecting, or waiting for the card
    app.reader.cancel();
    await app.quiet();
  }
  await app.close();
  return rows;
}

/** The exported functions before their time: [name, value] of each call. */
export async function early() {
  const { exports: module } = app;
  const rows = [];
  const call = (name, value) => rows.push(value === undefined ? [name] : [name, value]);
  call('getIdInfo', module.getIdInfo());
  call('idCardHandler', module.idCardHandler('9000', 0, 0));
  call('cancelCard', module.cancelCard(0));
  call('cancelCard 2', module.cancelCard(2));
  call('getBillingModel', module.getBillingModel());
  call('registered', Object.values(app.reader.register()));
  call('getIdInfo', module.getIdInfo());
  call('initSdk', await app.open());
  const again = () => app.reader.init({ ip: '127.0.0.1', port: app.port });
  for (const name of ['Card', 'Monitor', 'Timestamp', 'Result']) {
    const register = module[`register${name}Callback`];
    call(`register${name}Callback(null)`, register(null));
    call('getIdInfo', module.getIdInfo());
    call(`register${name}Callback(undefined)`, register(undefined));
    call(`register${name}Callback(5)`, register(5));
    call('initSdk', again());
    call('getIdInfo', module.getIdInfo());
    call(`register${name}Callback`, Object.values(app.reader.register()).find((code) => code !== 0) ?? 0);
  }
  const { results } = await app.read();
  call('a read', JSON.parse(results[0]).code);
  await app.close();
  return rows;
}

/** Five seconds of a silent server: the result and the processor time that the process used meanwhile. */
export async function idle() {
  await app.open({ server: { rules: [{ on: 'connect', do: 'silence' }] } });
  const seen = app.watch();
  app.start();
  await sleep(500);
  const before = process.cpuUsage();
  await until(() => seen.results.length > 0, 60_000, 1000);
  const { user, system } = process.cpuUsage(before);
  await app.close();
  return { result: seen.results[0], cpuMs: (user + system) / 1000 };
}

/** A read whose server begins to listen `ms` after it has started. */
export async function lateServer({ ms, trigger }) {
  await app.open();
  await app.close();
  setTimeout(() => app.reopen(), ms);
  const outcome = await app.read({ trigger });
  await app.close();
  return outcome;
}

/** A good read: what card or chip and server were sent, and what they are. */
export async function recorded(setting) {
  await app.open(setting);
  const { results: [text], commands, differences } = await app.read();
  await app.close();
  const requests = app.seen.exchanges.map(({ request, connection }) => ({ request: hex(request), connection }));
  return { code: JSON.parse(text).code, differences, commands, requests, secrets: app.card.secrets(), passport: app.chip && packPassport(app.chip.passport) };
}

/** Reads of this passport by chips that misbehave by these rules: codes of the results of each, and of a good read that follows. */
export async function misbehavedReads({ lists, passport, again: follows = true }) {
  const rows = [];
  for (const cardRules of lists) {
    await app.open({ passport, expects: null, chip: { order: 'any' }, server: { monitorText: 'any' }, cardRules });
    const { results, ended } = await app.read();
    const { results: again } = follows ? await app.goodRead() : { results: [] };
    await app.close();
    rows.push({ ended, codes: results.map((text) => JSON.parse(text).code), again: again.map((text) => JSON.parse(text).code) });
  }
  return rows;
}

// --- applications that do not behave -----------------------------------------------------------------------------------

const busy = (ms) => {
  for (const end = Date.now() + ms; Date.now() < end;);
};
const fails = () => {
  throw new Error('an application function that throws');
};
const afterwards = (then) => (fn, text) => {
  fn(text);
  return then(text);
};
/** Only the first call is twisted; `seen` is what the library reads from the value. */
const firstTime = (value, seen = 0) => {
  let calls = 0;
  return (fn) => {
    calls += 1;
    if (calls > 1) return fn();
    app.reader.times.push(seen);
    return typeof value === 'function' ? value() : value;
  };
};

function answerAtOnce(_fn, text) {
  const { cmd, serial_num: serial } = JSON.parse(text);
  const { answer } = app.card.respond(Buffer.from(cmd, 'hex'), Number(serial));
  app.exports.idCardHandler(hex(answer), Number(serial), 0);
}

/** What the application's functions may do, by function and name. */
const kTwists = {
  card: { throws: () => afterwards(fails), returns: () => afterwards(() => ({ then: 'nonsense' })), answers: () => answerAtOnce },
  result: { throws: () => afterwards(fails) },
  monitor: Object.fromEntries(Object.entries({
    throws: fails, nothing: () => undefined, number: () => 7, object: () => ({}), promise: async (text) => text,
    text: () => 'hello', other: () => '{"other": "对象"}', long: () => `{${' '.repeat(1998)}}`,
    longer: () => `{${' '.repeat(1999)}}`, huge: () => `{${' '.repeat(5e6)}}`,
    late: (text) => {
      busy(600);
      return text;
    },
  }).map(([name, then]) => [name, () => afterwards(then)])),
  time: {
    zero: () => firstTime(0), nan: () => firstTime(NaN), infinite: () => firstTime(Infinity), nothing: () => firstTime(undefined),
    text: () => firstTime('1700000000000'), null: () => firstTime(null), object: () => firstTime({}), bigint: () => firstTime(5n),
    symbol: () => firstTime(Symbol('time')), promise: () => firstTime(Promise.resolve(5)), throws: () => firstTime(fails),
    late: () => firstTime(() => busy(600) ?? 5), negative: () => firstTime(-5, -5), fraction: () => firstTime(1234.5, 1234),
    beyond: () => firstTime(1e300, 1), always: () => () => {
      app.reader.times.push(0);
      return 0;
    },
  },
};

/** A read with an application that has twists, and a good one. `twists`: { time: 'zero', ... } */
export async function twisted({ server, ...twists }) {
  await app.open({ server });
  app.twist = Object.fromEntries(Object.entries(twists).map(([kind, name]) => [kind, kTwists[kind][name]()]));
  const outcome = await app.read();
  const again = await app.goodRead();
  await app.close();
  return { ...outcome, again };
}

/** Reads of which each is started by the result function of the one before: their results. */
export async function chain(length) {
  await app.open();
  const seen = app.watch();
  app.twist = { result: afterwards(() => seen.results.length < length && app.start()) };
  app.start();
  await until(() => seen.results.length === length);
  app.twist = {};
  await app.close();
  return seen.results;
}

/** While 0x5001 runs, good answers with these serial numbers are handed over: serial numbers of the commands that follow. */
export async function flood(answers) {
  await app.open({ server: { rules: [{ on: '0x5001', do: 'delay', ms: 200 }] } });
  const serials = [];
  app.twist = {
    card: (fn, text) => {
      const serial = Number(JSON.parse(text).serial_num);
      if (serials.length > 0 || serial > 3) serials.push(serial);
      else fn(text);
      if (serial === 3 && serials.length === 0) setTimeout(() => answers.forEach((n) => app.exports.idCardHandler('9000', n, 0)), 60);
    },
  };
  app.watch();
  app.start();
  await until(() => serials.length > 4);
  await sleep(100); // for a fifth
  const followed = [...serials];
  app.reader.cancel();
  app.exports.idCardHandler('9000', 0, 0);
  await app.quiet();
  const again = await app.goodRead();
  await app.close();
  return { serials: followed, again };
}

/** Answers of all kinds after the end of a read, and a good one. */
export async function lateAnswers() {
  await app.open();
  await app.read();
  for (let serial = 0; serial < 256; serial += 1) app.exports.idCardHandler(serial % 2 ? '9000' : '', serial, (serial % 3) - 1);
  const again = await app.goodRead();
  await app.close();
  return again;
}

/** Calls every exported function with arguments of all kinds: descriptions of what should not have come of it. */
export async function oddArguments() {
  const values = [undefined, null, {}, [], true, NaN, Infinity, -1, 2 ** 31, 1.5, 1n, Symbol('odd'), 'x', 'z'.repeat(9), '0',
    'F'.repeat(602), '\0', '样\ud800', 'A'.repeat(5e6), () => 0, new Date(), new Proxy({}, { get: fails })];
  const wrong = [];
  const names = ['initSdk', 'getBillingModel', 'getIdInfo', 'registerTimestampCallback', 'idCardHandler', 'registerResultCallback',
    'registerMonitorCallback', 'registerCardCallback', 'cancelCard'];
  await app.open();
  app.watch();
  for (const name of names) {
    const wanted = name === 'idCardHandler' ? 'undefined' : 'number';
    for (const argument of values) {
      for (const count of [0, 1, 2, 3, 11, 40]) {
        try {
          const returned = app.exports[name](...Array(count).fill(argument));
          if (typeof returned !== wanted) wrong.push(`${name} returned ${typeof returned}`);
        } catch (error) {
          wrong.push(`${name}: ${error.message}`);
        }
        if (name === 'getIdInfo') app.reader.cancel();
      }
    }
  }
  await app.close();
  return wrong;
}

// --- ends of processes and threads --------------------------------------------------------------------------------------

/** Only loads and registers. */
export async function onlyRegister() {
  app.reader.register();
}

/** Cancels a read whose card or chip never answers; a passport's waits for its chip without a connection. */
export async function abandoned({ passport }) {
  const on = passport ? 'READ DG1' : 'READ 6002';
  await app.open({ passport, cardRules: [{ on, do: 'silence' }] });
  app.watch();
  app.onEvent = (name) => name === on && app.reader.cancel(passport ? 1 : 0);
  app.start();
  await until(() => app.seen.connections.length > 1 && app.seen.commands.at(-1)?.name === on);
  await app.close();
}

/** Takes the result function away during a read and registers another after it. */
export async function replaced() {
  await app.open();
  app.watch();
  app.start();
  app.exports.registerResultCallback(null);
  await until(() => app.seen.monitors.length > 0);
  await app.quiet();
  app.reader.register();
  await app.close();
}

/** Starts a read whose card takes its time, and whose server stops after it. */
export async function startSlowly(ms) {
  await app.open({ cardRules: [{ on: 'REQB', do: 'delay', ms }] });
  app.watch();
  app.twist = { result: afterwards(() => app.close()) };
  app.start();
}

/**
 * Starts a read and calls `then` when it has come to a moment: 'at once', 'connect' (where nobody listens), a card or
 * server command (which is never answered), a function of the application by its name, or 'never'.
 */
export async function startUpTo({ on, passport }, then) {
  const silent = { on, do: 'silence' };
  await app.open({ passport, ...(on.startsWith('0x') ? { server: { rules: [silent] } } : { cardRules: on.includes('E') ? [silent] : [] }) });
  app.twist = { [on]: (fn, ...args) => then() ?? busy(50) ?? fn(...args) };
  if (on === 'never') {
    const { results } = await app.read();
    await app.close();
    return results[0];
  }
  if (on === 'connect') {
    await app.close();
    setTimeout(then, 100);
  }
  app.watch();
  app.onEvent = (name) => name === on && then();
  app.start();
  if (on === 'at once') then();
  return undefined;
}

export async function exitAt(moment) {
  await startUpTo(moment, () => process.exit());
  await sleep(60_000);
}

const thread = (moment) => new Worker(new URL('./thread.mjs', import.meta.url), { workerData: moment });

/** Ends a thread in the middle of its read, then reads. */
export async function endThread(moment) {
  const worker = thread(moment);
  const ended = once(worker, 'exit');
  await once(worker, 'message');
  if (moment.on !== 'never') worker.terminate();
  await ended;
  return perform({ passport: moment.passport });
}

/** A read here, while a thread loads the library and ends. */
export async function besideThread() {
  await app.open({ cardRules: [{ on: 'READ 6002', nth: 1, do: 'delay', ms: 1500 }] });
  const outcome = app.read();
  await until(() => app.seen.commands.length > 3);
  const worker = new Worker(`process.dlopen({ exports: {} }, ${JSON.stringify(LIBRARY)})`, { eval: true });
  await once(worker, 'exit');
  const { threadEnded, ...first } = { ...await outcome, threadEnded: true };
  const again = await app.goodRead();
  await app.close();
  return { ...first, again };
}

/** Reads in a row, some of them broken off or failing: descriptors and threads before and after, unexpected results. */
export async function manyReads({ count, passport }) {
  await app.open({ passport });
  await app.goodRead();
  const numbers = () => ({ descriptors: numDescriptors(), threads: numThreads() });
  const before = numbers();
  const bad = [];
  for (let i = 0; i < count; i += 1) {
    const [on, fails] = [passport ? ['0x7201', '0x7202'][(i >> 1) % 2] : '0x5001', i % 5 === 4];
    app.server.update({ rules: fails ? [{ on, do: i % 2 ? 'close' : 'silence' }] : [] });
    const cancels = fails && i % 2 === 0;
    const { results } = await app.read(cancels ? { trigger: { on, do: passport ? 'cancel1' : 'cancel' }, silent: true } : {});
    const code = cancels ? undefined : fails ? -22003 : 0;
    if ((results[0] && JSON.parse(results[0]).code) !== code) bad.push(`${i}: ${results[0]}`);
  }
  await app.goodRead();
  const after = numbers();
  await app.close();
  return { before, after, bad };
}
