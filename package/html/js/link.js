// What of a recording is in sight, as the address bar has it behind "?": a link opens the same
// elsewhere.

import { wallSeconds, wallText } from './series.js';

/**
 * @typedef {object} Sight
 * @property {string} board "" for charts of one's own choice
 * @property {string[]} charts ids, of one's own choice
 * @property {[number, number] | null} range null for all
 */

const escaped = (/** @type {string} */ id) => id.replaceAll('%', '%25').replaceAll(',', '%2C');

/** @param {URLSearchParams} values @returns {Sight} */
export function sightOf(values) {
  const time = (/** @type {string} */ name) => {
    const [day = '', clock = ''] = (values.get(name) ?? '').split('T');
    return wallSeconds(day, clock);
  };
  const [from, to] = [time('from'), time('to')];
  return {
    board: values.get('board') ?? '',
    charts: (values.get('charts') ?? '').split(',').filter(Boolean).map((id) => id.replaceAll('%2C', ',').replaceAll('%25', '%')),
    range: from < to ? [from, to] : null,
  };
}

/**
 * Puts what is in sight into the address bar.
 * @param {Sight} sight
 * @param {boolean} step whether "back" leads to what was in sight before
 */
export function writeSight({ board, charts, range }, step) {
  const [view = '', query = ''] = location.hash.split('?');
  const values = new URLSearchParams(query);
  for (const [name, value] of [
    ['board', board], ['charts', charts.map(escaped).join(',')],
    ['from', range ? wallText(Math.floor(range[0])).replace(' ', 'T') : ''],
    ['to', range ? wallText(Math.ceil(range[1])).replace(' ', 'T') : ''],
  ]) {
    if (name && value) {
      values.set(name, value);
    } else if (name) {
      values.delete(name);
    }
  }
  // As people read it: "/" and ":" may stand in a fragment.
  const text = String(values).replaceAll('%2F', '/').replaceAll('%3A', ':').replaceAll('%2C', ',');
  const hash = `${view || '#/'}${text ? `?${text}` : ''}`;
  if (hash !== location.hash) {
    history[step ? 'pushState' : 'replaceState'](null, '', hash);
  }
}
