// Elements as plain objects, which become live ones in the page and text in a report.

const kSvg = 'http://www.w3.org/2000/svg';
const kVoid = new Set(['br', 'img', 'meta', 'input', 'link']);
const kEscapes = { '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', '\'': '&#39;' };

/** What `h` has made; anything else, whatever it looks like, is text. */
class Node {
  constructor(tag, attributes, children) {
    Object.assign(this, { tag, attributes, children });
  }
}

/** An element. Attributes that are false, null or undefined are left out; so are such children. */
export const h = (tag, attributes = {}, ...children) => new Node(tag, attributes, children.flat(Infinity));

const present = (value) => value !== false && value !== null && value !== undefined;

/** A live element, made without any parsing of text. */
export function toDom(node, svg = false) {
  if (!(node instanceof Node)) return document.createTextNode(String(node));
  const inside = svg || node.tag === 'svg';
  const element = inside ? document.createElementNS(kSvg, node.tag) : document.createElement(node.tag);
  for (const [name, value] of Object.entries(node.attributes)) {
    if (present(value)) element.setAttribute(name, value === true ? '' : String(value));
  }
  for (const child of node.children) {
    if (present(child)) element.append(toDom(child, inside));
  }
  return element;
}

const escaped = (text) => String(text).replace(/[&<>"']/g, (character) => kEscapes[character]);

/** The same as text. */
export function toHtml(node) {
  if (!(node instanceof Node)) return escaped(node);
  const attributes = Object.entries(node.attributes).filter(([, value]) => present(value))
    .map(([name, value]) => (value === true ? ` ${name}` : ` ${name}="${escaped(value)}"`)).join('');
  if (kVoid.has(node.tag)) return `<${node.tag}${attributes}>`;
  return `<${node.tag}${attributes}>${node.children.filter(present).map(toHtml).join('')}</${node.tag}>`;
}
