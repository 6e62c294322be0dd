// The tests' side: processes under test, and what a read is expected to come to.

import assert from 'node:assert/strict';
import { fork } from 'node:child_process';
import { once } from 'node:events';
import { closeSync, mkdtempSync, openSync, readFileSync, rmSync, statSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { DEFAULT_IDENTITY, SPECIMEN_PERSON } from '../../simulator/lib/persona.mjs';

/** A sanitizer slows everything down; limits of time are then wider. */
export const SANITIZED = /san/.test(process.env.LD_PRELOAD ?? '');
const kTimeToAnswer = SANITIZED ? 400_000 : 100_000;
const kTimeToEnd = SANITIZED ? 100_000 : 10_000;
const kMain = fileURLToPath(new URL('./main.mjs', import.meta.url));
const kLateClock = /^获取到的时间戳C: 0$/m;
const kFinding = /runtime error:|Sanitizer|terminate called|Assertion|FATAL ERROR/;

const kChildren = [];
after(() => kChildren.forEach((child) => child.kill('SIGKILL'))); // those that a failed test has left behind

/** A process under test. What it writes goes to files, which are shown when something is wrong. */
export class Process {
  #folder = mkdtempSync(join(tmpdir(), 'tqreader-e2e-'));
  #waiting = new Map();
  #calls = 0;

  /**
   * `main` is the program; without `leaks` a sanitizer does not look for them: `process.exit` leaves much of Node.js itself
   * behind.
   */
  constructor({ leaks = true, main = kMain } = {}) {
    const env = { ...process.env };
    if (!leaks) env.ASAN_OPTIONS = `${env.ASAN_OPTIONS ?? ''}:detect_leaks=0`;
    const [out, err] = ['out', 'err'].map((name) => openSync(join(this.#folder, name), 'w'));
    this.child = fork(main, [], { env, stdio: ['ignore', out, err, 'ipc'] });
    kChildren.push(this.child);
    [out, err].forEach((file) => closeSync(file));
    this.exited = once(this.child, 'exit').then(([code, signal]) => {
      this.ending = signal ?? code;
      for (const { reject, timer } of this.#waiting.values()) {
        clearTimeout(timer);
        reject(new Error(`the process ended with ${this.ending}\n${this.findings()}`));
      }
    });
    this.child.on('message', ({ id, value, error }) => {
      const { resolve, reject, timer } = this.#waiting.get(id);
      clearTimeout(timer);
      this.#waiting.delete(id);
      if (error) reject(new Error(error));
      else resolve(value);
    });
  }

  text(name) {
    return readFileSync(join(this.#folder, name), 'utf8');
  }

  /** What a sanitizer or the runtime had to say. */
  findings() {
    const text = this.text('err');
    const at = text.search(kFinding);
    return at < 0 ? text.slice(-500) : text.slice(at, at + 6000);
  }

  call(name, argument) {
    return new Promise((resolve, reject) => {
      this.#calls += 1;
      const timer = setTimeout(() => this.child.kill('SIGKILL'), kTimeToAnswer);
      this.#waiting.set(this.#calls, { resolve, reject, timer });
      this.child.send({ id: this.#calls, name, argument });
    });
  }

  /**
   * Performs a read and checks it. On a machine with much else to do, the half second that the library gives the application's
   * clock may pass before the application gets to run: such a read says nothing and is repeated.
   */
  async read(row, expected = row) {
    for (let left = 3; ; left -= 1) {
      const before = statSync(join(this.#folder, 'err')).size;
      const outcome = await this.call('perform', row);
      try {
        check(outcome, expected);
        return outcome;
      } catch (error) {
        if (left === 1 || !kLateClock.test(readFileSync(join(this.#folder, 'err')).subarray(before).toString())) throw error;
      }
    }
  }

  /** Lets go of the process: it has to end by itself, with nothing to be said against it. */
  async end({ keep = false } = {}) {
    if (this.child.connected) this.child.disconnect();
    const timer = setTimeout(() => this.child.kill('SIGKILL'), kTimeToEnd);
    await this.exited;
    clearTimeout(timer);
    assert.equal(this.ending, 0, `the process ended with ${this.ending}\n${this.findings()}`);
    assert.doesNotMatch(this.text('err'), kFinding, this.findings());
    if (!keep) this.discard();
  }

  discard() {
    rmSync(this.#folder, { recursive: true });
  }
}

/** One scenario in a process of its own. */
export async function alone(name, argument) {
  const child = new Process();
  const value = await child.call(name, argument);
  await child.end();
  return value;
}

const BUSINESS_ID = 'SIMULATED-READ-000001';
const GOOD_STATUS = 36864;
const kMostErrorCommand = 64; // digits
const BEGIN = 1_700_000_000_000; // where the application's clock stands

export const jsonResult = (info, reqid = BUSINESS_ID) =>
  `{"code":0,"flag":1,"data":{"reqid":"${reqid}"${info === undefined ? '' : `,"info":${info}`}}}`;
export const GOOD_RESULT = jsonResult(JSON.stringify(SPECIMEN_PERSON));

/** How each file of the rig's usual passport ends, as the monitor record tells it. */
export const sodText = (files, failed = {}) =>
  files.split(' ').map((name) => `${name}_str:${failed[name] ?? '9000'}`).join(';');
export const USUAL_FILES = { 1: sodText('com sod dg15 dg11 dg1 dg14'), 2: sodText('com sod dg15 dg11 dg1 dg2 dg14') };

/** Of which kind the read was that came to an end. */
const kindOf = ({ ends, kind, passport }) => ends ?? kind ?? (passport ? 'passport' : 'card');

/** The document in a good result: what the server has sent. */
const documentOf = (expected, outcome) =>
  (kindOf(expected) === 'passport' ? outcome.fields['0x7202']?.info : SPECIMEN_PERSON);

function resultText(expected, outcome) {
  const { code = 0, raw, told = 'both', reqid = BUSINESS_ID } = expected;
  if (raw) return raw;
  if (code === 0) return jsonResult(JSON.stringify(documentOf(expected, outcome)), reqid);
  return told === 'none' ? `{"code":${code},"flag":0,"data":""}` : `{"code":${code}, "flag":3, "data":"tqbizid${reqid}"}`;
}

/** The monitor text, byte for byte. */
function monitorText(expected, outcome) {
  const { code = 0, nfc, reqid = BUSINESS_ID, identity, server = {}, tick = {}, start } = expected;
  const { sn, appid, readMode } = { ...DEFAULT_IDENTITY, ...identity };
  const isPassport = kindOf(expected) === 'passport';
  const sod = expected.sod ?? (isPassport && code === 0 ? USUAL_FILES[readMode] : '');
  const exchanges = outcome.server.filter((command) => command !== '0x7219').length;
  const passed = outcome.commands.reduce((sum, { name }) => sum + (tick[name] ?? tick.card ?? 0), exchanges * (tick.server ?? 0));
  const time = start === undefined ? passed : BigInt.asIntN(32, BigInt(BEGIN) - BigInt(start));
  const failed = nfc === undefined ? '' : outcome.commands.at(-1).command.slice(0, kMostErrorCommand);
  return `{"reqid": "${reqid}", "result_code": ${code}, "decode_times": ${time}, "time_delay": ${tick.server ?? 0}, ` +
    `"nfc_err_code": ${nfc ?? GOOD_STATUS}, "nfc_err_cmd": "${failed}", "card_type": ${isPassport ? 1 : 0}, "device_id": ${JSON.stringify(sn)}, ` +
    `"appid": "${appid.trim()}", "sod_file": "${sod}", "stickCard_id": "${server.newStickCardId ?? 'C0FFEE00000000000000000000000001'}"}`;
}

/**
 * Compares what came of a read with what a case expects:
 *   code, raw     the result's code (default 0), or its whole text
 *   silent        no result and no monitor record at all
 *   told          who got the monitor record: 'both', 'application', 'none', or 'any': the application, and the server or not
 *   nfc           status of the card in the monitor record when it is not 9000; the last command is then named as well
 *   reqid         business id
 *   last          [server command before the monitor record, card command] that came last
 *   start         what the first reading of the clock gave, when not the time
 *   reports       texts that the server got, when not the monitor record
 *   waiting       the worker is there when the answer comes that was outstanding at the trigger
 *   connections   how many there were
 *   sod           text about the files of a passport, when not the usual one
 *   ends          kind of the read that came to an end, when not the first
 *   differs       differences that match this are in order
 *   order         names of the card's commands up to here, each file's READs once
 *   open          the connection stays open
 */
export function check(outcome, expected) {
  const { silent = false, told = silent ? 'none' : 'both', last, open = false, reports, waiting, connections, order, differs } = expected;
  const monitors = told === 'none' ? [] : [monitorText(expected, outcome)];
  const reached = told === 'both' || (told === 'any' && outcome.reports.length > 0);
  const wanted = { code: 0, ended: true, results: silent ? [] : [resultText(expected, outcome)], monitors,
    reports: reports ?? (reached ? monitors : []), differences: [], open, last, waiting, connections, order };
  const lastTwo = [outcome.server.filter((command) => command !== '0x7219').at(-1), outcome.commands.at(-1)?.name];
  const names = outcome.commands.map(({ name }) => name);
  const differences = outcome.differences.filter((text) => !(differs && new RegExp(differs).test(text)));
  const seen = { ...outcome, differences, last: lastTwo, order: names.filter((name, i) => name !== names[i - 1]).join(', ') };
  const compared = Object.keys(wanted).filter((name) => wanted[name] !== undefined);
  const only = (values) => Object.fromEntries(compared.map((name) => [name, values[name]]));
  assert.deepEqual(only(seen), only(wanted));
  for (const after of [outcome.again, outcome.other].filter(Boolean)) {
    const { kind, results: [again], differences: found } = after;
    assert.deepEqual({ again, found }, { again: resultText({ kind, reqid: expected.reqid }, after), found: [] }, 'the read after it');
  }
}

/** A way in which an answer of the server is malformed, by its name or with more about it. */
export const asRule = (kind) => ({ do: 'malformed', ...(typeof kind === 'string' ? { kind } : kind) });

/** Makes rows of reads whose server follows rules at the command `on`, of which `commands` say how a read gets there. */
export const failingAt = (commands) => (on, rules, row = {}) => ({ name: `${on}: ${rules.map((rule) => Object.values(rule).join(' ')).join(', ')}`,
  ...commands[on], server: { rules: rules.map((rule) => ({ on, ...rule })) }, ...row });

/** The connection ends without an answer, or in the middle of one: after so many bytes (all but as many, when negative). */
export const noAnswer = (...lengths) => [[{ do: 'close' }], [{ do: 'reset' }],
  ...['lengthLong', 'lengthHuge', ...lengths.map((at) => ({ kind: 'cut', at }))].map((kind) => [asRule(kind), { do: 'hangup' }])];

/** A table of reads in one process; each row: name, what `perform` takes and what `check` expects. */
export function testReads(title, cases) {
  test(title, async (t) => {
    let child = new Process();
    for (const row of cases) {
      await t.test(row.name, async () => {
        if (child.ending !== undefined) child = new Process();
        await child.read(row);
      });
    }
    await t.test('the process ends by itself', () => child.end());
  });
}
