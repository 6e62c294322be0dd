// The documents' samples run as they are printed, and what the programs say is said without a fault.

import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import { mkdtempSync, readdirSync, readFileSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { kRoot, withoutTypes } from './declarations.mjs';

const kFolder = mkdtempSync(join(tmpdir(), 'tqreader-samples-'));
after(() => rmSync(kFolder, { recursive: true }));

/** Runs a program in the project's folder; gives its exit status and what it wrote. */
const start = (program, ...args) => new Promise((resolve) => execFile(program, args, { cwd: kRoot, env: { ...process.env, TMPDIR: kFolder } },
  (error, out, err) => resolve({ status: error?.code ?? 0, out, err })));
const run = (...args) => start(process.execPath, ...args);

// What the samples call the reader's own: a simulated passport, a decode server, and `show`, which keeps what it is given.
const kOwn = `import * as sim from './simulator/index.mjs';
  const mrz = sim.issuePassport(), decoder = new sim.DecodeServer({ keys: sim.loadKeys('keys/development_keys.h').decode });
  const field = new sim.CardLink(new sim.PassportChip(mrz)), shown = [], appid = 'SIMULATEDREADER00001', serialNumber = 'SAMPLE';
  const carry = (bytes) => new Promise((resolve) => field.transmit(Buffer.from(bytes), undefined, ({ data }) => resolve(data)));
  const nfc = { transmit: async (text) => (await carry(Buffer.from(text, 'hex'))).toString('hex') };
  const card = { transmit: async (bytes) => new Uint8Array(await carry(bytes)) }, show = (...what) => shown.push(...what);
  const { host, port } = await decoder.start();\n`;
const kPackage = `import * as installed from './simulator/lib/package.mjs'; import { loadLibrary } from './simulator/lib/reader.mjs';
  const openReader = () => new installed.TqReader(loadLibrary()), config = { appid, environment: 268, host, port, packageName: '', terminalId: 1, serialNumber };\n`;
const kUntilShown = 'while (!shown.length) await new Promise((resolve) => setTimeout(resolve, 20)); const holder = shown[0].data.info;';
const kEnd = '\nconsole.log(holder.surname); await decoder.stop(); process.exit(decoder.differences.length);';
const imported = (text) => text.replace(/import \{([^}]*)\} from 'tqreader';/, (_, names) => `const { ${names.replace('openReader,', '')} } = installed;`);
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
      const [before, behind, said] = samples[i];
      const { status, out, err } = await run('--input-type=module', '-e', before + (language === 'ts' ? withoutTypes(imported(text)) : text) + behind);
      assert.deepEqual([status, out.trim().split('\n').at(-1)], [0, said], `${text}\n${err}`);
    }
  });
}

// --- programs ------------------------------------------------------------------------------------------------------------

test('programs tell of themselves before anything has been built', async () => {
  for (const name of ['simulator', 'package', 'keys']) symlinkSync(`${kRoot}${name}`, join(kFolder, name));
  for (const program of readdirSync(`${kRoot}simulator/bin`)) {
    const unbuilt = ['--preserve-symlinks', '--preserve-symlinks-main', join(kFolder, 'simulator/bin', program)];
    const { status, out, err } = await run(...unbuilt, '--help');
    assert.deepEqual([status, err, out.startsWith(`Usage: ${program}`)], [0, '', true], out);
    if (/read|demo|ask/.test(program)) assert.match((await run(...unbuilt)).err, /^There is no library at .*\.\n$/);
  }
  const { status, out } = await start('./run', 'ohos', '--help');
  assert.deepEqual([status, out.startsWith('./run ohos')], [0, true]);
});

const [card, passport, decodeServer, askServices] = ['read-card', 'read-passport', 'decode-server', 'ask-services'].map((name) => `simulator/bin/${name}.mjs`);
const kStatus = { on: '0x6113', do: 'status', status: '001301' };
for (const [name, program, persona, status, out, err = /^$/] of [ // a persona, or other arguments
  ['a mistyped action', card, { rules: [{ ...kStatus, do: 'sttus' }] }, 2, /^$/, /^no such action: .*"sttus".*; there are status, .*\n$/],
  ['a mistyped command', decodeServer, { rules: [{ ...kStatus, on: '0x6i13' }] }, 2, /^$/, /^no such step or command: .*; there are connect, 0x7500, .*\n$/],
  ['a mistyped step', passport, { cardRules: [{ on: 'READ DGX', do: 'wrongMac' }] }, 2, /^$/, /^no such step or command: .*SELECT EF.COM.*\n$/],
  ['a status of the server, with its rule', card, { rules: [kStatus] }, 1,
    /^ {2}rule {3}status at 0x6113$.*\(-1301\).*result_code \.+ -1301 \(status 001301 of the server\)/ms],
  ['a rule of the chip', passport, { cardRules: [{ on: 'READ DG1', do: 'wrongMac' }] }, 1, /^ {2}rule {3}wrongMac at READ DG1$.*CARD_FAILED: /ms],
  ['a good read, in the order of time', card, {}, 0,
    /^ {2}server 0x7500\n.* REQB .* READ 6002 [^\n]*\n {2}server 0x5001\n.* INTERNAL .* 6012 [^\n]*\n {2}server 0x6002\n.* SELECT 6013 .*server 0x6113\n {2}server 0x7219\nread in/s],
  ['both services', askServices, [], 0, /delay \.+ \d+ ms on average.*\n.*place 3 /],
  ['nobody there', askServices, ['--latency-host', '127.8.8.8', '--location-host', '127.0.0.1', '--location-port', '1'], 1, /PROBE_CONNECT_FAILED.*\n.*EXCHANGE_FAILED/],
  ['values that are refused', askServices, ['--latency-host', ' ', '--location-host', 'x', '--model', 'P'.repeat(65)], 1, /PROBE_FAILED.*\n.*OUT_OF_RANGE/],
  ['an unknown environment', askServices, ['--location-host', 'x', '--env', '5'], 2, /^$/, /environment is not/],
]) {
  test(name, async () => {
    const path = join(kFolder, 'persona.json');
    writeFileSync(path, JSON.stringify(persona));
    const told = await run(program, ...(Array.isArray(persona) ? persona : ['--persona', path]));
    assert.deepEqual([told.status, out.test(told.out), err.test(told.err)], [status, true, true], told.out + told.err);
  });
}

test('who has read enough ends a program quietly', async () => {
  const { out, err } = await start('bash', '-c', `"${process.execPath}" ${card} | head -1; echo "\${PIPESTATUS[0]}"`);
  assert.deepEqual([out, err], ['  server 0x7500\n0\n', '']);
});

test('the demo is in the order of time, and leaves nothing behind but the portrait', async () => {
  const portrait = join(kFolder, 'portrait.jpg');
  const { status, out } = await run('simulator/bin/demo.mjs', '--card-delay', '0', '--server-delay', '0', '--portrait', portrait);
  for (const part of out.split('    start     took').slice(1)) {
    const starts = [...part.matchAll(/^ +(\d+) ms +\d+ ms/gm)].map(([, ms]) => Number(ms));
    assert.deepEqual(starts, [...starts].sort((one, other) => one - other), part);
  }
  const left = readdirSync(kFolder).filter((name) => name.startsWith('tqreader-demo-'));
  assert.deepEqual([status, readFileSync(portrait).readUInt16BE(0), out.includes('portrait.jpg'), left], [0, 0xffd8, true, []], out);
});
