// What a session has recorded, wherever it is read from: the camera that holds it, or an archive on
// the engineer's computer.

import { address, request, RequestError } from './api.js';
import { el } from './dom.js';
import { dateTime } from './format.js';
import { list, number, partsOfPath, text } from './session_data.js';

// Of a file that is asked for whole: between two parts the daemon gets on with its other work.
const PART_BYTES = 4 * 1024 * 1024;
const TIMEOUT_MS = 120000;
/** What a copy without secrets leaves out: path, bytes and time, with tabs between. */
export const LEFT_OUT = 'Left_out.txt';
const MOST_CUT = 3; // requests of one file
const CUT_PAUSE_MS = 1500;
/** Files that are no text, by their names. */
export const NOT_TEXT = /(?:\.(?:jpe?g|png|zip|gz|tgz|xz|lzo|pcap(?:ng)?|core|bin|elf)|\/core\.[^/]*\.\d+)$/i;

/**
 * @typedef {object} Csv
 * @property {string} path relative to the session
 * @property {string[]} columns but the time, where they are known
 * @property {string} [header] the file's first line, where it is known
 * @property {number} bytes
 */
/**
 * @typedef {object} Item
 * @property {string} path relative to the session
 * @property {number} bytes
 * @property {string} time as shown
 * @property {number | null} utc seconds since 1970, where its zone is known
 */
/**
 * @typedef {object} Contents
 * @property {Csv[]} csv
 * @property {Item[]} files others than those
 * @property {boolean} complete whether these are all
 * @property {Item[]} [left] files of which a copy has the names alone: they tell what happened as well
 */

/**
 * The listing of view_monitor_data.
 * @param {unknown} value
 * @returns {Contents}
 */
export function contentsOf(value) {
  const told = /** @type {Record<string, unknown>} */ (value ?? {});
  const records = (/** @type {unknown} */ many) =>
    list(many).map((one) => /** @type {Record<string, unknown>} */ (one ?? {}));
  return {
    csv: records(told.csv).map((one) => ({
      path: text(one.path),
      columns: text(one.header).split(',').map((column) => column.trim())
        .filter((column) => column !== '' && !/^(?:date|time)$/i.test(column)),
      header: text(one.header),
      bytes: number(one.size),
    })),
    files: records(told.files).map((one) => ({
      path: text(one.path),
      bytes: number(one.size),
      time: typeof one.time === 'number' ? dateTime(new Date(one.time * 1000))
        : text(one.time),
      utc: typeof one.time === 'number' ? one.time : null,
    })),
    complete: told.complete !== false,
  };
}

/**
 * @typedef {object} ReadOptions
 * @property {number} [from]
 * @property {number} [most] bytes
 * @property {AbortSignal} [signal]
 */
/**
 * @typedef {object} Recording
 * @property {string} title
 * @property {boolean} offline whether it is an archive
 * @property {() => Promise<Contents>} list
 * @property {(path: string, onPiece: (piece: Uint8Array) => void, options?: ReadOptions) => Promise<void>} read
 *     throws a RequestError
 * @property {(path: string) => Promise<void>} save lets the browser download a file
 */

/**
 * A session on the camera.
 * @param {string} session its path
 * @returns {Recording}
 */
export function cameraRecording(session) {
  return {
    title: `Session ${partsOfPath(session).title}`,
    offline: false,
    async list() {
      const reply = await request('view_monitor_data', { storage: session }, { timeoutMs: TIMEOUT_MS });
      try {
        return contentsOf(JSON.parse(reply));
      } catch {
        throw new RequestError('unexpected', 'The daemon’s reply was not understood.', 'Reload the page.');
      }
    },
    async read(path, onPiece, { from = 0, most = Infinity, signal } = {}) {
      for (let offset = from, left = most, cut = 0; left > 0;) {
        const wanted = Math.min(left, PART_BYTES);
        let got = 0;
        try {
          await request('view_monitor_data',
            { storage: session, file: path, offset: String(offset), length: String(wanted) },
            {
              signal,
              timeoutMs: TIMEOUT_MS,
              onBytes(piece) {
                got += piece.length;
                onPiece(piece);
              },
            });
          if (got < wanted) {
            return;
          }
        } catch (error) {
          // The web server is restarted now and then, which cuts what it just answers: it goes on where that was.
          if (/** @type {RequestError} */ (error).kind !== 'unreachable' || ++cut > MOST_CUT || signal?.aborted) {
            throw error;
          }
          await new Promise((resolve) => { setTimeout(resolve, CUT_PAUSE_MS); });
        }
        offset += got;
        left -= got;
      }
    },
    async save(path) {
      saveAs(address('view_monitor_data', { storage: session, file: path }), path);
    },
  };
}

/** @param {string} href @param {string} path of the file that it is saved as */
export function saveAs(href, path) {
  const link = el('a', { href, download: path.slice(path.lastIndexOf('/') + 1) });
  document.body.append(link);
  link.click();
  link.remove();
}

/** @param {Blob} blob @param {string} path */
export function saveBlob(blob, path) {
  const href = URL.createObjectURL(blob);
  saveAs(href, path);
  setTimeout(() => URL.revokeObjectURL(href), 60000); // the download reads it for a while
}

/**
 * A whole file of at most `most` bytes.
 * @param {Recording} recording
 * @param {string} path
 * @param {ReadOptions} options
 */
export async function readWhole(recording, path, options) {
  /** @type {Uint8Array[]} */
  const pieces = [];
  await recording.read(path, (piece) => pieces.push(piece), options);
  return new Blob(/** @type {BlobPart[]} */ (pieces));
}
