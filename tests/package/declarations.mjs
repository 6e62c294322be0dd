// What the declarations of the native module say, in plain data.

import { existsSync, readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { fileURLToPath } from 'node:url';

export const kRoot = fileURLToPath(new URL('../../', import.meta.url));
const kFile = `${kRoot}package/src/main/cpp/types/libtqreader/index.d.ts`;
const kCompilers = [`${kRoot}build/ohos-typescript/package`, '/usr/share/nodejs/typescript'];

const ts = createRequire(import.meta.url)(`${process.env.TQREADER_TYPESCRIPT ?? kCompilers.find(existsSync)}/lib/typescript.js`);
export const declarations = readFileSync(kFile, 'utf8');
const source = ts.createSourceFile(kFile, declarations, ts.ScriptTarget.ES2021, true);

/** The functions in their order: { name, returns, parameters: [{ name, type }], documented: names of the parameters }. */
export function declaredFunctions() {
  const { members } = source.statements.find((node) => ts.isInterfaceDeclaration(node) && node.name.text === 'TqReaderModule');
  return members.map((member) => ({ name: member.name.getText(), returns: member.type.getText(),
    parameters: member.parameters.map(({ name, type }) => ({ name: name.getText(), type: type.getText() })),
    documented: ts.getJSDocTags(member).filter(({ tagName }) => tagName.text === 'param').map((tag) => tag.name.getText()),
    text: ts.getJSDocCommentsAndTags(member).map((node) => node.getText()).join('\n'),
  }));
}

/** The table of codes in the first comment: [code, name, meaning]. */
export const declaredCodes = () => [...declarations.matchAll(/^ \* \| (-?\d+) \| ([A-Z_]+) \| (.*) \|$/gm)]
  .map(([, code, name, meaning]) => [Number(code), name, meaning]);

/** ArkTS without its types. */
export const withoutTypes = (text) => ts.transpileModule(text, { compilerOptions: { target: ts.ScriptTarget.ES2022, module: ts.ModuleKind.ESNext } }).outputText;

/** A JSON text with comments. */
export function parseJson5(text) {
  const { config, error } = ts.parseConfigFileTextToJson('manifest', text);
  if (error) throw new Error(ts.flattenDiagnosticMessageText(error.messageText, '\n'));
  return config;
}
