// The two small services as an application calls them: getDeviceNFCLocation against the location server, getTimeDelay
// against the latency server. Both servers run here; the calls block the process under test.

import assert from 'node:assert/strict';
import { randomInt } from 'node:crypto';
import { once } from 'node:events';
import { after, describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { loadKeys } from '../../simulator/lib/keys.mjs';
import { LATENCY_PORT, LatencyServer } from '../../simulator/lib/latency-server.mjs';
import { LocationServer } from '../../simulator/lib/location-server.mjs';
import { MALFORMED } from '../../simulator/lib/location-server/misbehaviour.mjs';
import { alone, check, Process, SANITIZED } from './support.mjs';

const kKeys = loadKeys(fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url))).location;
const kStep = 5000; // ms, for connecting and for each wait
const kPrompt = SANITIZED ? 10_000 : 4500; // ms, for a call that waits for nothing
const kIdleCpu = SANITIZED ? 1000 : 50; // ms while nothing happens

const running = [];
after(() => Promise.all(running.map((server) => server.stop())));

async function start(server) {
  running.push(server);
  const { host, port } = await server.start();
  return { server, host, port };
}
const startLocation = (config) => start(new LocationServer({ keys: kKeys, ...config }));
/** Any address of this machine: the one port that is probed may be taken on the usual one. */
const loopbackAddress = () => `127.${[randomInt(1, 255), randomInt(0, 255), randomInt(1, 255)].join('.')}`;
const startLatency = (rules = []) => start(new LatencyServer({ host: loopbackAddress(), port: LATENCY_PORT, rules }));

const kUsual = { appid: 'SIMULATEDREADER00001', envIdCode: 268, host: '127.0.0.1', manufacturer: 'SPECIMEN', model: 'Phone 1' };
const argumentsOf = ({ appid, envIdCode, host, port, manufacturer, model }) => [appid, envIdCode, host, port, manufacturer, model];
const on = (what, action, more) => ({ rules: [{ on: what, do: action, ...more }] });
const malformed = (kind, more) => on('request', 'malformed', { kind, ...more });
const kind = (name) => ({ kind: name });
const kRefused = -20003;
const kFailed = -20004;

const kTests = []; // each with processes and servers of its own, so that they may run at the same time
const parallel = (name, run) => kTests.push([name, run]);

// --- waiting: real limits, all at once and before everything else ---------------------------------------------------------

const kSilent = {
  'location: silent from the start': async () => ({ wanted: -22003, location: await startLocation(on('connect', 'silence')) }),
  'location: silent after the request': async () => ({ wanted: -22003, location: await startLocation(on('request', 'silence')) }),
  'delay: silent': async () => ({ wanted: kFailed, delay: await startLatency([{ on: 'greeting', nth: 2, do: 'silence' }]) }),
};
for (const [name, begin] of Object.entries(kSilent)) {
  parallel(name, async () => {
    const { wanted, location, delay } = await begin();
    const child = new Process();
    const { value, ms, cpuMs } = await child.call('ask', location ? { location: argumentsOf({ ...kUsual, port: location.port }) } : { delay: [3, delay.host] });
    assert.equal(value, wanted);
    assert.ok(ms >= kStep - 20 && ms < 3 * kStep, `took ${ms} ms`);
    assert.ok(cpuMs < kIdleCpu, `${cpuMs} ms of processor time`);
    assert.deepEqual((await child.call('ask', { delay: [1, ''] })).value, kFailed, 'it goes on');
    await child.end();
  });
}

// --- getDeviceNFCLocation ----------------------------------------------------------------------------------------------

/** A row: given (arguments that are not as usual), first (only so many are given), clock (a row of kClocks), seventh (what
 *  stands in place of a time function), server (its settings); then
 *  value (3), sent (what the request says and is not as given), time (its time text), asked (how many requests came, 1). */
const kGood = [
  { name: 'as usual' },
  ...[0, 1, 255].map((location) => ({ name: `location ${location}`, server: { location }, value: location })),
  ...[268, 52302, 26814].map((envIdCode) => ({ name: `environment ${envIdCode}`, given: { envIdCode }, server: { envIdCode } })),
  { name: 'appid of 7 characters', given: { appid: 'ABCDEFG' }, sent: { appid: 'ABCDEFG0000000000000' } },
  { name: 'appid of 7 bytes', given: { appid: '样本A' }, sent: { appid: '样本A0000000000000' } },
  { name: 'appid up to a NUL', given: { appid: 'ABCDEFG\0HIJ' }, sent: { appid: 'ABCDEFG0000000000000' } },
  { name: 'names of 64 characters', given: { manufacturer: 'm'.repeat(64), model: 'M'.repeat(64) } },
  { name: 'names in Chinese', given: { manufacturer: '样本厂', model: '样'.repeat(21) } },
  { name: 'empty names', given: { manufacturer: '', model: '' } },
  { name: 'names that are no texts', given: { manufacturer: kind('object'), model: kind('undefined') }, sent: { manufacturer: '', model: '' } },
  { name: 'server by name', given: { host: 'localhost' } },
  { name: 'environment with a fraction', given: { envIdCode: 268.9 } },
  ...[['standing', '1700000000000'], ['zero', '0'], ['negative', '-5'], ['fraction', '1234'], ['fourteen', '1700000000000'],
    ...['infinite', 'nan', 'undefined', 'null', 'true', 'object', 'bigint', 'symbol', 'text', 'promise', 'throws', 'noFunction']
      .map((clock) => [clock, '0'])].map(([clock, time]) => ({ name: `time function: ${clock}`, clock, time })),
  { name: 'a time function that asks, too', clock: 'nested', time: '3', asked: 2 },
  { name: 'AES128-SHA', server: { ciphers: 'AES128-SHA:@SECLEVEL=0' } },
  ...[1, 16].map((size) => ({ name: `chunks of ${size}`, server: { chunks: { size } } })),
  ...[true, false].map((upperCase) => ({ name: `chunks of 1A or 1a characters: ${upperCase}`, server: { chunks: { size: 26, upperCase } } })),
  { name: 'chunk sizes with 0x', server: { chunks: { prefix: '0x', size: 30 } } },
  { name: 'chunk extensions', server: { chunks: { extension: ';a="b"' } } },
  { name: 'a response byte by byte', server: on('request', 'pieces', { size: 1 }) },
  { name: 'something behind the end', server: { rules: [{ on: 'request', do: 'extra' }, { on: 'request', do: 'hangup' }] } },
  { name: 'a hang-up behind the answer', server: on('request', 'hangup') },
  ...['', 's'.repeat(63)].map((text) => ({ name: `session id of ${text.length} characters`, server: { sessionId: text } })),
  { name: 'a slow server', server: { delay: 700 } },
  { name: 'a slow handshake', server: on('connect', 'delay', { ms: 300 }) },
];

const kMistakes = [
  ...[['8 characters', 'ABCDEFGH'], ['19 characters', 'A'.repeat(19)], ['21 characters', 'A'.repeat(21)], ['nothing', ''],
    ['too much', 'A'.repeat(3000)], ['7 Chinese characters', '样'.repeat(7)], ['no text', 5]].map(
    ([name, appid]) => ({ name: `appid: ${name}`, given: { appid }, value: -13003 })),
  { name: 'everything is wrong', given: { appid: '', envIdCode: 1, port: -1, model: 'x'.repeat(65) }, value: -13003 },
  ...[0, 1, -268, 269, '268', kind('undefined')].map((envIdCode) => (
    { name: `environment ${JSON.stringify(envIdCode)}`, given: { envIdCode }, value: -13009 })),
  ...[65536, -1, 2 ** 31].map((port) => ({ name: `port ${port}`, given: { port }, value: -13009 })),
  ...['manufacturer', 'model'].flatMap((name) => ['x'.repeat(65), '样'.repeat(22), 'x'.repeat(2000)].map((text) => (
    { name: `${name} of ${text.length} characters`, given: { [name]: text }, value: -13009 }))),
  ...['undefined', 'null', 'nan', 'true', 'bigint'].map((clock) => ({ name: `time function: ${clock}`, seventh: kind(clock), value: 0 })),
  ...[0, 1, 3, 6].map((first) => ({ name: `only ${first} arguments`, first, value: 0 })),
  { name: 'no time function, and the appid is wrong', given: { appid: '' }, first: 6, value: 0 },
].map((row) => ({ ...row, asked: 0 }));

const kNoServer = [
  ...['', '::1', 'no-such-host.invalid', '127.0.0.1 ', '300.1.1.1', 'h'.repeat(200), '127.0.0.1\r\nX: y'].map((host) => (
    { name: `server ${JSON.stringify(host)}`, given: { host }, value: -22003, asked: 0 })),
  { name: 'nobody listens', given: { host: '127.1.2.3' }, value: -22003, asked: 0 },
  { name: 'port 0', given: { port: 0 }, value: -22003, asked: 0 },
  { name: 'port as a text', given: { port: '443' }, value: -22003, asked: 0 },
  ...['close', 'reset', 'plainText'].map((action) => (
    { name: `before the handshake: ${action}`, server: on('connect', action), value: -22003, asked: 0 })),
  { name: 'none of the four suites', server: { ciphers: 'ECDHE-RSA-AES128-GCM-SHA256' }, value: -22003, asked: 0 },
];

const kSpoiledAnswer = ['header', 'frameLength', 'command', 'parameterSmall', 'typeByte', 'checksum', 'emptyPayload', 'payloadLength',
  'plainChecksum', 'nothingInside', 'badPadding', 'emptyData'];
const kSpoiledExchange = ['noData', 'noSessionId', 'otherName', 'blankBeforeValue', 'numberForData', 'noBraces', 'notJson', 'blankBehind',
  'longBody', 'noChunks', 'noEnd', 'noLineEnd', 'sizeTooSmall', 'sizeTooLarge', 'sizeHuge', 'sizeLineEndless', 'endInside', 'headEndsWithZero',
  'empty', 'onlyNul', 'cut', 'oversize'];
const kBadAnswers = [
  ...[['001301', -1301], ['000007', -7], ['000002', -2], ['999999', -999999], ['F01301', -1301], ['12AB34', -12], ['000001', -35006],
    ['FFFF01', -35006], ['FFFFFF', -35006], ['A00000', -35006]].map(([status, value]) => (
    { name: `status ${status}`, server: on('request', 'status', { status }), value })),
  ...kSpoiledAnswer.map((name) => ({ name, server: malformed(name), value: -35006 })),
  { name: 'padding 0', server: malformed('badPadding', { value: 0 }), value: -35006 },
  { name: 'payload of 15 bytes', server: malformed('payloadLength', { value: 15 }), value: -35006 },
  ...kSpoiledExchange.map((name) => ({ name, server: malformed(name), value: -22003 })),
  ...[1, 20, 150].map((at) => ({ name: `cut after ${at}`, server: malformed('cut', { at }), value: -22003 })),
  { name: 'session id of 64 characters', server: { sessionId: 's'.repeat(64) }, value: -22003 },
  ...['close', 'reset'].map((action) => ({ name: `instead of an answer: ${action}`, server: on('request', action), value: -22003 })),
];

parallel('every malformed answer that the server knows is here', () => {
  assert.deepEqual([...kSpoiledAnswer, ...kSpoiledExchange].sort(), Object.keys(MALFORMED).sort());
});

const timeText = (text) => text.padEnd(13, '\0');
const kDefaults = { rules: [], location: 3, envIdCode: 268, sessionId: 'SIMULATED-SESSION-0001', chunks: {}, ciphers: 'AES128-SHA256', delay: 0 };

async function askLocation(child, { server, port }, row) {
  const { given = {}, server: settings, first, seventh, clock = 'usual', value = 3, sent, time, asked = 1 } = row;
  const arguments_ = { ...kUsual, port, ...given };
  const expected = { ...arguments_, type: 2, ...sent };
  server.update({ ...kDefaults, ...settings, expected: { ...expected, times: time && [timeText(time), '1700000000000'] } });
  server.clear();
  const location = [...argumentsOf(arguments_), ...(seventh ? [seventh] : [])].slice(0, first);
  const answer = await child.call('ask', { location, clock: seventh || first !== undefined ? 'none' : clock });
  const differences = server.differences.map(({ message }) => message);
  assert.deepEqual({ value: answer.value, differences, asked: server.exchanges.length }, { value, differences: [], asked });
  if (value === 0 ? asked === 0 : value > -14000 && value <= -13000) assert.deepEqual(answer.times, [], 'refused before the clock is read');
  if (asked > 0 && !time) assert.equal(server.exchanges.at(-1).fields.time, String(answer.times.at(-1)));
  if (arguments_.host === kUsual.host) assert.ok(answer.ms < kPrompt, `took ${answer.ms} ms`); // a resolver may take its time
}

const kTables = { 'good answers': kGood, 'argument mistakes': kMistakes, 'no server': kNoServer, 'bad answers': kBadAnswers };
for (const [title, rows] of Object.entries(kTables)) {
  parallel(`location: ${title}`, async (t) => {
    const location = await startLocation();
    const child = new Process();
    await askLocation(child, location, {});
    const before = await child.call('numbers');
    for (const row of rows) await t.test(row.name, () => askLocation(child, location, row));
    await t.test('a good call afterwards', () => askLocation(child, location, {}));
    assert.deepEqual(await child.call('numbers'), before, 'descriptors and threads');
    await child.end();
  });
}

// --- getTimeDelay ------------------------------------------------------------------------------------------------------

const kProbes = [
  ...[[1, 1], [2, 2], [5, 5], [0, 5], [6, 5], [-1, 5], [2 ** 31 - 1, 5], ['3', 5], [3.9, 3], [kind('undefined'), 5]].map(([count, rounds]) => (
    { name: `count ${JSON.stringify(count)}`, count, rounds, from: 0 })),
  { name: 'a server that takes 60 ms', count: 2, rules: [{ on: 'greeting', do: 'delay', ms: 60 }], rounds: 2, from: 59 },
  { name: 'the average of 0, 0 and 90 ms', count: 3, rules: [{ on: 'greeting', nth: 3, do: 'delay', ms: 90 }], rounds: 3, from: 29 },
  ...['00', '55'.repeat(128)].map((bytes) => ({ name: `an answer of ${bytes.length / 2} bytes`, count: 2,
    rules: [{ on: 'greeting', do: 'answer', bytes }], rounds: 2, from: 0 })),
  { name: 'an end counts as an answer', count: 1, rules: [{ on: 'greeting', do: 'close' }], rounds: 1, from: 0 },
  { name: 'a reset', count: 5, rules: [{ on: 'greeting', nth: 3, do: 'reset' }], rounds: 3, value: kFailed },
  { name: 'nobody listens', count: 1, ip: loopbackAddress, value: kRefused },
  ...['', '::1', 'no-such-host.invalid', '300.1.1.1', 'h'.repeat(1100), kind('undefined'), 5].map((ip) => (
    { name: `server ${JSON.stringify(ip)}`, count: 1, ip: () => ip, value: kFailed })),
  { name: 'no arguments', args: [], value: kFailed },
];

parallel('delay: rounds, averages and failures', async (t) => {
  const { server, host } = await startLatency();
  const child = new Process();
  await child.call('ask', { delay: [1, host] });
  const before = await child.call('numbers');
  for (const { name, count, rules = [], ip = () => host, args = [count, ip()], rounds, value, from } of kProbes) {
    await t.test(name, async () => {
      server.setRules(rules);
      server.probes.length = 0;
      const answer = await child.call('ask', { delay: args });
      if (value !== undefined) assert.equal(answer.value, value);
      else assert.ok(answer.value >= from && answer.value * rounds <= answer.ms + rounds, `${answer.value} ms of ${answer.ms}`);
      if (value !== kFailed) assert.ok(answer.ms < kPrompt, `took ${answer.ms} ms`);
      if (rounds !== undefined && server.probes.length === 0) await new Promise((resolve) => { server.once('probe', resolve); });
      assert.deepEqual(server.probes.map((probe) => probe.rounds), rounds === undefined ? [] : [rounds]);
      assert.deepEqual(server.differences, []);
    });
  }
  assert.deepEqual(await child.call('numbers'), before, 'descriptors and threads');
  await child.end();
});

parallel('arguments of any kind and number', async () => {
  const { port } = await startLocation();
  const child = new Process();
  assert.deepEqual(await child.call('oddServiceArguments', { location: argumentsOf({ ...kUsual, port }) }), []);
  await child.end();
});

// --- log lines ---------------------------------------------------------------------------------------------------------

parallel('the log lines of both', async () => {
  const { port } = await startLocation({ location: 255 });
  const latency = await startLatency();
  const child = new Process();
  const rows = [argumentsOf({ ...kUsual, port }), argumentsOf({ ...kUsual, port: -7, appid: 'ABCDEFGH', envIdCode: -1, model: '样本' })];
  for (const location of rows) await child.call('ask', { location, clock: 'standing' });
  await child.call('ask', { location: [], clock: 'none' });
  await child.call('ask', { delay: [-3, latency.host] });
  await child.end({ keep: true });
  const told = ([appid = '', envCode = 0, ip = '', location = 0, manufacture = '', marketName = '']) => [`获取设备NFC位置appid: ${appid}`,
    `获取设备NFC位置envCode: ${envCode}`, `获取设备NFC位置ip: ${ip}`, `获取设备NFC位置port: ${location}`,
    `获取设备NFC位置manufacture: ${manufacture}`, `获取设备NFC位置marketName: ${marketName}`];
  const lines = child.text('err').split(/^-{20}/m)[0].trimEnd().split('\n'); // a sanitizer may add its summary
  const status = lines.at(-3).at(-1);
  assert.match(status, /[12]/, 'invalid argument, or object expected: hosts differ');
  assert.deepEqual(lines, [
    ...told(rows[0]), '获取设备NFC位置获取到时间: 1700000000000', '获取设备NFC位置信息: 255',
    ...told(rows[1]),
    ...told([]), `获取设备NFC位置获取时间函数失败: ${status}`,
    '获取时延次数: -3', `获取时延ip: ${latency.host}`,
  ]);
  assert.equal(child.text('out'), '', 'nothing is dumped');
  child.discard();
});

// --- threads and reads -------------------------------------------------------------------------------------------------

parallel('threads that ask at the same time each get their own answers', async () => {
  const rounds = SANITIZED ? 5 : 10;
  const servers = await Promise.all([11, 22, 33].map((location) => startLocation({ location, expected: { model: `Phone ${location}`, type: 2 } })));
  const asking = servers.map(({ server, port }) => argumentsOf({ ...kUsual, port, model: `Phone ${server.config.location}` }));
  assert.deepEqual(await alone('askInThreads', { asking, rounds }), servers.map(({ server }) => Array(rounds).fill(server.config.location)));
  for (const { server } of servers) {
    assert.deepEqual(server.differences, []);
    assert.equal(server.exchanges.length, rounds);
  }
});

// How a thread or its process ends while it asks; nothing waits for the server then.
for (const [how, before] of [['inside its time function', 0], ['terminate', kStep], ['process.exit', kStep]]) {
  parallel(`a thread that ends: ${how}`, async () => {
    const location = await startLocation(how.startsWith('inside') ? {} : on('request', 'silence'));
    const child = new Process({ leaks: false });
    const ending = child.call('endAskingThread', { location: argumentsOf({ ...kUsual, port: location.port }), how });
    if (how === 'process.exit') {
      const asked = once(location.server, 'connection').then(() => performance.now());
      await assert.rejects(ending, /the process ended with 7/);
      assert.ok(performance.now() - await asked < kPrompt);
      return child.discard();
    }
    const ms = await ending;
    assert.ok(before === 0 || ms < kPrompt, `took ${ms} ms`);
    if (before === 0) await askLocation(child, location, {});
    await child.end();
  });
}

parallel('calls in the middle of a card read', async () => {
  const { server, port } = await startLocation({ expected: { type: 2 } });
  const { host } = await startLatency();
  const before = [0, 3, 6, 8, 12];
  const location = argumentsOf({ ...kUsual, port });
  const { values, ...outcome } = await alone('askDuringRead', { location, delay: [2, host], before });
  check(outcome, {});
  const expected = values.map((_value, i) => (i % 2 === 0 ? 3 : true));
  assert.deepEqual(values, expected);
  assert.ok(values.length >= 2 * before.length, `${values.length} answers`);
  assert.deepEqual(server.differences, []);
});

describe('services', { concurrency: 6 }, () => kTests.forEach(([name, run]) => test(name, run)));
