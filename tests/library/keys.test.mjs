// The decode server's keys are not to be found in the library: neither their bytes nor their digits.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { test } from 'node:test';
import { kLibrary, kRoot } from './library.mjs';

const library = readFileSync(kLibrary);

function decodeServerKeys() {
  const text = readFileSync(process.env.TQREADER_KEYS ?? `${kRoot}keys/development_keys.h`, 'utf8');
  return [...text.matchAll(/#define TQREADER_DECODE_KEY_(\w+) "([0-9A-Fa-f]{32})"/g)];
}

// Every shape in which a key could stand in a program as it is.
const shapes = (digits) => ({
  bytes: Buffer.from(digits, 'hex'),
  'upper-case digits': Buffer.from(digits.toUpperCase()),
  'lower-case digits': Buffer.from(digits.toLowerCase()),
  'digits as written': Buffer.from(digits),
});

test('no decode-server key stands in the library', () => {
  const keys = decodeServerKeys();
  assert.deepEqual(keys.map(([, environment]) => environment), ['268', '52302', '26814']);
  for (const [, environment, digits] of keys) {
    for (const [shape, bytes] of Object.entries(shapes(digits))) {
      assert.ok(!library.includes(bytes), `${shape} of the key of ${environment}`);
      // A compiler may keep short constants in its instructions, eight bytes at a time.
      assert.ok(!library.includes(bytes.subarray(-8)), `end of the ${shape} of ${environment}`);
      assert.ok(Buffer.concat([library, bytes]).includes(bytes), 'the search would find it');
    }
  }
});

test('the search sees the constants of the library', () => {
  assert.ok(library.includes('---cmd: '), 'a label');
  assert.ok(library.includes('1.0.6\0'), 'the version');
  assert.ok(library.includes(Buffer.from('d690e9fecce13db7', 'hex')), 'bytes: the first of the SM4 substitution box');
  assert.ok(!library.includes('a text that stands nowhere'));
});
