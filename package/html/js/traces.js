// What view_wireshark_sessions tells. The reply costs the camera little, but it waits behind
// whatever the daemon is doing. It is asked repeatedly only while a trace runs and the view is in
// sight: otherwise nothing in it changes by itself.

import { pending, refusal, request, RequestError } from './api.js';
import { readLooseJson } from './loose_json.js';
import { list, text } from './session_data.js';

const PERIOD_MS = 5000;
const PERIOD_WHILE_PENDING_MS = 1000;
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
 * @typedef {object} TracesState
 * @property {Trace[]} traces as of the last good reply
 * @property {string} folder of the running trace, "" when none runs
 * @property {boolean} damaged whether the reply was readable only in parts
 * @property {Date | null} at
 * @property {RequestError | null} error of the last request
 */

/** @param {string} reply @returns {Pick<TracesState, 'traces' | 'folder' | 'damaged'>} */
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
 * Asks for the traces when told to, and from time to time while one runs and the element is in sight.
 * @param {HTMLElement} element
 * @param {(state: TracesState) => void} listener called now and after each answer
 */
export function watchTraces(element, listener) {
  /** @type {TracesState} */
  let state = { traces: [], folder: '', damaged: false, at: null, error: null };
  let timer = 0;

  /** Resolves also when it fails. @param {number} [timeoutMs] @returns {Promise<TracesState>} */
  async function refresh(timeoutMs = TIMEOUT_MS) {
    clearTimeout(timer);
    try {
      const reply = await request('view_wireshark_sessions', {}, { timeoutMs });
      state = { ...read(reply), at: new Date(), error: null };
    } catch (error) {
      state = { ...state, error: /** @type {RequestError} */ (error) };
    }
    listener(state);
    schedule(PERIOD_MS);
    return state;
  }

  /** @param {number} delay */
  function schedule(delay) {
    clearTimeout(timer);
    const { kind } = state.error ?? {};
    if (state.folder !== '' && kind !== 'login' && kind !== 'forbidden') {
      timer = setTimeout(poll, delay);
    }
  }

  function poll() {
    if (document.hidden || element.getClientRects().length === 0) {
      return;
    }
    if (pending() > 0) {
      schedule(PERIOD_WHILE_PENDING_MS);
    } else {
      refresh();
    }
  }

  document.addEventListener('visibilitychange', poll);
  listener(state);
  return { refresh };
}
