// What the three kinds of log tell: the same reads through a library of each kind.

import assert from 'node:assert/strict';
import { readdirSync, readFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { test } from 'node:test';
import { SPECIMEN_PERSON } from '../../simulator/lib/persona.mjs';
import { HOLDER } from '../../simulator/lib/passport/specimen.mjs';
import { Process } from '../e2e/support.mjs';
import { kLibrary, kSources } from './library.mjs';

const libraryOf = (log) => (log === 'full' ? kLibrary : join(dirname(kLibrary), `log-${log}`, 'libtqreader.so'));
const kReads = [{}, { passport: true }];
const kWorker = /^(时间函数回调1|获取到的时间戳[ABC]|C端准备发送)/; // lines of another thread than the rest
const kPersonal = /^(sn|idNumber|birthday|expiryDate|C端准备发送的读卡数据|调用(?:读卡|监控数|返回结果)安全函数|(?:获取到的时间戳|调用时间戳安全函数).): .*/;

/** The read's own record of it, and the lines on standard error and standard output. */
async function readWith(log, setting) {
  process.env.TQREADER_LIBRARY = libraryOf(log);
  const child = new Process();
  const seen = await child.call('logged', setting);
  await child.end({ keep: true });
  const [lines, dumps] = ['err', 'out'].map((name) => child.text(name).split('\n').slice(0, -1));
  child.discard();
  return { seen, lines, dumps };
}

const sorted = (lines) => [lines.filter((line) => kWorker.test(line)), lines.filter((line) => !kWorker.test(line))];
const masked = (line) => line.replace(/^port: .*/, 'port').replace(kPersonal, '$1: <private>').replace(/data:.*/, 'data:<private>');

/** What nobody is to learn: names, numbers and dates, what card and library said to each other. */
function personalOf({ info = {}, steps }) {
  const texts = [...JSON.stringify([SPECIMEN_PERSON, HOLDER, info]).matchAll(/"([^"]{4,})"(?!:)/g)].map(([, text]) => text);
  const bytes = steps.flatMap(({ command, answer }) => [command, answer.slice(0, -4)]).filter((text) => text.length > 8);
  return [...texts, ...bytes, 'SPEC01234', '900101', '341231', 'SIMULATED-DEVICE'];
}

for (const setting of kReads) {
  test(`a private log of ${setting.passport ? 'a passport' : 'an identity card'} has the same lines and nothing personal`, async () => {
    const full = await readWith('full', setting);
    const { seen, lines, dumps } = await readWith('private', setting);
    assert.deepEqual(sorted(lines.map((line) => line.replace(/^port: .*/, 'port'))), sorted(full.lines.map(masked)));
    assert.ok(full.dumps.length > 30);
    const text = lines.join('\n');
    assert.deepEqual([dumps, personalOf(seen).filter((value) => text.includes(value))], [[], []]);
    assert.doesNotMatch(text, /\d{10}/, 'a time');
    const wanted = personalOf(full.seen);
    assert.ok(wanted.filter((value) => full.lines.join('\n').includes(value)).length > wanted.length / 2, 'they would be found');
  });
}

test('without a log there is no line and no text of one', async () => {
  for (const setting of kReads) {
    const { seen, lines, dumps } = await readWith('off', setting);
    assert.deepEqual([seen.results.length, lines, dumps], [1, [], []]);
  }
  const sources = readdirSync(`${kSources}/binding`).filter((name) => name.endsWith('.cpp')).map((name) => `binding/${name}`);
  const texts = [...sources, 'util/diagnostics.cpp'].map((name) => readFileSync(`${kSources}/${name}`, 'utf8')).join('\n');
  const labels = [...texts.matchAll(/TQ_LOG\(\s*"([^"%]+)|"(\S+ ?\S*: )"/g)].map(([, line, dump]) => line ?? dump);
  assert.ok(labels.length > 40 && labels.includes('---cmd: '), `${labels.length}`);
  const missingIn = (log) => labels.filter((label) => !readFileSync(libraryOf(log)).includes(label));
  assert.deepEqual([missingIn('full'), missingIn('off').length], [[], labels.length]);
});
