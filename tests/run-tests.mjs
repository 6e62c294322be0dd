// Runs test files, each once, several at a time and in the order given, and tells only of failures:
//   node tests/run-tests.mjs CONCURRENCY FILE...
// The last line is "N passed, N failed"; the exit status is 1 unless some passed and none failed.

import { relative } from 'node:path';
import { run } from 'node:test';

const [concurrency, ...files] = process.argv.slice(2);
const counts = { passed: 0, failed: 0 };

const events = run({ files: [...new Set(files)], concurrency: Number(concurrency) });
events.on('test:pass', (event) => note(event, 'passed'));
events.on('test:fail', (event) => note(event, 'failed'));
events.on('test:stderr', ({ message }) => process.stderr.write(message));
for await (const event of events) void event;

console.log(`${counts.passed} passed, ${counts.failed} failed`);
process.exitCode = counts.failed > 0 || counts.passed === 0 ? 1 : 0;

function note({ name, file, details, skip, todo }, outcome) {
  if (skip !== undefined || todo !== undefined) return;
  const failure = details?.error;
  if (failure?.failureType === 'subtestsFailed') return; // these have been told of themselves
  counts[outcome] += 1;
  if (outcome === 'passed') return;
  const cause = failure?.cause ?? failure;
  console.log(`\nFAILED ${file ? relative('', file) : ''}: ${name}\n${cause?.stack ?? cause}`);
}
