// The simulated latency server against a plain socket.

import assert from 'node:assert/strict';
import { once } from 'node:events';
import { connect } from 'node:net';
import { after, test } from 'node:test';
import { LatencyServer } from '../../simulator/lib/latency-server.mjs';

const servers = [];
after(() => Promise.all(servers.map((server) => server.stop())));

/** Writes the pieces, each after an answer to the one before; gives the answers and what the server noted. */
async function probe(rules, pieces, { wait = true } = {}) {
  const server = new LatencyServer({ port: 0, rules });
  servers.push(server);
  const { host, port } = await server.start();
  const ended = once(server, 'probe'); // perhaps before the client is done
  const socket = connect(port, host);
  socket.setNoDelay(true);
  socket.on('error', () => {});
  const answers = [];
  for (const piece of pieces) {
    socket.write(piece);
    if (!wait) continue;
    const data = await new Promise((resolve) => {
      socket.once('data', (bytes) => resolve(bytes.toString()));
      socket.once('close', () => resolve(null));
    });
    if (data === null) break;
    answers.push(data);
  }
  socket.end();
  const [{ rounds }] = await ended;
  return { answers, rounds, differences: server.differences.map(({ message }) => message) };
}

const kGreeting = 'HELLWORD';
const good = (count) => Array.from({ length: count }, () => kGreeting);

test('greetings are answered, and anything else is a difference', async () => {
  assert.deepEqual(await probe([], good(5)), { answers: good(5), rounds: 5, differences: [] });
  assert.match((await probe([], good(6))).differences[0], /number of rounds is 6/);
  assert.match((await probe([], ['HELLOWORLD'])).differences[0], /text is 48454C4C4F574F524C44, expected 48454C4C574F5244/);
  assert.match((await probe([], ['HELLWORDH'])).differences[0], /expected 48454C4C574F5244/);
  assert.match((await probe([], ['HELL'], { wait: false })).differences[0], /end is 48454C4C, expected nothing more/);
});

test('misbehaviour', async () => {
  const rows = [
    [[{ on: 'greeting', nth: 2, do: 'answer', bytes: '21' }], [kGreeting, '!', kGreeting], 3],
    [[{ on: 'greeting', nth: 2, do: 'close' }], [kGreeting], 2],
    [[{ on: 'greeting', nth: 2, do: 'reset' }], [kGreeting], 2],
    [[{ on: 'connect', do: 'close' }], [], 0],
  ];
  for (const [rules, answers, rounds] of rows) assert.deepEqual(await probe(rules, good(3)), { answers, rounds, differences: [] });
  assert.throws(() => new LatencyServer({ rules: [{ on: 'greeting', do: 'nothing' }] }), /no such action/);
});
