// The simulated documents that can be read at the desk, and what can go wrong with them on purpose.

import { generateKeyPairSync } from 'node:crypto';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';
import { expectedPassport, packPassport } from '../../simulator/lib/passport-persona.mjs';
import { PERSONAS, issuePassport } from '../../simulator/lib/passport/specimen.mjs';

const kDg1 = 0x0101;
const kWords = {
  usual: 'Nothing unusual', eightCharacters: 'Document number of 8 characters', nineCharacters: 'Document number of 9 characters',
  twelveCharacters: 'Document number of 12 characters', twentyCharacters: 'Document number of 20 characters',
  withoutCom: 'No EF.COM', comUnreadable: 'EF.COM cannot be read', comEmpty: 'EF.COM lists nothing',
  comStrangeTags: 'EF.COM lists unknown groups', comMalformed: 'EF.COM is malformed', comLongLengths: 'Long length fields',
  withoutDg15: 'No key for active authentication', dg15Missing: 'DG15 listed but missing', dg3Refused: 'Finger prints: SELECT refused',
  dg3Unreadable: 'Finger prints: READ refused', protectedRefusals: 'Refuses under secure messaging', dg1Refused: 'Keeps its zone to itself',
  dg2Refused: 'Keeps its portrait to itself', sodMissing: 'No EF.SOD', sodLengths81: 'EF.SOD with 81 lengths',
  sodLengths82: 'EF.SOD with 82 lengths', paceAlone: 'PACE alone', paceToo: 'PACE beside Basic Access Control', sodTwoByteTags: 'EF.SOD with two-byte tags', sodOtherTag: 'EF.SOD in another tag',
  onlyMandatory: 'Only DG1 and DG2', allGroups: 'All sixteen data groups', otherOrder: 'Groups in another order', bigPortrait: 'Portrait of 40 kB',
};

/** Passports that are not what they claim to be; `change` is done to an issued one. */
const kForged = {
  changedZone: { words: 'Zone changed after signing', change: ({ files }) => {
    const changed = Buffer.from(files.get(kDg1));
    changed[changed.indexOf('SPECIMEN')] = 'X'.charCodeAt();
    files.set(kDg1, changed);
  } },
  copiedChip: { words: 'A copy of the chip', change: (passport) => {
    passport.aaKey = generateKeyPairSync('rsa', { modulusLength: 1024 }).privateKey;
  } },
};

const inWords = (name) => kWords[name] ?? name.replace(/([A-Z0-9]+)/g, ' $1').replace(/^./, (letter) => letter.toUpperCase());

/** Words for the middle of a sentence. */
const lower = (words) => words.replace(/^[A-Z](?=[a-z ])/, (letter) => letter.toLowerCase());

/** Kinds of passports, as [name, words]. */
export const PASSPORT_KINDS = [...Object.keys(PERSONAS).map((name) => [name, inWords(name)]),
  ...Object.entries(kForged).map(([name, { words }]) => [name, words])];

/** What can be made to go wrong: `rules` of link and chip, `server` rules of the decode server, other `printed`
 *  data; `unsigned`: the server must not expect that the chip proves itself. */
export const MISBEHAVIOURS = {
  passport: {
    wrongPrinted: { words: 'The printed data are another passport’s', printed: { documentNumber: 'OTHER0001' } },
    taken: { words: 'Taken away while the portrait is read', rules: [{ on: 'READ DG2', nth: 20, do: 'status', status: -1 }] },
    wrongMac: { words: 'A wrong MAC in the portrait', rules: [{ on: 'READ DG2', nth: 3, do: 'wrongMac' }] },
    lostSession: { words: 'The chip forgets the session', rules: [{ on: 'READ EF.SOD', nth: 2, do: 'loseSession' }] },
    shortAnswers: { words: 'Short answers', rules: Array.from({ length: 6 }, (_, i) => ({ on: 'READ DG2', nth: 3 + 2 * i, do: 'shortData', count: 100 })) },
    slowChip: { words: 'Hesitates for two seconds', rules: [{ on: 'READ DG1', nth: 1, do: 'delay', ms: 2000 }] },
    noSignature: { words: 'Does not sign the challenge', unsigned: true, rules: [{ on: 'INTERNAL AUTHENTICATE', do: 'statusWord', status: '6A88' }] },
    serverRefuses: { words: 'The server refuses the files', server: [{ on: '0x7202', do: 'status', status: '001301' }] },
    serverSlow: { words: 'The server takes three seconds', server: [{ on: '0x7202', do: 'delay', ms: 3000 }] },
    serverHangsUp: { words: 'The server hangs up', server: [{ on: '0x7201', do: 'close' }] },
    serverMalformed: { words: 'A malformed answer of the server', server: [{ on: '0x7202', do: 'malformed', kind: 'checksum' }] },
  },
  identityCard: {
    taken: { words: 'Taken away while the last file is read', rules: [{ on: 'READ 6013', nth: 3, do: 'status', status: -1 }] },
    shortAnswer: { words: 'A short answer', rules: [{ on: 'READ 6012', nth: 1, do: 'shorten', count: 100 }] },
    refused: { words: 'Refuses its proof', rules: [{ on: 'INTERNAL AUTHENTICATE', do: 'answer', data: '6982' }] },
    slowCard: { words: 'Slow enough for the slow path', rules: [{ on: 'INTERNAL AUTHENTICATE', do: 'delay', ms: 400 }] },
    serverRefuses: { words: 'The server refuses the last file', server: [{ on: '0x6113', do: 'status', status: '001301' }] },
    serverHangsUp: { words: 'The server hangs up', server: [{ on: '0x5001', do: 'close' }] },
  },
};

/** What the page offers. */
export const CHOICES = {
  passportKinds: PASSPORT_KINDS,
  misbehaviours: Object.fromEntries(Object.entries(MISBEHAVIOURS)
    .map(([document, table]) => [document, Object.entries(table).map(([name, { words }]) => [name, words])])),
};

/**
 * A document as chosen.
 * @returns {{kind: string, title: string, read: object, server: object, usual: object}} `read` goes to the reader process,
 *   `server` are settings of its decode server, and `usual` has both without the misbehaviour, when there is one. Throws a TypeError for what is not offered.
 */
export function makeDocument({ document, passportKind = 'usual', misbehaviour = '' }) {
  const wrong = misbehaviour === '' ? {} : MISBEHAVIOURS[document]?.[misbehaviour];
  if (!wrong) throw new TypeError(`there is no ${document} with the misbehaviour ${misbehaviour}`);
  const also = wrong.words ? `: ${lower(wrong.words)}` : '';
  if (document === 'identityCard') {
    const card = new IdentityCard().secrets();
    return { kind: document, title: `Identity card${also}`, read: { card, rules: wrong.rules ?? [] },
      server: { document, card, rules: wrong.server ?? [] }, ...(wrong.words && { usual: { read: { card, rules: [] }, server: { document, card } } }) };
  }
  if (document !== 'passport' || !PASSPORT_KINDS.some(([name]) => name === passportKind)) {
    throw new TypeError(`there is no document ${document} ${passportKind}`);
  }
  const forged = kForged[passportKind];
  const passport = issuePassport(forged ? {} : { persona: passportKind });
  forged?.change(passport);
  const { documentNumber, birthDate, expiryDate } = passport;
  const unusual = passportKind === 'usual' ? '' : ` (${lower(forged?.words ?? inWords(passportKind))})`;
  const read = { passport: packPassport(passport), printed: { documentNumber, birthDate, expiryDate }, rules: [] };
  const server = { document, passport: forged ? undefined : expectedPassport(passport) };
  return { kind: document, title: `Passport${unusual}${also}`,
    read: { ...read, printed: { ...read.printed, ...wrong.printed }, rules: wrong.rules ?? [] },
    server: { ...server, ...(wrong.unsigned && { passport: { ...server.passport, verification: {} } }), rules: wrong.server ?? [] }, ...(wrong.words && { usual: { read, server } }) };
}
