// Pictures as a browser shows them. JPEG and PNG pass as they are; JPEG 2000, which browsers do not know, becomes PNG.

import { createRequire } from 'node:module';

const kMostPixels = 16_000_000;
const kCodeStream = Buffer.from('FF4FFF51', 'hex');

const require = createRequire(import.meta.url);
let codec;

/** The decoder runs as WebAssembly: whatever a chip sends, it reaches no further. */
async function decoder() {
  codec ??= require('@cornerstonejs/codec-openjpeg/decode')({ print: () => {}, printErr: () => {} });
  return new (await codec).J2KDecoder();
}

const eightBits = (samples, bits) => {
  const wide = new Uint16Array(samples.buffer, samples.byteOffset, samples.length / 2);
  return Uint8Array.from(wide, (value) => value >> (bits - 8));
};

/** Refuses what would take much memory: the size stands at the start of the code stream (ITU-T T.800, marker SIZ). */
function checkSize(bytes) {
  const at = bytes.indexOf(kCodeStream);
  if (at < 0 || bytes.length < at + 42) throw new Error('it has no code stream');
  const [right, bottom, left, top] = [8, 12, 16, 20].map((offset) => bytes.readUInt32BE(at + offset));
  const [width, height, colours] = [right - left, bottom - top, bytes.readUInt16BE(at + 40)];
  if (!(width > 0 && height > 0 && width * height <= kMostPixels)) throw new Error(`it would have ${width} by ${height} pixels`);
  if (![1, 3, 4].includes(colours)) throw new Error(`it has ${colours} colours`);
}

async function decodeJpeg2000(bytes) {
  checkSize(bytes);
  const j2k = await decoder();
  try {
    j2k.getEncodedBuffer(bytes.length).set(bytes);
    j2k.decode();
    const { width, height, bitsPerSample, componentCount } = j2k.getFrameInfo();
    const raw = Uint8Array.from(j2k.getDecodedBuffer());
    const samples = bitsPerSample > 8 ? eightBits(raw, bitsPerSample) : raw;
    if (samples.length !== width * height * componentCount) throw new Error('it is not complete');
    return { width, height, samples, componentCount };
  } finally {
    j2k.delete();
  }
}

function encodePng({ width, height, samples, componentCount }) {
  const { PNG } = require('pngjs');
  const png = new PNG({ width, height });
  for (let pixel = 0; pixel < width * height; pixel += 1) {
    for (let colour = 0; colour < 3; colour += 1) {
      png.data[pixel * 4 + colour] = samples[pixel * componentCount + (componentCount === 1 ? 0 : colour)];
    }
    png.data[pixel * 4 + 3] = 255;
  }
  return PNG.sync.write(png, { colorType: componentCount === 1 ? 0 : 2 });
}

/**
 * @param {{type: string, bytes: Buffer}} image
 * @returns {Promise<{type: string, bytes: Buffer}|{reason: string}>} type: image/jpeg or image/png
 */
export async function showable({ type, bytes }) {
  if (type !== 'image/jp2') return { type, bytes };
  try {
    return { type: 'image/png', bytes: encodePng(await decodeJpeg2000(bytes)) };
  } catch (error) {
    return { reason: `The JPEG 2000 picture could not be decoded: ${error?.message ?? 'it is damaged'}.` };
  }
}
