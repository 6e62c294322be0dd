// A reader application with a card or a passport in a process of its own. The parent sends { read: options } once; the child
// performs one read, tells of it as things happen, and ends when the parent lets go of it.
// See ../processes.mjs for the parent's side.

import { Application } from '../application.mjs';
import { CardLink } from '../card-link.mjs';
import { IdentityCard } from '../identity-card.mjs';
import { PassportChip } from '../passport/chip.mjs';
import { unpackPassport } from '../passport-persona.mjs';
import { now } from '../clock.mjs';
import { Reader } from '../reader.mjs';
import { obey, tell } from './parent.mjs';

/** What lies on the phone: the passport when there is one, or else a card. */
function document({ card, passport, identity }) {
  if (!passport) return new IdentityCard(card);
  return new PassportChip(passport, { readMode: identity.readMode === 1 ? 1 : 2 });
}

async function read({ library, identity, card: secrets, passport: plain, claimed, cardDelay, perByte, cardRules,
  timeoutMs }) {
  const passport = plain && unpackPassport(plain);
  const card = document({ card: secrets, passport, identity });
  const link = new CardLink(card, { delay: cardDelay, perByte, rules: cardRules });
  // Some misbehaviour, such as two answers to one command, no good application would pass on.
  const reader = cardRules?.length ? new Reader({ library, link }) : new Application({ library, link });
  card.on('difference', (difference) => tell('card-difference', difference.toJSON()));
  reader.on('difference', (difference) => tell('reader-difference', difference.toJSON()));
  for (const event of ['command', 'rules', 'step', 'monitor']) reader.on(event, (subject) => tell(event, subject));
  tell('started', { at: now() });
  tell('result', { ...await reader.read({ identity, passport: claimed ?? passport, timeoutMs }), at: now() });
}

obey(({ read: options }) => read(options));
