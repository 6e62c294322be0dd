// What the programs that read one document have in common: their options, and one read with reader and decode server in
// processes of their own.

import { openSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { coloursFor, dotted, recordTexts } from './account.mjs';
import { CardLink } from './card-link.mjs';
import { codeInWords } from './codes.mjs';
import { expectBuilt, fail } from './command-line.mjs';
import { IdentityCard } from './identity-card.mjs';
import { loadKeys } from './keys.mjs';
import { DEFAULT_IDENTITY } from './persona.mjs';
import { PassportChip } from './passport/chip.mjs';
import { unpackPassport } from './passport-persona.mjs';
import { checkRules, loadPersona, savePersona, serverConfigOf } from './persona-file.mjs';
import { startReaderProcess, startServerProcess, Timeline } from './processes.mjs';
import { DEFAULT_LIBRARY } from './reader.mjs';

/** Options that are arguments of initSdk, by the names the rest of the simulator uses. */
const IDENTITY_OPTIONS = {
  appid: { value: 'TEXT', text: 'application id, 20 letters or digits' },
  'decode-mode': { value: 'N', number: true, text: '0 or 1' },
  'read-mode': { value: 'N', number: true, text: '1: less is read; 2: everything' },
  'env-id-code': { value: 'CODE', number: true, text: '268, 52302 or 26814' },
  'file-path': { value: 'TEXT', text: 'passed on, not used' },
  'package-name': { value: 'TEXT', text: 'application\'s package name' },
  'ter-id': { value: 'N', number: true, text: 'terminal id' },
  'reqid-type': { value: 'N', number: true, text: 'request-id version, 0 or 1' },
  sn: { value: 'TEXT', text: 'device serial number' },
};

/** The options of a reading program, with `own` ones in front of the common ones. */
export function readingOptions(own = {}) {
  return {
    host: { value: 'ADDRESS', text: 'decode server (initSdk\'s ip)' },
    port: { value: 'N', number: true, text: 'its port' },
    ...own,
    ...IDENTITY_OPTIONS,
    persona: { value: 'FILE', text: 'JSON file with identity, document and misbehaviour (see README.md)' },
    'save-persona': { value: 'FILE', text: 'write identity, a new document and its holder to FILE, and end' },
    'card-delay': { value: 'MS', default: '0', number: true, text: 'milliseconds that every command takes' },
    'server-delay': {
      value: 'MS', default: '0', number: true, text: 'milliseconds before every answer of the own server',
    },
    timing: { text: 'have the own server ask for timing of the card' },
    timeout: { value: 'MS', default: '60000', number: true, text: 'how long to wait for the result' },
    library: { value: 'FILE', default: DEFAULT_LIBRARY, text: 'the library' },
    keys: {
      value: 'FILE', default: fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url)),
      text: 'key header that the library was built with (for the own server)',
    },
    log: { value: 'FILE', text: 'where the library\'s own output goes; - for the terminal (default: nowhere)' },
  };
}

const camelCase = (name) => name.replace(/-(.)/g, (_, letter) => letter.toUpperCase());
export const colours = coloursFor(process.stdout);
export const say = (text = '') => process.stdout.write(`${text}\n`);

/** The persona from its file, with the identity that the options ask for. */
function preparePersona(options) {
  const persona = options.persona === undefined ? {} : loadPersona(options.persona);
  const chosen = Object.keys(IDENTITY_OPTIONS).map(camelCase).filter((name) => options[name] !== undefined)
    .map((name) => [name, options[name]]);
  return { ...persona, identity: { ...DEFAULT_IDENTITY, ...persona.identity, ...Object.fromEntries(chosen) } };
}

/** One read; every difference and every step is told as it comes. @returns {Promise<{result, differences}>} */
async function readOnce(options, persona, { kind, settings, teller }) {
  let differences = 0;
  const differ = (who) => ({ text }) => {
    differences += 1;
    say(colours.red(`DIFFERENCE found by the ${who}: ${text}`));
  };
  const named = (rules, where) => rules.forEach((rule) => say(colours.yellow(`  rule   ${rule} at ${where}`)));
  const { library } = options;
  const timeline = new Timeline();
  let server = null;
  if (options.host === undefined) {
    const config = { ...serverConfigOf(persona), document: kind, delay: options.serverDelay || persona.delay };
    const timing = options.timing || persona.timing;
    server = await startServerProcess({ ...config, timing, keys: loadKeys(options.keys).decode });
    timeline.add(server, {
      connection: ({ rules = [], connection }) => named(rules, `connection ${connection}`),
      exchange: (exchange) => {
        named(exchange.rules, exchange.command);
        teller.server(exchange);
      },
      difference: differ('decode server'),
    });
  }
  const address = { ip: options.host ?? server.host, port: options.port ?? server.port };
  const output = options.log === '-' ? 'inherit' : options.log === undefined ? 'ignore' : openSync(options.log, 'w');
  const reader = startReaderProcess({
    library, identity: { ...persona.identity, ...address }, ...settings,
    cardDelay: options.cardDelay, cardRules: persona.cardRules, timeoutMs: options.timeout,
  }, output);
  timeline.add(reader, {
    rules: ({ rules, name }) => named(rules, name),
    step: (step) => teller.step(step),
    'card-difference': differ('chip'),
    'reader-difference': differ('reader application'),
  });
  try {
    const result = await reader.result;
    await timeline.caughtUp();
    return { result, differences };
  } finally {
    reader.release();
    await reader.exited;
    await server?.stop();
  }
}

/**
 * Runs a reading program: the persona, one read, what came of it, and the exit status.
 * @param {object} options  the values of `readingOptions`
 * @param {(persona: object) => object} prepare  completes the persona with the document; gives { persona, kind,
 *   settings, teller }: `kind` as in the server's `document`, `settings` more for the reader process, `teller` with
 *   the functions server(exchange), step(step) and person(info)
 */
export async function runReadingProgram(options, prepare) {
  let prepared;
  try {
    loadKeys(options.keys);
    prepared = prepare(preparePersona(options));
    const { kind, settings, persona } = prepared;
    checkRules(persona, kind, new CardLink(kind === 'passport' ? new PassportChip(unpackPassport(settings.passport)) : new IdentityCard()));
  } catch (error) {
    fail(error.message);
  }
  const { persona, ...rest } = prepared;
  if (options.savePersona !== undefined) {
    savePersona(options.savePersona, persona);
    say(`persona written to ${options.savePersona}`);
    return;
  }
  expectBuilt(options.library);
  if (options.host !== undefined && options.port === undefined) fail('--host needs --port');
  try {
    const { result, differences } = await readOnce(options, persona, rest);
    report(result, rest.teller);
    process.exitCode = result.code === 0 && differences === 0 ? 0 : 1;
  } catch (error) {
    say(colours.red(error.message));
    process.exitCode = 1;
  }
}

function report({ code, flag, data, error, monitor, ms }, teller) {
  say(code === 0 ? colours.green(`read in ${ms} ms`) : colours.red(`failed: ${error?.message ?? codeInWords(code)}`));
  if (flag === 1 && data?.info) teller.person(data.info);
  else say(dotted('flag', flag)), say(dotted('data', JSON.stringify(data)));
  if (monitor?.record) for (const [name, value] of recordTexts(monitor.record)) say(colours.dim(dotted(name, value === '' ? '(empty)' : value)));
}
