// An application that asks the two small services, in a process of its own: both calls block its thread. The parent sends
// { ask: { library, delay: [rounds, host], location: [arguments of getDeviceNFCLocation but the time function] } }; the child
// sends { event, subject } for 'delay' and 'location' and ends when the parent lets go of it.
// See ../processes.mjs for the parent's side.

import { TqReader } from '../package.mjs';
import { loadLibrary } from '../reader.mjs';

function tell(event, subject) {
  if (process.connected) process.send({ event, subject });
}

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
  const at = Date.now();
  const result = await call();
  return { at, result, ms: Date.now() - at };
}

async function ask({ library, delay: [rounds, latencyServer], location }) {
  const times = [];
  const reader = new TqReader(withTimes(loadLibrary(library), times));
  const [appid, environment, host, port, manufacturer, marketName] = location;
  tell('delay', await timed(() => reader.measureDelay(latencyServer, rounds)));
  const query = { appid, environment, host, port, manufacturer, marketName };
  tell('location', { ...await timed(() => reader.antennaLocation(query)), times });
}

process.once('message', (message) => {
  ask(message.ask).catch((error) => {
    tell('failed', error.message);
    process.exitCode = 1;
  });
});
