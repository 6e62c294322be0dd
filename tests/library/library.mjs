// The built library and the headers of its interface.

import { readdirSync, readFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';

export const kRoot = fileURLToPath(new URL('../../', import.meta.url));
export const kLibrary = process.env.TQREADER_LIBRARY ?? `${kRoot}build/host/libtqreader.so`;
export const kSources = `${kRoot}src`;

const kComments = /\/\*[\s\S]*?\*\/|\/\/.*$/gm;

export const headers = () =>
  readdirSync(kSources, { recursive: true }).filter((name) => name.endsWith('.h')).sort();

// The functions that the headers declare as public, sorted.
export function publicNames() {
  const names = headers().flatMap((header) => {
    const text = readFileSync(`${kSources}/${header}`, 'utf8').replace(kComments, '');
    return [...text.matchAll(/^TQ_API\s[^;(]*?\b(\w+)\s*\(/gm)].map(([, name]) => name);
  });
  return names.sort();
}
