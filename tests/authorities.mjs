// Key pairs of the specimen passports' authorities, shared by the many processes of the tests: making them takes longer than
// reading a passport. They are kept in the build folder.

import { createPrivateKey } from 'node:crypto';
import { existsSync, mkdirSync, readFileSync, renameSync, writeFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { newAuthorityKey, useAuthorityKeys } from '../simulator/lib/passport/security-object.mjs';

const kFolder = fileURLToPath(new URL('../build', import.meta.url));
const kFile = `${kFolder}/specimen-authorities.json`;

if (!existsSync(kFile)) {
  const pem = () => newAuthorityKey().export({ type: 'pkcs8', format: 'pem' });
  mkdirSync(kFolder, { recursive: true });
  writeFileSync(`${kFile}.${process.pid}`, JSON.stringify([pem(), pem()]));
  renameSync(`${kFile}.${process.pid}`, kFile);
}
useAuthorityKeys(...JSON.parse(readFileSync(kFile, 'utf8')).map((pem) => createPrivateKey(pem)));
