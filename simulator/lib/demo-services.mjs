// Questions to the two small services: how far away is a server, and where is the phone's antenna? Servers that are not named
// are simulated ones of this process; the application that asks is a process of its own, since asking blocks it.

import { randomInt } from 'node:crypto';
import { LATENCY_PORT, LatencyServer } from './latency-server.mjs';
import { LocationServer } from './location-server.mjs';
import { startServicesProcess } from './processes.mjs';

const kPlace = 3; // what the number means is between server and application
const kUsualType = 2;
const kUsualAppid = 20;

/** Any address of this machine: the probe's port may be taken on the usual one. */
const loopbackAddress = () => `127.${[randomInt(1, 255), randomInt(0, 255), randomInt(1, 255)].join('.')}`;

/**
 * Has the library ask.
 * @param {object} options  library; `latency` { rounds, host } and `location` (an AntennaQuery), null when not to be asked, and
 *   without `host` asked of a simulated server; keys (of the location server) and delay (ms) for those; `output`: where the
 *   library's output goes, see startReaderProcess
 * @returns {Promise<{answers: object, differences: string[], latency: LatencyServer?, location: LocationServer?}>} the answers as
 *   startServicesProcess gives them, and the servers of its own
 */
export async function askServices({ library, latency, location, keys, delay, output }) {
  const servers = {};
  const questions = {};
  if (latency) {
    servers.latency = latency.host ? null : new LatencyServer({ host: loopbackAddress(), port: LATENCY_PORT, delay });
    await servers.latency?.start();
    questions.delay = { ...latency, host: latency.host ?? servers.latency.config.host };
  }
  if (location) {
    const { appid, manufacturer, marketName, environment } = location;
    const expected = { appid: appid.length === kUsualAppid ? appid : undefined, type: appid.length === kUsualAppid ? kUsualType : undefined,
      manufacturer, model: marketName };
    servers.location = location.host ? null : new LocationServer({ keys, expected, envIdCode: environment, location: kPlace, delay });
    questions.location = { ...location, ...(await servers.location?.start()) };
  }
  const child = startServicesProcess({ library, ...questions }, output);
  try {
    const answers = await child.answers;
    const differences = [servers.location, servers.latency].flatMap((server) => server?.differences ?? []).map(({ message }) => message);
    return { answers, differences, ...servers };
  } finally {
    child.release();
    await child.exited;
    await Promise.all(Object.values(servers).map((server) => server?.stop()));
  }
}

/** What has to be right when both simulated servers have been asked: rows of [what, good, detail]. */
export function checkServices({ answers: { delay, location: { result: place, times } }, differences, latency, location }, rounds, ms) {
  const [exchange] = location.exchanges;
  return [
    ['average delay is that of the server', delay.result >= ms && delay.result < ms + 100, `${delay.result} ms, of which the server took ${ms}`],
    ['rounds of the probe', latency.probes[0]?.rounds === rounds, `${latency.probes[0]?.rounds ?? 'none'}`],
    ['place of the antenna', place === kPlace, `${place}`],
    ['time in the request is the application\'s', times.map(String).includes(exchange?.fields.time), exchange?.fields.time ?? 'none'],
    ['connection to the location server', exchange !== undefined, `TLS 1.2, ${exchange?.cipher ?? 'none'}`],
    ['differences found by the two servers', differences.length === 0, differences.join('; ') || 'none'],
  ];
}
