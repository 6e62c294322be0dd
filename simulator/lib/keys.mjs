// Reads the server keys of a deployment from the C header that the library is built with.

import { readFileSync } from 'node:fs';

const kEnvironments = [268, 52302, 26814];
const kServers = { decode: 'TQREADER_DECODE_KEY', location: 'TQREADER_LOCATION_KEY' };

/**
 * The keys that a header's text defines by lines such as
 *   #define TQREADER_DECODE_KEY_268 "00112233445566778899AABBCCDDEEFF"
 * as { decode: { 268, 52302, 26814 }, location: { ... } }, each a 16-byte Buffer. Throws when a decode-server
 * key is missing or is not 32 hexadecimal digits; the location server's keys may be absent.
 */
export function parseKeys(text) {
  const keys = { decode: {}, location: {} };
  for (const [server, prefix] of Object.entries(kServers)) {
    for (const environment of kEnvironments) {
      const name = `${prefix}_${environment}`;
      const found = new RegExp(`^\\s*#\\s*define\\s+${name}\\s+"([^"]*)"`, 'm').exec(text);
      if (!found && server === 'location') continue;
      if (!found) throw new Error(`the key header does not define ${name}`);
      if (!/^[0-9a-fA-F]{32}$/.test(found[1])) throw new Error(`${name} is not 32 hexadecimal digits`);
      keys[server][environment] = Buffer.from(found[1], 'hex');
    }
  }
  return keys;
}

/** As `parseKeys`, from a file. */
export function loadKeys(path) {
  try {
    return parseKeys(readFileSync(path, 'utf8'));
  } catch (error) {
    throw new Error(`${path}: ${error.message}`);
  }
}
