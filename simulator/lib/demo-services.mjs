// The demo's questions to the two small services: how far away is a server, and where is the phone's antenna?

import { randomInt } from 'node:crypto';
import { LATENCY_PORT, LatencyServer } from './latency-server.mjs';
import { LocationServer } from './location-server.mjs';
import { startServicesProcess } from './processes.mjs';

const kPhone = { manufacturer: 'SPECIMEN', model: 'Specimen Phone 1' };
const kEnvironment = 268;
const kCount = 3;
const kLocation = 3; // what the number means is between server and application
const kUsualType = 2;

/** Any address of this machine: the probe's port may be taken on the usual one. */
const loopbackAddress = () => `127.${[randomInt(1, 255), randomInt(0, 255), randomInt(1, 255)].join('.')}`;

/**
 * Starts both servers, has the library ask them, and tells it.
 * @param {DemoAccount} account
 * @param {object} options  library, identity, keys (of the location server), serverDelay; `output`: file descriptor for the
 *   library's output
 * @returns {Promise<Array>} rows of [what, good, detail]
 */
export async function askServices(account, { library, identity, keys, serverDelay, output }) {
  const expected = { ...kPhone, appid: identity.appid, type: kUsualType };
  const location = new LocationServer({ keys, expected, envIdCode: kEnvironment, location: kLocation, delay: serverDelay });
  const latency = new LatencyServer({ host: loopbackAddress(), port: LATENCY_PORT, delay: serverDelay });
  const { host, port } = await location.start();
  await latency.start();
  const child = startServicesProcess({
    library, delay: { rounds: kCount, host: latency.config.host },
    location: { appid: identity.appid, environment: kEnvironment, host, port, manufacturer: kPhone.manufacturer, marketName: kPhone.model },
  }, output);
  try {
    const answers = await child.answers;
    account.service('getTimeDelay', answers.delay, `${kCount} times ${latency.config.host}: ${answers.delay.result} ms on average`);
    account.service('getDeviceNFCLocation', answers.location, `${kPhone.model}: antenna at place ${answers.location.result}`);
    return rows({ ...answers, location, latency, times: answers.location.times, place: answers.location.result, serverDelay });
  } finally {
    child.release();
    await child.exited;
    await Promise.all([location.stop(), latency.stop()]);
  }
}

function rows({ delay, place, times, location, latency, serverDelay }) {
  const found = [...location.differences, ...latency.differences].map(({ message }) => message);
  const [exchange] = location.exchanges;
  return [
    ['average delay is that of the server', delay.result >= serverDelay && delay.result < serverDelay + 100,
      `${delay.result} ms, of which the server took ${serverDelay}`],
    ['rounds of the probe', latency.probes[0]?.rounds === kCount, `${latency.probes[0]?.rounds ?? 'none'}`],
    ['place of the antenna', place === kLocation, `${place}`],
    ['time in the request is the application\'s', times.map(String).includes(exchange?.fields.time), exchange?.fields.time ?? 'none'],
    ['connection to the location server', exchange !== undefined, `TLS 1.2, ${exchange?.cipher ?? 'none'}`],
    ['differences found by the two servers', found.length === 0, found.join('; ') || 'none'],
  ];
}
