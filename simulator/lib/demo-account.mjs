// The demo's account of its reads: a line for each step as it happens, then what came of it. Everything it prints
// goes through `say`, and on a terminal a progress bar follows below the last line.

import { CARD_STEPS, coloursFor, dotted, PASSPORT_FILES, PASSPORT_STEPS, recordTexts, SERVER_STEPS } from './account.mjs';
import { now } from './clock.mjs';
import { FileTally } from './file-tally.mjs';

const kWidth = 92;
const kBar = 30;
const kLabels = {
  name: 'name', sex: 'sex', nation: 'nation', birthDate: 'born', address: 'address', idNumber: 'id number',
  authority: 'issued by', validFrom: 'valid from', validTo: 'valid to',
  documentType: 'document', issuer: 'issued by', givenNames: 'given names', documentNumber: 'number', expiryDate: 'expires',
  personalNumber: 'personal number', checkDigits: 'check digits', fullName: 'name in full', placeOfBirth: 'place of birth',
  passiveAuthentication: 'files are signed', activeAuthentication: 'chip is genuine', signer: 'signed by',
};

/** "bytes 212 to 213" for a READ BINARY command in hexadecimal. */
function bytesRead(command) {
  const offset = Number.parseInt(command.slice(4, 8), 16);
  return `bytes ${offset} to ${offset + Number.parseInt(command.slice(8), 16) - 1}`;
}

export class DemoAccount {
  #stream;
  #colours;
  #began = 0;
  #steps = 0;
  #expected = 1;
  #barShown = false;
  #files = new FileTally((step) => this.#chip(step), (file) => this.#file(file));

  constructor(stream = process.stdout) {
    this.#stream = stream;
    this.#colours = coloursFor(stream);
  }

  say(text = '') {
    if (this.#barShown) this.#stream.write('\r\x1b[K');
    this.#barShown = false;
    this.#stream.write(`${text}\n`);
  }

  heading(text) {
    this.say();
    this.say(this.#colours.bold(text));
    this.say('-'.repeat(kWidth));
  }

  introduction({ cardDelay, serverDelay, keys }) {
    const rule = '='.repeat(kWidth);
    this.say(`${rule}\n  Reading a (simulated) resident identity card and two (simulated) passports\n${rule}`);
    this.say(`
  These take part:

     card            its chip answers commands over NFC; what is in its files only the decode
                     server can read
     passport        its chip opens to a reader that knows number, date of birth and date of
                     expiry, with Basic Access Control or, the newest ones, with PACE alone; from
                     then on every command and answer is encrypted
     reader          an application that has loaded libtqreader.so; the library says what to send
                     to the chip, takes the answers and talks to the decode server over TCP
     decode server   makes sure, through the reader, that card or passport is genuine, and turns
                     its files into a person
     location server knows where on a phone the NFC antenna sits; is asked over HTTPS
     latency server  answers short greetings, so that the way to it can be measured

  Only the library is real. Card, passport and servers are simulations: they check every
  byte that the library sends and answer at a realistic pace (${cardDelay} ms per card command, ${serverDelay} ms
  per server answer). The decode server runs in a process of its own. Keys come from
  ${keys}`);
  }

  /** A read begins. `expected` is how many steps a good one takes, for the progress bar. */
  begin(at, title, expected) {
    this.#began = at;
    this.#steps = 0;
    this.#expected = expected;
    this.heading(title);
    this.say(this.#colours.dim('    start     took   who            step                    what it is for'));
  }

  card({ name, command, at, ms }) {
    this.#step(at, ms, 'card', this.#colours.cyan, name, CARD_STEPS[name] ?? bytesRead(command));
  }

  /** A step of a passport's chip; READs of one file become one line. */
  passport(step) {
    this.#steps += 1;
    this.#files.step(step);
    if (this.#stream.isTTY && step.name.startsWith('READ')) this.#drawBar();
  }

  #chip({ name, at, ms }) {
    this.#line(at, ms, 'passport', this.#colours.cyan, name, PASSPORT_STEPS[name] ?? '');
  }

  #file({ name, at, ms, bytes, commands, status }) {
    const size = `${bytes} bytes, ${commands} commands`.padEnd(26);
    const told = bytes > 0 && status === '9000' ? size : `refused (${status})`.padEnd(26);
    this.#line(at, ms, 'passport', this.#colours.cyan, `file ${name}`, `${told}${PASSPORT_FILES[name] ?? ''}`);
  }

  server({ command, receivedAt, answeredAt }) {
    this.#files.flush();
    const took = (answeredAt ?? now()) - receivedAt;
    this.#step(receivedAt, took, 'decode server', this.#colours.yellow, command, SERVER_STEPS[command] ?? '');
  }

  /** A call that asks a small service. */
  service(name, { at, ms }, answer) {
    this.#step(at, ms, 'application', this.#colours.yellow, name, answer);
  }

  #step(at, ms, who, colour, step, meaning) {
    this.#steps += 1;
    this.#line(at, ms, who, colour, step, meaning);
  }

  #line(at, ms, who, colour, step, meaning) {
    const start = `${Math.max(0, Math.round(at - this.#began))} ms`.padStart(9);
    const took = `${Math.round(ms)} ms`.padStart(9);
    this.say(`${start}${took}   ${colour(who.padEnd(15))}${step.padEnd(24)}${meaning}`);
    if (this.#stream.isTTY) this.#drawBar();
  }

  #drawBar() {
    const done = Math.min(1, this.#steps / this.#expected);
    const filled = Math.round(done * kBar);
    const bar = '#'.repeat(filled) + '.'.repeat(kBar - filled);
    this.#stream.write(`${this.#barShown ? '\r' : ''}  [${bar}] ${this.#steps} steps`);
    this.#barShown = true;
  }

  /** A heading and the texts of a decoded document below it. */
  person(title, info) {
    this.heading(title);
    for (const [name, value] of Object.entries(info)) {
      if (typeof value !== 'object') this.say(dotted(kLabels[name] ?? name, value));
    }
  }

  /** What the decode server has found out about a passport. */
  verification({ hashes, ...verdicts }) {
    this.person('What the decode server found out about the passport', verdicts);
    const compared = Object.entries(hashes).map(([name, verdict]) => `${name} ${verdict}`);
    this.say(dotted('hashes', compared.join(', ')));
  }

  monitor(record) {
    this.heading('The monitor record (one per read, for the application and for the server)');
    for (const [name, value] of recordTexts(record)) {
      const text = name === 'sod_file' ? value.replace(/(.{50,}?;)(?=.)/g, `$1\n${' '.repeat(21)}`) : value;
      this.say(dotted(name, text === '' ? '(empty)' : text));
    }
  }

  /** Rows of [what, good, detail]. */
  checks(rows) {
    this.heading('Checks');
    for (const [what, good, detail] of rows) {
      const mark = good ? this.#colours.green('ok   ') : this.#colours.red('WRONG');
      this.say(`  ${mark}  ${what.padEnd(46)} ${detail}`);
    }
  }

  conclusion(good, text) {
    this.say();
    this.say(good ? this.#colours.green(`  ${text}`) : this.#colours.red(`  ${text}`));
  }
}
