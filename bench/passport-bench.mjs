// Measures reads of the passport: through the module in Node.js with the simulator's chip, and through the core with a
// chip on OpenSSL; the replay server has a process of its own. Usage: passport-bench.mjs LIBRARY READ_BENCH RECORDING; see
// module-rig.mjs for where its tables go.

import { execFileSync } from 'node:child_process';
import { performance } from 'node:perf_hooks';
import { PASSPORT_PACE, PassportChip } from '../simulator/lib/passport/chip.mjs';
import { unpackPassport } from '../simulator/lib/passport-persona.mjs';
import { loadRecording, median, pauseUntil, print, Rig } from './module-rig.mjs';

const [library, readBench, recordingFile] = process.argv.slice(2);
const kReads = 100;
const kRealistic = { reads: 3, serverMs: 40 };
const kChunk = 212;
const kFirstChunk = 4;

const recording = loadRecording(recordingFile);
const rig = new Rig(library, readBench, recording, onCommand);
const passport = unpackPassport(recording.passport);
let chip;
let realPace = false;
let own; // of the read: the chip's milliseconds, what they should have been, commands

function onCommand(text, serial) {
  const from = performance.now();
  const command = Buffer.from(text, 'hex');
  const { answer } = chip.respond(command, serial);
  if (realPace) {
    const pace = PASSPORT_PACE.delay + PASSPORT_PACE.perByte * (command.length + answer.length);
    own.paceMs += pace;
    pauseUntil(from + pace);
  }
  own.commands += 1;
  own.chipMs += performance.now() - from;
  rig.module.passportHandler(answer.toString('hex'), serial, 0);
}

/** One good read. @returns {Promise<{ms: number, chipMs: number, paceMs: number, commands: number}>} */
async function readOnce() {
  chip = new PassportChip(passport, { readMode: 2 });
  own = { chipMs: 0, paceMs: 0, commands: 0 };
  const ms = await rig.read();
  if (chip.differences.length > 0) throw new Error(`the chip found: ${chip.differences.map(String)}`);
  return { ms, ...own };
}

async function readsWith(delayMs, count, warmUp = 0) {
  const server = await rig.serverOn(delayMs);
  for (let i = 0; i < warmUp; i += 1) await readOnce();
  const reads = [];
  for (let i = 0; i < count; i += 1) reads.push(await readOnce());
  const core = delayMs === 0 &&
    JSON.parse(execFileSync(readBench, ['core', recordingFile, String(server.port), String(kReads)]));
  server.stop();
  return { reads, core };
}

const medianOf = (reads, value) => median(reads.map(value));

/**
 * What the documented order costs: SELECT application, GET CHALLENGE and EXTERNAL AUTHENTICATE; for each file SELECT, READ
 * BINARY of its header and of the rest in chunks; INTERNAL AUTHENTICATE.
 */
function leastCommands(files) {
  const ofFile = (size) => 2 + Math.ceil((size - kFirstChunk) / kChunk);
  return 3 + [...files.values()].reduce((sum, file) => sum + ofFile(file.length), 0) + 1;
}

async function measureAtOnce() {
  const { reads, core } = await readsWith(0, kReads, 20);
  const least = leastCommands(recording.files);
  const bytes = [...recording.files.values()].reduce((sum, file) => sum + file.length, 0);
  const ms = (value) => `${value.toFixed(2).padStart(7)} ms`;
  const row = (name, whole, chipMs, rest) => print(`  ${name}   ${ms(whole)}   ${ms(chipMs)}   ${ms(rest)}`);
  print(`Whole read, everybody answers at once (${recording.files.size} files of ${bytes} bytes, ${reads[0].commands} commands, `
    + `${recording.server.length} server exchanges; medians of ${kReads} reads)`);
  print('                                        whole   chip\'s own         rest');
  row('module, simulator\'s chip in JavaScript', medianOf(reads, (read) => read.ms), medianOf(reads, (read) => read.chipMs),
    medianOf(reads, (read) => read.ms - read.chipMs));
  row('core, chip on OpenSSL                 ', core.median_us / 1000, core.chip_us / 1000,
    (core.median_us - core.chip_us) / 1000);
  print('  The rest (wanted: under 25 ms) has the library, the application\'s part, and the server\'s replay over TCP.');
  const sent = new Set([...reads.map((read) => read.commands), core.commands]);
  print(`  commands sent ${[...sent].join(', ')}; fewest in the documented order with chunks of ${kChunk} bytes ${least} `
    + '(wanted: equal)');
  if (sent.size !== 1 || !sent.has(least)) throw new Error('more or fewer commands than there should be');
}

async function measureRealistic() {
  realPace = true;
  const { reads } = await readsWith(kRealistic.serverMs, kRealistic.reads);
  realPace = false;
  const serverMs = recording.server.length * kRealistic.serverMs;
  const longer = (chipMs) => `${median(reads.map((read) => 100 * (read.ms / (chipMs(read) + serverMs) - 1))).toFixed(2)} %`;
  const ms = (value) => `${value.toFixed(1)} ms`;
  print(`\nRealistic read (chip ${PASSPORT_PACE.delay} ms for each command and ${PASSPORT_PACE.perByte} ms for each byte, `
    + `server ${kRealistic.serverMs} ms; medians of ${kRealistic.reads})`);
  print(`  chip ${ms(medianOf(reads, (read) => read.paceMs))} by that pace and ${ms(medianOf(reads, (read) => read.chipMs))} `
    + `by the clock, server ${ms(serverMs)}, read ${ms(medianOf(reads, (read) => read.ms))}`);
  print(`  longer than chip and server by the pace ${longer((read) => read.paceMs)}, by the clock `
    + `${longer((read) => read.chipMs)} (wanted: at most 1 %)`);
}

await measureAtOnce();
await measureRealistic();
