// The location request by the library's exported calls, which the application's function does not show: log levels, room
// for the answer, memory. What the request says is looked for on heap and stack by the client program.

import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { loadKeys } from '../../simulator/lib/keys.mjs';
import { LocationServer } from '../../simulator/lib/location-server.mjs';
import { runClient, table } from './rig.mjs';

const keys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).location;
const expected = { appid: 'qwertyuiopasdfghjklz', manufacturer: '0123456789', model: 'ABCDEFGHIJKLMNOPQRSTUVWXYZ', times: ['1357924680135'] };
const server = new LocationServer({ keys, expected, location: 77 });
const { port } = await server.start();
after(() => server.stop());

const kShown = [/^Send SR: 93007093000001001CA110(..){101}$/, /^Recv SR: 93001C930{10}08AA(..){17}$/];
// [name, steps, the last step's result, lines of the dump]
table('a location request', [
  ...[0, 1, 2].map((level) => [`log level ${level}`, [`ask=${level}`], 77, level === 2 ? kShown : []]),
  ['an answer in the place of the request', ['exchange=128'], 28, kShown],
  ['room for a part of the answer', ['exchange=5'], 5, [kShown[0], /^Recv SR: 93001C9300$/]],
  ['room for nothing', ['exchange=0'], 0, [kShown[0], /^Recv SR: $/]],
], async (_name, steps, result, lines) => {
  const rows = await runClient(port, steps);
  assert.equal(rows.at(-1).result, result);
  assert.equal(rows.dumps.length, lines.length);
  lines.forEach((line, i) => assert.match(rows.dumps[i], line));
  assert.deepEqual(server.differences, []);
}, { concurrency: 1 });

test('30 seconds are the limit of a location request, by a clock that is ten times as fast', async () => {
  const endless = new LocationServer({ keys, rules: [{ on: 'request', do: 'endless', everyMs: 100 }] });
  const [, asked] = await runClient((await endless.start()).port, ['pace=10', 'ask=0']);
  await endless.stop();
  assert.equal(asked.result, -22003);
  assert.ok(asked.ms > 2900 && asked.ms < 25000, `took ${asked.ms} ms`);
});

test('a location request without memory', async () => {
  const results = [];
  while (results.at(-1) !== 77) results.push((await runClient(port, [`no-memory=${results.length + 1}`, 'ask=0'])).at(-1).result);
  assert.deepEqual(results, [-33005, ...Array(results.length - 2).fill(-22003), 77]);
  assert.ok(results.length > 5, `${results.length} blocks`);
});
