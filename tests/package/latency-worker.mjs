// A latency server in a thread of its own, since the library blocks the thread that asks. It answers each greeting 20 ms
// later, and tells its address.

import { createServer } from 'node:net';
import { parentPort } from 'node:worker_threads';

const kPort = 9999; // fixed by the library; any address of this machine will do
const host = `127.${process.pid % 200 + 1}.7.9`;
createServer((socket) => {
  socket.on('data', (greeting) => setTimeout(() => socket.write(greeting), 20));
  socket.on('error', () => {});
}).listen(kPort, host, () => parentPort.postMessage(host));
