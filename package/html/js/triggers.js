// What the action systemlog_trigger tells.

import { request, RequestError } from './api.js';
import { readLooseJson } from './loose_json.js';
import { watch } from './poll.js';
import { deviceTime, list, number, text } from './session_data.js';

/**
 * @typedef {object} Trigger
 * @property {string} name
 * @property {string} key what a line must contain; a long one is cut
 * @property {boolean} report whether it makes crash reports
 * @property {number} limit of a crash-report trigger
 * @property {number} cooldown of it, in seconds
 * @property {number} count of events sent
 * @property {string} first time an event was sent, "" before
 * @property {string} last
 */

/**
 * @typedef {object} Answer
 * @property {Trigger[]} triggers
 * @property {boolean} active whether a session runs
 * @property {boolean} damaged whether the reply was readable only in parts
 */

/** @param {unknown} value @returns {Trigger} */
function triggerOf(value) {
  const told = /** @type {Record<string, unknown>} */ (value ?? {});
  const time = (/** @type {unknown} */ at) =>
    (text(at).startsWith('Not') ? '' : deviceTime(text(at)));
  return {
    // The daemon escapes double quotes only, so a backslash before one is not part of the text.
    name: text(told.name).replaceAll('\\"', '"'),
    key: text(told.key_word).replaceAll('\\"', '"'),
    report: number(told.is_subscribed) === 1,
    limit: number(told.limit),
    cooldown: number(told.cooldown),
    count: number(told.triggered_count),
    first: time(told.start_time_triggered),
    last: time(told.last_time_triggered),
  };
}

/** @param {string} reply @returns {Answer} */
export function read(reply) {
  const { value, damaged } = readLooseJson(reply);
  const told = /** @type {Record<string, unknown>} */ (value ?? {});
  if (!Array.isArray(told.systemlog_trigger_rules)) {
    throw new RequestError('unexpected', 'The daemon’s reply was not understood.', 'Reload the page: '
      + 'package and page may be of different versions.');
  }
  const triggers = list(told.systemlog_trigger_rules).map(triggerOf);
  const whole = triggers.filter(({ name }) => name !== '');
  return { triggers: whole, active: number(told.active) === 1,
    damaged: damaged || whole.length < triggers.length };
}

/**
 * A text as the action takes it: "+" stands for a blank there, and ESC for "+".
 * @param {string} plain
 */
export function encoded(plain) {
  return plain.replaceAll('+', '\x1b');
}

/**
 * @param {HTMLElement} element
 * @param {(told: import('./poll.js').Told<Answer>) => void} listener
 */
export function watchTriggers(element, listener) {
  return watch({
    element,
    none: /** @type {Answer} */ ({ triggers: [], active: false, damaged: false }),
    ask: async () => read(await request('systemlog_trigger', { do: 'list' })),
    listener,
  });
}
