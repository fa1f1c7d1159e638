// A copy of a recording without secrets: its texts with stand-ins, packed anew. The original is only
// read. Needs no page, and gives way to it.

import { createBreath } from './breath.js';
import { byteSize } from './format.js';
import { LEFT_OUT, NOT_TEXT } from './recording.js';
import { createSecrets, linesOut, SECRET_TITLES } from './secrets.js';
import { createZip } from './zip_file.js';

const MOST_ALL_BYTES = 32 * 1024 * 1024; // of texts: of more only those that usually tell are looked through
/** Texts in which it is told who uses the camera and what it talks to. */
const TELLING = /Session_Information\.txt$|HTTP_log\.txt$|Continuous_Syslog\.txt$|eventlistener\.txt$|device_?test[^/]*\.(?:csv|txt)$|KORAL_Tester\.txt$|koral_status\.txt$|Server_Report[^/]*\.(?:txt|log)$|_server-report\.log$/i;

/** @typedef {import('./recording.js').Recording} Recording */
/** @typedef {import('./recording.js').Contents} Contents */
/**
 * @typedef {object} Options
 * @property {AbortSignal} [signal]
 * @property {(done: number) => void} [onProgress] from 0 to 1
 */

/**
 * Calls `take` with the whole lines of a file, one piece after the other.
 * @param {Recording} recording @param {string} path @param {(lines: string) => void | Promise<void>} take
 * @param {AbortSignal | undefined} signal @param {() => Promise<void>} breathe
 * @returns {Promise<boolean>} whether it was text
 */
async function throughLines(recording, path, take, signal, breathe) {
  /** @type {string[]} */
  let waiting = [];
  const reader = linesOut((lines) => waiting.push(lines));
  // What is read comes whether it is taken or not: it is looked through behind it, in its order.
  let work = Promise.resolve();
  const drain = async () => {
    const all = waiting;
    waiting = [];
    for (const lines of all) {
      await breathe();
      await take(lines);
    }
  };
  /** @type {unknown} */
  let failure = null;
  await recording.read(path, (piece) => {
    reader.add(piece);
    work = work.then(drain).catch((error) => { failure ??= error; });
  }, { signal });
  const isText = reader.finish();
  await work.then(drain);
  if (failure) {
    throw failure;
  }
  return isText;
}

/**
 * Learns what is secret in a recording.
 * @param {Recording} recording @param {Contents} contents @param {boolean} all in every text however long it takes
 * @param {Options} options
 */
export async function readSecrets(recording, contents, all, { signal, onProgress } = {}) {
  const files = [...contents.files, ...contents.csv];
  // Words of the session's own folders are no secrets.
  const words = files.flatMap(({ path }) => path.split('/').filter((part) => part.startsWith('monitoring_')).flatMap((part) => part.split('_')));
  const secrets = createSecrets([...words, 'Continuous', 'Syslog', 'Information', 'Vandrel']);
  const breathe = createBreath(signal);
  secrets.learn(recording.title);
  const wanted = all || files.reduce((sum, { path, bytes }) => sum + (NOT_TEXT.test(path) ? 0 : bytes), 0) <= MOST_ALL_BYTES;
  const texts = files.filter(({ path }) => !NOT_TEXT.test(path) && (wanted || TELLING.test(path)));
  const bytes = texts.reduce((sum, file) => sum + file.bytes, 0);
  /** @type {Set<string>} */
  const binary = new Set();
  let read = 0;
  for (const { path, bytes: size } of texts) {
    if (!await throughLines(recording, path, (lines) => secrets.learn(lines, path), signal, breathe)) {
      binary.add(path);
    }
    read += size;
    onProgress?.(read / Math.max(1, bytes));
  }
  for (const { path } of files) {
    secrets.learn(path);
  }
  return { secrets, binary };
}

/** "3 user names in 120 places, 1 serial number in 9". @param {ReturnType<import('./secrets.js').Secrets['counts']>} counts */
export function countsText(counts) {
  return counts.map(({ kind, different, places }) => {
    const title = SECRET_TITLES[kind];
    const plural = title.replace('password', 'passwords').replace('address', 'addresses').replace(/(?:token|name|number)$/, '$&s');
    return `${different.toLocaleString('en')} ${different === 1 ? title : plural} in ${places.toLocaleString('en')} ${places === 1 ? 'place' : 'places'}`;
  }).join(', ');
}

/**
 * The copy. Throws when it is aborted, and what reading throws.
 * @param {Recording} recording @param {Contents} contents @param {Options} options
 * @returns {Promise<{blob: Blob, name: string, counts: ReturnType<import('./secrets.js').Secrets['counts']>, files: number, left: number}>}
 */
export async function copyWithoutSecrets(recording, contents, { signal, onProgress } = {}) {
  const { secrets, binary } = await readSecrets(recording, contents, true, { signal, onProgress: (done) => onProgress?.(done / 2) });
  const breathe = createBreath(signal);
  const all = [...contents.files.map((file) => ({ ...file })), ...contents.csv.map((file) => ({ time: '', ...file }))];
  const isLeft = (/** @type {string} */ path) => NOT_TEXT.test(path) || binary.has(path);
  const texts = all.filter(({ path }) => !isLeft(path));
  const left = all.filter(({ path }) => isLeft(path)).sort((a, b) => a.path.localeCompare(b.path, 'en'));
  const zip = createZip();
  /** @type {Set<string>} */
  const names = new Set([LEFT_OUT]);
  const bytes = texts.reduce((sum, file) => sum + file.bytes, 0);
  let read = 0;
  for (const { path, time, bytes: size } of texts) {
    await breathe();
    let name = secrets.hide(path);
    while (names.has(name)) {
      name = name.replace(/(\.[^./]*)?$/, '_$1');
    }
    names.add(name);
    await zip.add(name, time, (write) => throughLines(recording, path, (lines) => write(secrets.hide(lines)), signal, breathe).then(() => {}));
    read += size;
    onProgress?.(0.5 + read / Math.max(1, bytes) / 2);
  }
  const hidden = left.map(({ path, bytes: size, time }) => `${secrets.hide(path)}\t${size}\t${time}\r\n`);
  const name = `${secrets.hide(recording.title).replace(/\.zip$/i, '').replaceAll(/[^\w.-]+/g, '_')}_without_secrets.zip`;
  const counts = secrets.counts();
  await zip.add(LEFT_OUT, '', (write) => write(
    'This is a copy of a recording without secrets: names of users, addresses, host names, serial and MAC numbers and passwords have stand-ins.\r\n'
    + `Replaced: ${countsText(counts) || 'nothing'}.\r\n`
    + 'Files that are no text are left out, as nobody can tell what they hold: cores, images, traces, packed files.\r\n\r\n'
    + `Left out: ${left.length === 0 ? 'nothing' : `${left.length} files, ${byteSize(left.reduce((sum, file) => sum + file.bytes, 0))}; path, bytes, time:`}\r\n${hidden.join('')}`));
  return { blob: zip.finish(), name, counts, files: texts.length, left: left.length };
}
