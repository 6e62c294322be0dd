#!/usr/bin/env node
// Asks a latency server and a location server through libtqreader.so: given ones, or ones of its own.

import { openSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { coloursFor, dotted } from '../lib/account.mjs';
import { codeInWords } from '../lib/codes.mjs';
import { expectBuilt, fail, parseOptions } from '../lib/command-line.mjs';
import { askServices } from '../lib/demo-services.mjs';
import { loadKeys } from '../lib/keys.mjs';
import { DEFAULT_IDENTITY } from '../lib/persona.mjs';
import { DEFAULT_LIBRARY } from '../lib/reader.mjs';

const options = parseOptions(`Usage: ask-services.mjs [options]

Asks how far away a latency server is, and where the NFC antenna of a phone sits. A server that is not named is one of its own.`, {
  only: { value: 'SERVICE', text: 'latency or location: ask this one alone' },
  'latency-host': { value: 'ADDRESS', text: 'latency server; its port is 9999' },
  rounds: { value: 'N', default: '3', number: true, text: 'rounds of the probe, 1 to 5' },
  'location-host': { value: 'ADDRESS', text: 'location server' },
  'location-port': { value: 'N', default: '443', number: true, text: 'its port' },
  appid: { value: 'TEXT', default: DEFAULT_IDENTITY.appid, text: 'application id, 20 or 7 characters' },
  env: { value: 'CODE', default: '268', number: true, text: 'environment of the location server: 268, 52302 or 26814' },
  maker: { value: 'TEXT', default: 'SPECIMEN', text: 'manufacturer of the phone' },
  model: { value: 'TEXT', default: 'Specimen Phone 1', text: 'market name of the phone' },
  delay: { value: 'MS', default: '0', number: true, text: 'milliseconds before every answer of the own servers' },
  library: { value: 'FILE', default: DEFAULT_LIBRARY, text: 'the library' },
  keys: {
    value: 'FILE', default: fileURLToPath(new URL('../../keys/development_keys.h', import.meta.url)),
    text: 'key header that the library was built with (for the own location server)',
  },
  log: { value: 'FILE', text: 'where the library\'s own output goes; - for the terminal (default: nowhere)' },
});
if (![undefined, 'latency', 'location'].includes(options.only)) fail(`--only is latency or location, not "${options.only}"`);
expectBuilt(options.library);

const colours = coloursFor(process.stdout);
const say = (text) => process.stdout.write(`${text}\n`);
const told = (value) => (value < 0 ? colours.red(codeInWords(value)) : value);

const { library, rounds, appid, env, maker, model, delay, log } = options;
const asked = await askServices({
  library, delay, keys: loadKeys(options.keys).location, output: log === '-' ? 'inherit' : log === undefined ? 'ignore' : openSync(log, 'w'),
  latency: options.only === 'location' ? null : { rounds, host: options.latencyHost },
  location: options.only === 'latency' ? null
    : { appid, environment: env, host: options.locationHost, port: options.locationPort, manufacturer: maker, marketName: model },
}).catch((error) => fail(error.message));
const { answers: { delay: trip, location: place }, differences } = asked;
if (trip) say(dotted('delay', `${told(trip.result)}${trip.result < 0 ? '' : ` ms on average, in ${rounds} rounds`} (asked for ${trip.ms} ms)`));
if (place) say(dotted('antenna', `${place.result < 0 ? '' : 'place '}${told(place.result)} (asked for ${place.ms} ms)`));
for (const text of differences) say(colours.red(`DIFFERENCE  ${text}`));
const good = [trip, place].every((answer) => answer === undefined || answer.result >= 0) && differences.length === 0;
process.exitCode = good ? 0 : 1;
