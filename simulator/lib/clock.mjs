// The time of day in milliseconds with fractions, so that what happens in the same millisecond keeps its order, also between
// processes.

export const now = () => performance.timeOrigin + performance.now();

/** "12:34:56.789", in UTC. */
export const clockText = (ms) => new Date(ms).toISOString().slice(11, 23);
