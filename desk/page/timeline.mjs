// Where the time went: bars for chip, server and library on one axis.

import { h } from './h.mjs';
import { duration } from './words.mjs';

const kLanes = [['chip', 'Chip'], ['server', 'Server'], ['library', 'Library']];
const kPhoneLanes = [['server', 'Server'], ['library', 'Phone']]; // what goes on there is not seen from here
const kTop = 6;
const kLane = 34;
const kBar = 22;
const kTicks = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000, 50000, 100000, 200000];

/** The library is at work, or on its way, whenever neither chip nor server are. */
export function withLibrary(steps, end) {
  const bars = steps.map((step) => ({ ...step, ms: step.ms ?? Math.max(0, end - step.at) })).sort((a, b) => a.at - b.at);
  const gaps = [];
  let at = 0;
  for (const bar of bars) {
    if (bar.at > at) gaps.push({ lane: 'library', at, ms: bar.at - at, name: 'between', good: true });
    at = Math.max(at, bar.at + bar.ms);
  }
  if (end > at) gaps.push({ lane: 'library', at, ms: end - at, name: 'between', good: true });
  return [...bars, ...gaps];
}

const total = (bars, wanted) => bars.filter(({ lane }) => lane === wanted).reduce((sum, { ms }) => sum + ms, 0);

export function timeline(steps, end, source) {
  const lanes = source === 'phone' ? kPhoneLanes : kLanes;
  const whole = Math.max(end, 1);
  const bars = withLibrary(steps, end);
  const sums = Object.fromEntries(lanes.map(([lane]) => [lane, total(bars, lane)]));
  const percent = (ms) => `${Math.round((ms / whole) * 100000) / 1000}%`;
  const tick = kTicks.find((each) => whole / each <= 6) ?? whole;
  const ticks = Array.from({ length: Math.floor(whole / tick) + 1 }, (_, i) => i * tick);
  const height = kTop + lanes.length * kLane + 22;
  const label = `${lanes.map(([lane, name]) => `${name} ${duration(sums[lane])}`).join(', ')} of ${duration(whole)}`;
  return h('figure', { class: 'timeline' },
    h('div', { class: 'lanes', 'aria-hidden': 'true' }, lanes.map(([lane, name]) =>
      h('div', { class: `lane ${lane}` }, h('b', {}, name), h('span', {}, duration(sums[lane]))))),
    h('svg', { role: 'img', 'aria-label': label, width: '100%', height },
      ticks.map((at) => h('line', { class: 'grid', x1: percent(at), x2: percent(at), y1: 0, y2: height - 20 })),
      bars.map((bar) => {
        const y = kTop + lanes.findIndex(([lane]) => lane === bar.lane) * kLane;
        const rect = h('rect', { class: `bar ${bar.lane}${bar.good ? '' : ' wrong'}`, x: percent(bar.at), y, width: percent(bar.ms), height: kBar, rx: 2 },
          h('title', {}, `${bar.name}: ${duration(bar.ms)} from ${duration(bar.at)} on`));
        return bar.n === undefined ? rect : h('a', { href: `#step-${bar.n}`, tabindex: '-1' }, rect);
      }),
      ticks.map((at) => h('text', { class: 'tick', x: percent(at), y: height - 4, 'text-anchor': at === 0 ? 'start' : at / whole > 0.95 ? 'end' : 'middle' }, duration(at)))));
}
