// Runs the test client against a server on 127.0.0.1 and gathers what both have seen.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { createServer } from 'node:net';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { certificate, makeKey } from './certificates.mjs';
import { ScriptedServer } from './scripted-server.mjs';

export const kClient = process.env.TQREADER_TLS_CLIENT ??
  fileURLToPath(new URL('../../build/host/tests/unit/tqreader_tls_client', import.meta.url));
export const kAlerts = {
  close_notify: 0, unexpected_message: 10, bad_record_mac: 20, record_overflow: 22, handshake_failure: 40,
  bad_certificate: 42, unsupported_certificate: 43, illegal_parameter: 47, decode_error: 50, decrypt_error: 51,
  protocol_version: 70, internal_error: 80, no_renegotiation: 100, unsupported_extension: 110,
};
const key = makeKey(1024);
export const kDefaults = { key, chain: [certificate({ key })] };

// Takes the steps of tests/tls/client.cpp. Returns their results, each with `data` where something was read; and `dumps`,
// the bytes that the library has shown.
export async function runClient(port, steps) {
  const child = spawn(kClient, [String(port), ...steps], { stdio: ['ignore', 'pipe', 'pipe'], timeout: 60000 });
  let output = '', errors = '';
  child.stdout.setEncoding('utf8').on('data', (text) => (output += text));
  child.stderr.setEncoding('utf8').on('data', (text) => (errors += text));
  const end = await new Promise((resolve, reject) => {
    child.on('error', reject).on('close', (code, signal) => resolve({ code, signal }));
  });
  assert.deepEqual(end, { code: 0, signal: null }, `end of the client: ${errors}`);
  const kDump = /(?:Send|Recv) SR: \w*(?=\n)/g;
  const rows = JSON.parse(output.replace(kDump, '')).map((row) => ({ ...row, data: Buffer.from(row.received, 'hex') }));
  return Object.assign(rows, { dumps: output.match(kDump) ?? [] });
}

// One connection between the client and the scripted server. `step(name)` is the result of the last step of that name.
export async function play(plan, steps) {
  let server, ran;
  const listener = createServer((socket) => {
    server = new ScriptedServer(socket, { ...kDefaults, ...plan });
    ran = server.run();
  });
  await new Promise((resolve) => listener.listen(0, '127.0.0.1', resolve));
  try {
    const rows = await runClient(listener.address().port, steps).finally(() => server && (server.clientEnded = true));
    await ran;
    return { rows, server, step: (name) => rows.findLast((row) => row.step === name) };
  } finally {
    server?.socket.destroy();
    listener.close();
  }
}

// The rows of a table, a few at a time, since each mostly waits for the other side.
export function table(title, rows, run, { concurrency = 4 } = {}) {
  test(title, { concurrency }, (t) => Promise.all(rows.map((row) => t.test(row[0], () => run(...row)))));
}

const alertsOf = (end, good) => (good ? [[1, kAlerts.close_notify]] : end === 'silent' ? [] : [[2, kAlerts[end]]]);

// Handshakes. A row: [name, plan, what the client sends back]. A plan with a `name` has the client send it.
//   'ok'        the handshake succeeds, nothing but close_notify is sent
//   an alert    the handshake fails with this fatal alert
//   'silent'    it fails without one
export function handshakeTable(title, rows) {
  assert.ok(rows.some((row) => row[2] === 'ok') && rows.some((row) => row[2] !== 'ok'), `${title}: right and wrong cases`);
  table(title, rows, async (_name, plan, end) => {
    const good = end === 'ok';
    const steps = [...(plan.name ? [`name=${plan.name}`] : []), 'connect', ...(good ? ['shutdown'] : end === 'silent' ? [] : ['close-wait'])];
    const { server, step } = await play(plan, steps);
    assert.equal(server.fault, undefined, 'the client keeps to the protocol');
    assert.deepEqual(server.alerts, alertsOf(end, good));
    assert.equal(step('connect').result, good ? 1 : -1);
  });
}

// What the server sends after the handshake. A row: [name, items, the text that the client reads, end].
//   'closed'    by close_notify on both sides
//   'refused'   the same, after one no_renegotiation
//   an alert    reading fails with this fatal alert
//   'silent'    it fails without one
export function dataTable(title, suites, rows, plan = {}) {
  const isGood = (row) => ['closed', 'refused'].includes(row[3]);
  assert.ok(rows.some(isGood) && !rows.every(isGood), `${title}: right and wrong cases`);
  const cases = suites.flatMap((suite) => rows.map(([name, ...row]) => [`${name}, suite ${suite}`, suite, ...row]));
  table(title, cases, async (_name, suite, items, text, end) => {
    const good = end === 'closed' || end === 'refused';
    const last = good ? ['shutdown'] : end === 'silent' ? [] : ['close-wait'];
    const { server, step } = await play({ suite, ...plan, after: (s) => s.send(items) }, ['connect', 'read-all', 'read', ...last]);
    assert.equal(server.fault, undefined, 'the client keeps to the protocol');
    assert.equal(step('connect').result, 1);
    assert.equal(step('read-all').data.toString('latin1'), text);
    assert.deepEqual([step('read-all').result, step('read').result], good ? [0, 0] : [-1, -1], 'the same when asked again');
    if (good) assert.equal(step('shutdown').result, 1, 'both have said close_notify');
    assert.deepEqual(server.alerts, [...(end === 'refused' ? [[1, kAlerts.no_renegotiation]] : []), ...alertsOf(end, good)]);
  });
}
