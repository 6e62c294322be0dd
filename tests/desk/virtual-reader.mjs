// A PC/SC service of the tests' own with a virtual reader (Debian's pcscd and vsmartcard-vpcd), and a card in it.

import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { connect } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

const kPort = 35963; // where the driver listens for a card
const kDriver = '/usr/lib/pcsc/drivers/serial/libifdvpcd.so';
const kAtr = Buffer.from('3B80800101', 'hex'); // a contactless card without historical bytes, T=1

// The reader sends the length of a message and the message apart, and with a delayed acknowledgement in between (40 ms for
// each command). Node.js cannot ask for quick ones; Perl, which every Debian has, can.
const kQuickly = `use Socket qw(:all); use IO::Select; $| = 1;
  socket(my $s, PF_INET, SOCK_STREAM, 0);
  connect($s, sockaddr_in($ARGV[0], INADDR_LOOPBACK)) || die;
  setsockopt($s, IPPROTO_TCP, TCP_NODELAY, 1);
  for (my $both = IO::Select->new($s, \\*STDIN); ;) {
    setsockopt($s, IPPROTO_TCP, TCP_QUICKACK, 1);
    for my $from ($both->can_read) {
      sysread($from, my $bytes, 65536) || exit;
      syswrite($from == $s ? STDOUT : $s, $bytes);
    }
  }`;
const kAskAtr = 4; // the other control bytes, power and reset, want no answer

/** Until something is so. */
export async function until(condition, what, ms = 20000) {
  for (const end = Date.now() + ms; ; await sleep(20)) {
    const value = await condition();
    if (value) return value;
    if (Date.now() > end) throw new Error(`not within ${ms} ms: ${what}`);
  }
}

const isOpen = () => new Promise((resolve) => {
  const socket = connect(kPort, '127.0.0.1').on('error', () => resolve(false)).on('connect', () => resolve(true));
  setTimeout(() => socket.destroy(), 100);
});

/** Starts pcscd in the foreground with one virtual reader. */
export async function startService() {
  if (await isOpen()) throw new Error('a virtual reader is there already; end its pcscd first');
  const folder = mkdtempSync(join(tmpdir(), 'tqreader-desk-'));
  const channel = `0x${kPort.toString(16)}`;
  writeFileSync(join(folder, 'reader.conf'),
    `FRIENDLYNAME "Virtual PCD"\nDEVICENAME /dev/null:${channel}\nLIBPATH ${kDriver}\nCHANNELID ${channel}\n`);
  const service = spawn('/usr/sbin/pcscd', ['--foreground', '--config', join(folder, 'reader.conf')],
    { stdio: ['ignore', 'pipe', 'pipe'] });
  let told = '';
  for (const stream of [service.stdout, service.stderr]) stream.on('data', (text) => { told += text; });
  const ended = once(service, 'exit');
  ended.then(() => { service.over = true; });
  const stop = async () => {
    service.kill('SIGTERM');
    await ended;
    rmSync(folder, { recursive: true, force: true });
  };
  try {
    await until(() => {
      if (service.over) throw new Error(`pcscd has ended; only one can run at a time: ${told}`);
      return isOpen();
    }, 'the virtual reader listens');
  } catch (error) {
    await stop();
    throw error;
  }
  return { stop, kill: () => service.kill('SIGKILL'), ended };
}

/** A card in the virtual reader: whatever has `respond(command)` or answers commands through a CardLink. */
export class VirtualCard {
  #line;
  #received = Buffer.alloc(0);
  #answer;

  /** @param {(command: Buffer) => Promise<Buffer>} answer */
  constructor(answer) {
    this.#answer = answer;
  }

  insert() {
    this.#line = spawn('perl', ['-e', kQuickly, kPort], { stdio: ['pipe', 'pipe', 'inherit'] });
    this.#line.stdin.on('error', () => {});
    this.#line.stdout.on('data', (bytes) => this.#take(bytes));
  }

  async remove() {
    if (this.#line.exitCode !== null || this.#line.signalCode !== null) return;
    this.#line.kill();
    await once(this.#line, 'exit');
  }

  #take(bytes) {
    this.#received = Buffer.concat([this.#received, bytes]);
    while (this.#received.length >= 2 && this.#received.length >= 2 + this.#received.readUInt16BE()) {
      const end = 2 + this.#received.readUInt16BE();
      const message = this.#received.subarray(2, end);
      this.#received = this.#received.subarray(end);
      if (message.length > 1) this.#answer(message).then((answer) => this.#send(answer), () => this.remove());
      else if (message[0] === kAskAtr) this.#send(kAtr);
    }
  }

  #send(bytes) {
    const length = Buffer.alloc(2);
    length.writeUInt16BE(bytes.length);
    this.#line.stdin.write(Buffer.concat([length, bytes]));
  }
}
