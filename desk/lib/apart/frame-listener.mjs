// Listens to readers and a decode server: takes every frame apart, with what is under its encryption, and knows which
// connections belong to one read. docs/protocol.md has the layouts.

import { hex, sum8 } from '../../../simulator/lib/bytes.mjs';
import { decrypt, keyBlock } from '../../../simulator/lib/crypto.mjs';
import { Cutter, asNumber, asText, field, opened } from './field.mjs';

const kHeaders = { 0x70: 'identity card', 0x71: 'reserved', 0x72: 'passport' };
const kLong = ['7201', '7202'];
const kWithToken = ['7202', '7219'];
const kResults = ['6102', '6113', '7202'];
const kTypes = { AA: 'usual', A8: 'server authentication', 19: 'report', 99: 'result' };
const kMostKept = 1000; // reads whose phone may still come back
const kFiles = [...Array.from({ length: 16 }, (_, i) => `DG${i + 1}`), 'EF.SOD'];

/** What each command is for. */
export const SERVER_PURPOSES = {
  7500: 'Who reads; the session’s key', 5001: 'The card’s management data; the server’s challenge', 5012: 'The card’s proof',
  5022: 'The card’s challenge; the server’s proof', 5032: 'The card’s proof and challenge; the server’s proof',
  6002: 'The first files', 6102: 'The first files; the decoded person', 6113: 'The last file; the decoded person',
  7201: 'A passport will be read; a token for coming back', 7202: 'All files of the passport; the decoded holder',
  7219: 'The monitor record of this read',
};

/** Keys and token of one read. */
class Conversation {
  constructor(number, environment) {
    Object.assign(this, { number, environment, client: null, session: null, token: null });
  }
}

const tryDecrypt = (block, bytes) => {
  try {
    return block && decrypt(block, bytes, '', '');
  } catch {
    return null;
  }
};

export class FrameListener {
  #environment;
  #byConnection = new Map();
  #byToken = new Map();
  #count = 0;

  /** @param {Buffer} key  the environment key, 16 bytes */
  constructor(key) {
    this.#environment = keyBlock(key);
  }

  /**
   * One exchange, as the decode server tells it.
   * @returns {{code: string, conversation: number, request: object[], response: object[]}} fields of both frames
   */
  exchange({ connection, request, response }) {
    const isLong = request[0] === 0x72 && kLong.includes(hex(request.subarray(5, 7)));
    const code = hex(request.subarray(isLong ? 5 : 3, isLong ? 7 : 5));
    const conversation = this.#conversationOf(connection, code, isLong, request);
    const parts = { request: this.#frame(conversation, code, isLong, request, false), response: [] };
    if (response) parts.response = this.#frame(conversation, code, isLong, response, true);
    return { code, conversation: conversation.number, ...parts };
  }

  /** A connection is closed; its read may go on with another. */
  forget(connection) {
    this.#byConnection.delete(connection);
  }

  #conversationOf(connection, code, isLong, request) {
    let known = this.#byConnection.get(connection);
    if (!known && kWithToken.includes(code)) {
      const start = isLong ? 12 : 10;
      known = this.#byToken.get(hex(request.subarray(start, start + 16)));
    }
    known ??= new Conversation(this.#count += 1, this.#environment);
    this.#byConnection.set(connection, known);
    return known;
  }

  #frame(conversation, code, isLong, bytes, isResponse) {
    const c = new Cutter(bytes);
    c.take('Header', 1, ([byte]) => kHeaders[byte] ?? 'unknown');
    c.take('Length', isLong ? 4 : 2, asNumber('bytes'));
    c.take('Command', 2, SERVER_PURPOSES[code] ?? '');
    if (isResponse) c.take('Status', 3, (status) => (hex(status) === '000000' ? 'success' : 'failure'));
    else c.take('Reserved', 1), c.take('Version', 1);
    c.take('Parameter', 2, asNumber());
    c.take('Type', 1, (type) => kTypes[hex(type)] ?? '');
    c.rest('Payload', asNumberOfBytes, (payload) => this.#payload(conversation, code, isLong, payload, isResponse), 1);
    const sum = sum8(bytes.subarray(1, -1));
    c.take('Checksum', 1, ([byte]) => (byte === sum ? 'right' : 'wrong'));
    return c.fields;
  }

  #payload(conversation, code, isLong, payload, isResponse) {
    if (code === '7500') return isResponse ? this.#keyAnswer(conversation, payload) : this.#authentication(conversation, payload);
    const c = new Cutter(payload);
    if (!isResponse && kWithToken.includes(code)) c.take('Token', 16);
    if (isResponse && code === '7201') return this.#tokenAnswer(conversation, payload);
    if (isResponse && kResults.includes(code)) {
      const [flag] = c.take('Flag', 1, ([byte]) => ['nothing but the business id', 'decoded data', 'raw bytes'][byte] ?? 'unknown');
      if (flag !== 1) c.rest('Data', asNumberOfBytes);
    }
    const sealed = (bytes) => {
      const plain = tryDecrypt(conversation.session, bytes);
      if (!plain) return [field('Not opened', bytes, 'the session’s key is not known, or it does not fit')];
      const inside = code === '7219' && !isResponse ? report(plain) : isResponse && kResults.includes(code) ? decodedData(plain)
        : secretFrame(plain, code, isLong, isResponse);
      return [opened('Decrypted', plain, asNumberOfBytes(plain), inside)];
    };
    c.rest('Encrypted', asNumberOfBytes, sealed);
    return c.fields;
  }

  #authentication(conversation, payload) {
    const c = new Cutter(payload);
    const envelope = payload.subarray(-32);
    const key = tryDecrypt(conversation.environment, envelope)?.subarray(2, 18);
    conversation.client = key?.length === 16 ? keyBlock(key) : null;
    c.take('First byte', 1);
    c.take('Application id', 20, asText);
    c.rest('Authentication block', 'encrypted under the reader’s fresh key', (bytes) => {
      const plain = tryDecrypt(conversation.client, bytes);
      return plain && [opened('Decrypted', plain, '', identity(plain))];
    }, 32);
    c.rest('Key envelope', 'encrypted under the environment’s key', (bytes) => {
      const plain = tryDecrypt(conversation.environment, bytes);
      return plain && [opened('Decrypted', plain, '', cut(plain, (e) => {
        e.take('Length', 2, asNumber('bytes'));
        e.take('Fresh key', 16);
        e.take('Checksum', 1);
      }))];
    });
    return c.fields;
  }

  #keyAnswer(conversation, payload) {
    const plain = tryDecrypt(conversation.client, payload.subarray(payload.length % 16));
    if (plain?.length > 18) conversation.session = keyBlock(plain.subarray(2, 18), conversation.client.vector);
    return cut(payload, (c) => {
      c.take('Opaque', payload.length % 16);
      c.rest('Encrypted', 'under the reader’s fresh key', () => plain && [opened('Decrypted', plain, '', cut(plain, (b) => {
        b.take('Length', 2, asNumber('bytes'));
        b.take('Session key', 16);
        b.take('Not used', 1);
        const [length] = b.take('Length of the business id', 1, asNumber('bytes'));
        b.take('Business id', length, asText);
        b.take('New stick-card id', 16);
        b.take('Flags', 1, ([flags]) => (flags >> 4 ? 'the card is to be timed' : 'no timing'));
        b.take('Checksum', 1);
      }))]);
    });
  }

  #tokenAnswer(conversation, payload) {
    const plain = tryDecrypt(conversation.session, payload);
    if (!plain) return [field('Encrypted', payload)];
    conversation.token = Buffer.concat([plain, Buffer.alloc(Math.max(0, 16 - plain.length))]);
    this.#byToken.set(hex(conversation.token), conversation);
    if (this.#byToken.size > kMostKept) this.#byToken.delete(this.#byToken.keys().next().value);
    return [field('Encrypted', payload, '', [opened('Token', plain, 'with it the reader comes back')])];
  }
}

const asNumberOfBytes = (bytes) => `${bytes.length} bytes`;

function cut(bytes, take) {
  const c = new Cutter(bytes);
  take(c);
  c.rest('Left over', 'nothing should be here');
  return c.fields;
}

/** The authentication block of 0x7500. */
const identity = (plain) => cut(plain, (c) => {
  c.take('Mode', 1);
  c.take('Second byte', 1);
  c.take('Terminal id', 1, asNumber());
  c.take('Application id', 20, asText);
  const [flags] = c.take('Request-id version, digest flag', 1, ([byte]) => `version ${byte >> 4}, ${byte & 15 ? 'with' : 'without'} digest`);
  if (flags & 15) c.take('Digest of the package name', 32, 'SM3');
  c.take('Byte before the stick-card id', 1);
  c.take('Stick-card id', 16, 'none yet');
  deviceId(c);
  c.take('Reserved', 16);
  c.take('Byte before the checksum', 1);
  c.take('Checksum', 1);
});

function deviceId(c) {
  const [length] = c.take('Length of the device id', 1, asNumber('bytes'));
  c.take('Device id', length, asText);
}

function opening(c) {
  c.take('Random bytes', 4);
  deviceId(c);
  c.take('Byte A', 1, ([byte]) => `read mode ${byte >> 4 ? 1 : 2}, decode mode ${byte & 15}`);
  c.take('Byte B', 1, ([byte]) => `frame flag ${byte >> 4}, query info a ${byte & 15}`);
  c.take('Byte C', 1, ([byte]) => `query info b ${byte >> 4}, c ${byte & 15}`);
}

function block(c, name) {
  const length = c.take(`Length of ${name}`, 2, asNumber('bytes'));
  if (length.length === 2) c.take(name, length.readUInt16BE());
}

function cardFiles(c) {
  c.take('Management data', 32);
  c.take('Marker', 2, 'file 6011');
  c.take('File 6011', 214);
  c.take('Marker', 2, 'file 6012');
  c.take('File 6012', 256);
}

/** Data of the requests, inside the secret frame. */
const REQUEST_DATA = {
  5001: (c) => { opening(c); c.take('Byte before the card bytes', 1); c.take('Management data', 32); },
  5012: (c) => { c.rest('The card’s proof', '', undefined, 2); c.take('Status word', 2); },
  5022: (c) => { c.rest('The card’s challenge', '', undefined, 2); c.take('Status word', 2); },
  5032: (c) => { c.take('The card’s proof', 8); c.take('Status word', 2); c.take('The card’s challenge', 8); c.take('Status word', 2); },
  6002: cardFiles,
  6102: (c) => { cardFiles(c); c.take('Filler', 64); },
  6113: (c) => { c.take('File 6013', 1024); c.take('Filler', 64); },
  7201: opening,
  7202: (c) => {
    for (const name of kFiles) block(c, name);
    block(c, 'Answer to INTERNAL AUTHENTICATE');
    c.take('Challenge', 8, (bytes) => (bytes.some(Boolean) ? 'of INTERNAL AUTHENTICATE' : 'was not sent'));
    block(c, 'EF.COM');
    c.take('Card time', 2, asNumber('ms'));
    c.take('File time', 2, asNumber('ms'));
  },
};

/** Data of the responses. */
const RESPONSE_DATA = {
  5001: (c) => c.take('The server’s challenge', 8), 5012: (c) => c.rest('Command for the card'),
  5022: (c) => c.take('The server’s proof', 8), 5032: (c) => c.take('The server’s proof', 8),
};

const secretFrame = (plain, code, isLong, isResponse) => cut(plain, (c) => {
  const whole = plain.length < 7 ? plain.length : isLong ? plain.readUInt32BE(3) : plain.readUInt16BE(3);
  const behind = Math.max(0, plain.length - whole);
  c.take('Start', 3);
  c.take('Length', isLong ? 4 : 2, asNumber('bytes'));
  c.take('Command', 2);
  const take = (isResponse ? RESPONSE_DATA : REQUEST_DATA)[code];
  c.rest('Data', asNumberOfBytes, take && ((data) => cut(data, take)), 3 + behind);
  c.take('Checksum', 1);
  c.take('End', 2);
  if (behind >= 4) c.take('Card time', 2, asNumber('ms')), c.take('File time', 2, asNumber('ms'));
});

const report = (plain) => cut(plain, (c) => {
  c.take('Length', 2, asNumber('bytes'));
  c.rest('Monitor text', asText, undefined, 1);
  c.take('Checksum', 1);
});

const kTags = {
  0: (c) => { c.take('Ignored', 1); c.take('Document type', 1, asNumber()); },
  1: (c) => {
    const [size] = c.take('Size of the length', 1, asNumber('bytes'));
    const length = c.take('Length', size, asNumber('bytes'));
    c.take('Holder', Number.parseInt(hex(length), 16) || 0, asText);
  },
  2: (c) => {
    const [length] = c.take('Length', 1, asNumber('bytes'));
    c.take('Back-card id', length);
  },
};

const decodedData = (plain) => cut(plain, (c) => {
  for (let known = true; known && c.left > 0;) {
    const [tag] = c.take('Tag', 1, ([byte]) => ['document type', 'holder', 'back-card id'][byte] ?? 'unknown');
    known = tag in kTags;
    if (known) kTags[tag](c);
  }
});
