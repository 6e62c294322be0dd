// A passport in plain form, as persona files and messages between processes carry it, and what a decode server should
// expect of it.

import { createPrivateKey, createPublicKey } from 'node:crypto';
import { fromHex, hex } from './bytes.mjs';
import { readingOrder } from './decode-server/passport-files.mjs';
import { FILE_ID, fileName } from './passport/lds.mjs';
import { td3Lines } from './passport/mrz.mjs';
import { issuePassport } from './passport/specimen.mjs';

const idText = (id) => id.toString(16).toUpperCase().padStart(4, '0');
const keysAsText = (map, change) => Object.fromEntries([...map].map(([id, value]) => [idText(id), change(value)]));
const keysAsNumbers = (object, change) =>
  new Map(Object.entries(object).map(([id, value]) => [Number.parseInt(id, 16), change(value)]));
const same = (value) => value;

/**
 * An issued passport as plain data: texts, numbers and objects only.
 */
export function packPassport(passport) {
  const { files, refused, aaKey, aaPublicKey, mrz, ...rest } = passport;
  return {
    ...rest, files: keysAsText(files, hex), refused: keysAsText(refused, same),
    aaKey: aaKey.export({ type: 'pkcs8', format: 'pem' }), authority: hex(passport.authority),
  };
}

/** The passport again. Without files the plain form is taken as options for a new one, see `issuePassport`. */
export function unpackPassport(plain = {}) {
  if (!plain.files) return issuePassport(plain);
  const { files, refused, aaKey, authority, ...rest } = plain;
  return {
    ...rest, files: keysAsNumbers(files, fromHex), refused: keysAsNumbers(refused, same), mrz: td3Lines(plain.holder),
    aaKey: createPrivateKey(aaKey), aaPublicKey: createPublicKey(aaKey), authority: fromHex(authority),
  };
}

/** The status with which a chip ends reading a file that it does not give, as the reader notes it. */
function statusText({ refusals }, status) {
  return refusals === 'protected' ? `9902${status}` : status; // of an answer of several bytes, the first two and the last
}

/** The files of a passport's application by name. */
export const filesByName = ({ files }) => Object.fromEntries([...files].filter(([id]) => id !== FILE_ID.CARD_ACCESS)
  .map(([id, content]) => [fileName(id), content]));

/**
 * What a decode server should get to see of this passport: the setting `passport` of its configuration. Both
 * authentications must pass.
 */
export function expectedPassport(passport) {
  const { files, refused } = passport;
  const given = filesByName(passport);
  const statuses = {};
  const names = new Map([...files.keys(), ...refused.keys()].map((id) => [fileName(id), id]));
  for (const name of ['EF.COM', 'EF.SOD', ...readingOrder(given)]) {
    const id = names.get(name);
    const status = files.has(id) ? refused.get(id)?.status : '6A82';
    if (status === undefined) continue;
    statuses[name] = statusText(passport, status);
    delete given[name];
  }
  if (!('EF.COM' in given) && !refused.has(FILE_ID.COM)) delete statuses['EF.COM']; // it has no row
  const active = 'DG15' in given ? 'passed' : 'not done';
  return {
    files: given, statuses,
    verification: { passiveAuthentication: 'passed', activeAuthentication: active },
    authority: passport.authority,
  };
}
