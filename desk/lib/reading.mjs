// The desk reads a document: a decode server of its own for this read, and the reader in a process of its own.

import { fork } from 'node:child_process';
import { fileURLToPath } from 'node:url';
import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { DEFAULT_IDENTITY, expectedPersona } from '../../simulator/lib/persona.mjs';
import { Record, answerWith } from './record.mjs';

const kReader = fileURLToPath(new URL('children/reader.mjs', import.meta.url));
const kEnd = 'The reader process has ended early; does the library load?';

/**
 * Starts a read.
 * @param {object} about      as for Record
 * @param {object} options    library; keys (of the decode server, by environment); read: options of the reader process, see
 *   children/reader.mjs; server: settings of the decode server
 * @returns {{record: Record, done: Promise<Record>, cancel: Function}}
 */
export function startReading(about, { library, keys, read, server: settings = {} }) {
  const { envIdCode } = DEFAULT_IDENTITY;
  const record = new Record({ ...about, key: keys[envIdCode], printed: read.printed });
  const server = new DecodeServer({ persona: expectedPersona(DEFAULT_IDENTITY), ...settings, keys, envIdCode, judge: answerWith(about.trust) });
  server.on('exchange', (exchange) => record.exchange(exchange));
  server.on('difference', (difference) => record.differ({ by: 'server', ...difference.toJSON() }));
  const cancel = { now: () => {} };
  const done = perform().catch((error) => record.end({ code: null, name: error.name, message: error.message })).then(() => record);
  return { record, done, cancel: () => cancel.now() };

  async function perform() {
    const { host, port } = await server.start();
    // detached: Ctrl-C in the terminal is for the parent, which cancels the read
    const child = fork(kReader, [], { detached: true, serialization: 'advanced', stdio: ['ignore', 'ignore', 'ignore', 'ipc'] });
    const kill = () => child.kill('SIGKILL');
    process.once('exit', kill);
    cancel.now = () => child.connected && child.send({ cancel: true });
    const events = {
      started: ({ at }) => { record.began = at; },
      command: (event) => record.command(event),
      answer: (event) => record.answer(event),
      progress: () => {},
      monitor: (event) => record.monitored(event),
      difference: (event) => record.differ(event),
    };
    try {
      const outcome = await new Promise((resolve, reject) => {
        child.on('message', ({ event, subject }) => (event === 'end' ? resolve(subject) : events[event](subject)));
        child.once('error', reject).once('exit', () => reject(new Error(kEnd)));
        child.send({ read: { library, readMode: 2, identity: { ...DEFAULT_IDENTITY, ip: host, port }, ...read } });
      });
      await record.end(outcome, outcome.at);
    } finally {
      process.off('exit', kill);
      child.removeAllListeners('exit');
      await server.stop();
    }
  }
}
