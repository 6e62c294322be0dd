// The persona file: a JSON text that says who takes part in a read. The decode server expects what stands in it,
// the reading program uses it. Every member may be missing; README.md describes them.

import { readFileSync, writeFileSync } from 'node:fs';
import { fromHex } from './bytes.mjs';
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

export function savePersona(path, persona) {
  writeFileSync(path, `${JSON.stringify(persona, null, 2)}\n`);
}

/** The part of a persona that configures a decode server. A passport that is only described stays unknown to it. */
export function serverConfigOf(persona) {
  const config = Object.fromEntries(Object.entries(persona).filter(([name]) => !kForReader.includes(name)));
  const passport = persona.passport?.files && expectedPassport(unpackPassport(persona.passport));
  return { ...config, passport, persona: expectedPersona(persona.identity ?? {}), envIdCode: persona.identity?.envIdCode };
}
