// The persona file: a JSON text that says who takes part in a read. The decode server expects what stands in it,
// the reading program uses it. Every member may be missing; README.md describes them.

import { readFileSync, writeFileSync } from 'node:fs';
import { SERVER_STEPS } from './account.mjs';
import { fromHex } from './bytes.mjs';
import { Misbehaviour } from './decode-server/misbehaviour.mjs';
import { STEPS } from './identity-card.mjs';
import { PACE_STEPS, PASSPORT_STEPS } from './passport/chip.mjs';
import { expectedPassport, unpackPassport } from './passport-persona.mjs';
import { expectedPersona } from './persona.mjs';

const kMembers = ['identity', 'card', 'passport', 'person', 'answers', 'rules', 'cardRules', 'businessId', 'newStickCardId',
  'token', 'timing', 'opaqueLength', 'delay', 'path', 'monitorText', 'onDifference'];
const kCardMembers = ['cardKey', 'managementData', 'file6011', 'file6012', 'file6013', 'proofLength'];
const kForReader = ['identity', 'cardRules'];

function refuseOthers(object, names, where) {
  const other = Object.keys(object).find((name) => !names.includes(name));
  if (other !== undefined) throw new Error(`${where} has an unknown member "${other}"; there are ${names.join(', ')}`);
}

/** Reads a persona file; throws an Error that names the file and the fault. */
export function loadPersona(path) {
  try {
    const persona = JSON.parse(readFileSync(path, 'utf8'));
    refuseOthers(persona, kMembers, 'the persona');
    refuseOthers(persona.card ?? {}, kCardMembers, 'its card');
    for (const [name, value] of Object.entries(persona.card ?? {})) if (name !== 'proofLength') fromHex(value);
    return persona;
  } catch (error) {
    throw new Error(`${path}: ${error.message}`);
  }
}

const kPassportFile = /^(SELECT|READ) (EF\.\w+|DG\d+)$/;
const isPassportStep = (on) => [...PASSPORT_STEPS, ...PACE_STEPS].includes(on) || kPassportFile.test(on);

/** Refuses rules whose `on` names nothing. */
function refuseOthersOn(rules, where, named, isKnown) {
  if (!Array.isArray(rules)) throw new TypeError(`"${where}" is no list of rules`);
  const wrong = rules.find(({ on } = {}) => on !== 'any' && !Number.isInteger(on) && !isKnown(on));
  if (wrong !== undefined) throw new TypeError(`no such step or command: ${JSON.stringify(wrong)}; there are ${named}, a number, and any`);
}

/**
 * Throws a TypeError with a sentence for the first rule that is not as README.md has it. The rules of card or passport are
 * checked when it is known, as a `link` to it and by its `kind`.
 */
export function checkRules({ rules = [], cardRules = [] }, kind, link) {
  refuseOthersOn(rules, 'rules', `connect, ${Object.keys(SERVER_STEPS).join(', ')}`, (on) => on === 'connect' || on in SERVER_STEPS);
  new Misbehaviour(rules);
  if (!kind) return;
  const passport = kind === 'passport';
  refuseOthersOn(cardRules, 'cardRules', (passport ? [...PASSPORT_STEPS, 'READ DG2'] : STEPS).join(', '),
    passport ? isPassportStep : (on) => STEPS.includes(on));
  link.setRules(cardRules);
}

export function savePersona(path, persona) {
  writeFileSync(path, `${JSON.stringify(persona, null, 2)}\n`);
}

/** The part of a persona that configures a decode server. A passport that is only described stays unknown to it. */
export function serverConfigOf(persona) {
  const config = Object.fromEntries(Object.entries(persona).filter(([name]) => !kForReader.includes(name)));
  const passport = persona.passport?.files && expectedPassport(unpackPassport(persona.passport));
  return { ...config, passport, persona: expectedPersona(persona.identity ?? {}), envIdCode: persona.identity?.envIdCode };
}
