// A decode server in a process of its own. The parent sends { start: config } and may send { update: partial }
// and { stop: true }; the child tells of 'listening' and of every event of the server.
// See ../processes.mjs for the parent's side.

import { Difference } from '../difference.mjs';
import { DecodeServer } from '../decode-server/server.mjs';
import { obey, tell } from './parent.mjs';

const kEvents = ['connection', 'exchange', 'monitor', 'verification', 'difference'];
const plain = (subject) => (subject instanceof Difference ? subject.toJSON() : subject);

let server;

obey(async ({ start, update, stop }) => {
  if (start) {
    server = new DecodeServer(start);
    for (const event of kEvents) {
      server.on(event, (subject) => {
        const difference = subject.difference && plain(subject.difference);
        tell(event, difference ? { ...subject, difference } : plain(subject));
      });
    }
    tell('listening', await server.start());
  }
  if (update) server.update(update);
  if (stop) {
    await server?.stop();
    process.disconnect();
  }
});

process.on('disconnect', () => server?.stop());
