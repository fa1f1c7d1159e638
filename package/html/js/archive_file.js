// A downloaded session archive, read where it lies: its directory, and the entries that are asked
// for. It may come from anywhere, so nothing in it is believed.

import { unzipRaw } from '../lib/unzipit.js';
import { RequestError } from './api.js';
import { dateTime } from './format.js';
import { LEFT_OUT, saveBlob } from './recording.js';

/** @typedef {import('unzipit').ZipEntry} Entry */

const SIGNATURE = [0x50, 0x4b]; // "PK"
const MOST_LEFT_BYTES = 16 * 1024 * 1024;
const SLICE_MS = 10; // then the page goes on
const ODD_PATH = /(?:^|[/\\])\.\.(?:[/\\]|$)|^[/\\]|^[A-Za-z]:|[\0\\]/;

/** @param {string} message @param {string} advice */
const damaged = (message, advice) => new RequestError('unexpected', message, advice);

/** @param {File} file */
async function entriesOf(file) {
  try {
    return (await unzipRaw(file)).entries;
  } catch (error) {
    const begin = new Uint8Array(await file.slice(0, 2).arrayBuffer().catch(() => new ArrayBuffer(0)));
    if (begin.length === 0 && file.size > 0) {
      throw damaged('The file can’t be read.', 'It may have been moved or removed: choose it again.');
    }
    if (!SIGNATURE.every((byte, index) => begin[index] === byte)) {
      throw damaged('This file is no zip archive.', 'Choose the archive that was downloaded from the camera.');
    }
    throw damaged('The archive is not whole: its list of files is missing or damaged.',
      `Download it again; the browser may have been stopped before its end. (${/** @type {Error} */ (error).message})`);
  }
}

const RECORDED = /(?<=^|\/)system_monitoring\//;

/**
 * Opens an archive. Throws a RequestError where that can't be done.
 * @param {File} file
 * @returns {Promise<{recording: import('./recording.js').Recording, remarks: string}>}
 */
export async function openArchive(file) {
  const all = (await entriesOf(file)).filter(({ isDirectory }) => !isDirectory);
  const plain = all.filter(({ name }) => !ODD_PATH.test(name));
  const usable = plain.filter(({ encrypted }) => !encrypted);
  if (plain.length > 0 && usable.length === 0) {
    throw damaged('The archive is encrypted.', 'Unpack it with its password, zip it again without, and open that.');
  }
  if (usable.length === 0) {
    throw damaged('There is nothing in this archive.', 'Choose the archive that was downloaded from the camera.');
  }
  const information = usable.map(({ name }) => name)
    .filter((name) => /(?:^|\/)Session_Information\.txt$/.test(name))
    .sort((a, b) => a.length - b.length)[0];
  const top = `${usable[0]?.name.split('/')[0]}/`;
  const recorded = usable.find(({ name }) => RECORDED.test(name))?.name;
  const root = information?.slice(0, information.lastIndexOf('/') + 1) ?? recorded?.slice(0, recorded.search(RECORDED))
    ?? (usable.every(({ name }) => name.startsWith(top)) ? top : '');
  /** @type {Map<string, Entry>} */
  const entries = new Map(usable.filter(({ name }) => name.startsWith(root))
    .map((entry) => [entry.name.slice(root.length), entry]));
  const remarks = [
    information === undefined ? 'This archive has no Session_Information.txt: it may be no archive of a session.' : '',
    plain.length < all.length ? `${all.length - plain.length} of its files have paths that lead out of it and are left out.` : '',
    usable.length < plain.length ? `${plain.length - usable.length} of its files are encrypted and are left out.` : '',
  ].filter(Boolean).join(' ');

  /** @type {import('./recording.js').Item[]} */
  const left = [];
  const list = entries.get(LEFT_OUT);
  if (list && list.size < MOST_LEFT_BYTES) {
    const rows = (await list.blob().then((blob) => blob.text(), () => '')).matchAll(/^([^\t\r\n]+)\t(\d+)\t([^\t\r\n]*)\r?$/gm);
    left.push(...[...rows].map(([, path = '', bytes, time = '']) => ({ path, bytes: Number(bytes), time, utc: null })));
  }

  /** @param {string} path */
  function entryOf(path) {
    const entry = entries.get(path);
    if (!entry) {
      throw damaged(`There is no ${path} in the archive.`, left.some((item) => item.path === path) ? 'It is a copy without secrets, which left it out.' : '');
    }
    return entry;
  }
  /** @param {string} path @param {unknown} error */
  const unreadable = (path, error) => (error instanceof RequestError ? error : damaged(
    `${path} can’t be read: the archive is damaged there.`,
    `Download the archive again. (${/** @type {Error} */ (error).message})`));

  return {
    remarks,
    recording: {
      title: file.name,
      offline: true,
      async list() {
        const items = [...entries].map(([path, { size, lastModDate }]) =>
          ({ path, bytes: size, time: dateTime(lastModDate), utc: null, columns: [] }));
        const isCsv = (/** @type {{path: string}} */ { path }) => path.endsWith('.csv');
        return { csv: items.filter(isCsv), files: items.filter((item) => !isCsv(item)), complete: true, left };
      },
      async read(path, onPiece, { from = 0, most = Infinity, signal } = {}) {
        const entry = entryOf(path);
        try {
          const reader = (await entry.stream()).getReader();
          let position = 0; // of what comes next, in the entry
          let since = performance.now();
          for (let piece = await reader.read(); !piece.done; piece = await reader.read()) {
            if (performance.now() - since > SLICE_MS) { // pieces that are there already come without a pause
              await new Promise((resolve) => { setTimeout(resolve, 0); });
              since = performance.now();
            }
            const { value } = piece;
            const part = value.subarray(Math.max(0, from - position), Math.max(0, from + most - position));
            position += value.length;
            if (part.length > 0) {
              onPiece(part);
            }
            if (position >= from + most || signal?.aborted) {
              await reader.cancel();
              break;
            }
          }
        } catch (error) {
          throw unreadable(path, error);
        }
        if (signal?.aborted) {
          throw new RequestError('cancelled', 'Cancelled.', '');
        }
      },
      async save(path) {
        const blob = await entryOf(path).blob().catch((error) => {
          throw unreadable(path, error);
        });
        saveBlob(blob, path);
      },
    },
  };
}
