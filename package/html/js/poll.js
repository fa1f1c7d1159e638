// Asks the daemon when told to, and from time to time while what it answers is in sight.

import { onChanges, pending, RequestError } from './api.js';

const PERIOD_MS = 5000;
const PERIOD_WHILE_PENDING_MS = 1000;

/**
 * @template Answer
 * @typedef {Answer & {at: Date | null, error: RequestError | null}} Told the last good answer, when it
 *     came, and the error of the last request
 */

/**
 * @template {object} Answer
 * @param {object} options
 * @param {HTMLElement} options.element
 * @param {Answer} options.none stands for the answer before there is one
 * @param {(timeoutMs?: number) => Promise<Answer>} options.ask
 * @param {(told: Told<Answer>) => void} options.listener called now and after each answer
 * @param {(answer: Answer) => boolean} [options.changes] whether it changes by itself
 */
export function watch({ element, none, ask, listener, changes = () => true }) {
  /** @type {Told<Answer>} */
  let told = { ...none, at: null, error: null };
  let timer = 0;

  /** Resolves also when it fails. @param {number} [timeoutMs] @returns {Promise<Told<Answer>>} */
  async function refresh(timeoutMs) {
    clearTimeout(timer);
    try {
      told = { ...await ask(timeoutMs), at: new Date(), error: null };
    } catch (error) {
      told = { ...told, error: /** @type {RequestError} */ (error) };
    }
    listener(told);
    schedule(PERIOD_MS);
    return told;
  }

  /** @param {number} delay */
  function schedule(delay) {
    clearTimeout(timer);
    // Not when locked: the browser would ask for a password again and again.
    if (changes(told) && told.error?.kind !== 'login' && told.error?.kind !== 'forbidden') {
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
  onChanges(poll);
  listener(told);
  return { refresh };
}

/** What is to be said about an answer that is late or damaged, "" when nothing is.
 * @param {RequestError | null} error @param {string} damaged the words for damage, "" without */
export function staleNotes(error, damaged) {
  return [
    // What to do when the daemon is away, the page's frame says.
    error ? `${error.message} ${['refused', 'unexpected', 'timeout'].includes(error.kind) ? error.advice : ''}`.trim() : '',
    damaged,
  ].filter(Boolean).join(' ');
}
