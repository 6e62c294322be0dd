// All reads of this desk, in memory alone, and the events of which the page is told.

import { EventEmitter } from 'node:events';

const kMostReads = 1000;
const kMostEvents = 20000;

/**
 * Emits 'event' with { id, name, data }: 'read' (a summary, new or changed), 'step' ({ read, step }), 'progress' ({ read,
 * file }), 'gone' (number of a read), and whatever else is published.
 */
export class Store extends EventEmitter {
  #records = new Map();
  #events = [];
  #count = 0;
  #reads = 0;

  constructor() {
    super();
    this.setMaxListeners(0);
  }

  nextId() {
    this.#reads += 1;
    return this.#reads;
  }

  add(record) {
    const { id } = record;
    this.#records.set(id, record);
    record.on('step', (step) => this.publish('step', { read: id, step }));
    record.on('progress', (file) => this.publish('progress', { read: id, file }));
    record.on('summary', () => this.publish('read', record.summary));
    this.publish('read', record.summary);
    const oldest = [...this.#records.values()].find(({ running }) => !running);
    if (this.#records.size > kMostReads && oldest) this.forget(oldest.id);
  }

  get(id) {
    return this.#records.get(id);
  }

  forget(id) {
    if (this.#records.delete(id)) this.publish('gone', id);
  }

  get summaries() {
    return [...this.#records.values()].map(({ summary }) => summary);
  }

  get running() {
    return [...this.#records.values()].find((record) => record.running && record.source !== 'phone');
  }

  publish(name, data) {
    const event = { id: this.#count += 1, name, data };
    this.#events.push(event);
    if (this.#events.length > kMostEvents) this.#events.splice(0, kMostEvents / 2);
    this.emit('event', event);
  }

  get lastEvent() {
    return this.#count;
  }

  /** The events after number `id`; undefined when they are no longer all there. */
  since(id) {
    if (id > this.#count || (this.#events[0]?.id ?? this.#count + 1) > id + 1) return undefined;
    return this.#events.filter((event) => event.id > id);
  }
}
