// What to read next.

import { h, toDom } from './h.mjs';

export class StartForm {
  #form;
  #go;
  #complaint;
  #readerLine;
  #choices = null;
  #readers = { list: [], error: '' };

  /** @param {(choice: object) => Promise<void>} start  begins a read; what it throws is shown */
  constructor(form, start) {
    this.#form = form;
    this.#go = form.querySelector('#go');
    this.#complaint = form.querySelector('#complaint');
    this.#readerLine = form.querySelector('#readers');
    form.addEventListener('change', () => this.#arrange());
    form.addEventListener('submit', async (event) => {
      event.preventDefault();
      this.#complaint.textContent = '';
      this.busy = true; // until the read is over, which is told as an event
      try {
        await start(this.#choice());
      } catch (error) {
        this.busy = false;
        this.#complaint.textContent = error.message;
      }
    });
  }

  set choices(choices) {
    this.#choices = choices;
    fill(this.#form.elements.passportKind, choices.passportKinds);
    this.#arrange();
  }

  set readers(readers) {
    this.#readers = readers;
    const { list, error } = readers;
    const ready = list.find(({ state }) => state === 'card');
    this.#readerLine.textContent = ready ? `A document lies on ${ready.name}.` : error ||
      (list.length === 0 ? 'No reader. Plug in a contactless one.' : `Lay the passport on ${list[0].name}.`);
    this.#readerLine.classList.toggle('ready', Boolean(ready));
  }

  set busy(busy) {
    this.#go.disabled = busy;
    this.#go.textContent = busy ? 'Reading …' : 'Read';
  }

  #arrange() {
    const { document, misbehaviour } = this.#form.elements;
    if (this.#form.dataset.document !== document.value && document.value !== 'reader') {
      fill(misbehaviour, [['', 'Nothing'], ...this.#choices.misbehaviours[document.value]]);
    }
    this.#form.dataset.document = document.value;
  }

  #choice() {
    const { document, passportKind, misbehaviour, pace, number, birth, expiry } = this.#form.elements;
    if (document.value === 'reader') return { document: 'reader', number: number.value, birth: birth.value, expiry: expiry.value };
    return { document: document.value, passportKind: passportKind.value, misbehaviour: misbehaviour.value, pace: pace.checked ? 'real' : 'none' };
  }
}

function fill(select, options) {
  select.replaceChildren(...options.map(([value, words]) => toDom(h('option', { value }, words))));
}
