// What the benchmarks of the module share: the module itself, one recording, a replay server in a process of its own, and
// reads that are waited for. The library's own output must be sent elsewhere (standard output carries its hex dumps); what
// `print` prints goes to descriptor 3.

import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { readFileSync, writeSync } from 'node:fs';
import { performance } from 'node:perf_hooks';

export const print = (text = '') => writeSync(3, `${text}\n`);
export const median = (values) => [...values].sort((x, y) => x - y)[Math.floor(values.length / 2)];
export const sleep = (ms) => new Promise((resolve) => { setTimeout(resolve, ms); });

process.on('uncaughtException', (error) => {
  print(`failed: ${error.stack}`);
  process.exit(1);
});

/** Blocks until this moment: sleeps, and for the last millisecond spins. */
export function pauseUntil(end) {
  const ms = end - performance.now();
  if (ms > 1) Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, ms - 1);
  while (performance.now() < end);
}

/** A recording of record.mjs. */
export function loadRecording(path) {
  const recording = { path, init: {}, server: [], card: [], files: new Map() };
  for (const line of readFileSync(path, 'utf8').split('\n')) {
    const [kind, a, b, c] = line.split(' ');
    if (kind === 'init') recording.init[a] = b;
    if (kind === 'time') recording.time = Number(a);
    if (kind === 'server') recording.server.push({ request: a, response: b });
    if (kind === 'card') recording.card.push({ serial: Number(a), command: b, answer: c });
    if (kind === 'mrz') recording.mrz = [a, b, c];
    if (kind === 'file') recording.files.set(Number.parseInt(a, 16), Buffer.from(b, 'hex'));
    if (kind === 'passport') recording.passport = JSON.parse(Buffer.from(a, 'base64').toString());
  }
  return recording;
}

export class Rig {
  #settle = () => {};

  /** @param {(command: string, serial: number) => void} onCommand  hands the answer over by itself */
  constructor(library, readBench, recording, onCommand) {
    const module = { exports: {} };
    process.dlopen(module, library);
    this.module = module.exports;
    this.readBench = readBench;
    this.recording = recording;
    this.module.registerCardCallback((text) => {
      const { cmd, serial_num: serial } = JSON.parse(text);
      onCommand(cmd, Number(serial));
    });
    this.module.registerMonitorCallback((text) => text);
    this.module.registerTimestampCallback(() => recording.time);
    this.module.registerResultCallback((text) => this.#settle(JSON.parse(text)));
  }

  /** A replay server that answers after `delayMs`, and the module configured for it. */
  async serverOn(delayMs, ...more) {
    const args = ['serve', this.recording.path, String(delayMs), ...more];
    const child = spawn(this.readBench, args, { stdio: ['ignore', 'pipe', 'inherit'] });
    const [port] = await once(child.stdout, 'data');
    const { appid, decodeMode, readMode, envIdCode, filePath, packageName, terId, reqidType, sn } = this.recording.init;
    const code = this.module.initSdk(appid, Number(decodeMode), Number(readMode), Number(envIdCode), filePath, packageName,
      Number(terId), '127.0.0.1', Number(port), Number(reqidType), sn);
    if (code !== 0) throw new Error(`initSdk: ${code}`);
    return { port: Number(port), stop: () => child.kill() };
  }

  /** Starts a read of the recorded document. @returns {Promise<object>} its result */
  start() {
    const result = new Promise((resolve) => { this.#settle = resolve; });
    const { mrz } = this.recording;
    const code = mrz ? this.module.getPassportInfo(...mrz) : this.module.getIdInfo();
    if (code !== 0) throw new Error(`a read was not started: ${code}`);
    return result;
  }

  /** Performs one good read. @returns {Promise<number>} its milliseconds */
  async read() {
    const from = performance.now();
    const { code } = await this.start();
    if (code !== 0) throw new Error(`a read ended with ${code}`);
    return performance.now() - from;
  }
}
