#!/usr/bin/env node
// Runs the simulated latency server alone, for an application under test.

import { coloursFor } from '../lib/account.mjs';
import { fail, parseOptions } from '../lib/command-line.mjs';
import { LATENCY_PORT, LatencyServer } from '../lib/latency-server.mjs';

const options = parseOptions(`Usage: latency-server.mjs [options]

A latency server for an application under test: answers every greeting of a probe, and prints a line for each probe.`, {
  host: { value: 'ADDRESS', default: '127.0.0.1', text: 'address to listen on; 0.0.0.0 for a phone in the same network' },
  port: { value: 'N', default: String(LATENCY_PORT), number: true, text: 'port to listen on; the library knows no other' },
  delay: { value: 'MS', default: '0', number: true, text: 'milliseconds before every answer' },
});

const colours = coloursFor(process.stdout);
const say = (text) => process.stdout.write(`${text}\n`);

const server = new LatencyServer(options);
server.on('probe', ({ connection, remote, rounds, ms }) => {
  say(`${new Date().toISOString().slice(11, 23)}  #${connection}  from ${remote}: ${rounds} rounds in ${ms} ms`);
});
server.on('difference', ({ message, connection }) => {
  say(colours.red(`          DIFFERENCE  #${connection}  ${message}`));
});

const { host, port } = await server.start().catch((error) => fail(error.message));
say(`latency server on ${host}:${port}`);

for (const signal of ['SIGINT', 'SIGTERM']) {
  process.once(signal, async () => {
    await server.stop();
    say(`${server.probes.length} probes, ${server.differences.length} differences`);
    process.exit(server.differences.length === 0 ? 0 : 1);
  });
}
