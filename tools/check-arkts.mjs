#!/usr/bin/env node
// Type-checks ArkTS sources and holds them to ArkTS's own rules, with the compiler and the linter of the npm package
// ohos-typescript. What the phone's kits declare comes from ohos-kit/, which has the functions that we use.
//
//   check-arkts.mjs COMPILER FILE...     COMPILER: folder of the package; prints each finding, exit status 1 when there is one

import { existsSync } from 'node:fs';
import { createRequire } from 'node:module';
import { dirname, join, relative, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const kRoot = fileURLToPath(new URL('..', import.meta.url));
const kKits = join(kRoot, 'tools/ohos-kit');
const kModules = {
  'libtqreader.so': join(kRoot, 'package/src/main/cpp/types/libtqreader/index.d.ts'),
  tqreader: join(kRoot, 'package/Index.ets'),
};
const kUnused = 6133;
const kGlobals = [join(kKits, 'arkui.d.ts'), join(kKits, 'runtime.d.ts')];

/** What makes the compiler understand components; the names are those that arkui.d.ts declares. */
const kEts = {
  render: { method: ['build', 'pageTransition'], decorator: ['Builder'] },
  components: ['Button', 'Column', 'Progress', 'Row', 'Scroll', 'Text', 'TextInput', 'ForEach'],
  libs: [],
  extend: { decorator: ['Extend'], components: [] },
  styles: {
    decorator: 'Styles', component: { name: 'Common', type: 'T', instance: 'CommonInstance' }, property: 'stateStyles',
  },
  concurrent: { decorator: 'Concurrent' },
  customComponent: 'CustomComponent',
  propertyDecorators: [{ name: 'State', needInitialization: true }],
  emitDecorators: [],
  syntaxComponents: { paramsUICallback: ['ForEach'], attrUICallback: [] },
};

/** The file that an import means, or undefined. */
function fileOf(name, importer) {
  if (name in kModules) return kModules[name];
  if (name.startsWith('@kit.')) return join(kKits, `${name.slice(1)}.d.ts`);
  const base = resolve(dirname(importer), name);
  return [`${base}.ets`, `${base}.ts`, `${base}.d.ts`].find(existsSync);
}

/**
 * Findings in the files and whatever they import, as texts.
 * @param {string} compiler  folder of the package ohos-typescript
 * @param {string[]} files
 * @param {Map<string, string>} [changes]  texts that take the place of files' contents, by absolute path
 */
export function checkArkTs(compiler, files, changes = new Map()) {
  const ts = createRequire(import.meta.url)(join(resolve(compiler), 'lib/typescript.js'));
  const options = {
    ets: kEts, target: ts.ScriptTarget.ES2021, module: ts.ModuleKind.ES2020, lib: ['lib.es2021.d.ts'], types: [],
    moduleResolution: ts.ModuleResolutionKind.NodeJs, packageManagerType: 'ohpm', noTransformedKitInParser: true,
    strict: true, noUnusedLocals: true, noImplicitReturns: true, noEmit: true, incremental: true, tsBuildInfoFile: 'unused', needDoArkTsLinter: true,
    experimentalDecorators: true, allowSyntheticDefaultImports: true, importsNotUsedAsValues: ts.ImportsNotUsedAsValues.Remove,
  };
  const readFile = (path, encoding) => changes.get(resolve(path)) ?? ts.sys.readFile(path, encoding);
  const host = ts.createIncrementalCompilerHost(options, { ...ts.sys, readFile });
  host.resolveModuleNames = (names, importer) => names.map((name) => {
    const resolvedFileName = fileOf(name, importer);
    if (!resolvedFileName || !existsSync(resolvedFileName)) return undefined;
    const extension = ['.d.ts', '.ets', '.ts'].find((ending) => resolvedFileName.endsWith(ending));
    return { resolvedFileName, extension, isExternalLibraryImport: false };
  });
  const rootNames = [...files.map((file) => resolve(file)), ...kGlobals];
  const builder = ts.createIncrementalProgramForArkTs({ rootNames, options, host });
  const program = builder.getProgram();
  const found = [...program.getOptionsDiagnostics(), ...program.getGlobalDiagnostics(), ...program.getSyntacticDiagnostics(),
    ...builder.getSemanticDiagnostics(), ...ts.ArkTSLinter_1_1.runArkTSLinter(builder, undefined, undefined, 'ArkTS_1_1')];
  return [...new Set(found.filter((finding) => !isPage(finding)).map((finding) => textOf(ts, finding)))];
}

/** A page is used by its name in a list of pages, and seems unused here. */
function isPage({ file, start, code }) {
  return code === kUnused && file.text.slice(0, start).endsWith('struct ');
}

function textOf(ts, { file, start, code, messageText }) {
  const message = ts.flattenDiagnosticMessageText(messageText, '\n');
  if (!file) return message;
  const { line, character } = ts.getLineAndCharacterOfPosition(file, start);
  return `${relative(process.cwd(), file.fileName)}:${line + 1}:${character + 1}: ${message} (${code})`;
}

if (process.argv[1] && resolve(process.argv[1]) === fileURLToPath(import.meta.url)) {
  const [compiler, ...files] = process.argv.slice(2);
  const findings = checkArkTs(compiler, files);
  findings.forEach((text) => process.stdout.write(`${text}\n`));
  process.exitCode = findings.length === 0 ? 0 : 1;
}
