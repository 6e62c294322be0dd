// The list of reads. Rows are changed one by one, so that a thousand of them stay quick.

import { h, toDom } from './h.mjs';
import { KINDS, SOURCES, clock, duration } from './words.mjs';

export class ReadList {
  #list;
  #count;
  #none;
  #rows = new Map(); // by number of the read: { read, row }
  #current = null;
  #wanted = '';

  constructor({ list, count, none, filter }) {
    this.#list = list;
    this.#count = count;
    this.#none = none;
    filter.addEventListener('input', () => {
      this.#wanted = filter.value.trim().toLowerCase();
      for (const entry of this.#rows.values()) this.#show(entry);
    });
  }

  /** All reads, oldest first. */
  fill(reads) {
    this.#rows.clear();
    this.#list.replaceChildren();
    const rows = reads.map((read) => this.#make(read));
    this.#list.append(...rows.reverse());
    this.#tally();
  }

  /** A read that is new or has changed. */
  put(read) {
    const known = this.#rows.get(read.id);
    const row = this.#make(read);
    if (known) known.row.replaceWith(row);
    else this.#list.prepend(row);
    this.#tally();
  }

  remove(id) {
    this.#rows.get(id)?.row.remove();
    this.#rows.delete(id);
    this.#tally();
  }

  get(id) {
    return this.#rows.get(id)?.read;
  }

  mark(id) {
    this.#rows.get(this.#current)?.row.firstChild.removeAttribute('aria-current');
    this.#current = id;
    this.#rows.get(id)?.row.firstChild.setAttribute('aria-current', 'page');
  }

  #make(read) {
    const { id, title, state, began, ms, kind, source, outcome, doubtful } = read;
    const told = state === 'running' ? 'running' : `${outcome}, ${duration(ms)}`;
    const row = toDom(h('li', {}, h('a', { href: `#read-${id}`, class: doubtful ? 'failed' : state, 'aria-current': id === this.#current ? 'page' : null },
      h('span', { class: 'dot', 'aria-hidden': 'true' }), h('b', {}, title), h('time', {}, clock(began)),
      h('small', {}, `${source === 'phone' ? `${KINDS[kind]} ${SOURCES.phone}, ` : ''}${told}`))));
    const entry = { read, row };
    this.#rows.set(id, entry);
    this.#show(entry);
    return row;
  }

  #show({ read: { title, outcome, source, device }, row }) {
    row.hidden = this.#wanted !== '' && !`${title} ${outcome} ${source} ${device}`.toLowerCase().includes(this.#wanted);
  }

  #tally() {
    this.#count.textContent = this.#rows.size > 0 ? String(this.#rows.size) : '';
    this.#none.hidden = this.#rows.size > 0;
    this.#list.hidden = this.#rows.size === 0;
  }
}
