// The page: what is chosen, what runs, and the read that is looked at.

import { Refused, enter, follow, getJson, getText, post, remove } from './api.mjs';
import { StartForm } from './form.mjs';
import { h, toDom } from './h.mjs';
import { ReadList } from './list.mjs';
import { heading, partsView, progressView, readView, stepsSection, timelineSection } from './views.mjs';

const kSchemes = ['auto', 'light', 'dark'];
const kRedraw = 100; // milliseconds between two pictures of a running read
const at = (id) => document.getElementById(id);

let current = null; // the read that is shown, with all its steps
let drawn = 0;
let drawing = null;
const main = at('main');
const list = new ReadList({ list: at('reads'), count: at('count'), none: at('no-reads'), filter: at('filter') });
const form = new StartForm(at('start'), async (choice) => {
  const { id } = await post('reads', choice);
  location.hash = `#read-${id}`;
});

const tell = (text) => { at('live').textContent = text; };

// --- showing -----------------------------------------------------------------------------------------------------------

function show(...nodes) {
  main.replaceChildren(...nodes.flat().filter(Boolean).map((node) => toDom(node)));
}

const button = (action, text, more = {}) => h('button', { type: 'button', 'data-action': action, ...more }, text);

function actions({ state }) {
  const rows = state === 'running' ? [button('cancel', 'Cancel')]
    : [button('report', 'Save report'), button('trace', 'Save trace for a bug report'), button('print', 'Print'), button('forget', 'Forget', { class: 'quiet' })];
  return h('div', { class: 'actions' }, rows);
}

function welcome() {
  document.title = 'tqreader desk';
  list.mark(null);
  show(h('div', { class: 'welcome' }, h('h1', { tabindex: '-1', id: 'title' }, 'Read a document'),
    h('p', {}, 'Choose a simulated one, or a passport on a USB reader. While it is read you see each command and what it is for; afterwards every byte taken apart.'),
    h('p', {}, 'Everything stays in the memory of this desk until you save it.')));
}

function drawRunning() {
  drawing = null;
  drawn = performance.now();
  if (current?.state !== 'running') return;
  const focused = main.contains(document.activeElement) && document.activeElement.dataset.action;
  const steps = current.steps.filter(Boolean);
  show(heading({ ...current, steps }), actions(current), progressView({ ...current, steps }),
    timelineSection({ ...current, steps }, Math.max(1, Date.now() - current.began)), stepsSection({ steps }));
  if (focused) main.querySelector(`[data-action="${focused}"]`)?.focus();
}

function drawSoon() {
  drawing ??= setTimeout(drawRunning, Math.max(0, kRedraw - (performance.now() - drawn)));
}

async function open(id) {
  let read;
  try {
    read = await getJson(`reads/${id}`);
  } catch (error) {
    if (!(error instanceof Refused)) throw error;
    return welcome();
  }
  if (location.hash !== `#read-${id}`) return undefined;
  const again = current?.id === id;
  current = read;
  list.mark(id);
  document.title = `${read.title} – tqreader desk`;
  if (read.state === 'running') drawRunning();
  else {
    const [head, ...rest] = readView(read);
    show(head, actions(read), rest);
  }
  if (!again) at('title').focus({ preventScroll: true });
  return undefined;
}

function route() {
  const id = /^#read-(\d+)$/.exec(location.hash)?.[1];
  const step = /^#step-\d+$/.test(location.hash) && at(location.hash.slice(1));
  if (id) open(Number(id));
  else if (step) reveal(step);
  else {
    current = null;
    welcome();
  }
}

/** Opens a step and the group that it is in. */
function reveal(step) {
  history.replaceState(null, '', `#read-${current.id}`);
  for (let element = step; element && element !== main; element = element.parentElement) {
    if (element.tagName === 'DETAILS') element.open = true;
  }
  const details = step.querySelector('details');
  details.open = true;
  step.scrollIntoView({ block: 'center' });
  details.querySelector('summary').focus({ preventScroll: true });
}

// --- events ------------------------------------------------------------------------------------------------------------

const HANDLERS = {
  read(read) {
    const before = list.get(read.id)?.state;
    list.put(read);
    form.busy = list.get(read.id).state === 'running' && read.source !== 'phone';
    if (current?.id === read.id && (read.state !== 'running' || before !== read.state)) open(read.id);
    if (before === 'running' && read.state !== 'running') tell(`${read.title}: ${read.outcome}`);
  },
  step({ read, step }) {
    if (current?.id !== read) return;
    current.steps = [...current.steps.filter(({ n }) => n !== step.n), step];
    if (current.state === 'running') drawSoon();
  },
  progress({ read, file }) {
    if (current?.id !== read) return;
    if (!current.files.some(({ name }) => name === file.name)) tell(`Reading ${file.name}`);
    current.files = [...current.files.filter(({ name }) => name !== file.name), file];
    if (current.state === 'running') drawSoon();
  },
  gone(id) {
    list.remove(id);
    if (current?.id === id) location.hash = '';
  },
  readers(readers) {
    form.readers = readers;
  },
};

async function refresh() {
  const state = await getJson('state');
  const { host, port, env } = state.phones;
  form.choices = state.choices;
  form.readers = state.readers;
  list.fill(state.reads);
  form.busy = state.reads.some(({ state: each, source }) => each === 'running' && source !== 'phone');
  at('phones').textContent = `Decode server for phones: ${host}:${port}, environment ${env}`;
  route();
  return state.lastEvent;
}

// --- doing -------------------------------------------------------------------------------------------------------------

function save(text, type, name) {
  const address = URL.createObjectURL(new Blob([text], { type }));
  const link = toDom(h('a', { href: address, download: name }));
  link.click();
  setTimeout(() => URL.revokeObjectURL(address), 10000);
}

const ACTIONS = {
  cancel: ({ id }) => post(`reads/${id}/cancel`),
  report: async ({ id }) => save(await getText(`reads/${id}/report`), 'text/html', `read-${id}.html`),
  trace: async ({ id }) => save(JSON.stringify(await getJson(`reads/${id}/trace`), null, 1), 'application/json', `read-${id}-trace.json`),
  print: () => window.print(),
  forget: ({ id }) => remove(`reads/${id}`),
};

main.addEventListener('click', (event) => {
  const action = event.target.closest('[data-action]')?.dataset.action;
  if (action && current) ACTIONS[action](current).catch?.((error) => tell(error.message));
});

main.addEventListener('toggle', async ({ target }) => {
  const { step, lane } = target.dataset;
  const place = target.querySelector(':scope > .detail');
  if (!target.open || step === undefined || place.firstChild || current.state === 'running') return;
  place.append(toDom(partsView(await getJson(`reads/${current.id}/steps/${step}`), lane)));
}, true);

at('scheme').addEventListener('click', ({ currentTarget }) => {
  const next = kSchemes[(kSchemes.indexOf(document.documentElement.dataset.scheme ?? 'auto') + 1) % kSchemes.length];
  document.documentElement.dataset.scheme = next;
  currentTarget.textContent = `◐ ${next}`;
  currentTarget.setAttribute('aria-label', next === 'auto' ? 'Colours: as the system has them' : `Colours: ${next}`);
});

function refuse(message) {
  at('columns').hidden = true;
  at('gate').hidden = false;
  at('gate-text').textContent = message;
}

function onLink(connected) {
  if (connected === null) refuse('The desk has been started anew. Open the address that its terminal shows.');
  at('link').textContent = connected === false ? 'No connection to the desk; trying again …' : '';
}

try {
  await enter();
  const last = await refresh();
  at('columns').hidden = false;
  window.addEventListener('hashchange', route);
  follow(last, (name, data) => (name === 'reset' ? refresh() : HANDLERS[name]?.(data)), onLink);
} catch (error) {
  refuse(error instanceof Refused && error.status === 403 ? error.message : 'Open the address that the terminal shows; press Enter there for a new one.');
}
