// One read in a process of its own, whatever the library writes going nowhere. The parent sends { read: options } once and
// may send { cancel: true }; the child sends { event, subject } as things happen and ends with the read.
// See ../reading.mjs for the parent's side.

import { configOf } from '../../../simulator/lib/application.mjs';
import { hex } from '../../../simulator/lib/bytes.mjs';
import { CardLink } from '../../../simulator/lib/card-link.mjs';
import { IdentityCard } from '../../../simulator/lib/identity-card.mjs';
import { CancelHandle, TqError, TqReader } from '../../../simulator/lib/package.mjs';
import { PassportChip } from '../../../simulator/lib/passport/chip.mjs';
import { unpackPassport } from '../../../simulator/lib/passport-persona.mjs';
import { loadLibrary } from '../../../simulator/lib/reader.mjs';
import { WatchedModule } from '../../../simulator/lib/watched-module.mjs';
import { PcscCard } from '../pcsc.mjs';

const now = () => performance.timeOrigin + performance.now();
const cancel = new CancelHandle();

function tell(event, subject) {
  if (process.connected) process.send({ event, subject });
}

/** A simulated document at the end of a link: `transmit` gives { data, genuine }, genuine when the link has changed it. */
function simulated({ card, passport, readMode, pace, rules }) {
  const document = passport ? new PassportChip(unpackPassport(passport), { readMode: readMode === 1 ? 1 : 2 }) : new IdentityCard(card);
  document.on('difference', (difference) => tell('difference', { by: 'chip', ...difference.toJSON() }));
  const link = new CardLink(document, { ...pace, rules });
  return {
    transmit: (command, serial) => new Promise((resolve, reject) => {
      const { answer } = link.transmit(Buffer.from(command), serial, ({ data, status }) => {
        if (status < 0) reject(Object.assign(new Error('the document is gone'), { genuine: answer }));
        else resolve({ data, genuine: data.equals(answer) ? undefined : answer });
      });
    }),
    close: () => {},
  };
}

/** The card in a PC/SC reader. */
async function real(reader) {
  const card = await PcscCard.connect(reader);
  return { transmit: async (command) => ({ data: Buffer.from(await card.transmit(command)) }), close: () => card.close() };
}

/** Tells of every command and answer that passes. */
function told(document, serialOfNext) {
  let count = 0;
  return {
    async transmit(command) {
      const n = count;
      count += 1;
      const serial = serialOfNext();
      const at = now();
      tell('command', { n, serial, at, command: hex(command) });
      try {
        const { data, genuine } = await document.transmit(command, serial);
        tell('answer', { n, ms: now() - at, answer: hex(data), genuine: genuine && hex(genuine) });
        return new Uint8Array(data);
      } catch (error) {
        tell('answer', { n, ms: now() - at, answer: '', error: error.message, genuine: error.genuine && hex(error.genuine) });
        throw error;
      }
    },
  };
}

async function read(options) {
  const { library, identity, printed, reader: pcsc } = options;
  const module = new WatchedModule(loadLibrary(library));
  let serial; // of the command that is open
  module.on('command', (command) => ({ serial } = command));
  module.on('difference', (difference) => tell('difference', { by: 'application', ...difference.toJSON() }));
  module.on('monitor', ({ raw, record }) => tell('monitor', { raw, record }));
  const reader = new TqReader(module);
  const document = pcsc ? await real(pcsc) : simulated(options);
  const connection = told(document, () => serial);
  const settings = { connection, cancel, onProgress: (progress) => tell('progress', { ...progress }) };
  try {
    reader.configure(configOf(identity));
    tell('started', { at: now() });
    const { code, businessId, info, bytes } =
      await (printed ? reader.readPassport(printed, settings) : reader.readIdentityCard(settings));
    return { code, name: 'OK', message: 'success', businessId, info, bytes: hex(Buffer.from(bytes)) };
  } catch (error) {
    if (!(error instanceof TqError)) throw error;
    const { code, name, message, businessId } = error;
    return { code, name, message, businessId };
  } finally {
    await document.close();
  }
}

process.on('message', ({ read: options, cancel: stop }) => {
  if (stop) return cancel.cancel();
  return read(options).catch((error) => ({ code: null, name: error.name, message: error.message })).then((outcome) => {
    tell('end', { at: now(), ...outcome });
    if (process.connected) process.disconnect();
  });
});
process.on('disconnect', () => setTimeout(() => process.exit(), 1000).unref());
