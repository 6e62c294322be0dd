// One read as the desk knows it: its steps as they come, and afterwards what came of it. Commands, answers and frames are kept
// as bytes; they are taken apart when somebody asks.

import { EventEmitter } from 'node:events';
import { fromHex, hex } from '../../simulator/lib/bytes.mjs';
import { describeCode } from '../../simulator/lib/package.mjs';
import { judgeDocument } from '../judge/judge.mjs';
import { CardListener } from './apart/card-listener.mjs';
import { FrameListener, SERVER_PURPOSES } from './apart/frame-listener.mjs';
import { PassportListener } from './apart/passport-listener.mjs';

const kNothing = Buffer.alloc(0);
const kGood = '9000';
const kHarmless = ['delay', 'pieces', 'trickle']; // what is done to an answer that stays a good one
const kFileIds = { 'EF.COM': 0x011e, 'EF.SOD': 0x011d, ...Object.fromEntries(Array.from({ length: 16 }, (_, i) => [`DG${i + 1}`, 0x0101 + i])) };
const round = (ms) => Math.round(ms * 10) / 10;

/**
 * Events: 'step' with a step, new or changed; 'progress' with a file; 'summary' when state or title have changed.
 *
 * A step is { n, lane: 'chip' or 'server', name, purpose, at, ms, good, words, sent, received, note }: `at` in milliseconds
 * from the beginning, `ms` is null while it is under way, `sent` and `received` count bytes.
 */
export class Record extends EventEmitter {
  #chip = []; // { n, serial, command, answer }
  #frames = []; // { n, connection, request, response }
  #listener;
  #printed;
  #key;
  #trust;
  #reports = new Set();

  /**
   * @param {object} about  id; kind: 'identityCard' or 'passport'; source: 'simulated', 'reader' or 'phone'; title; printed
   *   (of a passport that the desk reads); key: the environment key; trust: folder of country certificates
   */
  constructor({ id, kind, source, title, printed, key, trust, choice }) {
    super();
    Object.assign(this, { id, kind, source, title, choice, state: 'running', began: Date.now(), ms: 0, steps: [], files: [], before: null, twin: null,
      differences: [], result: null, monitor: null, device: '', judged: null, info: null, content: null });
    this.#printed = printed;
    this.#key = key;
    this.#trust = trust;
    this.#listener = this.#newListener();
  }

  #newListener() {
    return this.kind === 'passport' ? new PassportListener(this.#printed ?? {}) : new CardListener();
  }

  get running() {
    return this.state === 'running';
  }

  /** What the list of reads shows. */
  get summary() {
    const { id, kind, source, title, state, began, ms, steps, device } = this;
    return { id, kind, source, title, state, began, ms: round(ms), steps: steps.length, device, outcome: this.outcome, doubtful: Boolean(this.judged?.checks.some(({ verdict }) => verdict === 'bad')) };
  }

  /** How the read ended, in a few words. */
  get outcome() {
    if (this.running) return 'running';
    const bad = this.judged?.checks.filter(({ verdict }) => verdict === 'bad').length ?? 0;
    if (this.state === 'good') return bad === 0 ? 'read' : `read, ${bad === 1 ? 'a check' : `${bad} checks`} failed`;
    return this.result?.name ? this.result.name.toLowerCase().replaceAll('_', ' ') : this.state;
  }

  #at(time) {
    return round(Math.max(0, time - this.began));
  }

  #put(step) {
    this.steps[step.n] = step;
    this.emit('step', step);
  }

  // --- the chip ---

  command({ n: place, serial, at, command }) {
    const bytes = fromHex(command);
    const { name, purpose } = this.#listener.command(bytes, serial);
    const n = this.steps.length;
    this.#chip[place] = { n, serial, command: bytes, answer: kNothing };
    this.#put({ n, lane: 'chip', name, purpose, at: this.#at(at), ms: null, good: true, words: '', sent: bytes.length, received: 0 });
  }

  answer({ n: place, ms, answer, error, genuine }) {
    const bytes = fromHex(answer);
    const kept = this.#chip[place];
    kept.answer = bytes;
    const { status, words, wrong, file } = this.#listener.answer(bytes);
    const known = status === '' || status === kGood;
    const note = genuine === undefined ? undefined : `The document itself answered ${shortened(genuine)}.`;
    this.#put({ ...this.steps[kept.n], ms: round(ms), good: !error && known && !wrong, status, words: error ?? words, received: bytes.length, note });
    if (file) this.#fileCame(file);
  }

  #fileCame(file) {
    const place = this.files.findIndex(({ name }) => name === file.name);
    if (place < 0) this.files.push(file);
    else this.files[place] = file;
    this.emit('progress', file);
  }

  // --- the server ---

  exchange(exchange) {
    const { connection, request, response, receivedAt, answeredAt, fields, rules } = exchange;
    const code = exchange.command.slice(2);
    const n = this.steps.length;
    this.#frames.push({ n, connection, request, response });
    const status = statusOf(request, response, code);
    const good = status === '000000';
    const spoiled = rules?.some((rule) => !kHarmless.includes(rule)) && good;
    const words = !response ? 'no answer' : spoiled ? 'spoiled' : good ? 'success' : `status ${status}`;
    const note = rules?.length > 0 ? `On purpose: ${rules.join(', ')}.` : undefined;
    this.#put({ n, lane: 'server', name: `0x${code}`, purpose: SERVER_PURPOSES[code] ?? '', at: this.#at(receivedAt),
      ms: round((answeredAt ?? Date.now()) - receivedAt), good: good && !spoiled && !exchange.difference, words, sent: request.length,
      received: response?.length ?? 0, note });
    if (code === '7500' && fields) this.device = fields.sn;
    if (code === '7202' && fields) this.#filesCame(fields);
    this.ms = Math.max(this.ms, Date.now() - this.began);
  }

  #filesCame({ files, answer, challenge, cardTime, fileTime }) {
    this.content = { files: Object.fromEntries(Object.entries(files).map(([name, text]) => [name, fromHex(text)])),
      answer: fromHex(answer), challenge: fromHex(challenge), cardTime, fileTime };
    this.#later(this.#judge());
  }

  async #judge() {
    const { files, answer, challenge } = this.content;
    this.judged = await judgeFiles(files, { challenge, answer }, this.#trust);
  }

  #later(work) {
    const settled = work.catch((error) => this.differ({ by: 'desk', at: 'judging', what: 'the files', text: error.message }));
    this.#reports.add(settled);
    settled.then(() => this.#reports.delete(settled));
  }

  // --- what is found ---

  /** Something that is not as it should be; `by` whom it was found. */
  differ(difference) {
    this.differences.push({ step: this.steps.length - 1, ...difference });
  }

  monitored({ raw, record }) {
    this.monitor = { raw, record: record ?? parsed(raw) };
  }

  /** The read is over. `outcome` is what the reader says: { code, name, message, businessId, info, bytes }. */
  async end(outcome, at = Date.now()) {
    if (!this.running) return;
    this.result = outcome;
    if (outcome?.info) this.info = outcome.info;
    this.ms = Math.max(0, at - this.began);
    if (this.before) this.#later(this.before(this));
    await Promise.all(this.#reports);
    this.state = outcome.code === null || outcome.code === undefined ? 'failed' : outcome.name === 'CANCELLED' ? 'cancelled' : outcome.code === 0 ? 'good' : 'failed';
    this.emit('summary');
  }

  /** A phone's read is over, as far as the server can tell: its monitor record has come, or it has hung up for good. */
  endOfPhone(difference) {
    const code = this.monitor?.record?.result_code;
    const outcome = code === undefined ? { code: null, name: difference ? 'refused' : 'cancelled', message: 'the phone has hung up' }
      : { ...describeCode(code), code, message: describeCode(code).meaning };
    return this.end(outcome);
  }

  // --- looked at ---

  /** The fields of both directions of a step: { sent, received, sentFields, receivedFields }, or undefined. */
  apart(n) {
    return this.allApart().get(n);
  }

  /** The fields of all steps, by their number. */
  allApart() {
    const listener = this.#newListener();
    const frames = new FrameListener(this.#key);
    const all = new Map();
    for (const { n, serial, command, answer } of this.#chip.filter(Boolean)) {
      const { fields } = listener.command(command, serial);
      all.set(n, { sent: hex(command), received: hex(answer), sentFields: fields, receivedFields: listener.answer(answer).fields });
    }
    for (const { n, connection, request, response } of this.#frames) {
      const { request: sentFields, response: receivedFields } = frames.exchange({ connection, request, response });
      all.set(n, { sent: hex(request), received: hex(response ?? kNothing), sentFields, receivedFields });
    }
    return all;
  }

  /** Everything but the bytes of the steps, as plain data for the page. */
  get detail() {
    const { steps, files, differences, result, monitor, info, judged, choice, twin } = this;
    const content = this.content && Object.entries(this.content.files).map(([name, bytes]) => ({ name, bytes: bytes.length }));
    return { ...this.summary, began: this.began, steps: steps.filter(Boolean), files, differences, result, monitor, info, choice, content,
      twin, judged: judged && shown(judged) };
  }
}

/** The judgement of files by name. */
function judgeFiles(files, { challenge, answer }, trustFolder) {
  const asked = challenge.some(Boolean);
  return judgeDocument({ files: new Map(Object.entries(files).map(([name, bytes]) => [kFileIds[name], bytes])),
    activeAuthentication: asked ? { challenge, answer } : undefined, trustFolder });
}

/** What the desk's decode server answers about a passport: its setting `judge`. */
export const answerWith = (trustFolder) => async ({ files, ...active }) => {
  try {
    const { holder, checks } = await judgeFiles(files, active, trustFolder);
    return { ...holder, checks };
  } catch (error) {
    return { notes: [`The files could not be judged: ${error.message}`] };
  }
};

const shortened = (text) => (text.length > 48 ? `${text.slice(0, 44)}…${text.slice(-4)}` : text);

function statusOf(request, response, code) {
  if (!response || response.length < 10) return '';
  const at = request[0] === 0x72 && ['7201', '7202'].includes(code) ? 7 : 5;
  return hex(response.subarray(at, at + 3));
}

function parsed(raw) {
  try {
    return JSON.parse(raw);
  } catch {
    return null;
  }
}

/** What has been found out about a document, with its portrait as a data address. */
function shown({ holder, mrz, portrait, checks, notes }) {
  const picture = portrait.bytes ? { address: `data:${portrait.type};base64,${Buffer.from(portrait.bytes).toString('base64')}` } : { reason: portrait.reason };
  return { holder, mrz, checks, notes, portrait: picture };
}
