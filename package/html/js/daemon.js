// Whether the daemon answers. Asked with a request without an action, which it refuses without
// logging anything.

import { pending, request, RequestError } from './api.js';

const PERIOD_MS = 10000;
const PERIOD_WHILE_AWAY_MS = 3000;
const PERIOD_WHILE_PENDING_MS = 500;
const TIMEOUT_MS = 8000;

/**
 * @typedef {object} DaemonState
 * @property {'unknown' | 'answers' | 'busy' | 'away' | 'locked'} state
 * @property {string} text
 * @property {string} advice
 * @property {number} [roundTripMs]
 * @property {Date} [answeredAt]
 */

/** @type {Partial<Record<RequestError['kind'], DaemonState['state']>>} */
const STATE_OF = { timeout: 'busy', login: 'locked', forbidden: 'locked' };

/** @type {DaemonState} */
let current = { state: 'unknown', text: 'Asking the daemon …', advice: '' };

const target = new EventTarget();

/**
 * Calls the listener now and after every poll.
 * @param {(state: DaemonState) => void} listener
 */
export function onDaemonState(listener) {
  target.addEventListener('state', () => listener(current));
  listener(current);
}

/** @param {DaemonState} state */
function publish(state) {
  current = { ...current, roundTripMs: undefined, ...state };
  target.dispatchEvent(new Event('state'));
}

async function ask() {
  const start = performance.now();
  try {
    const reply = await request('', {}, { timeoutMs: TIMEOUT_MS });
    if (!reply.includes('Missing option')) {
      throw new RequestError('unexpected', 'The daemon’s reply was not understood.',
        'Reload the page: package and page may be of different versions.');
    }
    publish({
      state: 'answers',
      text: 'Daemon answers',
      advice: '',
      roundTripMs: performance.now() - start,
      answeredAt: new Date(),
    });
  } catch (error) {
    const { kind, message, advice } = /** @type {RequestError} */ (error);
    publish({ state: STATE_OF[kind] ?? 'away', text: message, advice });
  }
}

/** Polls as long as the page is open and visible. */
export function watchDaemon() {
  let timer = 0;
  const poll = async () => {
    clearTimeout(timer);
    if (document.hidden) {
      return;
    }
    if (pending() > 0) {
      timer = setTimeout(poll, PERIOD_WHILE_PENDING_MS);
      return;
    }
    await ask();
    clearTimeout(timer);
    if (current.state === 'locked') {
      return; // each further poll would make the browser ask for a password again
    }
    timer = setTimeout(poll, current.state === 'answers' ? PERIOD_MS : PERIOD_WHILE_AWAY_MS);
  };
  document.addEventListener('visibilitychange', poll);
  window.addEventListener('online', poll);
  poll();
}
