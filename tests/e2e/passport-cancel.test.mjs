// Passport reads that are broken off, or superseded by another read of either kind, at every step.

import { describe } from 'node:test';
import { STEPS } from '../../simulator/lib/identity-card.mjs';
import { PACE_STEPS } from '../../simulator/lib/passport/chip.mjs';
import { testReads } from './support.mjs';

const kPassport = { brief: true };
const kPaceAlone = { persona: 'paceAlone', brief: true };
const kSteps = ['SELECT APPLICATION', 'GET CHALLENGE', 'EXTERNAL AUTHENTICATE', 'SELECT EF.COM', 'READ EF.COM', 'SELECT EF.SOD', 'READ EF.SOD',
  'SELECT DG15', 'READ DG15', 'SELECT DG1', 'READ DG1', 'SELECT DG2', 'READ DG2', 'INTERNAL AUTHENTICATE', 'SELECT DG14', 'READ DG14'];
const kPaceSteps = [...PACE_STEPS.slice(1), 'SELECT APPLICATION'];
const kExchanges = ['0x7201', '0x7202'];
const silentAt = (on) => ({ rules: [{ on, nth: 1, do: 'silence' }] });
const silentCard = (on) => [{ on, nth: 1, do: 'silence' }];

describe('passport: reads that are broken off', { concurrency: 4 }, () => {
  testReads('passport: cancel', [
    ...['SELECT APPLICATION', 'READ DG15', 'READ DG2', 'INTERNAL AUTHENTICATE'].map((on) => ({ name: `while the chip works on ${on}: ends with its answer`,
      trigger: { on, do: 'cancel1', after: 1 }, silent: true, waiting: true, cardRules: [{ on, nth: 1, do: 'delay', ms: 60 }] })),
    ...kSteps.flatMap((on) => [{ do: 'status' }, { do: 'answer', data: '6A82' }].map((rule) => ({
      name: `while the chip works on ${on}: ends when it fails, ${rule.do}`, trigger: { on, do: 'cancel1' }, silent: true, cardRules: [{ on, nth: 1, ...rule }] }))),
    ...kPaceSteps.map((on) => ({ name: `PACE: while the chip works on ${on}`, passport: kPaceAlone, trigger: { on, nth: on === 'SELECT APPLICATION' ? 2 : 1, do: 'cancel1' }, silent: true })),
    { name: 'in the same moment as the start', trigger: { on: 'at once', do: 'cancel1' }, silent: true },
    { name: 'at 0x7500', server: silentAt('0x7500'), trigger: { on: '0x7500', do: 'cancel1' }, code: -22003, told: 'none' },
    ...kExchanges.map((on) => ({ name: `at ${on}`, server: silentAt(on), trigger: { on, do: 'cancel1' }, silent: true })),
    { name: 'at 0x7219, when the result is known', server: silentAt('0x7219'), trigger: { on: '0x7219', do: 'cancel1' } },
  ].map((row) => ({ passport: kPassport, ...row })));

  // cancelCard takes the kind of document that it is about
  testReads('a cancel of the other kind does nothing', [
    ...['SELECT APPLICATION', 'READ EF.SOD', 'INTERNAL AUTHENTICATE', ...kExchanges, '0x7219'].flatMap((on) => ['cancel', 'cancel2'].map((action) =>
      ({ name: `${action} at ${on} of a passport`, passport: kPassport, trigger: { on, do: action } }))),
    ...['SELECT 6011', 'READ 6013', '0x5001', '0x6113', '0x7219'].map((on) =>
      ({ name: `cancel1 at ${on} of an identity card`, passport: kPassport, kind: 'card', trigger: { on, do: 'cancel1' } })),
  ]);

  testReads('answers through the handler of the other kind do nothing', [
    ...kSteps.map((on) => ({ name: `at ${on} of a passport`, passport: kPassport, trigger: { on, do: 'answers' } })),
    ...STEPS.map((on) => ({ name: `at ${on} of an identity card`, passport: kPassport, kind: 'card', trigger: { on, do: 'answers' } })),
  ]);

  const kCardExchanges = ['0x7500', '0x5001', '0x5032', '0x6002', '0x6113'];
  const takeover = (kind, steps, exchanges) => ['card', 'passport'].flatMap((ends) => {
    const trigger = { do: ends === 'card' ? 'startCard' : 'startPassport' };
    const row = { passport: kPassport, kind, ends };
    return [
      ...steps.map((on) => ({ name: `${ends} at ${on} of ${kind}`, ...row, trigger: { ...trigger, on }, cardRules: silentCard(on) })),
      ...exchanges.map((on) => ({ name: `${ends} at ${on} of ${kind}`, ...row, trigger: { ...trigger, on }, server: silentAt(on) })),
      { name: `${ends} in the same moment as ${kind}`, ...row, trigger: { ...trigger, on: 'at once' } },
      { name: `${ends} four times in the same moment as ${kind}`, ...row, trigger: { ...trigger, on: 'at once', times: 4 } },
    ];
  });
  testReads('another read takes over from a passport read', [...takeover('passport', kSteps, ['0x7500', ...kExchanges]),
    ...kPaceSteps.map((on, i) => ({ name: `at ${on} of PACE`, passport: kPaceAlone, ends: i % 2 ? 'card' : 'passport', trigger: { on, do: i % 2 ? 'startCard' : 'startPassport' },
      cardRules: silentCard(on) }))]);
  testReads('another read takes over from a card read, where passports are concerned',
    takeover('card', STEPS, kCardExchanges).filter(({ ends }) => ends === 'passport'));
});
