// The simulated card's own watch over commands, and the misbehaviour of the link to it.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { CardLink } from '../../simulator/lib/card-link.mjs';
import { IdentityCard } from '../../simulator/lib/identity-card.mjs';

const bytes = (text) => Buffer.from(text, 'hex');
const kOpening = ['050000', '1D0000000000080108', '00A40000026002', '80B0000020'];

/** A wrong command after the opening: status and the difference in words. */
const kWrong = [
  { command: '00A40000026011', serial: 7, answer: '9000', says: /^SELECT 6011: .* expected INTERNAL AUTHENTICATE/ },
  { command: '80B0000120', serial: 3, answer: '6700', says: /^READ 6002: / },
  { command: '80B0002020', serial: 3, answer: '6b00', says: /^READ 6002: / },
  { command: '008200520AF0010000000000000000', serial: 6, answer: '6985', says: /^EXTERNAL AUTHENTICATE: / },
  { command: '00C0000000', serial: 4, answer: '6d00', says: /expected a command that the card knows/ },
  { command: '008800520AF0000000000000000000', serial: 5, says: /: serial number is 5, expected 4$/ },
];
for (const { command, serial, answer, says } of kWrong) {
  test(`a card refuses or reports ${command} with serial number ${serial}`, () => {
    const card = new IdentityCard();
    kOpening.forEach((text, i) => card.respond(bytes(text), i));
    assert.deepEqual(card.differences, []);
    const got = card.respond(bytes(command), serial).answer.toString('hex');
    if (answer) assert.equal(got, answer);
    assert.ok(card.differences.some(({ message }) => says.test(message)), card.differences.map(String).join('; '));
  });
}

test('files need EXTERNAL AUTHENTICATE', () => {
  const card = new IdentityCard();
  kOpening.forEach((text, i) => card.respond(bytes(text), i));
  card.respond(bytes('00A40000026011'));
  assert.equal(card.respond(bytes('80B00000D4')).answer.toString('hex'), '6982');
});

/** What reaches the reader for SELECT 6002, as "data serial status". */
const kDeliveries = [
  { rule: { do: 'silence' }, gets: [] },
  { rule: { do: 'status' }, gets: ['9000 2 -1'] },
  { rule: { do: 'answer', data: '6A82' }, gets: ['6a82 2 0'] },
  { rule: { do: 'empty' }, gets: [' 2 0'] },
  { rule: { do: 'wrongSerial', serial: 13 }, gets: ['9000 13 0'] },
  { rule: { do: 'repeat' }, gets: ['9000 2 0', '9000 2 0'] },
  { rule: { do: 'trailingZero' }, gets: ['900000 2 0'] },
  { rule: { do: 'extraAnswer', serial: 4, data: '00' }, gets: ['9000 2 0', '00 4 0'] },
  { rule: { do: 'oversize', size: 4 }, gets: ['00009000 2 0'] },
  { rule: { do: 'answer', data: '00', nth: 2 }, gets: ['9000 2 0'] },
];
for (const { rule, gets } of kDeliveries) {
  test(`link: ${JSON.stringify(rule)}`, async () => {
    const card = new IdentityCard();
    kOpening.slice(0, 2).forEach((text, i) => card.respond(bytes(text), i));
    const link = new CardLink(card, { rules: [{ on: 'SELECT 6002', ...rule }] });
    const got = [];
    const { done } = link.transmit(bytes('00A40000026002'), 2, ({ data, serial, status }) => {
      got.push(`${data.toString('hex')} ${serial} ${status}`);
    });
    await done;
    assert.deepEqual(got, gets);
  });
}
