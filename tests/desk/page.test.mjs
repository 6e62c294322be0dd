// The page in a real browser: a few journeys of a person at the desk.

import assert from 'node:assert/strict';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { request } from 'node:http';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { fileURLToPath, pathToFileURL } from 'node:url';
import { chromium } from '../../desk/node_modules/playwright-core/index.mjs';
import { Desk } from '../../desk/lib/desk.mjs';
import { DeskServer } from '../../desk/lib/desk-server.mjs';
import { Record } from '../../desk/lib/record.mjs';
import { loadKeys } from '../../simulator/lib/keys.mjs';
import { packPassport } from '../../simulator/lib/passport-persona.mjs';
import { issuePassport } from '../../simulator/lib/passport/specimen.mjs';
import { DEFAULT_IDENTITY, SPECIMEN_PERSON } from '../../simulator/lib/persona.mjs';
import { startReaderProcess } from '../../simulator/lib/processes.mjs';

const pathOf = (name) => fileURLToPath(new URL(`../../${name}`, import.meta.url));
const kQuiet = ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
  '--disable-component-update', '--disable-sync', '--disable-dev-shm-usage'];
const kFolder = mkdtempSync(join(tmpdir(), 'desk-page-'));
const kPatience = 60000; // ms, for a machine with other work
let desk;
let server;
let browser;
let page;
const complaints = []; // of the browser, and requests to anywhere else

before(async () => {
  const library = pathOf('build/host/libtqreader.so');
  desk = new Desk({ library, keys: loadKeys(pathOf('keys/development_keys.h')).decode, env: 268, decodeHost: '127.0.0.1', decodePort: 0 });
  await desk.open();
  server = await new DeskServer(desk).start();
  browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args: kQuiet });
  page = await browser.newPage({ viewport: { width: 1280, height: 900 } });
  page.setDefaultTimeout(kPatience);
  page.on('console', (message) => message.type() === 'error' && complaints.push(message.text()));
  page.on('pageerror', (error) => complaints.push(error.message));
  page.on('request', (asked) => asked.url().startsWith(`http://127.0.0.1:${server.port}/`) || /^(blob|data):/.test(asked.url()) || complaints.push(asked.url()));
});
after(async () => {
  await browser?.close();
  await Promise.all([server?.stop(), desk?.close()]);
  rmSync(kFolder, { recursive: true });
});

/** Status of a plain request, as another program on this machine would make it. */
const statusOf = (path, { body, ...options } = {}) => new Promise((resolve, reject) => {
  const made = request({ host: '127.0.0.1', port: server.port, path, ...options }, (response) => resolve(response.resume().statusCode));
  made.on('error', reject).end(body);
});

async function save(button) {
  const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('button', { name: button }).click()]);
  const path = join(kFolder, download.suggestedFilename());
  await download.saveAs(path);
  return path;
}

/** A read by mouse, up to its end. */
async function read({ misbehaviour = '', kind, document = 'passport' }, state) {
  await page.locator(`input[value=${document}]`).check({ force: true });
  if (kind) await page.locator('#kind').selectOption(kind);
  await page.locator('#misbehaviour').selectOption(misbehaviour);
  await page.locator('[name=pace]').uncheck();
  await page.getByRole('button', { name: 'Read', exact: true }).click();
  await page.locator(`.pill.${state}`).waitFor();
}

test('who has no good address is refused', async () => {
  const own = `127.0.0.1:${server.port}`;
  const post = (token, headers) => statusOf('/api/session', { method: 'POST', body: JSON.stringify({ token }), headers });
  const [, token] = server.newAddress().split('#token=');
  assert.equal(await statusOf('/', { headers: { host: 'desk.example' } }), 421);
  assert.equal(await statusOf('/..%2flib/desk.mjs'), 404);
  for (const path of ['state', 'events', 'reads/1', 'reads/1/report']) assert.equal(await statusOf(`/api/${path}`), 401, path);
  assert.equal(await post(token, { host: own, origin: 'http://desk.example' }), 403);
  assert.equal(await post('wrong'), 403);
  assert.equal(await post(token), 200);
  assert.equal(await post(token), 403, 'a second time');
  await page.goto(`http://${own}/#token=wrong`);
  await page.getByText('This address is not good').waitFor();
  complaints.length = 0; // the browser has told of the refusal
});

test('a passport is read, by keyboard alone, and every step is seen', async () => {
  const seen = new Map();
  desk.store.on('event', ({ name, data }) => name === 'step' && data.step.ms !== null && seen.set(data.step.n, data.step));
  await page.goto('about:blank');
  await page.goto(server.newAddress());
  await page.locator('#kind option').first().waitFor({ state: 'attached' });
  assert.equal(new URL(page.url()).hash, '', 'the token has left the address');
  await page.locator('input[value=passport]').focus();
  for (const key of ['Tab', 'Tab', 'Tab', 'Tab', 'Enter']) await page.keyboard.press(key);
  await page.locator('.files').getByText('DG2').waitFor();
  await page.locator('.pill.good').waitFor();
  const shown = await page.locator('[id^=step-]').evaluateAll((steps) => steps.map(({ id }) => Number(id.slice(5))));
  assert.deepEqual(shown.sort((a, b) => a - b), Array.from({ length: 117 }, (_, i) => i));
  assert.equal(seen.size, 117);
});

test('what came can be looked at, down to the fields', async () => {
  await page.getByText('SPECIMEN, TESSA UTOPIA').waitFor();
  assert.ok(await page.getByAltText('Portrait of the holder').evaluate((image) => image.complete && image.naturalWidth > 100));
  assert.equal(await page.locator('.digits .good').count(), 5);
  assert.equal(await page.locator('.checks .bad').count(), 0);
  await page.getByText('Every byte was as it should be').waitFor();
  await page.locator('.group summary', { hasText: 'DG1 3' }).focus();
  await page.keyboard.press('Enter');
  await page.locator('summary', { hasText: 'READ DG1 How' }).first().press('Enter');
  await page.locator('.opened', { hasText: '615B5F1F' }).waitFor(); // where DG1 begins, under its encryption
  await page.locator('summary', { hasText: '0x7202' }).click();
  await page.locator('.field', { hasText: 'EF.SOD' }).last().waitFor();
});

test('a report opens without scripts, a trace has nothing personal', async () => {
  const report = readFileSync(await save('Save report'), 'utf8');
  const context = await browser.newContext({ javaScriptEnabled: false, offline: true });
  const reader = await context.newPage();
  await reader.goto(pathToFileURL(join(kFolder, 'read-1.html')).href);
  await reader.getByText('SPECIMEN, TESSA UTOPIA', { exact: true }).waitFor();
  assert.ok(await reader.locator('.step').count() > 117);
  assert.doesNotMatch(report, /<script|https?:\/\//);
  assert.ok((await reader.pdf({ format: 'A4' })).length > 20000);
  await context.close();

  const { holder, mrz, documentNumber } = issuePassport();
  const trace = readFileSync(await save('Save trace'), 'utf8');
  const { content, monitor } = desk.store.get(1);
  const people = [holder, mrz, SPECIMEN_PERSON, DEFAULT_IDENTITY, monitor.record, [documentNumber, '1990-01-01']];
  const values = people.flatMap((each) => Object.values(each)).filter((value) => value.length > 3);
  const words = values.flatMap((value) => String(value).split(/[ <,;]+/)).filter((word) => word.length > 2 && !/^(com|sod|dg\d+)_str:9000$/.test(word));
  const pieces = [...Object.values(content.files), content.answer, content.challenge].flatMap((bytes) =>
    Array.from({ length: Math.min(40, Math.floor(bytes.length / 6)) }, (_, i) => bytes.subarray(6 * i, 6 * i + 6)));
  const forms = [...words, ...words.map((word) => Buffer.from(word).toString('hex')), ...pieces.flatMap((bytes) => ['hex', 'base64'].map((form) => bytes.toString(form)))];
  assert.ok(forms.length > 300);
  for (const form of forms) assert.ok(!trace.toLowerCase().includes(form.toLowerCase()), `${form} stands in the trace`);
  assert.equal(JSON.parse(trace).steps.filter(({ name }) => name === 'READ DG2').length, 82);
});

test('misbehaviour is seen, and what would have been without it', async () => {
  await read({ misbehaviour: 'wrongMac' }, 'failed');
  await page.getByText('its MAC is wrong').first().waitFor();
  await page.getByText('What would have been different').waitFor();
  await page.getByText('17,088 bytes instead of').waitFor();
  await read({ kind: 'changedZone' }, 'good');
  await page.locator('.checks .bad', { hasText: 'DG1' }).waitFor();
  await read({ document: 'identityCard', misbehaviour: 'serverRefuses' }, 'failed');
  await page.getByText('-1301').first().waitFor();
  await page.locator('.step', { hasText: 'REQB' }).waitFor();
  await read({ kind: 'paceAlone' }, 'good');
  await page.locator('.group', { hasText: 'EF.CardAccess' }).first().waitFor();
});

test('the read of a phone appears by itself', async () => {
  const { host: ip, port } = desk.phones;
  const phone = startReaderProcess({ library: pathOf('build/host/libtqreader.so'), identity: { ...DEFAULT_IDENTITY, ip, port },
    passport: packPassport(issuePassport()), cardDelay: 0, perByte: 0, timeoutMs: kPatience });
  const { data: { info } } = await phone.result;
  assert.ok(info.checks.some(({ name, verdict }) => name === 'The chip is no copy' && verdict === 'good'), 'the phone is told, too');
  phone.release();
  await page.locator('.reads a.good', { hasText: 'on a phone' }).click();
  await page.getByText('SPECIMEN, TESSA UTOPIA').waitFor();
  await page.getByText('Phone', { exact: true }).waitFor();
});

test('a thousand reads in the list leave the page quick', async () => {
  for (let i = 0; i < 1000; i += 1) {
    const record = new Record({ id: desk.store.nextId(), kind: 'passport', source: 'phone', title: `Passport ${i}`, key: Buffer.alloc(16) });
    desk.store.add(record);
    record.endOfPhone();
  }
  await page.locator('.reads li').nth(999).waitFor({ state: 'attached' });
  const took = await page.evaluate(async () => {
    const began = performance.now();
    document.querySelector('.reads a[href="#read-3"]')?.click();
    document.querySelectorAll('.reads a')[500].click();
    const filter = document.getElementById('filter');
    filter.value = 'passport 77';
    filter.dispatchEvent(new Event('input'));
    await new Promise((resolve) => { requestAnimationFrame(() => setTimeout(resolve)); });
    return performance.now() - began;
  });
  assert.equal(await page.locator('.reads li:not([hidden])').count(), 11);
  assert.ok(took < 1000, `${took} ms`); // some 30 on an idle machine
});

test('the browser had nothing to complain about', () => assert.deepEqual(complaints, []));
