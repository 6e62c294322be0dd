// Measures the two small services through the module in Node.js: processor time of the whole process and wall time of each
// call. The simulator's servers have processes of their own; the location server's TLS is OpenSSL's, with a key of 2048 bits.
// Usage: services-bench.mjs LIBRARY; see module-rig.mjs for where its table goes.

import { spawn } from 'node:child_process';
import { randomInt } from 'node:crypto';
import { once } from 'node:events';
import { performance } from 'node:perf_hooks';
import { fileURLToPath } from 'node:url';
import { median, print } from './module-rig.mjs';

const kCalls = 300;
const kWarmUp = 30;
const kAppid = 'SIMULATEDREADER00001';
const kPhone = ['SPECIMEN', 'Specimen Phone 1'];
const kPlace = 3;

const module = { exports: {} };
process.dlopen(module, process.argv[2]);
const { getDeviceNFCLocation, getTimeDelay } = module.exports;

/** A server of the simulator in a process of its own. */
async function startServer(name, ...options) {
  const program = fileURLToPath(new URL(`../simulator/bin/${name}.mjs`, import.meta.url));
  const child = spawn(process.execPath, [program, ...options], { stdio: ['ignore', 'pipe', 'inherit'] });
  const [line] = await once(child.stdout, 'data');
  child.stdout.resume();
  const [, host, port] = / on ([\d.]+):(\d+)/.exec(line);
  return { host, port: Number(port), stop: () => child.kill() };
}

/** Calls many times. @returns {object} medians of processor and wall time in ms, longest processor time, and how often each value came */
function measure(call) {
  const rows = [];
  for (let i = 0; i < kWarmUp + kCalls; i += 1) {
    const before = process.cpuUsage();
    const from = performance.now();
    const value = call();
    const wall = performance.now() - from;
    const { user, system } = process.cpuUsage(before);
    if (i >= kWarmUp) rows.push({ value, wall, cpu: (user + system) / 1000 });
  }
  const column = (name) => rows.map((row) => row[name]);
  const values = new Map();
  for (const value of column('value')) values.set(value, (values.get(value) ?? 0) + 1);
  return { cpu: median(column('cpu')), wall: median(column('wall')), longest: Math.max(...column('cpu')), values };
}

function report(what, { cpu, wall, longest, values }, wanted) {
  const ms = (value) => `${value.toFixed(3)} ms`.padStart(10);
  const answers = [...values].sort().map(([value, times]) => `${value} (${times} times)`).join(', ');
  print(`  ${what.padEnd(34)}${ms(cpu)}${ms(longest)}${ms(wall)}   ${answers}\n    wanted: ${wanted}`);
}

const location = await startServer('location-server', '--location', String(kPlace));
const latency = await startServer('latency-server', '--host', `127.${randomInt(1, 255)}.${randomInt(0, 255)}.${randomInt(1, 255)}`);
print(`Services on loopback, ${kCalls} calls of each`);
print('                                    processor   longest      wall   answers');
const asked = measure(() => getDeviceNFCLocation(kAppid, 268, location.host, location.port, ...kPhone, Date.now));
report('getDeviceNFCLocation, 2048-bit key', asked, `${kPlace}; at most 3 ms of processor time`);
for (const count of [1, 5]) {
  const probed = measure(() => getTimeDelay(count, latency.host));
  report(`getTimeDelay, ${count} ${count === 1 ? 'round' : 'rounds'}`, probed, '0 or 1; under 1 ms of processor time');
}
location.stop();
latency.stop();
if (asked.values.get(kPlace) !== kCalls) throw new Error('the location server answered otherwise');
