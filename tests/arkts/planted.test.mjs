// The check of the ArkTS sources finds what it is there for: each mistake is planted into a copy of a real source.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { checkArkTs } from '../../tools/check-arkts.mjs';

const kRoot = fileURLToPath(new URL('../../', import.meta.url));
const kCompiler = `${kRoot}build/ohos-typescript/package`;
const kRead = 'package/src/main/ets/RunningRead.ets';
const kTypes = 'package/src/main/cpp/types/libtqreader/index.d.ts';
const kPage = 'package/example/src/main/ets/pages/Index.ets';
const kCard = 'package/example/src/main/ets/nfc/NfcCard.ets';
const kField = 'package/example/src/main/ets/nfc/NfcField.ets';

const kMistakes = [ // file, text, what takes its place, what must be found there
  [kRead, 'private lastFailure: string = \'\'', 'private lastFailure: any = \'\'', /RunningRead.*arkts-no-any-unknown/],
  [kRead, 'const first: boolean = this.kind', 'const { kind } = this; const first: boolean = this.kind', /RunningRead.*arkts-no-destruct-decls/],
  [kRead, 'this.ended = true;', 'this[\'ended\'] = true;', /RunningRead.*arkts-no-props-by-index/],
  [kRead, 'this.stopTimer();\n    this.cancel', 'delete this.cancel;\n    this.cancel', /RunningRead.*(arkts-no-delete|2790)/],
  [kRead, 'this.open = command;', 'this.open = { bytes: command.bytes, serial: 1 };', /RunningRead.*(arkts-no-untyped-obj-literals|arkts-no-structural-typing)/],
  [kRead, 'this.reject(error as TqError);', 'throw \'text\';', /RunningRead.*arkts-limited-throw/],
  [kRead, 'this.native.idCardHandler(data, command.serial, status);', 'this.native.idCardHandler(data, status);', /RunningRead.*Expected 3 arguments/],
  [kTypes, 'cancelCard(type: number)', 'cancelCard(type: string)', /RunningRead.*not assignable to parameter of type 'string'/],
  [kTypes, 'getIdInfo(): number', 'getIdInfo(): void', /TqReader.*not assignable/],
  [kPage, '.layoutWeight(1)', '.layoutWeigh(1)', /Index.*layoutWeigh/],
  [kPage, 'Text(this.status)', 'Text(this.kind)', /Index.*not assignable/],
  [kPage, 'cancel: this.cancelHandle,', 'cancel: true,', /Index.*not assignable to type 'CancelHandle'/],
  [kCard, 'this.session.transmit(Array.from(command))', 'this.session.transmit(command)', /NfcCard.*not assignable/],
  [kCard, 'async transmit(command: Uint8Array)', 'async transmitt(command: Uint8Array)', /NfcCard.*incorrectly implements/],
  [kField, 'tag.on(\'readerMode\'', 'tag.on(\'readMode\'', /NfcField.*not assignable/],
];
const kFiles = [`${kRoot}package/Index.ets`, `${kRoot}package/example/src/main/ets/entryability/EntryAbility.ets`, kRoot + kPage];

test('there is nothing to be found in the sources as they are', () => {
  assert.deepEqual(checkArkTs(kCompiler, kFiles), []);
});

for (const [file, text, mistake, finding] of kMistakes) {
  test(`${file.split('/').at(-1)}: ${mistake.slice(0, 60)}`, () => {
    const good = readFileSync(kRoot + file, 'utf8');
    assert.equal(good.split(text).length, 2, 'the text stands there once');
    const findings = checkArkTs(kCompiler, kFiles, new Map([[kRoot + file, good.replace(text, mistake)]]));
    assert.ok(findings.some((found) => finding.test(found)), findings.join('\n'));
  });
}
