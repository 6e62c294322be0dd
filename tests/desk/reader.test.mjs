// The way over PC/SC, with the real service and a virtual reader in which a simulated passport lies.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { Desk } from '../../desk/lib/desk.mjs';
import { PcscCard, ReaderWatch } from '../../desk/lib/pcsc.mjs';
import { loadKeys } from '../../simulator/lib/keys.mjs';
import { PassportChip } from '../../simulator/lib/passport/chip.mjs';
import { issuePassport } from '../../simulator/lib/passport/specimen.mjs';
import { VirtualCard, startService, until } from './virtual-reader.mjs';

const pathOf = (name) => fileURLToPath(new URL(`../../${name}`, import.meta.url));
const kPrinted = ['--number', 'SPEC01234', '--birth', '900101', '--expiry', '341231'];
const kFolder = mkdtempSync(join(tmpdir(), 'desk-'));
const passport = issuePassport();
let service = null;
after(async () => {
  rmSync(kFolder, { recursive: true });
  await service?.stop();
});

let reading = null; // the program, with all that it has started in one group, as a terminal has them

async function readPassport(...args) {
  const program = spawn(process.execPath, [pathOf('desk/bin/read-passport.mjs'), ...args], { detached: true, stdio: ['ignore', 'pipe', 'pipe'] });
  reading = program;
  let told = '';
  for (const stream of [program.stdout, program.stderr]) stream.on('data', (text) => { told += text; });
  const [code] = await once(program, 'close');
  return { code, told };
}

/** A passport in the virtual reader; `before` is called with the number of each command. */
async function withPassport(use, before = () => {}) {
  const chip = new PassportChip(passport);
  let count = 0;
  const card = new VirtualCard(async (command) => {
    count += 1;
    await before(count, card);
    return chip.respond(command).answer;
  });
  card.insert();
  try {
    await use(card);
  } finally {
    await card.remove();
    const watch = new ReaderWatch();
    await until(() => watch.error || (watch.readers.length > 0 && watch.readers.every(({ state }) => state === 'empty')), 'the reader is empty');
    await watch.close();
  }
  return chip;
}

test('without the service', async () => {
  const { code, told } = await readPassport(...kPrinted, '--wait', '0');
  assert.equal(code, 1);
  assert.match(told, /PC\/SC service is not running/);
});

test('with the service', async (t) => {
  service = await startService();

  for (const [what, words, ...args] of [['no card', /no card on the reader/], ['no such reader', /no card reader/, '--reader', 'Contactless']]) {
    await t.test(what, async () => {
      const { code, told } = await readPassport(...kPrinted, '--wait', '0', ...args);
      assert.equal(code, 1);
      assert.match(told, words);
    });
  }

  await t.test('a good read brings the files and the holder', async () => {
    const chip = await withPassport(async () => {
      const { code, told } = await readPassport(...kPrinted, '--save', kFolder);
      assert.equal(code, 0, told);
      assert.match(told, /surname \.* SPECIMEN/);
      assert.match(told, /good +The chip is no copy/);
    });
    assert.deepEqual(chip.differences, []);
    assert.deepEqual(readFileSync(join(kFolder, 'DG2.bin')), passport.files.get(0x0102));
    assert.ok(existsSync(join(kFolder, 'portrait.jpeg')));
  });

  await t.test('the desk reads it as well', () => withPassport(async () => {
    const desk = new Desk({ library: pathOf('build/host/libtqreader.so'), keys: loadKeys(pathOf('keys/development_keys.h')).decode,
      env: 268, decodeHost: '127.0.0.1', decodePort: 0 });
    await desk.open();
    await until(() => desk.state().readers.list.some(({ state }) => state === 'card'), 'the desk sees the card');
    const { id } = desk.start({ document: 'reader', number: 'SPEC01234', birth: '900101', expiry: '341231' });
    await until(() => !desk.store.get(id).running, 'the read is over');
    assert.equal(desk.store.get(id).judged.holder.surname, 'SPECIMEN');
    await desk.close();
  }));

  await t.test('a reader in use', () => withPassport(async () => {
    const watch = new ReaderWatch();
    const held = await PcscCard.connect(await watch.readerWithCard({ waitMs: 5000 }));
    const { code, told } = await readPassport(...kPrinted);
    await Promise.all([held.close(), watch.close()]);
    assert.equal(code, 1);
    assert.match(told, /Another program is using the card reader/);
  }));

  for (const [what, words, happen] of [
    ['the card is taken away', /The card was taken away/, (card) => card.remove()],
    ['Ctrl-C', /Not read: .*cancel/i, () => process.kill(-reading.pid, 'SIGINT')],
    ['the service goes, and the reader with it', /The card reader is gone|service (is not running|has been stopped|does not answer)/, () => service.kill()],
  ]) {
    await t.test(`${what}, in the middle`, () => withPassport(async () => {
      const { code, told } = await readPassport(...kPrinted);
      assert.equal(code, 1);
      assert.match(told, words);
    }, async (count, card) => {
      if (count === 40) await happen(card);
    }));
  }
});
