// What a read would have been without what was made to go wrong in it: the same document is read once more, as it is.

const statusOf = ({ good, status, words }) => (good ? 'success' : status ? `${status}, ${words}` : words);
const sameAs = (a, b) => a && b && a.lane === b.lane && a.name === b.name && a.good === b.good && a.received === b.received;

/**
 * @param {Record} record
 * @param {Record} usual   the same without misbehaviour
 * @returns {{outcome: string, commands: number, first: object|null, files: object[]}} first: the step from which on they
 *   differ, as { n, name, here, there }; files: those of which another number of bytes came
 */
export function compareReads(record, usual) {
  const [ours, theirs] = [record, usual].map(({ steps }) => steps.filter(Boolean).sort((a, b) => a.at - b.at));
  const place = ours.findIndex((step, i) => !sameAs(step, theirs[i]));
  const first = place < 0 ? null : { n: ours[place].n, name: ours[place].name, here: statusOf(ours[place]),
    there: theirs[place] ? `${theirs[place].name}: ${statusOf(theirs[place])}` : 'nothing more' };
  const count = (steps) => steps.filter(({ lane }) => lane === 'chip').length;
  const bytesOf = (files, name) => files.find((file) => file.name === name)?.bytes ?? 0;
  const names = [...new Set([...usual.files, ...record.files].map(({ name }) => name))];
  const files = names.map((name) => ({ name, here: bytesOf(record.files, name), there: bytesOf(usual.files, name) }))
    .filter(({ here, there }) => here !== there);
  return { outcome: usual.outcome, commands: count(theirs), commandsHere: count(ours), first, files };
}
