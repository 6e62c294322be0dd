// An application that asks the two small services, in a process of its own: both calls block its thread. The parent sends
// { ask: { library, delay: [arguments of getTimeDelay], location: [arguments of getDeviceNFCLocation but the time
// function] } }; the child sends { event, subject } for 'delay' and 'location' and ends when the parent lets go of it.
// See ../processes.mjs for the parent's side.

import { loadLibrary } from '../reader.mjs';

function tell(event, subject) {
  if (process.connected) process.send({ event, subject });
}

process.once('message', ({ ask: { library, delay, location } }) => {
  try {
    const module = loadLibrary(library);
    const times = [];
    const clock = () => {
      times.push(Date.now());
      return times.at(-1);
    };
    const timed = (call) => {
      const at = Date.now();
      const result = call();
      return { at, result, ms: Date.now() - at };
    };
    tell('delay', timed(() => module.getTimeDelay(...delay)));
    tell('location', { ...timed(() => module.getDeviceNFCLocation(...location, clock)), times });
  } catch (error) {
    tell('failed', error.message);
    process.exitCode = 1;
  }
});
