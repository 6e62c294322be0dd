// The deepest stack that the library's own code can need: stack.mjs LIBRARY (not stripped, built with
// -fstack-size-section). Prints the largest frame and, for a worker and for the application's thread, the call path
// with the largest sum; exit status 1 when a worker's path needs more than the limit.
//
// Calls and frames are read from the machine code, that of the C++ library linked in too. A frame is the sum of all that
// its function ever pushes, so it is an upper bound; it may not be less than what the compiler noted for a function of
// ours. What a call through a pointer may reach stands in indirect-calls.txt: a function that makes such a call and has
// no row there is a fault, and so is a function of ours whose address is taken and that no row reaches. Not counted: the
// C library and the JavaScript engine, and the ways out of the C++ library that end the process (kEnds).

import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const kLimit = 16 * 1024;
const kEnds = new RegExp(`^(${[
  'std::terminate', '__clang_call_terminate', '__cxa_throw', '_Unwind_', 'abort_message',
  'std::__1::__libcpp_verbose_abort', 'std::__1::__throw_',
].join('|')})`);
const library = process.argv[2];
const tool = (name, ...options) =>
  execFileSync(`llvm-${name}-19`, [...options, library], { maxBuffer: 2 ** 30, encoding: 'utf8' });
const hex = (digits) => parseInt(digits, 16);

const kMachines = {
  AArch64: {
    returnAddress: 0, // kept in a register; part of the frame where it is saved
    target: /^(?:bl|b|b\.\w+|cbn?z|tbn?z)\t(?:.*\s)?0x([0-9a-f]+) </,
    indirect: /^(?:blr|br)\t/,
    address: /^adr\t\w+, 0x([0-9a-f]+) </,
    page: /^adrp\t(\w+), 0x([0-9a-f]+)/,
    offset: /^add\t\w+, (\w+), #0x([0-9a-f]+)$/,
    // The bytes of stack that an instruction takes.
    room(text) {
      const sub = /^sub\tsp, sp, #0x([0-9a-f]+)(, lsl #12)?/.exec(text);
      if (sub) return hex(sub[1]) * (sub[2] ? 4096 : 1);
      const store = /^st[pr]\t.*\[sp, #-0x([0-9a-f]+)\]!/.exec(text);
      return store ? hex(store[1]) : 0;
    },
  },
  'X86-64': {
    returnAddress: 8,
    target: /^(?:callq?|j[a-z]+)\t0x([0-9a-f]+) </,
    indirect: /^(?:callq?|jmpq?)\t\*/,
    address: /^leaq\t.*\(%rip\), %\w+\s+# 0x([0-9a-f]+) </,
    room(text) {
      if (/^pushq?\t/.test(text)) return 8;
      const sub = /^subq\t\$0x([0-9a-f]+), %rsp/.exec(text);
      return sub ? hex(sub[1]) : 0;
    },
  },
};

// --- what the library consists of ------------------------------------------------------------------------------------

function machineOf() {
  const header = tool('readelf', '-h');
  const name = Object.keys(kMachines).find((one) => header.includes(one));
  if (!name) throw new Error(`${library}: neither arm64 nor x86_64`);
  return kMachines[name];
}

// Address -> bytes, as the compiler noted them: 8 bytes of address, then a ULEB128 number.
function notedFrames() {
  const folder = mkdtempSync(join(tmpdir(), 'tqreader-stack-'));
  execFileSync('llvm-objcopy-19', [`--dump-section=.stack_sizes=${folder}/sizes`, library, `${folder}/copy`]);
  const bytes = readFileSync(`${folder}/sizes`);
  rmSync(folder, { recursive: true });
  const frames = new Map();
  for (let at = 0; at < bytes.length;) {
    const address = Number(bytes.readBigUInt64LE(at));
    at += 8;
    let size = 0;
    for (let unit = 1; ; unit *= 128) {
      const byte = bytes[at++];
      size += (byte & 0x7f) * unit;
      if (byte < 0x80) break;
    }
    frames.set(address, size);
  }
  return frames;
}

// Address -> { name, own, noted and frame (bytes), calls (addresses), throughPointer, taken (addresses of functions that
// it hands out) }
function readFunctions(machine) {
  const noted = notedFrames();
  const functions = new Map();
  let current;
  const pages = new Map(); // register -> the page that was last put into it
  for (const line of tool('objdump', '-d', '-C', '--no-show-raw-insn').split('\n')) {
    const start = /^([0-9a-f]+) <(.*)>:$/.exec(line);
    if (start) {
      if (start[2].endsWith('@plt')) break; // the stubs through which other libraries are called stand last
      const address = hex(start[1]);
      current = {
        address,
        name: start[2],
        own: noted.has(address),
        noted: noted.get(address) ?? 0,
        frame: machine.returnAddress,
        calls: new Set(),
        taken: new Set(),
      };
      functions.set(address, current);
      pages.clear();
      continue;
    }
    const text = /^\s*[0-9a-f]+:\s+(.*)$/.exec(line)?.[1];
    if (!text || !current) continue;
    current.frame += machine.room(text);
    const target = machine.target.exec(text);
    if (target) current.calls.add(hex(target[1]));
    if (target && hex(target[1]) === current.address && /^(bl|call)/.test(text)) current.callsItself = true;
    if (machine.indirect.test(text)) current.throughPointer = true;
    const address = machine.address.exec(text);
    if (address) current.taken.add(hex(address[1]));
    const onPage = machine.page?.exec(text);
    if (onPage) pages.set(onPage[1], hex(onPage[2]));
    const offset = machine.offset?.exec(text);
    if (offset && pages.has(offset[1])) current.taken.add(pages.get(offset[1]) + hex(offset[2]));
  }
  return functions;
}

// --- calls through pointers ------------------------------------------------------------------------------------------

// Rows of { caller, callees }: regular expressions. The row `entries` has no caller in the library.
function readRows() {
  const file = readFileSync(new URL('indirect-calls.txt', import.meta.url), 'utf8');
  const text = file.replace(/^#.*$/gm, '').replace(/\n[ \t]+/g, ' ');
  return text.split('\n').filter((row) => row.trim()).map((row) => {
    const [, caller, callees] = /^(.*?) :\s+(.*)$/.exec(row);
    return {
      caller: caller === 'entries' ? null : new RegExp(caller),
      callees: callees === '-' ? [] : callees.split(/,\s*/).map((callee) => new RegExp(callee)),
    };
  });
}

// The addresses of all functions that can be called through a pointer: they stand in a table or are handed out.
function takenAddresses(functions) {
  const relocations = tool('readelf', '-r', '-W').matchAll(/_RELATIVE\s+([0-9a-f]+)/g);
  const relocated = [...relocations].map(([, addend]) => hex(addend));
  const handedOut = [...functions.values()].flatMap((f) => [...f.taken]);
  return new Set([...relocated, ...handedOut].filter((address) => functions.has(address)));
}

// Adds to the calls of each function what it may reach through pointers, and marks the entries.
// Returns what the rows leave open.
function resolvePointers(functions) {
  const rows = readRows();
  const targets = [...takenAddresses(functions)].map((address) => functions.get(address));
  const faults = [];
  for (const f of functions.values()) {
    if (!f.throughPointer) continue;
    const mine = rows.filter((row) => row.caller?.test(f.name));
    f.unresolved = mine.length === 0;
    for (const { callees } of mine) {
      for (const t of targets) if (callees.some((callee) => callee.test(t.name))) f.calls.add(t.address);
    }
  }
  for (const t of targets) {
    const naming = rows.filter(({ callees }) => callees.some((callee) => callee.test(t.name)));
    t.entry = naming.some(({ caller }) => caller === null);
    if (t.own && naming.length === 0) faults.push(`${t.name} is called through a pointer, and no row tells from where`);
  }
  return faults;
}

// --- the deepest path ------------------------------------------------------------------------------------------------

// Sets `deep` (bytes) and `next` of everything that `f` can reach, and of itself.
function measure(functions, f, faults, above = []) {
  if (f.deep !== undefined) return f.deep;
  if (above.includes(f)) {
    faults.push(`recursion: ${[...above.slice(above.indexOf(f)), f].map(({ name }) => name).join(' > ')}`);
    return 0;
  }
  if (f.callsItself) faults.push(`recursion: ${f.name}`);
  if (f.unresolved) faults.push(`${f.name} calls through a pointer, and has no row`);
  let below = 0;
  for (const address of f.calls) {
    const callee = functions.get(address);
    if (!callee || callee === f || kEnds.test(callee.name)) continue; // a jump to its own start is a loop
    const deep = measure(functions, callee, faults, [...above, f]);
    if (deep > below) {
      below = deep;
      f.next = callee;
    }
  }
  f.deep = f.frame + below;
  return f.deep;
}

function pathFrom(f) {
  const path = [];
  for (let at = f; at; at = at.next) path.push(at);
  return path;
}

const shortName = (name) => name.replace(/\(anonymous namespace\)::/g, '').replace(/\(.*/, '').replace(/^tq::/, '');

function tell(what, f) {
  console.log(`${what} ${f.deep} bytes:`);
  for (const step of pathFrom(f)) console.log(`  ${String(step.frame).padStart(6)}  ${shortName(step.name)}`);
}

const functions = readFunctions(machineOf());
const own = [...functions.values()].filter((f) => f.own);
const faults = resolvePointers(functions);
for (const f of own) {
  measure(functions, f, faults);
  if (f.frame < f.noted) faults.push(`${f.name}: read ${f.frame} bytes, but the compiler noted ${f.noted}`);
}
const deepest = (some) => some.reduce((a, b) => (b.deep > a.deep ? b : a));
const worker = own.find((f) => /worker_main/.test(f.name));
if (!worker) throw new Error(`${library}: no worker`);

const largest = own.reduce((a, b) => (b.frame > a.frame ? b : a));
console.log(`largest frame      ${largest.frame} bytes: ${shortName(largest.name)}`);
tell('deepest of a worker', worker);
tell('deepest of the application\'s thread', deepest(own.filter((f) => f.entry && f !== worker)));
if (worker.deep > kLimit) faults.push(`a worker needs ${worker.deep} bytes; the limit is ${kLimit}`);
for (const fault of new Set(faults)) console.error(fault);
process.exitCode = faults.length === 0 ? 0 : 1;
