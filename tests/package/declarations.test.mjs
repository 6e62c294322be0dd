// The declarations are those of the built module: names, order, number and order of the arguments, what is returned, and the
// codes.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { test } from 'node:test';
import { READER_CODES, RESULT_CODES, ReaderCode, ResultCode, TqError, describeCode } from '../../simulator/lib/package.mjs';
import { kLibrary } from '../library/library.mjs';
import { declaredCodes, declaredFunctions, kRoot } from './declarations.mjs';

const functions = declaredFunctions();

/** Runs a text as a program that has the module as `tq`; gives what it tells with `tell` and what the library has logged. */
function run(text) {
  const program = `const module = { exports: {} }; process.dlopen(module, process.argv[1]); const tq = module.exports;
    const tell = (value) => require('fs').writeSync(3, JSON.stringify(value)); ${text}`;
  const { status, stderr, output } = spawnSync(process.execPath, ['-e', program, kLibrary], { encoding: 'utf8', stdio: ['ignore', 'ignore', 'pipe', 'pipe'] });
  assert.equal(status, 0, stderr);
  return { told: JSON.parse(output[3]), log: stderr };
}

/** Arguments that tell themselves from each other in the log; where only some values are taken, those. */
const kFits = {
  initSdk: { appid: 'DECLARATIONS00000001', decodeMode: 0, readMode: 2, envIdCode: 26814, terId: 0x5a, port: 4711, reqidType: 1, ip: '127.61.2.3' },
  getTimeDelay: { count: 1, ip: '127.62.2.3' },
  getDeviceNFCLocation: { appid: 'DECLARATIONS00000002', envCode: 52302, ip: '127.63.2.3', port: 9 },
  idCardHandler: { data: 'AB12CD', status: -1 }, passportHandler: { data: 'AB34CD', status: -1 },
};
const kUnlogged = { initSdk: ['decodeMode', 'readMode'] }; // see below
const kGiven = { string: (i) => `"text${i}"`, number: (i) => `${701 + i}` };
const kFunction = '(...given) => { tell.calls = (tell.calls ?? 0) + 1; return 1700000000000; }';
const argumentOf = (fn, { name, type }, i) => JSON.stringify(kFits[fn.name]?.[name]) ?? kGiven[type]?.(i) ?? kFunction;
const logged = (log, value) => [value, Number.isInteger(value) ? value.toString(16).toUpperCase() : value]
  .some((text) => new RegExp(`(^|[^0-9A-Za-z-])${text}([^0-9A-Za-z]|$)`, 'm').test(log));

for (const fn of functions) {
  test(`${fn.name} takes and returns what is declared`, () => {
    const given = fn.parameters.map((parameter, i) => argumentOf(fn, parameter, i));
    const { told: [type, result, calls], log } = run(`const result = tq.${fn.name}(${[...given, '"onetoomany"', '80808'].join(', ')}); tell([typeof result, result ?? null, tell.calls ?? 0])`);
    assert.equal(type, fn.returns === 'void' ? 'undefined' : fn.returns);
    for (const [i, parameter] of fn.parameters.entries()) {
      if (parameter.type in kGiven && !kUnlogged[fn.name]?.includes(parameter.name)) {
        assert.ok(logged(log, JSON.parse(given[i])), `${parameter.name} (${given[i]}) arrived: ${log}`);
      }
    }
    assert.ok(!logged(log, 'onetoomany') && !logged(log, 80808), 'there are no more arguments');
    if (fn.name.startsWith('register')) assert.deepEqual([fn.parameters.length, result, run(`tell(tq.${fn.name}(1))`).told], [1, 0, -13008]);
    if (fn.name === 'getDeviceNFCLocation') assert.equal(calls, 1, 'the last argument is the time function');
    assert.deepEqual([fn.documented, /@returns/.test(fn.text)], [fn.parameters.map(({ name }) => name), fn.returns !== 'void']);
  });
}

test('the functions stand in the documented order, and the two modes of initSdk where they are declared', () => {
  assert.deepEqual([run('tell(Object.getOwnPropertyNames(tq))').told, functions.length], [functions.map(({ name }) => name), 13]);
  const { parameters } = functions.find(({ name }) => name === 'initSdk');
  const code = (changes) => run(`tell(tq.initSdk(${parameters.map((parameter, i) =>
    changes[parameter.name] ?? argumentOf({ name: 'initSdk' }, parameter, i)).join(', ')}))`).told;
  assert.deepEqual([{}, { decodeMode: 2 }, { readMode: 0 }, { decodeMode: 1, readMode: 1 }].map(code), [0, -13009, -13009, 0]);
});

test('the codes are those of the library, in declarations and constants, and each has words', () => {
  const codes = [...readFileSync(`${kRoot}src/core/result_code.h`, 'utf8').matchAll(/^ {2}TQ_(\w+) = (-?\d+)/gm)].map(([, name, code]) => [Number(code), name]);
  assert.ok(codes.length >= 22);
  assert.deepEqual(declaredCodes().map(([code, name]) => [code, name]), codes);
  assert.deepEqual(RESULT_CODES.map(({ code, name, meaning }) => [code, name, meaning]), declaredCodes());
  assert.deepEqual(codes.map(([, name]) => ResultCode[name]), codes.map(([code]) => code));
  assert.deepEqual(READER_CODES.map(({ name }) => ReaderCode[name]), READER_CODES.map(({ code }) => code));
  const all = [...RESULT_CODES, ...READER_CODES];
  assert.equal(new Set(all.map(({ code }) => code)).size, all.length);
  for (const entry of all) assert.deepEqual([describeCode(entry.code), new TqError(entry.code).advice.length > 10], [entry, true]);
  assert.deepEqual([describeCode(-1301).name, describeCode(-1301).code], ['SERVER_STATUS', -1301]);
});
