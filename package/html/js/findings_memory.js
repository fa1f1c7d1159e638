// Findings of recordings that were looked at in this tab, so that coming back to one reads nothing again. They hold
// addresses and lines of logs: with the tab they are gone.

import { findingsOf } from './findings.js';

const KEY = 'findings';
const MOST_RECORDINGS = 12;
const MOST_CHARACTERS = 1e6;

/** @typedef {Awaited<ReturnType<typeof findingsOf>>} Told */
/** @typedef {{name: string, state: string, at: number, told: Told}} Memory at in milliseconds since 1970 */

/** @returns {Memory[]} the latest last */
function memories() {
  try {
    const all = JSON.parse(sessionStorage.getItem(KEY) ?? '[]');
    return Array.isArray(all) ? all : [];
  } catch {
    return []; // without a storage each look reads anew
  }
}

/** What changes when a recording goes on. @param {import('./recording.js').Contents} contents */
const stateOf = ({ csv, files }) => `${csv.length + files.length} ${[...csv, ...files].reduce((sum, { bytes }) => sum + bytes, 0)}`;

/**
 * What was found before; null where the recording went on since then.
 * @param {string} name of the recording
 * @param {import('./recording.js').Contents} contents
 * @param {number} [youngerThan] milliseconds; what is younger will do even so
 * @returns {Told | null}
 */
export function foundBefore(name, contents, youngerThan = 0) {
  const memory = memories().findLast((one) => one.name === name);
  return memory && (memory.state === stateOf(contents) || Date.now() - memory.at < youngerThan) ? memory.told : null;
}

/**
 * Looks for findings, and remembers those of a whole recording.
 * @param {string} name of the recording
 * @param {import('./findings.js').Input} input
 * @returns {Promise<Told>}
 */
export async function lookFor(name, input) {
  const told = await findingsOf(input);
  if (!input.range) {
    let all = [...memories().filter((one) => one.name !== name), { name, state: stateOf(input.contents), at: Date.now(), told }].slice(-MOST_RECORDINGS);
    while (all.length > 1 && JSON.stringify(all).length > MOST_CHARACTERS) {
      all = all.slice(1);
    }
    try {
      sessionStorage.setItem(KEY, JSON.stringify(all));
    } catch {
      // full or forbidden: it is looked for anew
    }
  }
  return told;
}
