// The process under test: an application that reads through the package, with a card, a passport and a decode server
// around it. Told to by its parent's messages, it performs scenarios and answers with what came of them.

import * as scenarios from './scenarios.mjs';

process.on('message', async ({ id, name, argument }) => {
  try {
    process.send({ id, value: await scenarios[name](argument) });
  } catch (error) {
    process.send({ id, error: error.stack });
  }
});
