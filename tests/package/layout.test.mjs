// The package's and the example's manifests fit each other and name files that are there; so do the documents.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { existsSync, readFileSync } from 'node:fs';
import { dirname, join, relative } from 'node:path';
import { test } from 'node:test';
import { kRoot, parseJson5 } from './declarations.mjs';

const kPackage = join(kRoot, 'package');
const kExample = join(kPackage, 'example');
const text = (file) => readFileSync(join(kRoot, file), 'utf8');
const manifest = (...path) => parseJson5(readFileSync(join(...path), 'utf8'));
const exists = (...path) => assert.ok(existsSync(join(...path)), join(...path));
const permissions = ({ module }) => module.requestPermissions.map(({ name }) => name);

test('the package', () => {
  const [, project] = /project\(tqreader VERSION (\S+)/.exec(text('CMakeLists.txt'));
  const { name, version, main, dependencies } = manifest(kPackage, 'oh-package.json5');
  const types = join(kPackage, dependencies['libtqreader.so'].replace('file:', ''));
  const native = manifest(types, 'oh-package.json5');
  const changes = ['CHANGELOG.md', 'package/CHANGELOG.md'].map((file) => /^## (\S+)/m.exec(text(file))[1]);
  assert.deepEqual([name, native.name, version, native.version, ...changes], ['tqreader', 'libtqreader.so', ...Array(4).fill(project)]);
  exists(kPackage, main);
  exists(types, native.types);
  const { path, abiFilters } = manifest(kPackage, 'build-profile.json5').buildOption.externalNativeOptions;
  exists(kPackage, path);
  abiFilters.forEach((abi) => exists(kPackage, 'libs', abi));
  const har = manifest(kPackage, 'src/main/module.json5');
  assert.deepEqual([abiFilters, har.module.type, permissions(har)], [['arm64-v8a', 'x86_64'], 'har', ['ohos.permission.INTERNET']]);
});

test('the example', () => {
  assert.deepEqual(Object.keys(manifest(kExample, 'oh-package.json5').dependencies), ['tqreader']);
  const { module } = manifest(kExample, 'src/main/module.json5');
  const [{ name, srcEntry, skills, ...ability }, ...others] = module.abilities;
  assert.deepEqual([name, others, skills.flatMap(({ actions }) => actions), permissions({ module })], [module.mainElement, [],
    ['ohos.want.action.home', 'ohos.nfc.tag.action.TAG_FOUND'], ['ohos.permission.NFC_TAG', 'ohos.permission.INTERNET']]);
  exists(kExample, 'src/main', srcEntry);
  const resources = join(kExample, 'src/main/resources/base');
  for (const [, kind, value] of JSON.stringify([module.description, ability]).matchAll(/\$(string|color|media):(\w+)/g)) {
    if (kind === 'media') exists(resources, 'media', `${value}.svg`);
    else assert.ok(manifest(resources, 'element', `${kind}.json`)[kind].some((entry) => entry.name === value), value);
  }
  const { src: [page] } = manifest(resources, 'profile/main_pages.json');
  exists(kExample, 'src/main/ets', `${page}.ets`);
  assert.ok(readFileSync(join(kExample, 'src/main', srcEntry), 'utf8').includes(`loadContent('${page}')`));
});

test('the links of the documents lead to files; those of the package to published ones', () => {
  const { stdout } = spawnSync('git', ['ls-files', '--cached', '--others', '--exclude-standard', '--', '*.md'], { cwd: kRoot, encoding: 'utf8' });
  const documents = stdout.trim().split('\n');
  const unpublished = readFileSync(join(kPackage, '.ohpmignore'), 'utf8').split('\n').filter((line) => line.endsWith('/'));
  assert.ok(documents.includes('README.md') && documents.includes('package/README.md') && unpublished.includes('example/') && unpublished.includes('tests/'));
  for (const document of documents) {
    for (const [, link] of text(document).matchAll(/\]\(([^)#]+)[^)]*\)/g)) {
      if (/^https?:/.test(link)) continue;
      exists(kRoot, dirname(document), link);
      const inPackage = relative(kPackage, join(kRoot, dirname(document), link));
      assert.ok(!/^package\/[^/]+$/.test(document) || !['..', ...unpublished].some((folder) => inPackage.startsWith(folder)), `${document}: ${link}`);
    }
  }
});
