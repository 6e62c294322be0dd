// Measures the module in Node.js against the replay server: whole reads, waiting, cancelling.
// Usage: module-bench.mjs LIBRARY READ_BENCH RECORDING. The library's own output must be sent elsewhere (standard output
// carries its hex dumps); the tables go to descriptor 3.

import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { readdirSync, readFileSync, writeSync } from 'node:fs';
import { performance } from 'node:perf_hooks';

const [library, readBench, recordingFile] = process.argv.slice(2);
const kReads = 200;
const kRealistic = { reads: 10, cardMs: 8, serverMs: 40 };

const module = { exports: {} };
process.dlopen(module, library);
const tq = module.exports;

const recording = { init: {}, server: [], card: [] };
for (const line of readFileSync(recordingFile, 'utf8').split('\n')) {
  const [kind, a, b, c] = line.split(' ');
  if (kind === 'init') recording.init[a] = b;
  if (kind === 'time') recording.time = Number(a);
  if (kind === 'server') recording.server.push({ request: a, response: b });
  if (kind === 'card') recording.card.push({ serial: Number(a), command: b, answer: c });
}

const print = (text = '') => writeSync(3, `${text}\n`);
const median = (values) => [...values].sort((x, y) => x - y)[Math.floor(values.length / 2)];

/** Blocks for exactly this long: sleeps, and for the last millisecond spins. */
function pauseFor(ms) {
  const end = performance.now() + ms;
  if (ms > 1) Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, ms - 1);
  while (performance.now() < end);
}
const sleep = (ms) => new Promise((resolve) => { setTimeout(resolve, ms); });

process.on('uncaughtException', (error) => {
  print(`failed: ${error.stack}`);
  process.exit(1);
});

let cardMs = 0;
let nextCard = 0;
let settle = () => {};

function onCommand(text) {
  const { cmd, serial_num: serial } = JSON.parse(text);
  const exchange = recording.card[nextCard];
  if (exchange?.command !== cmd) throw new Error(`command ${nextCard} was not recorded: ${cmd}`);
  nextCard += 1;
  if (cardMs > 0) pauseFor(cardMs);
  tq.idCardHandler(exchange.answer, Number(serial), 0);
}

async function serverOn(delayMs, ...more) {
  const child = spawn(readBench, ['serve', recordingFile, String(delayMs), ...more], { stdio: ['ignore', 'pipe', 'inherit'] });
  const [port] = await once(child.stdout, 'data');
  const { appid, decodeMode, readMode, envIdCode, filePath, packageName, terId, reqidType, sn } = recording.init;
  const code = tq.initSdk(appid, Number(decodeMode), Number(readMode), Number(envIdCode), filePath, packageName,
    Number(terId), '127.0.0.1', Number(port), Number(reqidType), sn);
  if (code !== 0) throw new Error(`initSdk: ${code}`);
  return { port: Number(port), stop: () => child.kill() };
}

function start() {
  nextCard = 0;
  const result = new Promise((resolve) => { settle = resolve; });
  const code = tq.getIdInfo();
  if (code !== 0) throw new Error(`getIdInfo: ${code}`);
  return result;
}

async function readMs() {
  const from = performance.now();
  const { code } = await start();
  if (code !== 0) throw new Error(`a read ended with ${code}`);
  return performance.now() - from;
}

async function reads(count) {
  const times = [];
  for (let i = 0; i < count; i += 1) times.push(await readMs());
  return times;
}

const bareMs = (port) =>
  JSON.parse(execFileSync(readBench, ['bare', recordingFile, String(port), String(kReads)])).median_us / 1000;
const numThreads = () => readdirSync('/proc/self/task').length;

async function measureOverhead() {
  const server = await serverOn(0);
  await reads(20);
  const rounds = [];
  for (let i = 0; i < 5; i += 1) rounds.push({ bare: bareMs(server.port), read: median(await reads(kReads)) });
  server.stop();
  print(`Whole read, everybody answers at once (${recording.card.length} card and ${recording.server.length} server exchanges; `
    + `medians of ${kReads} reads, 5 rounds)`);
  print('  round    bare client    module    added');
  rounds.forEach(({ bare, read }, i) => print(`  ${i + 1}         ${bare.toFixed(3)} ms       ${read.toFixed(3)} ms  ${(read - bare).toFixed(3)} ms`));
  print(`  median added: ${median(rounds.map(({ bare, read }) => read - bare)).toFixed(3)} ms (wanted: at most 3 ms)`);
}

async function measureRealistic() {
  const server = await serverOn(kRealistic.serverMs);
  cardMs = kRealistic.cardMs;
  const read = median(await reads(kRealistic.reads));
  cardMs = 0;
  server.stop();
  const delays = recording.card.length * kRealistic.cardMs + recording.server.length * kRealistic.serverMs;
  print(`\nRealistic read (card ${kRealistic.cardMs} ms, server ${kRealistic.serverMs} ms; median of ${kRealistic.reads})`);
  print(`  sum of the delays ${delays} ms, read ${read.toFixed(1)} ms, ${(100 * (read / delays - 1)).toFixed(2)} % longer (wanted: at most 2 %)`);
}

async function measureWaiting() {
  const server = await serverOn(0, 'silent');
  const before = process.cpuUsage();
  const from = performance.now();
  const { code } = await start();
  const wall = performance.now() - from;
  const { user, system } = process.cpuUsage(before);
  print(`\nWaiting for a silent server: ${(wall / 1000).toFixed(2)} s until code ${code}, `
    + `${((user + system) / 1000).toFixed(1)} ms of processor time in the whole process (wanted: under 50 ms)`);

  const ends = [];
  const idle = numThreads();
  for (let i = 0; i < 20; i += 1) {
    const result = start();
    await sleep(30);
    const cancelled = performance.now();
    tq.cancelCard(0);
    await result;
    ends.push(performance.now() - cancelled);
  }
  server.stop();
  await sleep(50);
  print(`Cancel while waiting: the read's end is seen after ${median(ends).toFixed(2)} ms (median), ${Math.max(...ends).toFixed(2)} ms `
    + `(longest of ${ends.length}; wanted: within 20 ms); threads left over: ${numThreads() - idle}`);
}

tq.registerCardCallback(onCommand);
tq.registerMonitorCallback((text) => text);
tq.registerTimestampCallback(() => recording.time);
tq.registerResultCallback((text) => settle(JSON.parse(text)));
await measureOverhead();
await measureRealistic();
await measureWaiting();
