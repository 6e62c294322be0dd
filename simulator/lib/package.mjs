// The application package's own code, as `./run` builds it for Node.js from package/src/main/ets.

import { existsSync } from 'node:fs';
import { createRequire } from 'node:module';
import { fileURLToPath } from 'node:url';

const kFolder = fileURLToPath(new URL('../../build/package/', import.meta.url));
if (!existsSync(`${kFolder}TqReader.js`)) {
  throw new Error('The package is not built for Node.js yet. "./run demo" and "./run test" build it.');
}
const load = (name) => createRequire(import.meta.url)(`${kFolder}${name}.js`);

export const { TqReader } = load('TqReader');
export const { CancelHandle } = load('CardConnection');
export const { TqError } = load('TqError');
export const { DocumentKind } = load('ReadProgress');
export const { READER_CODES, RESULT_CODES, ReaderCode, ResultCode, describeCode } = load('ResultCode');
