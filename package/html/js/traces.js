// What view_wireshark_sessions tells. While no trace runs nothing in it changes by itself.

import { refusal, request, RequestError } from './api.js';
import { readLooseJson } from './loose_json.js';
import { watch } from './poll.js';
import { list, text } from './session_data.js';

const TIMEOUT_MS = 120000;

/**
 * @typedef {object} Trace
 * @property {string} path
 * @property {string} name the recording id
 * @property {string} start
 * @property {string} stop "" while it has none
 * @property {number | null} bytes of the live capture, or of the archive; null when it is not there
 * @property {boolean} running
 * @property {boolean} zipping
 */

/**
 * @typedef {object} Answer
 * @property {Trace[]} traces
 * @property {string} folder of the running trace, "" when none runs
 * @property {boolean} damaged whether the reply was readable only in parts
 */

/** @typedef {import('./poll.js').Told<Answer>} TracesState */

/** @param {string} reply @returns {Answer} */
function read(reply) {
  const { value, damaged } = readLooseJson(reply);
  const told = /** @type {Record<string, unknown>} */ (
    value !== null && typeof value === 'object' ? value : {});
  if (!Array.isArray(told.sessions)) {
    throw text(told.error) ? refusal(text(told.error)) : new RequestError('unexpected',
      'The daemon’s reply was not understood.', 'Reload the page: package and page may be of '
      + 'different versions.');
  }
  const active = text(told.current_destination);
  const folder = active === 'None' ? '' : active;
  const traces = list(told.sessions).map((session) => {
    const { starttime, stoptime, size, path, zipping_status: zipping } =
      /** @type {Record<string, unknown>} */ (session ?? {});
    return {
      path: text(path),
      name: text(path).slice(text(path).lastIndexOf('/') + 1),
      start: text(starttime),
      stop: text(stoptime) === 'Active' ? '' : text(stoptime),
      bytes: typeof size === 'number' ? size : null, // "0" as text: there is no such file
      running: folder !== '' && text(path) === folder,
      zipping: zipping === 'Zipping',
    };
  });
  const whole = traces.filter(({ path }) => path !== '');
  return { traces: whole, folder, damaged: damaged || whole.length < traces.length };
}

/**
 * @param {HTMLElement} element
 * @param {(state: TracesState) => void} listener called now and after each answer
 */
export function watchTraces(element, listener) {
  return watch({
    element,
    none: /** @type {Answer} */ ({ traces: [], folder: '', damaged: false }),
    ask: async (timeoutMs = TIMEOUT_MS) =>
      read(await request('view_wireshark_sessions', {}, { timeoutMs })),
    listener,
    changes: ({ folder }) => folder !== '',
  });
}
