#!/usr/bin/env node
// Makes of the package's ArkTS sources what Node.js runs: the same code without its types. Nothing is checked here;
// check-arkts.mjs does that.
//
//   build-package.mjs COMPILER FOLDER    COMPILER: folder of a TypeScript package; FOLDER: where the modules go

import { mkdirSync, readdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { basename, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const kSources = fileURLToPath(new URL('../package/src/main/ets/', import.meta.url));
const kPhoneOnly = ['OpenReader.ets']; // imports the native library as the phone does

const [compiler, folder] = process.argv.slice(2).map((path) => resolve(path));
const ts = createRequire(import.meta.url)(join(compiler, 'lib/typescript.js'));
const compilerOptions = { target: ts.ScriptTarget.ES2021, module: ts.ModuleKind.CommonJS, useDefineForClassFields: false };

rmSync(folder, { recursive: true, force: true });
mkdirSync(folder, { recursive: true });
writeFileSync(join(folder, 'package.json'), '{ "type": "commonjs" }\n');
for (const file of readdirSync(kSources).filter((name) => !kPhoneOnly.includes(name))) {
  const { outputText, diagnostics } = ts.transpileModule(readFileSync(join(kSources, file), 'utf8'),
    { compilerOptions, fileName: file.replace(/ets$/, 'ts'), reportDiagnostics: true });
  if (diagnostics.length > 0) {
    throw new Error(`${file}: ${diagnostics.map(({ messageText }) => ts.flattenDiagnosticMessageText(messageText, '\n')).join('; ')}`);
  }
  writeFileSync(join(folder, `${basename(file, '.ets')}.js`), outputText);
}
