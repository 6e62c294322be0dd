// An application that asks the two small services, in a process of its own: both calls block its thread. The parent sends
// { ask: { library, delay: { rounds, host }, location: an AntennaQuery } }; the child
// tells of 'delay' and 'location', as far as it is asked for them, and ends when the parent lets go of it.
// See ../processes.mjs for the parent's side.

import { TqError, TqReader } from '../package.mjs';
import { now } from '../clock.mjs';
import { loadLibrary } from '../reader.mjs';
import { obey, tell } from './parent.mjs';

/** The module, with every reading of the clock that the location request is given in `times`. */
function withTimes(module, times) {
  const getDeviceNFCLocation = (...args) => {
    const clock = args.pop();
    return module.getDeviceNFCLocation(...args, () => {
      times.push(clock());
      return times.at(-1);
    });
  };
  return Object.create(module, { getDeviceNFCLocation: { value: getDeviceNFCLocation } });
}

async function timed(call) {
  const at = now();
  const result = await call().catch((error) => { // an answer, too: the code of a failure
    if (!(error instanceof TqError) || error.code > 0) throw error;
    return error.code;
  });
  return { at, result, ms: Math.round(now() - at) };
}

async function ask({ library, delay, location }) {
  const times = [];
  const reader = new TqReader(withTimes(loadLibrary(library), times));
  if (delay) tell('delay', await timed(() => reader.measureDelay(delay.host, delay.rounds)));
  if (location) tell('location', { ...await timed(() => reader.antennaLocation(location)), times });
}

obey(({ ask: options }) => ask(options));
