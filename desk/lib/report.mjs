// A read as one file that opens anywhere, without scripts: the views of the page as text, with its style sheet inside.

import { readFileSync } from 'node:fs';
import { h, toHtml } from '../page/h.mjs';
import { readView } from '../page/views.mjs';

const style = () => ['theme.css', 'read.css'].map((name) => readFileSync(new URL(`../page/${name}`, import.meta.url), 'utf8')).join('\n');

/** @param {Record} record @returns {string} */
export function reportOf(record) {
  const { title, began } = record;
  const parts = record.allApart();
  const head = h('head', {}, h('meta', { charset: 'utf-8' }), h('meta', { name: 'viewport', content: 'width=device-width, initial-scale=1' }),
    h('meta', { 'http-equiv': 'Content-Security-Policy', content: `default-src 'none'; style-src 'unsafe-inline'; img-src data:` }),
    h('meta', { name: 'generator', content: 'tqreader desk' }), h('title', {}, `${title}, ${new Date(began).toISOString().slice(0, 10)}`));
  const body = h('body', { class: 'report' }, h('main', { class: 'read' }, readView(record.detail, (n) => parts.get(n))),
    h('footer', {}, h('p', {}, 'Kept by the tqreader desk. This file holds personal data; treat it like the document itself.')));
  // style is no text that is escaped, and has no closing tag in it
  return `<!doctype html>\n<html lang="en">${toHtml(head).replace('</head>', `<style>${style()}</style></head>`)}${toHtml(body)}</html>\n`;
}
