// A thread with an application of its own: starts a read and says when it has come to the moment it was told.

import { parentPort, workerData } from 'node:worker_threads';
import { startUpTo } from './scenarios.mjs';

const came = await startUpTo(workerData, () => parentPort.postMessage('now'));
if (workerData.on === 'never') parentPort.postMessage(came);
