// Listens to a reader and a resident identity card: what each command is for, and its parts.

import { hex } from '../../../simulator/lib/bytes.mjs';
import { field } from './field.mjs';
import { statusWords } from './status-words.mjs';

/** By serial number: name, purpose, and for a file its bytes. */
const kSteps = [
  ['REQB', 'Is there a card?'], ['ATTRIB', 'I mean you'], ['SELECT 6002', 'Open the management data'],
  ['READ 6002', 'Which card is it?', 32], ['INTERNAL AUTHENTICATE', 'Prove yourself to the server'],
  ['GET CHALLENGE', 'Give me a challenge for the server'], ['EXTERNAL AUTHENTICATE', 'Here is the server’s proof; open the files'],
  ['SELECT 6011', 'Open the first file'], ['READ 6011', '', 214], ['SELECT 6012', 'Open the second file'], ['READ 6012', '', 256],
  ['SELECT 6013', 'Open the last file'], ['READ 6013', '', 1024],
];
const kInstructions = { 0xa4: 'SELECT', 0xb0: 'READ', 0x88: 'INTERNAL AUTHENTICATE', 0x84: 'GET CHALLENGE', 0x82: 'EXTERNAL AUTHENTICATE' };
const kRadio = 2; // the first steps are commands of ISO/IEC 14443-3, whose answers have no status word

export class CardListener {
  #serial = 0;
  #read = { offset: 0, name: '' };

  command(bytes, serial) {
    this.#serial = serial;
    const [name, purpose] = kSteps[serial] ?? ['unknown command', ''];
    if (serial < kRadio || bytes.length < 5) return { name, purpose, fields: [field('Command', bytes, serial < kRadio ? 'ISO/IEC 14443-3, type B' : '')] };
    const fields = [field('Class', bytes.subarray(0, 1)), field('Instruction', bytes.subarray(1, 2), kInstructions[bytes[1]] ?? '')];
    if (!name.startsWith('READ')) {
      const file = name.startsWith('SELECT') ? `file ${hex(bytes.subarray(5))}` : '';
      fields.push(field('P1 P2', bytes.subarray(2, 4)));
      if (bytes.length > 5) fields.push(field('Lc', bytes.subarray(4, 5), `${bytes[4]} bytes`), field('Data', bytes.subarray(5), file));
      else fields.push(field('Le', bytes.subarray(4), `${bytes[4]} bytes`));
      return { name, purpose, fields };
    }
    const offset = bytes.readUInt16BE(2);
    this.#read = { offset, name };
    fields.push(field('Offset', bytes.subarray(2, 4), `${offset}`), field('Le', bytes.subarray(4), `${bytes[4]} bytes`));
    return { name, purpose: purpose || `Read ${bytes[4]} bytes from ${offset} on`, fields };
  }

  answer(bytes) {
    if (this.#serial < kRadio) return { status: '', words: 'answer to the field', fields: [field('Answer', bytes)], file: null };
    const status = hex(bytes.subarray(-2));
    const body = bytes.subarray(0, -2);
    const fields = [...(body.length > 0 ? [field('Data', body)] : []), field('Status word', bytes.subarray(-2), statusWords(status))];
    return { status, words: bytes.length === 0 ? 'no answer' : statusWords(status), fields, file: this.#fileAfter(body) };
  }

  #fileAfter(body) {
    const [name, , total] = kSteps[this.#serial] ?? [];
    if (!total) return null;
    return { name: name.slice(5), bytes: Math.min(total, this.#read.offset + body.length), total };
  }
}
