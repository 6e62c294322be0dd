// The desk's decode server for real phones: each of their reads becomes a record by itself.

import { DecodeServer } from '../../simulator/lib/decode-server/server.mjs';
import { FrameListener } from './apart/frame-listener.mjs';
import { Record, answerWith } from './record.mjs';

const kPatience = 10 * 60 * 1000; // ms for a person to hold a passport to the phone; then the read counts as given up
const kHeaderPassport = 0x72;

/** @returns {Promise<{host: string, port: number, stop: Function}>} */
export async function listenForPhones(store, { keys, env, host, port, trust }) {
  const key = keys[env];
  const server = new DecodeServer({ keys, envIdCode: env, host, port, monitorText: 'record', judge: answerWith(trust) });
  const frames = new FrameListener(key);
  const records = new Map(); // by conversation
  const conversations = new Map(); // by connection

  const recordOf = (exchange) => {
    const { conversation } = frames.exchange(exchange);
    conversations.set(exchange.connection, conversation);
    let record = records.get(conversation);
    if (!record) {
      const kind = exchange.request[0] === kHeaderPassport ? 'passport' : 'identityCard';
      record = new Record({ id: store.nextId(), kind, source: 'phone', title: kind === 'passport' ? 'Passport' : 'Identity card', key, trust });
      record.began = exchange.receivedAt;
      record.patience = setTimeout(() => end(record), kPatience).unref();
      record.forget = () => records.delete(conversation);
      records.set(conversation, record);
      store.add(record);
    }
    return record;
  };
  const end = (record, difference) => {
    clearTimeout(record.patience);
    record.forget();
    record.endOfPhone(difference);
  };

  // what a phone, or whoever poses as one, sends must not end the desk
  server.on('exchange', (exchange) => {
    try {
      take(exchange);
    } catch (error) {
      records.get(conversations.get(exchange.connection))?.differ({ by: 'desk', at: exchange.command, what: 'frame', text: error.message });
    }
  });
  const take = (exchange) => {
    const record = recordOf(exchange);
    record.exchange(exchange);
    record.emit('summary');
    if (exchange.command === '0x7219' && !exchange.difference) {
      record.monitored({ raw: exchange.fields.raw, record: exchange.fields.record });
      end(record);
    }
  };
  const early = new Map(); // differences of exchanges that are still to be told of
  server.on('difference', (difference) => early.set(difference.connection, difference));
  server.on('connection', ({ connection, state, awaited }) => {
    if (state !== 'closed') return;
    const record = records.get(conversations.get(connection));
    const difference = early.get(connection);
    conversations.delete(connection);
    frames.forget(connection);
    early.delete(connection);
    server.clear(); // what is kept is in the records, so that it can be forgotten
    if (!record) return;
    if (difference) record.differ({ by: 'server', ...difference.toJSON() });
    if (!awaited) end(record, difference);
  });
  const address = await server.start();
  return { ...address, stop: () => server.stop() };
}
