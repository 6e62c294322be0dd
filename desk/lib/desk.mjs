// The desk: its reads, its readers, and the decode server for phones.

import { DEFAULT_IDENTITY } from '../../simulator/lib/persona.mjs';
import { PASSPORT_PACE } from '../../simulator/lib/passport/chip.mjs';
import { compareReads } from './compare.mjs';
import { CHOICES, makeDocument } from './documents.mjs';
import { PcscError, ReaderWatch } from './pcsc.mjs';
import { listenForPhones } from './phones.mjs';
import { startReading } from './reading.mjs';
import { Store } from './store.mjs';

const kCardPace = { delay: 8, perByte: 0 };
const kServerDelay = 40;
const kNone = { delay: 0, perByte: 0 };

const refuse = (status, message) => Object.assign(new Error(message), { status });

export class Desk {
  #options;
  #watch = null;
  #readers = { list: [], error: '' };
  #phones = null;
  #cancels = new Map();

  /** @param {object} options  library, keys (of the decode server, by environment), trust, decodeHost, decodePort, env */
  constructor(options) {
    this.#options = options;
    this.store = new Store();
  }

  /** Watches the readers, and listens for phones. */
  async open() {
    const { decodeHost: host, decodePort: port, env, keys, trust } = this.#options;
    this.#phones = await listenForPhones(this.store, { host, port, env, keys, trust });
    this.#watch = new ReaderWatch();
    this.#watch.on('readers', (list) => this.#tellReaders({ list, error: '' }));
    this.#watch.on('failed', ({ message }) => this.#tellReaders({ list: [], error: message }));
  }

  #tellReaders(readers) {
    this.#readers = readers;
    this.store.publish('readers', readers);
  }

  async close() {
    await Promise.all([this.#watch?.close(), this.#phones?.stop()]);
  }

  get phones() {
    const { host, port } = this.#phones;
    return { host, port, env: this.#options.env };
  }

  state() {
    return { choices: CHOICES, readers: this.#readers, phones: this.phones, trust: Boolean(this.#options.trust) };
  }

  cancel(id) {
    this.#cancels.get(id)?.();
  }

  /**
   * A new read.
   * @param {object} choice  document: 'identityCard', 'passport' or 'reader'; passportKind and misbehaviour as offered; pace:
   *   'real' or 'none'; number, birth, expiry and reader for the passport on a reader
   * @returns {{id: number}}
   */
  start(choice) {
    if (this.store.running) throw refuse(409, 'A read is running. Cancel it, or wait for its end.');
    const { library, keys, trust } = this.#options;
    const id = this.store.nextId();
    const made = choice.document === 'reader' ? this.#onReader(choice) : this.#simulated(choice);
    const { source, kind, title, read, server, usual } = made;
    const { record, done, cancel } = startReading({ id, source, kind, title, trust, choice: made.choice }, { library, keys, read, server });
    this.#cancels.set(id, cancel);
    if (usual) record.before = (after) => this.#usually(after, usual);
    this.store.add(record);
    done.finally(() => this.#cancels.delete(id));
    return { id };
  }

  #onReader({ number, birth, expiry, reader = '' }) {
    for (const [what, value] of Object.entries({ 'document number': number, 'date of birth': birth, 'date of expiry': expiry })) {
      if (typeof value !== 'string' || value.trim() === '') throw refuse(400, `The ${what} is missing.`);
    }
    if (this.#readers.error) throw refuse(409, this.#readers.error);
    const those = this.#readers.list.filter(({ name }) => name.includes(reader));
    const found = those.find(({ state }) => state === 'card') ?? those.find(({ state }) => state !== 'empty');
    if (!found) throw refuse(409, new PcscError(those.length === 0 ? '8010002E' : '8010000C').message);
    const printed = { documentNumber: number.trim(), birthDate: birth.trim(), expiryDate: expiry.trim() };
    return { source: 'reader', kind: 'passport', title: `Passport on ${found.name}`, read: { printed, reader: found.name }, server: { document: 'passport' } };
  }

  #simulated({ document, passportKind, misbehaviour, pace }) {
    let made;
    try {
      made = makeDocument({ document, passportKind, misbehaviour });
    } catch (error) {
      throw refuse(400, error.message);
    }
    const real = pace !== 'none';
    const speed = !real ? kNone : document === 'passport' ? PASSPORT_PACE : kCardPace;
    return { ...made, source: 'simulated', choice: { document, passportKind, misbehaviour, pace },
      read: { ...made.read, pace: speed }, server: { ...made.server, delay: real ? kServerDelay : 0 } };
  }

  /** The same document, read once more without what was made to go wrong. */
  async #usually(record, { read, server }) {
    const { library, keys } = this.#options;
    const { done } = startReading({ id: 0, source: 'simulated', kind: record.kind, title: '' }, { library, keys, read: { ...read, pace: kNone }, server });
    record.twin = compareReads(record, await done);
  }
}

export const ENVIRONMENT = DEFAULT_IDENTITY.envIdCode;
