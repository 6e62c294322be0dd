// The simulated card's own watch over commands, and the misbehaviour of the link to it.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { CardLink } from '../../simulator/lib/card-link.mjs';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';

const bytes = (text) => Buffer.from(text, 'hex');
const kOpening = ['050000', '1D0000000000080108', '00A40000026002', '80B0000020'];

/** A wrong command after the opening: status and the difference in words. */
const kWrong = [
  ['00A40000026011', 7, /^9000$/, /^SELECT 6011: .* expected INTERNAL AUTHENTICATE/],
  ['80B0000120', 3, /^6700$/, /^READ 6002: /],
  ['80B0002020', 3, /^6b00$/, /^READ 6002: /],
  ['008200520AF0010000000000000000', 6, /^6985$/, /^EXTERNAL AUTHENTICATE: /],
  ['00C0000000', 4, /^6d00$/, /expected a command that the card knows/],
  ['008800520AF0000000000000000000', 5, /^.{16}9000$/, /: serial number is 5, expected 4$/],
];
for (const [command, serial, answer, says] of kWrong) {
  test(`a card refuses or reports ${command} with serial number ${serial}`, () => {
    const card = new IdentityCard();
    kOpening.forEach((text, i) => card.respond(bytes(text), i));
    assert.deepEqual(card.differences, []);
    assert.match(card.respond(bytes(command), serial).answer.toString('hex'), answer);
    assert.ok(card.differences.some(({ message }) => says.test(message)), card.differences.map(String).join('; '));
    card.respond(bytes('00A40000026011'));
    assert.equal(card.respond(bytes('80B00000D4')).answer.toString('hex'), '6982', 'files need EXTERNAL AUTHENTICATE');
  });
}

/** What reaches the reader for SELECT 6002, as "data serial status". */
const kDeliveries = [
  [{ do: 'silence' }],
  [{ do: 'status' }, '9000 2 -1'],
  [{ do: 'answer', data: '6A82' }, '6a82 2 0'],
  [{ do: 'empty' }, ' 2 0'],
  [{ do: 'wrongSerial', serial: 13 }, '9000 13 0'],
  [{ do: 'repeat' }, '9000 2 0', '9000 2 0'],
  [{ do: 'trailingZero' }, '900000 2 0'],
  [{ do: 'extraAnswer', serial: 4, data: '00' }, '9000 2 0', '00 4 0'],
  [{ do: 'oversize', size: 4 }, '00009000 2 0'],
  [{ do: 'answer', data: '00', nth: 2 }, '9000 2 0'],
];
for (const [rule, ...gets] of kDeliveries) {
  test(`link: ${JSON.stringify(rule)}`, async () => {
    const card = new IdentityCard();
    kOpening.slice(0, 2).forEach((text, i) => card.respond(bytes(text), i));
    const link = new CardLink(card, { rules: [{ on: 'SELECT 6002', ...rule }] });
    const got = [];
    await link.transmit(bytes('00A40000026002'), 2, ({ data, serial, status }) => {
      got.push(`${data.toString('hex')} ${serial} ${status}`);
    }).done;
    assert.deepEqual(got, gets);
  });
}
