// Runs the test client against a server on 127.0.0.1 and gathers what both have seen.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { createServer } from 'node:net';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { certificate, makeKey } from './rsa-key.mjs';
import { ScriptedServer } from './scripted-server.mjs';

const kRoot = fileURLToPath(new URL('../../', import.meta.url));
export const kClient = process.env.TQREADER_TLS_CLIENT ?? `${kRoot}build/host/tests/unit/tqreader_tls_client`;

export const kAlerts = {
  close_notify: 0, unexpected_message: 10, bad_record_mac: 20, record_overflow: 22, handshake_failure: 40,
  bad_certificate: 42, unsupported_certificate: 43, illegal_parameter: 47, decode_error: 50, decrypt_error: 51,
  protocol_version: 70, internal_error: 80, no_renegotiation: 100, unsupported_extension: 110,
};

const key = makeKey(2048);
export const kDefaults = { key, chain: [certificate({ key })] };

// Takes the steps of tests/tls/client.cpp. Returns their results, each with `data` where something was read.
export async function runClient(port, steps, { command = [], timeout = 20000 } = {}) {
  const [program, ...args] = [...command, kClient, String(port), ...steps];
  const child = spawn(program, args, { stdio: ['ignore', 'pipe', 'pipe'], timeout });
  let output = '', errors = '';
  child.stdout.setEncoding('utf8').on('data', (text) => (output += text));
  child.stderr.setEncoding('utf8').on('data', (text) => (errors += text));
  const end = await new Promise((resolve, reject) => {
    child.on('error', reject).on('close', (code, signal) => resolve({ code, signal }));
  });
  assert.deepEqual(end, { code: 0, signal: null }, `end of the client: ${errors}`);
  return JSON.parse(output).map((row) => ({ ...row, data: Buffer.from(row.received, 'hex') }));
}

// One connection between the client and the scripted server. `step(name)` is the result of the last step of that name.
export async function play(plan, steps) {
  let server;
  let ran = Promise.resolve();
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

// A rule is tried from both sides, or the table is not finished.
function requireBothSides(title, rows, isRight) {
  assert.ok(rows.some(isRight), `${title}: no right case`);
  assert.ok(rows.some((row) => !isRight(row)), `${title}: no wrong case`);
}

// A table of handshakes. A row: [name, plan, what the client sends back]. A plan with a `name` has the client send it.
//   'ok'        the handshake succeeds, nothing but close_notify is sent
//   an alert    the handshake fails with this fatal alert
//   'silent'    it fails without one
export function handshakeTable(title, rows) {
  requireBothSides(title, rows, ([, , expected]) => expected === 'ok');
  test(title, async (t) => {
    for (const [name, plan, expected] of rows) {
      await t.test(name, async () => {
        const good = expected === 'ok';
        const steps = expected === 'silent' ? ['connect'] : ['connect', good ? 'shutdown' : 'close-wait'];
        if (plan.name) steps.unshift(`name=${plan.name}`);
        const { server, step } = await play(plan, steps);
        assert.equal(server.fault, undefined, 'the client keeps to the protocol');
        assert.deepEqual(server.alerts, alertsOf(expected));
        assert.equal(step('connect').result, good ? 1 : -1);
      });
    }
  });
}

const kCloseNotify = [1, kAlerts.close_notify];
const kNoRenegotiation = [1, kAlerts.no_renegotiation];

function alertsOf(expected) {
  if (expected === 'ok') return [kCloseNotify];
  if (expected === 'silent') return [];
  assert.ok(expected in kAlerts, expected);
  return [[2, kAlerts[expected]]];
}

// A table of what the server sends after the handshake. A row: [name, items, the text that the client reads, end].
//   'closed'    by close_notify on both sides
//   'refused'   the same, after one no_renegotiation
//   an alert    reading fails with this fatal alert
//   'silent'    it fails without one
export function dataTable(title, suites, rows, plan = {}) {
  const isRight = ([, , , end]) => end === 'closed' || end === 'refused';
  requireBothSides(title, rows, isRight);
  const cases = suites.flatMap((suite) => rows.map((row) => [suite, ...row]));
  test(title, async (t) => {
    for (const [suite, name, items, text, end] of cases) {
      await t.test(suites.length > 1 ? `${name}, suite ${suite}` : name, async () => {
        const good = isRight([name, items, text, end]);
        const steps = ['connect', 'read-all', 'read'];
        if (good) steps.push('shutdown');
        else if (end !== 'silent') steps.push('close-wait');
        const { server, step } = await play({ suite, ...plan, after: (s) => s.send(items) }, steps);
        assert.equal(server.fault, undefined, 'the client keeps to the protocol');
        assert.equal(step('connect').result, 1);
        assert.equal(step('read-all').data.toString('latin1'), text);
        assert.equal(step('read-all').result, good ? 0 : -1);
        assert.equal(step('read').result, good ? 0 : -1, 'the same when asked again');
        if (good) assert.equal(step('shutdown').result, 1, 'both have said close_notify');
        const expected = good ? [...(end === 'refused' ? [kNoRenegotiation] : []), kCloseNotify] : alertsOf(end);
        assert.deepEqual(server.alerts, expected);
      });
    }
  });
}
