// A read as a page shows it and as a report keeps it.

import { h } from './h.mjs';
import { timeline } from './timeline.mjs';
import { KINDS, SOURCES, STATES, bytes, clock, counted, day, duration, label, number } from './words.mjs';

const kMarks = { good: '✓', bad: '✕', unchecked: '–' };
const kVerdicts = { good: 'Good', bad: 'Bad', unchecked: 'Not checked' };
const kFirst = ['surname', 'givenNames', 'fullName', 'nameInZone', 'sex', 'nationality', 'birthDate', 'fullBirthDate', 'placeOfBirth'];
const kDates = ['birthDate', 'expiryDate', 'validFrom', 'validTo', 'issueDate'];

const section = (id, title, ...children) => h('section', { id, 'aria-labelledby': `${id}-title` }, h('h2', { id: `${id}-title` }, title), children);
const empty = (text) => h('p', { class: 'empty' }, text);
const pill = (state) => h('span', { class: `pill ${state}` }, STATES[state]);
const mono = (text) => h('code', {}, text);

/** YYMMDD and YYYYMMDD as they are meant; what expires does so in this century, who is born may be older. */
function dated(name, value) {
  if (!kDates.includes(name) || !/^\d{6}(\d\d)?$/.test(value)) return value;
  if (value.length === 8) return value.replace(/(....)(..)(..)/, '$1-$2-$3');
  return value.replace(/(..)(..)(..)/, name === 'expiryDate' ? '20$1-$2-$3' : '$1-$2-$3');
}

// --- the head ----------------------------------------------------------------------------------------------------------

export function heading(read) {
  const { title, state, began, ms, kind, source, device, steps } = read;
  const facts = [`${day(began)}, ${clock(began)}`, `${KINDS[kind]} ${SOURCES[source]}`, state === 'running' ? null : duration(ms),
    counted(Array.isArray(steps) ? steps.length : steps, 'step'), device && `device ${device}`];
  return h('header', { class: 'head' }, h('h1', { tabindex: '-1', id: 'title' }, title), pill(state),
    h('p', { class: 'facts' }, facts.filter(Boolean).join('  ·  ')));
}

/** Why a read failed, in its own words. */
export function verdict({ state, result }) {
  if (state === 'running' || state === 'good' || !result) return null;
  const code = result.code === null ? '' : ` (${result.code})`;
  return h('p', { class: `verdict ${state}`, role: 'status' }, result.message.includes(code.trim()) ? result.message : result.message + code);
}

/** What speaks against the document. */
function objections({ judged }) {
  const bad = judged?.checks.filter(({ verdict: found }) => found === 'bad') ?? [];
  if (bad.length === 0) return null;
  return h('p', { class: 'verdict failed', role: 'status' }, `Do not trust this document: ${counted(bad.length, 'check')} failed (${bad.map(({ name }) => name).join(', ')}).`);
}

// --- the document ------------------------------------------------------------------------------------------------------

function holderList(holder) {
  const known = Object.keys(holder).filter((name) => name !== 'birthDate' || !holder.fullBirthDate);
  const first = kFirst.filter((name) => known.includes(name));
  const rows = [...new Set([...first, ...known])].map((name) => [name, holder[name]]).map(([name, value]) => [label(name),
    typeof value === 'string' ? dated(name, value) : Array.isArray(value) ? value.join(', ') : value?.words ?? JSON.stringify(value)]);
  return h('dl', { class: 'facts-list' }, rows.map(([name, value]) => h('div', {}, h('dt', {}, name), h('dd', {}, value))));
}

/** The lines of the zone with every check digit marked as right or wrong. */
function zone(mrz) {
  const digits = mrz.fields.filter(({ digit }) => digit).map(({ name, text, digit }) => ({ name, text, ...digit }));
  const all = [...digits, { name: 'composite', text: '', ...mrz.composite }];
  return [
    h('pre', { class: 'mrz', 'aria-label': 'Machine-readable zone' }, mrz.lines.join('\n')),
    h('table', { class: 'digits' }, h('caption', {}, `Check digits (${mrz.form})`),
      h('thead', {}, h('tr', {}, ['Field', 'As printed', 'Digit', 'Verdict'].map((text) => h('th', { scope: 'col' }, text)))),
      h('tbody', {}, all.map(({ name, text, stated, computed, good }) => h('tr', {}, h('th', { scope: 'row' }, label(name)),
        h('td', {}, text ? mono(text) : 'both lines'), h('td', {}, mono(stated)),
        h('td', { class: good ? 'good' : 'bad' }, `${kMarks[good ? 'good' : 'bad']} ${good ? 'right' : `${computed ?? 'no digit'} would be right`}`))))),
  ];
}

function portrait({ address, reason }) {
  if (address) return h('figure', { class: 'portrait' }, h('img', { src: address, alt: 'Portrait of the holder' }));
  return h('figure', { class: 'portrait none' }, h('p', {}, reason ?? 'No portrait'));
}

function documentSection({ judged, info, state }) {
  if (judged) {
    return section('document', 'Document', h('div', { class: 'document' }, portrait(judged.portrait), holderList(judged.holder)),
      judged.mrz ? zone(judged.mrz) : null);
  }
  if (info) return section('document', 'Document', holderList(info));
  return state === 'good' ? section('document', 'Document', empty('The server sent no holder.')) : null;
}

function checksSection({ judged }) {
  if (!judged) return null;
  return section('checks', 'What was verified', h('ul', { class: 'checks' }, judged.checks.map(({ name, verdict: good, words }) =>
    h('li', { class: good }, h('span', { class: 'mark', 'aria-hidden': 'true' }, kMarks[good]),
      h('div', {}, h('b', {}, name), h('span', { class: 'sr' }, `: ${kVerdicts[good]}. `), h('p', {}, words))))),
  judged.notes.length > 0 ? h('ul', { class: 'notes' }, judged.notes.map((note) => h('li', {}, note))) : null);
}

// --- the road ----------------------------------------------------------------------------------------------------------

export function timelineSection({ steps, ms, source }, end = ms) {
  return section('time', 'Where the time went', steps.length > 0 ? timeline(steps, end, source) : empty('Nothing has happened yet.'));
}

const fileOf = ({ lane, name }) => (lane === 'chip' && /^(SELECT|READ) (?!APPLICATION|MASTER)/.test(name) ? name.replace(/^\S+ /, '') : null);

/** Steps in their order; those that read one file stand together. */
export function grouped(steps) {
  const groups = [];
  for (const step of [...steps].sort((a, b) => a.at - b.at || a.n - b.n)) {
    const file = fileOf(step);
    const last = groups.at(-1);
    if (file !== null && last?.file === file && !step.name.startsWith('SELECT')) last.steps.push(step);
    else groups.push({ file, steps: [step] });
  }
  return groups;
}

/** Fields of a message, one below the other, what is inside them indented. */
export function fieldTree(fields) {
  return h('ul', { class: 'fields' }, fields.map(({ name, hex, words, inside, opened }) =>
    h('li', { class: opened ? 'opened' : null }, h('div', { class: 'field' }, h('b', {}, name), h('div', { class: 'value' },
      inside?.length > 0 && hex.length > 32 ? null : mono(hex), words ? h('span', { class: 'words' }, words) : null)),
    inside?.length > 0 ? fieldTree(inside) : null)));
}

export function partsView({ sent, received, sentFields, receivedFields }, lane) {
  const side = (title, hex, fields) => h('div', { class: 'side' }, h('h4', {}, title, ' ', h('span', { class: 'size' }, bytes(hex.length / 2))),
    hex ? h('pre', { class: 'raw' }, hex) : empty('Nothing came.'), fields.length > 0 ? fieldTree(fields) : null);
  const names = lane === 'server' ? ['Request', 'Response'] : ['Command', 'Answer'];
  return h('div', { class: 'parts' }, side(names[0], sent, sentFields), side(names[1], received, receivedFields));
}

function stepRow(step, partsOf) {
  const { n, lane, name, purpose, at, ms, good, words, status, sent, received, note } = step;
  const parts = partsOf?.(n);
  return h('li', { class: `step ${lane}${good ? '' : ' wrong'}`, id: `step-${n}` },
    h('details', { 'data-step': parts ? null : n, 'data-lane': lane },
      h('summary', {}, h('span', { class: 'at' }, duration(at)), h('span', { class: 'name' }, h('b', {}, name), ' ', h('span', { class: 'purpose' }, purpose), good ? null : h('span', { class: 'bad' }, ` ${words}`)),
        h('span', { class: 'size' }, `${number(sent)} → ${number(received)}`), h('span', { class: `status ${good ? 'good' : 'bad'}` }, status || (ms === null ? '…' : lane === 'server' ? words : good ? '–' : 'none')),
        h('span', { class: 'took' }, ms === null ? '…' : duration(ms))),
      note ? h('p', { class: 'note' }, note) : null, h('div', { class: 'detail' }, parts ? partsView(parts, lane) : null)));
}

function groupRow({ file, steps }, partsOf) {
  const done = steps.filter(({ ms }) => ms !== null);
  const ms = done.length === 0 ? null : done.at(-1).at + done.at(-1).ms - steps[0].at;
  const wrong = steps.filter(({ good }) => !good);
  const received = steps.reduce((sum, step) => sum + step.received, 0);
  return h('li', { class: `step group chip${wrong.length > 0 ? ' wrong' : ''}` }, h('details', {},
    h('summary', {}, h('span', { class: 'at' }, duration(steps[0].at)), h('span', { class: 'name' }, h('b', {}, file), ' ', h('span', { class: 'purpose' }, counted(steps.length, 'command')), wrong.length > 0 ? h('span', { class: 'bad' }, ` ${wrong.at(-1).words}`) : null),
      h('span', { class: 'size' }, `${number(received)} received`),
      h('span', { class: `status ${wrong.length > 0 ? 'bad' : 'good'}` }, wrong.length > 0 ? wrong.at(-1).status || 'none' : '9000'),
      h('span', { class: 'took' }, ms === null ? '…' : duration(ms))),
    h('ol', { class: 'steps' }, steps.map((step) => stepRow(step, partsOf)))));
}

export function stepsSection({ steps }, partsOf) {
  if (steps.length === 0) return null;
  return section('steps', 'Every command and frame', h('p', { class: 'hint' }, 'Open one to see it taken apart, field by field.'),
    h('ol', { class: 'steps' }, grouped(steps).map((group) => (group.steps.length > 1 ? groupRow(group, partsOf) : stepRow(group.steps[0], partsOf)))));
}

// --- what else is known ------------------------------------------------------------------------------------------------

function monitorSection({ monitor }) {
  if (!monitor?.record) return null;
  const rows = Object.entries(monitor.record).map(([name, value]) => h('div', {}, h('dt', {}, mono(name)), h('dd', {}, value === '' ? 'empty' : String(value).replaceAll(';', '; '))));
  return section('monitor', 'Monitor record', h('dl', { class: 'facts-list wide' }, rows));
}

const kFinders = { server: 'the decode server', chip: 'the chip', application: 'the application', desk: 'the desk' };

function twinView({ outcome, commands, commandsHere, first, files }) {
  const rows = [['Outcome', outcome], ['Commands to the document', `${commands} instead of ${commandsHere}`],
    ...(first ? [['First step that differs', `${first.name}: ${first.here}; it would have been ${first.there}`]] : []),
    ...files.map(({ name, here, there }) => [name, `${bytes(there)} instead of ${number(here)}`])];
  return [h('h3', {}, 'What would have been different'), h('p', { class: 'hint' }, 'The same document was read once more without what was made to go wrong.'),
    h('dl', { class: 'facts-list wide' }, rows.map(([name, value]) => h('div', {}, h('dt', {}, name), h('dd', {}, value))))];
}

function differencesSection({ differences, twin }) {
  const found = differences.length === 0 ? empty('Every byte was as it should be.') : h('ul', { class: 'differences' }, differences.map(({ by, at, what, expected, actual, text }) =>
    h('li', {}, h('b', {}, `${at}: ${what}`), h('span', { class: 'size' }, `found by ${kFinders[by] ?? by}`), expected === undefined ? h('p', {}, text)
      : h('dl', {}, h('dt', {}, 'Expected'), h('dd', {}, mono(expected)), h('dt', {}, 'Came'), h('dd', {}, mono(actual))))));
  return section('differences', 'Differences', found, twin ? twinView(twin) : null);
}

/** The whole of a read that is over. `partsOf` gives the parts of a step, when they are all at hand. */
export function readView(read, partsOf) {
  return [heading(read), verdict(read), objections(read), documentSection(read), checksSection(read), timelineSection(read), stepsSection(read, partsOf),
    differencesSection(read), monitorSection(read)].filter(Boolean);
}

// --- while it runs -----------------------------------------------------------------------------------------------------

export function progressView({ steps, files }) {
  const last = [...steps].sort((a, b) => a.at - b.at).at(-1);
  const now = !last ? 'Connecting to the decode server' : `${last.name}: ${last.purpose}`;
  return section('progress', 'Now', h('p', { class: 'now' }, now), h('ul', { class: 'files' }, files.map(({ name, bytes: done, total }) =>
    h('li', { class: total > 0 && done >= total ? 'done' : null }, h('span', { id: `file-${name}` }, name),
      h('progress', { max: total || 1, value: total ? Math.min(done, total) : 0, 'aria-labelledby': `file-${name}` }),
      h('span', { class: 'size' }, total ? `${number(done)} of ${bytes(total)}` : bytes(done))))));
}
