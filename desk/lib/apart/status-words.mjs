// Status words of ISO/IEC 7816-4 section 5.1.3 in words.

const kWords = {
  9000: 'success', 6282: 'end of file reached before all bytes were read', 6300: 'authentication failed', 6700: 'wrong length',
  6881: 'logical channel not supported', 6882: 'secure messaging not supported',
  6982: 'security status not satisfied: the chip keeps this to itself', 6983: 'authentication method blocked',
  6984: 'reference data not usable', 6985: 'conditions of use not satisfied', 6986: 'command not allowed: no current file',
  6987: 'secure messaging objects missing', 6988: 'secure messaging objects incorrect', '6A80': 'incorrect data',
  '6A81': 'function not supported', '6A82': 'file or application not found', '6A86': 'incorrect P1 P2',
  '6A88': 'referenced data not found', '6B00': 'wrong offset', '6D00': 'instruction not supported',
  '6E00': 'class not supported', '6F00': 'no precise diagnosis',
};
const kFamilies = [
  [/^61(..)$/, (count) => `success, ${Number.parseInt(count, 16)} more bytes can be fetched`],
  [/^62..$/, () => 'warning, nothing changed'], [/^63C(.)$/, (tries) => `failed, ${Number.parseInt(tries, 16)} tries left`],
  [/^63..$/, () => 'warning'], [/^6C(..)$/, (count) => `wrong Le, ${Number.parseInt(count, 16)} would be right`],
  [/^6[4-6]..$/, () => 'execution error'], [/^6[7-9A-F]..$/, () => 'refused'],
];

/** What a status word, four hexadecimal digits, says. */
export function statusWords(status) {
  if (kWords[status]) return kWords[status];
  for (const [form, say] of kFamilies) {
    const found = form.exec(status);
    if (found) return say(...found.slice(1));
  }
  return 'no status word of ISO/IEC 7816-4';
}
