// Command APDUs of ISO/IEC 7816-4 section 5.1 with short length fields.

const kHeader = 4;

/**
 * Takes a command apart.
 * @param {Buffer} command
 * @returns {{header: Buffer, data: Buffer, le: number|undefined}|undefined}  `le` as it stands there (0 means 256);
 *   undefined when the lengths do not fit
 */
export function parseCommand(command) {
  if (command.length < kHeader) return undefined;
  const header = command.subarray(0, kHeader);
  const body = command.subarray(kHeader);
  const none = Buffer.alloc(0);
  if (body.length === 0) return { header, data: none, le: undefined };
  if (body.length === 1) return { header, data: none, le: body[0] };
  const end = 1 + body[0];
  if (body[0] === 0 || (body.length !== end && body.length !== end + 1)) return undefined;
  return { header, data: body.subarray(1, end), le: body[end] };
}
