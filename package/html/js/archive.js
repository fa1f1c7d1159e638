// Making a session's zip archive and downloading it.

import { address, ask, refusal, RequestError, wordsOf } from './api.js';
import { el } from './dom.js';

/** To be told beside every download. */
export const ARCHIVE_HOLDS = 'An archive may hold secrets: memory of crashed processes, addresses that were '
  + 'called with their passwords, images.';

const POLL_MS = 3000;
const OK = 200;
const ACCEPTED = 202;
const UNAVAILABLE = 503;

/**
 * Whether the archive is there, is being made, or has just been started by asking.
 * @param {string} path
 * @returns {Promise<'zipped' | 'zipping' | 'started'>}
 */
async function askForArchive(path) {
  const { status, text } = await ask('zip_monitor_data', { storage: path });
  if (status === OK) {
    return 'zipped';
  }
  if (status === ACCEPTED) {
    return 'started';
  }
  if (status === UNAVAILABLE) {
    return 'zipping';
  }
  throw refusal(wordsOf(text) || `Refused with status ${status}.`);
}

/**
 * Has the archive made unless it is there, and waits until it is complete. Throws a RequestError.
 * @param {string} path
 * @param {() => void} [waiting] called when it is not there yet
 * @param {boolean} [begun] the daemon has started on it by itself
 */
export async function haveArchive(path, waiting, begun = false) {
  let started = begun;
  for (;;) {
    const state = await askForArchive(path);
    if (state === 'zipped') {
      return;
    }
    if (state === 'started' && started) {
      throw new RequestError('unexpected', 'Zipping has ended without leaving an archive.',
        'Its storage may be full. Zipping was started once more; if that fails too, look at the log.');
    }
    started = true;
    waiting?.();
    await new Promise((resolve) => setTimeout(resolve, POLL_MS));
  }
}

/**
 * Lets the browser download the archive, which must be complete: a refusal would be a failed
 * download without words.
 * @param {string} path
 * @param {boolean} [remove] the archive is deleted on the camera afterwards
 */
export function downloadArchive(path, remove = false) {
  download('get_monitor_data', { storage: path, ...(remove ? { remove: 'yes' } : {}) });
}

/**
 * Lets the browser download what an action answers.
 * @param {string} action
 * @param {Record<string, string>} values
 */
export function download(action, values) {
  const link = el('a', { href: address(action, values), download: '' });
  document.body.append(link);
  link.click();
  link.remove();
}
