// What list_data tells, shared by the views and asked again from time to time. The reply costs the
// camera a walk through every session on its storages, so it is asked seldom, and only while a view
// that shows some of it is in sight.

import { onChanges, pending, request, RequestError, wordsOf } from './api.js';
import { readLooseJson } from './loose_json.js';
import { cameraOf, informationOf } from './session_data.js';

const PERIOD_MS = 60000;
const PERIOD_WHILE_CHANGING_MS = 5000;
const PERIOD_WHILE_PENDING_MS = 1000;
// After a start or a stop the lists are collected, and the camera may restart.
const CHANGING_MS = 30000;
const TIMEOUT_MS = 120000;

/**
 * @typedef {object} CameraState
 * @property {import('./session_data.js').Camera | null} camera as of the last good reply
 * @property {[string, string][] | null} information of the running session; null when it can't be read
 * @property {boolean} damaged whether the reply was readable only in parts
 * @property {Date | null} at
 * @property {RequestError | null} error of the last request
 * @property {boolean} asking
 */

/** @type {CameraState} */
let current = { camera: null, information: null, damaged: false, at: null, error: null, asking: false };

const target = new EventTarget();
/** @type {Set<HTMLElement>} */
const showing = new Set();
/** @type {Promise<void>} */
let queue = Promise.resolve();
let timer = 0;
let triedAt = -Infinity;
let changingUntil = 0;

/**
 * Calls the listener now and at every change. The state is asked for while the element is in sight.
 * @param {HTMLElement} element
 * @param {(state: CameraState) => void} listener
 */
export function onCamera(element, listener) {
  showing.add(element);
  target.addEventListener('state', () => listener(current));
  listener(current);
}

/** @param {Partial<CameraState>} state */
function publish(state) {
  current = { ...current, ...state };
  target.dispatchEvent(new Event('state'));
}

/** @param {string} path of a session */
export async function readInformation(path) {
  const text = await request('view_monitor_data', { storage: path, file: 'Session_Information.txt' });
  return informationOf(text);
}

/** @param {string} special */
async function askNow(special) {
  publish({ asking: true });
  try {
    const text = await request('list_data', special ? { special_request: special } : {},
      { timeoutMs: TIMEOUT_MS });
    const { value, damaged } = readLooseJson(text);
    if (value === null || typeof value !== 'object' || !('active' in value)) {
      throw new RequestError('unexpected', `The daemon’s reply was not understood: ${
        wordsOf(text).slice(0, 200) || 'it is empty'}`, 'Reload the page: package and page may be of '
        + 'different versions.');
    }
    const camera = cameraOf(value);
    const information = camera.active
      ? await readInformation(camera.directory).catch(() => null) : null;
    publish({ camera, information, damaged, at: new Date(), error: null, asking: false });
  } catch (error) {
    publish({ error: /** @type {RequestError} */ (error), asking: false });
  }
  triedAt = performance.now();
  schedule();
}

/**
 * Asks again, behind what is being asked already; resolves also when that fails.
 * @param {'' | 'export' | 'reload'} [special] the sessions are collected before: of all cameras on
 *     the share, or of this one
 * @returns {Promise<CameraState>}
 */
export async function refreshCamera(special = '') {
  queue = queue.then(() => askNow(special));
  await queue;
  return current;
}

/** For some time the state will change by itself. */
export function expectChanges() {
  changingUntil = performance.now() + CHANGING_MS;
  schedule();
}

/** To be called when a view that shows the state comes into sight. */
export function schedule() {
  clearTimeout(timer);
  const now = performance.now();
  const period = now < changingUntil ? PERIOD_WHILE_CHANGING_MS : PERIOD_MS;
  timer = setTimeout(poll, Math.max(0, triedAt + period - now));
}

function poll() {
  const inSight = [...showing].some((element) => element.getClientRects().length > 0);
  if (document.hidden || !inSight) {
    return;
  }
  if (pending() > 0) {
    timer = setTimeout(poll, PERIOD_WHILE_PENDING_MS);
  } else if (current.error?.kind !== 'login' && current.error?.kind !== 'forbidden') {
    refreshCamera(); // not when locked: the browser would ask for a password again and again
  }
}

/** Who comes back to the page, or has changed something in another tab, sees what is so now. */
function lookAtOnce() {
  triedAt = -Infinity;
  schedule();
}
document.addEventListener('visibilitychange', lookAtOnce);
onChanges(lookAtOnce);
window.addEventListener('online', lookAtOnce);
