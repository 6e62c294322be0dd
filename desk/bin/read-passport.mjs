#!/usr/bin/env node
// Reads the passport on a PC/SC reader through libtqreader.so, and tells what is in it.

import { existsSync, mkdirSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { coloursFor, dotted, printable } from '../../simulator/lib/account.mjs';
import { fail, parseOptions } from '../../simulator/lib/command-line.mjs';
import { loadKeys } from '../../simulator/lib/keys.mjs';

const kRoot = fileURLToPath(new URL('../../', import.meta.url));
const kUsage = `Usage: ./run read-passport --number TEXT --birth YYMMDD --expiry YYMMDD [options]

Reads the passport that lies on a PC/SC reader, with what is printed in it, and prints the holder and what speaks for the
document. Nothing is written to disk without --save, and nothing leaves this machine.`;
const options = parseOptions(kUsage, {
  number: { value: 'TEXT', text: 'document number' },
  birth: { value: 'YYMMDD', text: 'date of birth' },
  expiry: { value: 'YYMMDD', text: 'date of expiry' },
  reader: { value: 'NAME', default: '', text: 'part of the reader\'s name (default: the first that has a card)' },
  wait: { value: 'SECONDS', default: '60', number: true, text: 'how long to wait for reader and passport' },
  trust: { value: 'FOLDER', text: 'certificates of the countries that may issue passports' },
  save: { value: 'FOLDER', text: 'where to write the files and the portrait' },
  library: { value: 'FILE', default: join(kRoot, 'build/host/libtqreader.so'), text: 'the library' },
  keys: { value: 'FILE', default: join(kRoot, 'keys/development_keys.h'), text: 'key header that it was built with' },
});
const colours = coloursFor(process.stdout);
const say = (text = '') => process.stdout.write(`${text}\n`);
const kMarks = { good: colours.green('good     '), bad: colours.red('BAD      '), unchecked: colours.yellow('unchecked') };

for (const name of ['number', 'birth', 'expiry']) {
  if (options[name] === undefined) fail(`--${name} is missing: what opens the chip is printed in the passport.\nTry --help.`);
}
for (const name of ['birth', 'expiry']) {
  if (!/^\d{6}$/.test(options[name])) fail(`--${name} needs six digits, YYMMDD, not "${options[name]}".`);
}
if (!existsSync(options.library)) fail(`There is no library at ${options.library}.`);
if (options.trust && !existsSync(options.trust)) fail(`There is no folder ${options.trust}.`);

function tell({ judged, content, result, monitor, ms, steps }) {
  say(result.code === 0 ? colours.green(`Read in ${Math.round(ms)} ms with ${steps.length} commands.`) : colours.red(`Not read: ${result.message}`));
  if (!judged) return;
  const { holder, mrz, checks, notes, portrait } = judged;
  say();
  for (const line of mrz?.lines ?? []) say(`  ${printable(line)}`);
  say();
  for (const [name, value] of Object.entries(holder)) say(dotted(name, typeof value === 'string' ? value : value?.words ?? JSON.stringify(value)));
  say(dotted('portrait', portrait.bytes ? `${portrait.type}, ${portrait.bytes.length} bytes` : portrait.reason));
  say();
  for (const { name, verdict, words } of checks) say(`  ${kMarks[verdict]}  ${name}: ${printable(words)}`);
  for (const note of notes) say(`  ${printable(note)}`);
  say();
  say(`  files: ${Object.entries(content.files).map(([name, bytes]) => `${name} ${bytes.length}`).join(', ')} bytes`);
  if (monitor) say(colours.dim(`  monitor record: ${printable(monitor.raw)}`));
}

function save({ judged, content }, folder) {
  mkdirSync(folder, { recursive: true });
  for (const [name, bytes] of Object.entries(content?.files ?? {})) writeFileSync(join(folder, `${name}.bin`), bytes, { mode: 0o600 });
  const { portrait, ...rest } = judged ?? {};
  if (portrait?.bytes) writeFileSync(join(folder, `portrait.${portrait.type.slice(6)}`), portrait.bytes, { mode: 0o600 });
  const plain = { holder: rest.holder, mrz: rest.mrz, checks: rest.checks, notes: rest.notes };
  writeFileSync(join(folder, 'holder.json'), `${JSON.stringify(plain, null, 2)}\n`, { mode: 0o600 });
  say(`  written to ${folder}`);
}

// what these bring in is there only once the project has been built
const { ReaderWatch } = await import('../lib/pcsc.mjs');
const { startReading } = await import('../lib/reading.mjs');
try {
  const { decode: keys } = loadKeys(options.keys);
  const watch = new ReaderWatch();
  const reader = await watch.readerWithCard({ wanted: options.reader, waitMs: options.wait * 1000, onWait: ({ message }) => say(colours.yellow(message)) })
    .finally(() => watch.close());
  say(`Reading on ${reader} …`);
  const printed = { documentNumber: options.number, birthDate: options.birth, expiryDate: options.expiry };
  const { done, cancel } = startReading({ id: 1, kind: 'passport', source: 'reader', title: 'Passport', trust: options.trust },
    { library: options.library, keys, read: { printed, reader }, server: { document: 'passport' } });
  process.once('SIGINT', cancel);
  const record = await done;
  tell(record);
  if (options.save && record.content) save(record, options.save);
  process.exitCode = record.state === 'good' ? 0 : 1;
} catch (error) {
  say(colours.red(error.message));
  process.exitCode = 1;
}
