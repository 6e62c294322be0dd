// What the processes under test can be asked to do with the two small services. Both calls block their thread, so the
// servers are in the process of the tests.

import { once } from 'node:events';
import { setTimeout as sleep } from 'node:timers/promises';
import { Worker } from 'node:worker_threads';
import { app, LIBRARY, numDescriptors, numThreads } from './rig.mjs';

const kOthers = { undefined, null: null, nan: NaN, true: true, object: {}, array: ['x'], function: () => 'x', bigint: 268n,
  symbol: Symbol('x'), String: Object('x'), long: 'A'.repeat(5e6) };
const valueOf = (argument) => (argument?.kind ? kOthers[argument.kind] : argument);

let now = 1_700_000_000_000;
const fails = () => {
  throw new Error('a time function that throws');
};

/** What a time function may be, given the arguments of its request. */
const kClocks = {
  usual: () => () => (now += 1),
  standing: () => () => 1_700_000_000_000,
  zero: () => () => 0,
  negative: () => () => -5,
  fraction: () => () => 1234.5,
  fourteen: () => () => 17_000_000_000_001,
  ...Object.fromEntries(Object.keys(kOthers).map((kind) => [kind, () => () => kOthers[kind]])),
  infinite: () => () => Infinity,
  text: () => () => '1700000000000',
  promise: () => async () => 5,
  throws: () => fails,
  noFunction: () => ({}),
  nested: (args) => () => app.exports.getDeviceNFCLocation(...args.slice(0, 6), () => 1_700_000_000_000),
};

/**
 * One call. `location`: the arguments of getDeviceNFCLocation but the time function, which is a row of kClocks, or `none`;
 * `delay`: the arguments of getTimeDelay. Among them { kind } stands for a row of kOthers.
 */
export function ask({ location, delay, clock = 'usual' }) {
  const times = [];
  const args = (location ?? delay).map(valueOf);
  if (location && clock !== 'none') {
    const fn = kClocks[clock](args);
    args.push(typeof fn !== 'function' ? fn : () => {
      const time = fn();
      times.push(typeof time === 'number' ? time : null);
      return time;
    });
  }
  const before = process.cpuUsage();
  const began = performance.now();
  const value = location ? app.exports.getDeviceNFCLocation(...args) : app.exports.getTimeDelay(...args);
  const ms = performance.now() - began;
  const { user, system } = process.cpuUsage(before);
  return { value, times, ms, cpuMs: (user + system) / 1000 };
}

export const numbers = () => ({ descriptors: numDescriptors(), threads: numThreads() });

/** Every argument of both functions of another kind: what should not have come of it. */
export function oddServiceArguments({ location }) {
  const wrong = [];
  const check = (name, args, allowed) => {
    const value = app.exports[name](...args);
    if (!allowed.includes(value)) wrong.push(`${name}(${args.map((arg) => typeof arg)}): ${value}`);
  };
  const codes = [-13003, -13009, -20003, -20004, -22003];
  for (const odd of Object.values(kOthers)) {
    for (let count = 0; count < 9; count += 1) {
      check('getDeviceNFCLocation', Array(count).fill(odd), [0, ...codes]);
      check('getTimeDelay', Array(count).fill(odd), codes);
    }
    [0, 1, 3].forEach((at) => check('getDeviceNFCLocation', Object.assign([...location, Date.now], { [at]: odd }), codes));
  }
  return wrong;
}

/** A thread that has loaded the library; told to go, it asks `rounds` times, and says so each time; then it gives its answers. */
async function askingThread(args, { rounds = 1, exits = false } = {}) {
  const program = `
    const { workerData: { library, args, rounds, exits }, parentPort } = require('node:worker_threads');
    const module = { exports: {} };
    process.dlopen(module, library);
    const now = () => (exits ? process.exit() : (parentPort.postMessage('asked'), Date.now()));
    parentPort.once('message', () => {
      parentPort.postMessage(Array.from({ length: rounds }, () => module.exports.getDeviceNFCLocation(...args, now)));
    });
    parentPort.postMessage('loaded');`;
  const worker = new Worker(program, { eval: true, workerData: { library: LIBRARY, args, rounds, exits } });
  await once(worker, 'message');
  const answers = new Promise((resolve) => { worker.on('message', (message) => Array.isArray(message) && resolve(message)); });
  return { worker, answers, ended: once(worker, 'exit') };
}

/** The same calls in `asking` each, in threads of their own and here, all at the same time: the values of each. */
export async function askInThreads({ asking: [mine, ...theirs], rounds }) {
  const threads = await Promise.all(theirs.map((args) => askingThread(args, { rounds })));
  threads.forEach(({ worker }) => worker.postMessage('go'));
  const own = Array.from({ length: rounds }, () => app.exports.getDeviceNFCLocation(...mine, Date.now));
  const values = [own, ...await Promise.all(threads.map(({ answers }) => answers))];
  await Promise.all(threads.map(({ ended }) => ended));
  return values;
}

/**
 * Ends a thread from inside its time function; or while its call waits for the server, by `terminate` or with the whole
 * process, whose code is 7 then. The milliseconds until it has ended.
 */
export async function endAskingThread({ location, how }) {
  const inside = how.startsWith('inside');
  const { worker, ended } = await askingThread(location, { exits: inside });
  worker.postMessage('go');
  if (!inside) {
    await once(worker, 'message');
    await sleep(300); // it has come to the server
    if (how === 'process.exit') process.exit(7);
  }
  const began = performance.now();
  if (!inside) worker.terminate();
  await ended;
  return performance.now() - began;
}

/** A card read that asks both services in front of each of these answers of the card. */
export async function askDuringRead({ location, delay, before }) {
  await app.open();
  const values = [];
  app.twist = {
    card: (fn, text) => {
      if (before.includes(Number(JSON.parse(text).serial_num))) values.push(ask({ location }).value, ask({ delay }).value >= 0);
      fn(text);
    },
  };
  const outcome = await app.read();
  const again = await app.goodRead();
  await app.close();
  return { ...outcome, again, values };
}
