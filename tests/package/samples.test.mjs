// The documents' samples run as they are printed, and what the programs say is said without a fault.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { mkdtempSync, readdirSync, readFileSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { kRoot, withoutTypes } from './declarations.mjs';

const kFolder = mkdtempSync(join(tmpdir(), 'tqreader-samples-'));
after(() => rmSync(kFolder, { recursive: true }));

/** Runs a program, or `-e` with a text, in the project's folder; gives its exit status and what it wrote. */
function run(...args) {
  const child = spawn(process.execPath, args, { cwd: kRoot, env: { ...process.env, TMPDIR: kFolder }, stdio: ['ignore', 'pipe', 'pipe'] });
  const written = { out: '', err: '' };
  child.stdout.on('data', (text) => { written.out += text; });
  child.stderr.on('data', (text) => { written.err += text; });
  return new Promise((resolve) => { child.on('close', (status) => resolve({ status, ...written })); });
}

// What the samples call the reader's own: a simulated passport, a decode server, and `show`, which keeps what it is given.
const kOwn = `import * as sim from './simulator/index.mjs';
  const specimen = sim.issuePassport();
  const decoder = new sim.DecodeServer({ keys: sim.loadKeys('keys/development_keys.h').decode });
  const field = new sim.CardLink(new sim.PassportChip(specimen));
  const carry = (bytes) => new Promise((resolve) => field.transmit(Buffer.from(bytes), undefined, ({ data }) => resolve(data)));
  const shown = [];
  Object.assign(globalThis, await decoder.start(), { appid: 'SIMULATEDREADER00001', serialNumber: 'SAMPLE', mrz: specimen,
    show: (...what) => shown.push(...what), nfc: { transmit: async (text) => (await carry(Buffer.from(text, 'hex'))).toString('hex') },
    card: { transmit: async (bytes) => new Uint8Array(await carry(bytes)) } });
  const { host, port, appid, serialNumber, show, nfc, card, mrz } = globalThis;\n`;
const kPackage = `import * as installed from './simulator/lib/package.mjs'; import { loadLibrary } from './simulator/lib/reader.mjs';
  const openReader = () => new installed.TqReader(loadLibrary());
  const config = { appid, environment: 268, host, port, packageName: '', terminalId: 1, serialNumber };\n`;
const kUntilShown = 'while (!shown.at(-1)?.data && shown.length < 999) await new Promise((resolve) => setTimeout(resolve, 20)); const holder = shown.at(-1).data.info;';
const kEnd = '\nconsole.log(holder.surname); await decoder.stop(); process.exit(decoder.differences.length);';
const imported = (text) => text.replace(/import \{([^}]*)\} from 'tqreader';/, (_, names) =>
  `const { ${names.split(',').filter((name) => !name.includes('openReader')).join(',')} } = installed;`);

const kSamples = { // document: for each sample what comes before and after it, and what it says
  'README.md': [[`${kOwn + kPackage}const cancel = undefined;\n`, `const holder = result.info;${kEnd}`, 'SPECIMEN'], [kOwn, kUntilShown + kEnd, 'SPECIMEN']],
  'package/README.md': [[kOwn + kPackage, `const holder = shown.at(-1);${kEnd}`, 'SPECIMEN']],
  'simulator/README.md': [['', 'console.log(link.card === chip, passport.documentNumber);', 'true SPEC7654321'],
    ['', 'console.log(code, server.differences.length, card.differences.length);', '0 0 0'], ['', 'console.log(code);', '-93006']],
};
for (const [document, samples] of Object.entries(kSamples)) {
  test(`the samples of ${document}`, async () => {
    const printed = [...readFileSync(`${kRoot}${document}`, 'utf8').matchAll(/```(js|ts)\n(.*?)```/gs)];
    assert.equal(printed.length, samples.length);
    for (const [i, [, language, text]] of printed.entries()) {
      const [before, after, said] = samples[i];
      const { status, out, err } = await run('--input-type=module', '-e', before + (language === 'ts' ? withoutTypes(imported(text)) : text) + after);
      assert.deepEqual([status, out.trim().split('\n').at(-1)], [0, said], `${text}\n${err}`);
    }
  });
}

// --- programs ------------------------------------------------------------------------------------------------------------

const kPrograms = readdirSync(`${kRoot}simulator/bin`).map((name) => `simulator/bin/${name}`);
function persona(content) {
  const path = join(kFolder, `${Math.random()}.json`);
  writeFileSync(path, JSON.stringify(content));
  return ['--persona', path];
}

test('programs tell of themselves before anything has been built', async () => {
  const clone = mkdtempSync(join(kFolder, 'clone-'));
  for (const name of ['simulator', 'package', 'keys']) symlinkSync(`${kRoot}${name}`, join(clone, name));
  for (const program of kPrograms) {
    const plain = ['--preserve-symlinks', '--preserve-symlinks-main', join(clone, program)];
    const { status, out, err } = await run(...plain, '--help');
    assert.deepEqual([status, err], [0, ''], program);
    assert.ok(out.startsWith(`Usage: ${program.split('/').at(-1)}`) && out.includes('--help'), out);
    if (/read|demo|ask/.test(program)) assert.match((await run(...plain)).err, /^There is no library at .*\.\n$/);
  }
});

const [card, passport, decodeServer, askServices] = ['read-card', 'read-passport', 'decode-server', 'ask-services'].map((name) => `simulator/bin/${name}.mjs`);
const kStatus = { on: '0x6113', do: 'status', status: '001301' };
for (const [name, args, status, out, err = /^$/] of [
  ['a mistyped action', [card, ...persona({ rules: [{ ...kStatus, do: 'sttus' }] })], 2, /^$/, /^no such action: .*"sttus".*; there are status, .*\n$/],
  ['a mistyped command', [decodeServer, ...persona({ rules: [{ ...kStatus, on: '0x6i13' }] })], 2, /^$/, /^no such step or command: .*; there are connect, 0x7500, .*\n$/],
  ['a mistyped step', [passport, ...persona({ cardRules: [{ on: 'READ DGX', do: 'wrongMac' }] })], 2, /^$/, /^no such step or command: .*SELECT EF.COM.*\n$/],
  ['rules that are no list', [card, ...persona({ cardRules: {} })], 2, /^$/, /^"cardRules" is no list of rules\n$/],
  ['a status of the server, with its rule', [card, ...persona({ rules: [kStatus] })], 1, /^ {2}rule {3}status at 0x6113$.*\(-1301\).*result_code \.+ -1301 \(status 001301 of the server\)/ms],
  ['a rule of the chip', [passport, ...persona({ cardRules: [{ on: 'READ DG1', do: 'wrongMac' }] })], 1, /^ {2}rule {3}wrongMac at READ DG1$.*CARD_FAILED: /ms],
  ['a good read, in the order of time', [card], 0, /^ {2}server 0x7500\n.* REQB .* READ 6002 [^\n]*\n {2}server 0x5001\n.* INTERNAL .* 6012 [^\n]*\n {2}server 0x6002\n.* SELECT 6013 .*server 0x6113\n {2}server 0x7219\nread in/s],
  ['both services', [askServices], 0, /delay \.+ \d+ ms on average.*\n.*place 3 /],
  ['nobody there', [askServices, '--latency-host', '127.8.8.8', '--location-host', '127.0.0.1', '--location-port', '1'], 1, /PROBE_CONNECT_FAILED.*\n.*EXCHANGE_FAILED/],
  ['an unknown environment', [askServices, '--location-host', 'x', '--env', '5'], 2, /^$/, /UNKNOWN_ENVIRONMENT|environment is not/],
]) {
  test(name, async () => {
    const told = await run(...args);
    assert.equal(told.status, status, told.err);
    assert.match(told.out, out);
    assert.match(told.err, err);
  });
}

test('who has read enough ends a program quietly', async () => {
  const child = spawn(process.execPath, [`${kRoot}${card}`], { stdio: ['ignore', 'pipe', 'pipe'] });
  child.stdout.once('data', () => child.stdout.destroy());
  let err = '';
  child.stderr.on('data', (text) => { err += text; });
  assert.deepEqual([await new Promise((resolve) => { child.on('close', resolve); }), err], [0, '']);
});

test('the demo is in the order of time, and leaves nothing behind but the portrait', async () => {
  const portrait = join(kFolder, 'portrait.jpg');
  const { status, out } = await run('simulator/bin/demo.mjs', '--card-delay', '0', '--server-delay', '0', '--portrait', portrait);
  assert.equal(status, 0, out);
  for (const part of out.split('    start     took').slice(1)) {
    const starts = [...part.matchAll(/^ +(\d+) ms +\d+ ms/gm)].map(([, ms]) => Number(ms));
    assert.deepEqual(starts, [...starts].sort((one, other) => one - other), part);
  }
  assert.deepEqual([readFileSync(portrait).readUInt16BE(0), out.includes(portrait.split('/').at(-1))], [0xffd8, true]);
  assert.deepEqual(readdirSync(kFolder).filter((name) => name.startsWith('tqreader-demo-')), []);
});
