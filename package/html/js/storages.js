// The camera's storages: whether they can be used, and how full they are.

import { request, RequestError } from './api.js';
import { list, number, STORAGES, text } from './session_data.js';

const FULL_PERCENT = 90; // above it the daemon starts no session and ends the running one

/**
 * @typedef {object} StorageState
 * @property {string} name
 * @property {string} title
 * @property {number} bytes 0 while it is not mounted
 * @property {number | null} percent used; null while it is not mounted
 * @property {string} trouble why it can't be used, "" when it can
 */

/** @returns {Promise<StorageState[]>} */
export async function readStorages() {
  const reply = await request('view_monitor_data', { type: 'storages' });
  try {
    return list(JSON.parse(reply).storages).map((one) => {
      const told = /** @type {Record<string, unknown>} */ (one ?? {});
      const name = text(told.name);
      const percent = number(told.percent_used) < 0 ? null : number(told.percent_used);
      const status = text(told.status);
      return {
        name, percent, title: STORAGES.find((known) => known.name === name)?.title ?? name, bytes: number(told.size_kb) * 1024,
        trouble: status !== 'OK' ? (status === 'Disconnected' ? 'not connected' : status.toLowerCase() || 'not known')
          : told.usable !== true ? 'not usable: locked, read-only or not mounted'
            : percent !== null && percent >= FULL_PERCENT ? `full: no session starts at ${FULL_PERCENT} % and more` : '',
      };
    });
  } catch {
    throw new RequestError('unexpected', 'The daemon’s reply was not understood.', 'Reload the page.');
  }
}

/**
 * Days until a session ends because its storage is full, at the rate so far; null while that is not
 * known.
 * @param {StorageState} storage
 * @param {number} bytes of the session
 * @param {number} minutes of the session
 */
export function daysLeft({ bytes: size, percent }, bytes, minutes) {
  return percent === null || size === 0 || bytes <= 0 || minutes < 60 ? null
    : Math.max(0, size * (FULL_PERCENT - percent) / 100) / (bytes / minutes * 1440);
}
