// The interface of the built library is what its headers say, and the headers are C.

import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { headers, kLibrary, kSources, publicNames } from './library.mjs';

const kEntry = 'napi_register_module_v1'; // what Node.js calls, beside the interface
const kCompiler = process.env.CC ?? 'cc';
const kFlags = ['-std=c11', '-pedantic', '-Wall', '-Wextra', '-Werror', `-I${kSources}`];

const folder = mkdtempSync(join(tmpdir(), 'tqreader-exports-'));
after(() => rmSync(folder, { recursive: true }));

// Compiles a C text; returns what the compiler complained about.
function compile(text, ...options) {
  const source = join(folder, 'program.c');
  writeFileSync(source, text);
  const { status, stderr } = spawnSync(kCompiler, [...kFlags, source, ...options], { encoding: 'utf8' });
  return status === 0 ? '' : stderr || 'failed';
}

// A program that takes the address of each name.
function program(names) {
  const rows = names.map((name) => `  (function)${name},`).join('\n');
  return `#include "tqreader.h"
typedef void (*function)(void);
function table[] = {
${rows}
};
int main(void) { return table[0] == 0; }
`;
}

// The library's own undefined symbols are the JavaScript engine's to provide.
const link = (text) =>
  compile(text, kLibrary, '-Wl,--unresolved-symbols=ignore-in-shared-libs', '-o', join(folder, 'program'));

test('exactly the public functions are exported', () => {
  const symbols = execFileSync('nm', ['-D', '--defined-only', '--format=posix', kLibrary], { encoding: 'utf8' });
  const rows = symbols.trim().split('\n').map((line) => line.split(' '));
  assert.deepEqual(rows.map(([name]) => name).sort(), [...publicNames(), kEntry].sort());
  assert.deepEqual(rows.filter(([, type]) => type !== 'T'), [], 'all of them are functions');
  for (const name of ['share_init', 'input_7500_group', 'output_command_anlysis', 'TQ_getSm4PubulicKey']) {
    assert.ok(publicNames().includes(name), name);
  }
});

test('each header compiles as C11 on its own', () => {
  for (const header of headers()) {
    assert.equal(compile(`#include "${header}"\ntypedef int not_empty;\n`, '-fsyntax-only'), '', header);
  }
  assert.notEqual(compile('#include "no/such/header.h"\n', '-fsyntax-only'), '');
});

test('a C program links every public function, and nothing else', () => {
  assert.equal(link(program(publicNames())), '');
  assert.match(link(`extern void no_such_function(void);\n${program(['no_such_function'])}`), /no_such_function/);
});

test('the module has its functions, plain methods, in their order', () => {
  const module = { exports: {} };
  process.dlopen(module, kLibrary);
  const properties = Object.getOwnPropertyDescriptors(module.exports);
  assert.deepEqual(Object.keys(properties), ['initSdk', 'getBillingModel', 'getIdInfo', 'getPassportInfo', 'registerTimestampCallback',
    'idCardHandler', 'passportHandler', 'registerResultCallback', 'registerMonitorCallback', 'registerCardCallback', 'cancelCard',
    'getTimeDelay', 'getDeviceNFCLocation']);
  for (const [name, { value, ...attributes }] of Object.entries(properties)) {
    assert.equal(typeof value, 'function', name);
    assert.deepEqual(attributes, { writable: false, enumerable: false, configurable: false }, name);
  }
});

test('the library needs the C and the C++ library only', () => {
  const dynamic = execFileSync('objdump', ['-p', kLibrary], { encoding: 'utf8' });
  const needed = [...dynamic.matchAll(/^\s*NEEDED\s+(\S+)/gm)].map(([, name]) => name);
  assert.ok(needed.length > 0);
  for (const name of needed) assert.match(name, /^(libc|libm|libstdc\+\+|libgcc_s|libpthread|ld-linux-.*)\.so/);
});
