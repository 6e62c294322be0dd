// The program around the rig. Told to by its parent's messages, or by its arguments, it performs scenarios and answers
// with what came of them; without a parent and a running read it ends by itself.

import * as reads from './scenarios.mjs';
import * as services from './services.mjs';

const scenarios = { ...reads, ...services };

async function run(name, argument) {
  try {
    return { value: await scenarios[name](argument) };
  } catch (error) {
    return { error: error.stack };
  }
}

process.on('message', async ({ id, name, argument }) => {
  process.send({ id, ...await run(name, argument) });
});
