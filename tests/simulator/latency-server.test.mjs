// The simulated latency server against a plain socket.

import assert from 'node:assert/strict';
import { once } from 'node:events';
import { connect } from 'node:net';
import { test } from 'node:test';
import { LatencyServer } from '../../simulator/lib/latency-server.mjs';

/** Writes the pieces, each after an answer to the one before; gives the answers, and what the server noted. */
async function probe(rules, pieces, wait) {
  const server = new LatencyServer({ port: 0, rules });
  const { host, port } = await server.start();
  const ended = once(server, 'probe'); // perhaps before the client is done
  const socket = connect(port, host).setNoDelay(true).on('error', () => {});
  const answers = [];
  for (const piece of pieces) {
    socket.write(piece);
    const data = wait && await new Promise((resolve) => {
      socket.once('data', (bytes) => resolve(bytes.toString())).once('close', () => resolve(null));
    });
    if (data) answers.push(data);
    if (data === null) break;
  }
  socket.end();
  const [{ rounds }] = await ended;
  await server.stop();
  return [answers, rounds, server.differences.map(({ message }) => message).join()];
}

const kGreeting = 'HELLWORD';
const good = (count) => Array(count).fill(kGreeting);

/** Rules, what is sent, the answers, rounds, and what is said. */
const kProbes = [
  [[], good(5), good(5), 5, /^$/], [[], good(6), undefined, undefined, /number of rounds is 6/], [[], ['HELLWORDH'], undefined, undefined, /expected 48454C4C574F5244/],
  [[], ['HELLOWORLD'], undefined, undefined, /text is 48454C4C4F574F524C44, expected/], [[], ['HELL'], undefined, undefined, /end is 48454C4C, expected nothing more/, false],
  [[{ on: 'greeting', nth: 2, do: 'answer', bytes: '21' }], good(3), [kGreeting, '!', kGreeting], 3, /^$/],
  ...['close', 'reset'].map((action) => [[{ on: 'greeting', nth: 2, do: action }], good(3), good(1), 2, /^$/]), [[{ on: 'connect', do: 'close' }], good(3), [], 0, /^$/],
];
test('greetings are answered, anything else is a difference, and misbehaviour', async () => {
  for (const [rules, pieces, answers, rounds, says, wait = true] of kProbes) {
    const [got, took, said] = await probe(rules, pieces, wait);
    assert.match(said, says);
    if (answers) assert.deepEqual([got, took], [answers, rounds]);
  }
  assert.throws(() => new LatencyServer({ rules: [{ on: 'greeting', do: 'nothing' }] }), /no such action/);
});
