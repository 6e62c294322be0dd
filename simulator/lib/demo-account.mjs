// The demo's account of a read: a line for each step as it happens, then what came of it. Everything it prints
// goes through `say`, and on a terminal a progress bar follows below the last line.

import { CARD_STEPS, coloursFor, dotted, SERVER_STEPS } from './account.mjs';

const kWidth = 92;
const kBar = 30;
const kLabels = {
  name: 'name', sex: 'sex', nation: 'nation', birthDate: 'born', address: 'address', idNumber: 'id number',
  authority: 'issued by', validFrom: 'valid from', validTo: 'valid to',
};

/** How many steps a good read takes: 19 card commands, and 6 or 7 server exchanges. */
const kExpectedSteps = 26;

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
  #barShown = false;

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
    this.say(`${rule}\n  Reading a (simulated) resident identity card\n${rule}`);
    this.say(`
  Three parties take part:

     card            its chip answers commands over NFC; what is in its files only the decode
                     server can read
     reader          an application that has loaded libtqreader.so; the library says what to send
                     to the card, takes the answers and talks to the decode server over TCP
     decode server   makes sure, through the reader, that the card is genuine, and turns the
                     card's files into a person

  Only the library is real. Card and decode server are simulations: they check every byte that
  the library sends and answer at a realistic pace (${cardDelay} ms per card command, ${serverDelay} ms per server
  answer). The server runs in a process of its own, with the keys of
  ${keys}`);
  }

  begin(at) {
    this.#began = at;
    this.heading('The read, step by step');
    this.say(this.#colours.dim('    start     took   who            step                    what it is for'));
  }

  card({ name, command, at, ms }) {
    this.#step(at, ms, 'card', this.#colours.cyan, name, CARD_STEPS[name] ?? bytesRead(command));
  }

  server({ command, receivedAt, answeredAt }) {
    const took = (answeredAt ?? Date.now()) - receivedAt;
    this.#step(receivedAt, took, 'decode server', this.#colours.yellow, command, SERVER_STEPS[command] ?? '');
  }

  #step(at, ms, who, colour, step, meaning) {
    this.#steps += 1;
    const start = `${Math.max(0, at - this.#began)} ms`.padStart(9);
    const took = `${ms} ms`.padStart(9);
    this.say(`${start}${took}   ${colour(who.padEnd(15))}${step.padEnd(24)}${meaning}`);
    if (this.#stream.isTTY) this.#drawBar();
  }

  #drawBar() {
    const done = Math.min(1, this.#steps / kExpectedSteps);
    const filled = Math.round(done * kBar);
    this.#stream.write(`  [${'#'.repeat(filled)}${'.'.repeat(kBar - filled)}] ${this.#steps} steps`);
    this.#barShown = true;
  }

  person(info) {
    this.heading('The decoded person (specimen data)');
    for (const [name, value] of Object.entries(info)) this.say(dotted(kLabels[name] ?? name, value));
  }

  monitor(record) {
    this.heading('The monitor record (one per read, for the application and for the server)');
    for (const [name, value] of Object.entries(record)) this.say(dotted(name, value === '' ? '(empty)' : value));
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
