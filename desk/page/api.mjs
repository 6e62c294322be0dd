// What the page asks of the desk, and the events that the desk sends.

const kStored = 'desk-key';
const kAgain = 800; // milliseconds until a lost connection is tried again

/** The desk has refused: `status` and its words. */
export class Refused extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

let key = sessionStorage.getItem(kStored);

async function ask(path, { method = 'GET', body, headers, signal } = {}) {
  const given = { ...(key && { Authorization: `Bearer ${key}` }), ...(body && { 'Content-Type': 'application/json' }), ...headers };
  const response = await fetch(`/api/${path}`, { method, headers: given, body: body && JSON.stringify(body), signal });
  if (response.ok) return response;
  const { error } = await response.json().catch(() => ({ error: response.statusText }));
  throw new Refused(response.status, error);
}

export const getJson = async (path) => (await ask(path)).json();
export const getText = async (path) => (await ask(path)).text();
export const post = async (path, body = {}) => (await ask(path, { method: 'POST', body })).json();
export const remove = (path) => ask(path, { method: 'DELETE' });

/** Takes the token out of the address and exchanges it for the key of this page. */
export async function enter() {
  const token = /^#token=([\w-]+)$/.exec(location.hash)?.[1];
  if (token === undefined) return;
  history.replaceState(null, '', '/');
  ({ key } = await post('session', { token }));
  sessionStorage.setItem(kStored, key);
}

/**
 * Follows the events of the desk for ever, without a gap.
 * @param {number} last  number of the event that the page has seen last
 * @param {(name: string, data: any) => void} onEvent  'reset' says that events are lost and the state is to be asked anew
 * @param {(connected: boolean) => void} onLink
 */
export async function follow(last, onEvent, onLink) {
  let seen = last;
  for (;;) {
    try {
      const response = await ask('events', { headers: { 'Last-Event-ID': String(seen) } });
      onLink(true);
      let text = '';
      for (const reader = response.body.pipeThrough(new TextDecoderStream()).getReader(); ;) {
        const { done, value } = await reader.read();
        if (done) break;
        text += value;
        for (let end = text.indexOf('\n\n'); end >= 0; end = text.indexOf('\n\n')) {
          const { id, event, data } = parsed(text.slice(0, end));
          text = text.slice(end + 2);
          if (id !== undefined) seen = Number(id);
          if (event === 'reset') seen = await onEvent(event);
          else if (event !== undefined) onEvent(event, JSON.parse(data));
        }
      }
    } catch (error) {
      if (error instanceof Refused && error.status === 401) return onLink(null);
    }
    onLink(false);
    await new Promise((resolve) => { setTimeout(resolve, kAgain); });
  }
}

const parsed = (block) => Object.fromEntries(block.split('\n').filter((line) => !line.startsWith(':')).map((line) => {
  const at = line.indexOf(': ');
  return [line.slice(0, at), line.slice(at + 2)];
}));
