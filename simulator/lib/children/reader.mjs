// A reader application with a card in a process of its own. The parent sends { read: options } once; the child
// performs one read, sends { event, subject } as things happen, and ends when the parent lets go of it.
// See ../processes.mjs for the parent's side.

import { CardLink } from '../card-link.mjs';
import { IdentityCard } from '../identity-card.mjs';
import { Reader } from '../reader.mjs';

function tell(event, subject) {
  if (process.connected) process.send({ event, subject });
}

async function read({ library, identity, card: secrets, cardDelay, cardRules, timeoutMs }) {
  const card = new IdentityCard(secrets);
  const link = new CardLink(card, { delay: cardDelay, rules: cardRules });
  const reader = new Reader({ library, link });
  card.on('difference', (difference) => tell('card-difference', difference.toJSON()));
  reader.on('difference', (difference) => tell('reader-difference', difference.toJSON()));
  for (const event of ['command', 'step', 'monitor']) reader.on(event, (subject) => tell(event, subject));
  tell('started', { at: Date.now() });
  tell('result', { ...await reader.read({ identity, timeoutMs }), at: Date.now() });
}

process.once('message', (message) => {
  read(message.read).catch((error) => {
    tell('failed', error.message);
    process.exitCode = 1;
  });
});
