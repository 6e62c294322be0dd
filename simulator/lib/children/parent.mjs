// A child's side of ../processes.mjs: what happens is sent to the parent as { event, subject, sentAt }, and { ping } is answered
// by { pong } when everything before it has been sent.

import { now } from '../clock.mjs';

export function tell(event, subject, sent = () => {}) { // the parent may be gone
  if (process.connected) process.send({ event, subject, sentAt: now() }, sent);
}

/** Says why this child cannot go on, and lets it end. */
export function giveUp(error) {
  process.exitCode = 1;
  tell('failed', error.message, () => {
    if (process.connected) process.disconnect();
  });
}

/** Has the parent's orders carried out; the child ends when the parent lets go of it. */
export function obey(carryOut) {
  process.on('message', async ({ ping, ...order }) => {
    if (ping !== undefined) {
      if (process.connected) process.send({ pong: ping }, () => {});
      return;
    }
    try {
      await carryOut(order);
    } catch (error) {
      giveUp(error);
    }
  });
}
