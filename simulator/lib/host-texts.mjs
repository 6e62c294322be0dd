// The texts that the reader hands to its application, checked byte for byte.

import { fromHex } from './bytes.mjs';
import { Difference } from './difference.mjs';

const kCommandText = /^\{ "cmd": "((?:[0-9A-F]{2})+)",  "serial_num": "(0|[1-9][0-9]*)"\}$/;

/** A card command as it reaches the card function. @returns {{command: Buffer, serial: number}} */
export function parseCommandText(text) {
  const found = kCommandText.exec(text);
  if (!found) {
    throw new Difference('card callback', 'text', '{ "cmd": "HEX",  "serial_num": "N"}', JSON.stringify(text));
  }
  return { command: fromHex(found[1]), serial: Number(found[2]) };
}

/** The four forms of a result, by sign of the code and kind of data: their blanks differ, on purpose. */
function formatResult({ code, flag, data }, dataText) {
  if (code < 0 && flag !== 3) return `{"code":${code},"flag":${flag},"data":""}`;
  if (code < 0) return `{"code":${code}, "flag":${flag}, "data":"${data}"}`;
  if (flag === 1) return `{"code":${code},"flag":${flag},"data":${dataText}}`;
  return `{"code": ${code},"flag":${flag},"data":"${data}"}`;
}

/** A result as it reaches the result function. @returns {{code: number, flag: number, data: any}} */
export function parseResultText(text) {
  let result;
  try {
    result = JSON.parse(text);
  } catch {
    throw new Difference('result callback', 'text', 'JSON', JSON.stringify(text));
  }
  const embedded = /"data":(.*)\}$/s.exec(text)?.[1];
  const wanted = formatResult(result, embedded);
  if (text !== wanted) throw new Difference('result callback', 'text', wanted, text);
  if (result.code >= 0 && result.flag !== 1 && !/^([0-9A-F]{2})*$/.test(result.data)) {
    throw new Difference('result callback', 'data', 'upper-case hexadecimal', result.data);
  }
  return result;
}
