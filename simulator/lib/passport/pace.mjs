// The chip's side of PACE (ICAO Doc 9303-11 section 4.4) with ECDH: generic mapping, and chip-authentication mapping, which
// is the same with one more object at the end.

import { createCipheriv, createHash, randomBytes } from 'node:crypto';
import { fromHex, hex, u8 } from '../bytes.mjs';
import { CURVES, inverse, toBytes, toNumber } from './curves.mjs';
import { DER, readElement, readElements } from './der.mjs';
import { mrzInformation } from './mrz.mjs';
import { SecureChannel, SUITES, aesCmac, pad, retailMac } from './secure-messaging.mjs';

const kProtocols = '0.4.0.127.0.7.2.2.4'; // id-PACE
const kMappings = { gm: 2, cam: 6 };

/** What the last number of a protocol's identifier stands for. `tripleDes` is not there for chip-authentication mapping. */
export const CIPHERS = Object.freeze({
  tripleDes: { number: 1, hash: 'sha1', keyLength: 16, block: 8, suite: SUITES.tripleDes, mac: retailMac },
  aes128: { number: 2, hash: 'sha1', keyLength: 16, block: 16, suite: SUITES.aes, mac: aesCmac },
  aes192: { number: 3, hash: 'sha256', keyLength: 24, block: 16, suite: SUITES.aes, mac: aesCmac },
  aes256: { number: 4, hash: 'sha256', keyLength: 32, block: 16, suite: SUITES.aes, mac: aesCmac },
});

const oidOf = ({ mapping, cipher }) => `${kProtocols}.${kMappings[mapping]}.${CIPHERS[cipher].number}`;

/**
 * EF.CardAccess: the SecurityInfos that offer PACE, among others.
 * @param {object[]} offers  { cipher, mapping ('gm'), curve: its number }; one without a curve has none in its info
 * @param {Buffer[]} others  SecurityInfos in front of these
 */
export function cardAccess(offers, others = []) {
  const infos = offers.map(({ cipher, mapping = 'gm', curve, version = 2 }) => DER.sequence(DER.oid(oidOf({ mapping, cipher })),
    DER.integer(version), ...(curve === undefined ? [] : [DER.integer(curve)])));
  return DER.set(...others, ...infos);
}

/** A key of the shared secret, or of the password (ICAO Doc 9303-11 section 9.7.1); parity bits are as they come. */
function deriveKey({ hash, keyLength }, secret, number) {
  return createHash(hash).update(secret).update(Buffer.of(0, 0, 0, number)).digest().subarray(0, keyLength);
}

function sealNonce({ block, keyLength }, key, nonce) {
  const [name, full] = block === 8 ? ['des-ede3-cbc', Buffer.concat([key, key.subarray(0, 8)])] : [`aes-${8 * keyLength}-cbc`, key];
  const cipher = createCipheriv(name, full, Buffer.alloc(block)).setAutoPadding(false);
  return Buffer.concat([cipher.update(nonce), cipher.final()]);
}

/** Something in a command that is not as it should be; `status` is the chip's answer. */
export class PaceError extends Error {
  constructor(status, what, expected, actual) {
    super(what);
    Object.assign(this, { status, what, expected, actual });
  }
}

const kWrongData = '6A80';
const kFailed = '6300';
const kOrder = '6985';

/** The four commands by the tag of what they bring, and how the answer's object is tagged. */
const STEPS = {
  nonce: { name: 'PACE NONCE', tag: undefined, answers: 0x80 },
  mapping: { name: 'PACE MAPPING', tag: 0x81, answers: 0x82 },
  agreement: { name: 'PACE KEY AGREEMENT', tag: 0x83, answers: 0x84 },
  token: { name: 'PACE TOKEN', tag: 0x85, answers: 0x86 },
};

/** The name of a GENERAL AUTHENTICATE command by its data. */
export function nameOfStep(data) {
  const inside = 2 + (data[1] & 0x80 ? data[1] & 0x7f : 0);
  return Object.values(STEPS).find((step) => step.tag === data[inside])?.name ?? 'GENERAL AUTHENTICATE';
}

/** One run of PACE, from MSE:Set AT on. */
export class Pace {
  #next = 'nonce';
  #offer;
  #cipher;
  #curve;
  #given;

  /**
   * @param {object[]} offers   what EF.CardAccess lists, see `cardAccess`
   * @param {Buffer} selection  data of MSE:Set AT
   * @param {object} document   documentNumber, birthDate, expiryDate
   * @param {object} [given]    numbers that are random otherwise, in hexadecimal: nonce, mappingKey, agreementKey
   */
  constructor(offers, selection, document, given = {}) {
    const objects = new Map(readElements(selection).map(({ tag, value }) => [tag, value]));
    const [oid, password, parameters] = [0x80, 0x83, 0x84].map((tag) => objects.get(tag));
    const tags = hex(Buffer.from([...objects.keys()]));
    if (!['8083', '808384'].includes(tags)) throw new PaceError(kWrongData, 'objects', '80, 83 and perhaps 84', tags);
    if (hex(password) !== '01') throw new PaceError('6A88', 'password (83)', '01, the machine-readable zone', hex(password));
    const fitting = offers.filter((offer) => hex(DER.oid(oidOf({ mapping: 'gm', ...offer })).subarray(2)) === hex(oid) &&
      (!parameters || offer.curve === toSmall(parameters)));
    const wanted = offers.map((offer) => `${oidOf({ mapping: 'gm', ...offer })} on ${offer.curve}`).join(' or ');
    if (fitting.length !== 1) throw new PaceError('6A80', 'protocol and parameters', wanted, hex(selection));
    [this.#offer] = fitting;
    this.#cipher = CIPHERS[this.#offer.cipher];
    this.#curve = CURVES[this.#offer.curve];
    this.#given = given;
    this.oid = DER.oid(oidOf({ mapping: 'gm', ...this.#offer }));
    this.passwordKey = deriveKey(this.#cipher, createHash('sha1').update(mrzInformation(document)).digest(), 3);
  }

  /**
   * One GENERAL AUTHENTICATE.
   * @param {object} command  header and data
   * @param {Map<string, object>} faults  rules by what they do
   * @returns {{data: Buffer, channel?: SecureChannel, refusedByReader: boolean}} with the channel behind the last one
   */
  step({ header, data }, faults) {
    const step = this.#next;
    const { tag, answers } = STEPS[step];
    const outer = elementOf(data, 0x7c, 'dynamic authentication data');
    if (step === 'nonce' ? outer.length > 0 : !outer.length) throw new PaceError(kWrongData, 'data', `those of ${step}`, hex(data));
    if ((header[0] & 0x10) !== (step === 'token' ? 0 : 0x10)) {
      throw new PaceError('6883', 'class', step === 'token' ? 'the end of the chain' : 'more of the chain to come', hex(header));
    }
    const value = step === 'nonce' ? undefined : elementOf(outer, tag, `object ${hex(u8(tag))}`);
    this.#next = { nonce: 'mapping', mapping: 'agreement', agreement: 'token' }[step];
    const { more = [], object, channel } = this[`_${step}`](value, faults);
    const spoiled = faults.get('object')?.data;
    const tagOf = Number.parseInt(faults.get('objectTag')?.tag ?? answers.toString(16), 16);
    const inner = faults.has('noObject') ? [] : [DER.tlv(tagOf, spoiled === undefined ? object : fromHex(spoiled)), ...more];
    if (faults.has('moreObjects')) inner.push(DER.tlv(0x8b, u8(0)));
    return { data: DER.tlv(faults.has('outerTag') ? 0x7d : 0x7c, ...inner), channel,
      refusedByReader: [...faults.values()].some((fault) => PACE_ACTIONS.includes(fault.do) && !isHarmless(fault)) };
  }

  _nonce(_none, faults) {
    const size = this.#cipher.keyLength > 16 ? 32 : 16;
    this.nonce = this.#given.nonce ? fromHex(this.#given.nonce) : randomBytes(faults.get('nonceOf')?.count ?? size);
    return { object: this.nonce.length % this.#cipher.block ? this.nonce : sealNonce(this.#cipher, this.passwordKey, this.nonce) };
  }

  _mapping(value, faults) {
    const theirs = this.#point(value);
    this.mappingKey = this.#private('mappingKey');
    const curve = this.#curve;
    const shared = curve.multiply(this.mappingKey, theirs);
    this.base = curve.add(curve.multiply(toNumber(this.nonce), curve.base), shared);
    return { object: this.#publicPoint(curve.multiply(this.mappingKey, curve.base), value, faults) };
  }

  _agreement(value, faults) {
    const curve = this.#curve;
    const theirs = this.#point(value);
    let key = this.#private('agreementKey');
    let [mine, secret] = [curve.multiply(key, this.base), curve.multiply(key, theirs)];
    const wanted = faults.get('leadingZero')?.of;
    for (const zero = ({ x }) => x >> BigInt(8 * curve.size - 8) === 0n; wanted && !zero(wanted === 'secret' ? secret : mine);) {
      key += 1n;
      [mine, secret] = [curve.add(mine, this.base), curve.add(secret, theirs)];
    }
    this.theirs = value;
    this.mine = this.#publicPoint(mine, value, faults);
    const shared = toBytes(secret.x, curve.size);
    [this.enc, this.mac] = [1, 2].map((number) => deriveKey(this.#cipher, shared, number));
    return { object: this.mine };
  }

  _token(value, faults) {
    const expected = this.#token(this.mine);
    const echoed = this.mine.equals(this.theirs);
    if (!expected.equals(value) && !echoed) throw new PaceError(kFailed, 'authentication token', hex(expected), hex(value));
    const token = faults.has('echo') ? value : this.#token(this.theirs);
    if (faults.has('wrongToken')) token[7] ^= 1;
    const { suite } = this.#cipher;
    return { object: token, more: this.#offer.mapping === 'cam' ? [DER.tlv(0x8a, this.#chipData())] : [],
      channel: new SecureChannel({ enc: this.enc, mac: this.mac, counter: 0n, suite }) };
  }

  #token(point) {
    return Buffer.from(this.#cipher.mac(this.mac, DER.tlv(0x7f49, this.oid, DER.tlv(0x86, point))));
  }

  /** Chip authentication data: the static key's inverse times the key of the mapping, encrypted. */
  #chipData() {
    const { n, size } = this.#curve;
    const data = toBytes((inverse(toNumber(randomBytes(size)), n) * this.mappingKey) % n, size);
    const vector = createCipheriv(`aes-${this.enc.length * 8}-ecb`, this.enc, null).setAutoPadding(false).update(Buffer.alloc(16, 0xff));
    const cipher = createCipheriv(`aes-${this.enc.length * 8}-cbc`, this.enc, vector).setAutoPadding(false);
    return Buffer.concat([cipher.update(pad(data, 16)), cipher.final()]);
  }

  #private(name) {
    const { n, size } = this.#curve;
    return this.#given[name] ? toNumber(fromHex(this.#given[name])) : (toNumber(randomBytes(size + 8)) % (n - 1n)) + 1n;
  }

  #point(value) {
    const point = this.#curve.decode(value);
    if (!point) throw new PaceError(kWrongData, 'public key', `a point of ${this.#curve.name}`, hex(value));
    return point;
  }

  /** A public key of the chip's, as it is or wrong on purpose; `theirs` is the reader's. */
  #publicPoint(point, theirs, faults) {
    const good = this.#curve.encode(point);
    if (faults.has('echo')) return theirs;
    if (faults.has('neutral')) return this.#curve.encode(null);
    if (faults.has('zeros')) return Buffer.concat([u8(4), Buffer.alloc(good.length - 1)]);
    if (faults.has('offCurve')) good[good.length - 1] ^= 1;
    if (faults.has('beyondPrime')) toBytes(this.#curve.p + 1n, this.#curve.size).copy(good, 1);
    if (faults.has('compressed')) return Buffer.concat([u8(2 + (good.at(-1) & 1)), good.subarray(1, 1 + this.#curve.size)]);
    return good;
  }
}

/** What rules for the steps of PACE may do beside what they do elsewhere, see README.md. */
export const PACE_ACTIONS = Object.freeze(['echo', 'neutral', 'zeros', 'offCurve', 'beyondPrime', 'compressed', 'wrongToken',
  'object', 'objectTag', 'noObject', 'moreObjects', 'outerTag', 'nonceOf', 'leadingZero']);
const isHarmless = (fault) => ['leadingZero', 'moreObjects'].includes(fault.do) || [16, 32].includes(fault.count);

const toSmall = (bytes) => Number(toNumber(bytes));

/** The value of the one element that `data` must be. */
function elementOf(data, tag, what) {
  try {
    const { tag: found, value, end } = readElement(data);
    if (found === tag && end === data.length) return value;
  } catch { /* told below */ }
  throw new PaceError(kWrongData, what, `one element ${tag.toString(16).toUpperCase()}`, hex(data));
}

