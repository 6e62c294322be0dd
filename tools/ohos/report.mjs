// Tells of a stripped libtqreader.so for the phone: report.mjs LIBRARY [LIBRARY-WITHOUT-LIBCXX]
// Prints its size, what it needs and what it exports; exit status 1 when that is more than it may be.

import { execFileSync } from 'node:child_process';
import { statSync } from 'node:fs';
import { publicNames } from '../../tests/library/library.mjs';

const kReadelf = process.env.TQREADER_READELF ?? 'llvm-readelf-19';
const kMayNeed = ['libace_napi.z.so', 'libc.so', 'libhilog_ndk.z.so'];

const [library, withoutLibcxx] = process.argv.slice(2);
const readelf = (...options) => execFileSync(kReadelf, [...options, library], { encoding: 'utf8' });

function needed() {
  return [...readelf('-d').matchAll(/\(NEEDED\).*\[(.+)\]/g)].map(([, name]) => name).sort();
}

// Names of the dynamic symbols that the library defines.
function exported() {
  const rows = readelf('--dyn-syms', '-W').split('\n').map((line) => line.trim().split(/\s+/));
  const defined = rows.filter((row) => /^\d+:$/.test(row[0]) && row[6] !== 'UND' && row[7]);
  return defined.map((row) => row[7].replace(/@.*/, '')).sort();
}

const without = (names, others) => names.filter((name) => !others.includes(name));

const size = statSync(library).size;
let line = `size, stripped     ${size} bytes`;
if (withoutLibcxx) {
  const own = statSync(withoutLibcxx).size;
  line += `; ${own} without libc++, which adds ${size - own}`;
}
console.log(line);

const names = needed();
console.log(`needs              ${names.join(', ')}`);
const symbols = exported();
console.log(`exports            ${symbols.length} functions; ${publicNames().length} are public`);

const faults = [
  ...without(names, kMayNeed).map((name) => `needs ${name}`),
  ...without(symbols, publicNames()).map((name) => `exports ${name}, which is not public`),
  ...without(publicNames(), symbols).map((name) => `does not export ${name}`),
];
if (names.length === 0) faults.push('needs nothing: this is no library for the phone');
for (const fault of faults) console.error(`${library} ${fault}`);
process.exitCode = faults.length === 0 ? 0 : 1;
