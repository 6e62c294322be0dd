// Measures reads of the identity card through the module in Node.js against the replay server: whole reads, waiting,
// cancelling. Usage: module-bench.mjs LIBRARY READ_BENCH RECORDING; see module-rig.mjs for where its tables go.

import { execFileSync } from 'node:child_process';
import { readdirSync } from 'node:fs';
import { performance } from 'node:perf_hooks';
import { loadRecording, median, pauseUntil, print, Rig, sleep } from './module-rig.mjs';

const [library, readBench, recordingFile] = process.argv.slice(2);
const kReads = 200;
const kRealistic = { reads: 10, cardMs: 8, serverMs: 40 };

const recording = loadRecording(recordingFile);
const rig = new Rig(library, readBench, recording, onCommand);
let cardMs = 0;
let nextCard = 0;

function onCommand(command, serial) {
  const from = performance.now();
  const exchange = recording.card[nextCard];
  if (exchange?.command !== command) throw new Error(`command ${nextCard} was not recorded: ${command}`);
  nextCard += 1;
  if (cardMs > 0) pauseUntil(from + cardMs);
  rig.module.idCardHandler(exchange.answer, serial, 0);
}

function start() {
  nextCard = 0;
  return rig.start();
}

function readMs() {
  nextCard = 0;
  return rig.read();
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
  const server = await rig.serverOn(0);
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
  const server = await rig.serverOn(kRealistic.serverMs);
  cardMs = kRealistic.cardMs;
  const read = median(await reads(kRealistic.reads));
  cardMs = 0;
  server.stop();
  const delays = recording.card.length * kRealistic.cardMs + recording.server.length * kRealistic.serverMs;
  print(`\nRealistic read (card ${kRealistic.cardMs} ms, server ${kRealistic.serverMs} ms; median of ${kRealistic.reads})`);
  print(`  sum of the delays ${delays} ms, read ${read.toFixed(1)} ms, ${(100 * (read / delays - 1)).toFixed(2)} % longer (wanted: at most 2 %)`);
}

async function measureWaiting() {
  const server = await rig.serverOn(0, 'silent');
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
    rig.module.cancelCard(0);
    await result;
    ends.push(performance.now() - cancelled);
  }
  server.stop();
  await sleep(50);
  print(`Cancel while waiting: the read's end is seen after ${median(ends).toFixed(2)} ms (median), ${Math.max(...ends).toFixed(2)} ms `
    + `(longest of ${ends.length}; wanted: within 20 ms); threads left over: ${numThreads() - idle}`);
}

await measureOverhead();
await measureRealistic();
await measureWaiting();
