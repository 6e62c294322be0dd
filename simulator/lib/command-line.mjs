// Command-line options of the programs in bin/, as tables that also make the help text.

import { existsSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { parseArgs } from 'node:util';

// Whoever reads the output may have had enough of it, as `head` does.
for (const stream of [process.stdout, process.stderr]) {
  stream.on('error', (error) => {
    if (error.code !== 'EPIPE') throw error;
    process.exit();
  });
}

/** Prints an error as a command-line program should, and ends with exit code 2. */
export function fail(message) {
  process.stderr.write(`${message}\n`);
  process.exit(2);
}

const kPackage = fileURLToPath(new URL('../../build/package/TqReader.js', import.meta.url));

/** Ends with a sentence unless there is what the reading programs need. */
export function expectBuilt(library) {
  if (!existsSync(library)) fail(`There is no library at ${library}. ./run demo builds it; --library names another.`);
  if (!existsSync(kPackage)) fail('The package is not built for Node.js yet. ./run demo builds it.');
}

/**
 * Parses `process.argv`. Each row of `table` is `name: { value, default, number, text }`: without `value` the option
 * is a switch; `number` makes its value a whole number (0x.. allowed). Prints the help and ends on --help; ends
 * with exit code 2 on anything unknown. Option names become camel case in the result.
 */
export function parseOptions(usage, table, argv = process.argv.slice(2)) {
  const rows = { ...table, help: { text: 'print this text' } };
  const options = Object.fromEntries(Object.entries(rows)
    .map(([name, row]) => [name, { type: row.value ? 'string' : 'boolean' }]));
  let values;
  try {
    ({ values } = parseArgs({ args: argv, options, strict: true, allowPositionals: false }));
  } catch (error) {
    fail(`${error.message}\nTry --help.`);
  }
  if (values.help) {
    process.stdout.write(helpText(usage, rows));
    process.exit(0);
  }
  return Object.fromEntries(Object.entries(rows).map(([name, row]) =>
    [camelCase(name), valueOf(name, row, values[name] ?? row.default)]));
}

const camelCase = (name) => name.replace(/-(.)/g, (_, letter) => letter.toUpperCase());

function valueOf(name, row, value) {
  if (value === undefined) return row.value ? undefined : false;
  if (!row.number) return value;
  const number = Number(value);
  if (!Number.isInteger(number) || value === '') fail(`--${name} needs a whole number, not "${value}"`);
  return number;
}

function helpText(usage, rows) {
  const shown = Object.entries(rows).map(([name, row]) => [`  --${name}${row.value ? ` ${row.value}` : ''}`, row]);
  const width = Math.max(...shown.map(([left]) => left.length)) + 2;
  const lines = shown.map(([left, row]) => {
    const standard = row.default === undefined || row.default === '' ? '' : ` [${row.default}]`;
    return `${left.padEnd(width)}${row.text}${standard}`;
  });
  return `${usage}\n\nOptions:\n${lines.join('\n')}\n`;
}
