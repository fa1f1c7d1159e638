// The panel in which charts are chosen: those of the catalogue and every file, grouped, searchable,
// each with a picture in small of its last rows.

import { chartOfFile, GROUPS, groupOf, idOfFile, titleOf } from './catalogue.js';
import { newId } from './controls.js';
import { el, setText } from './dom.js';
import { byteSize, counted } from './format.js';
import { whenSeen } from './seen.js';
import { isConstant } from './series.js';
import { sparkline } from './sparkline.js';

/** Other words that people search by. @type {Record<string, string>} */
const WORDS = {
  Processor: 'cpu load', Memory: 'ram', Processes: 'program daemon pid cpu ram', Network: 'ethernet interface bandwidth traffic ip',
  'Temperature and power': 'heat sensor degrees volt ampere watt', Storage: 'disk sd card', Video: 'stream rtsp', 'HTTP API': 'web cgi', Logs: 'syslog error',
};
const LOOKED_AT = 4; // files of a chart, for its picture

/**
 * @typedef {object} Entry
 * @property {string} id
 * @property {string} title
 * @property {string} group
 * @property {string} note
 * @property {string} search in small letters
 * @property {import('./catalogue.js').Part[]} parts
 */

/**
 * @param {object} options
 * @param {ReturnType<typeof import('./session_series.js').createSource>} options.source
 * @param {(id: string) => boolean} options.isShown
 * @param {(id: string, shown: boolean) => void} options.choose
 * @param {(ids: string[]) => void} options.join
 */
export function createPicker({ source, isShown, choose, join }) {
  /** @type {{entry: Entry, box: HTMLInputElement, row: HTMLElement}[]} */
  let rows = [];
  /** @type {(() => void)[]} */
  let waiting = [];
  const controller = new AbortController();
  const search = el('input', {
    type: 'search', placeholder: 'temperature, cpu, eth0 …', autocomplete: 'off', spellcheck: 'false', 'aria-label': 'Search the charts and files',
    oninput: () => filter(),
    onkeydown: (event) => {
      if (/** @type {KeyboardEvent} */ (event).key === 'Enter') {
        takeFirst();
      }
    },
  });
  const status = el('p', { class: 'quiet', role: 'status' });
  const groups = el('div', { class: 'picker-groups' });
  const together = el('button', { type: 'button', onclick: () => join(rows.filter(({ box }) => box.checked).map(({ entry }) => entry.id)) }, 'Draw the ticked ones in one chart');
  const element = el('section', { class: 'card picker', 'aria-label': 'Choose charts', hidden: true },
    el('div', { class: 'tools' }, search, together), status, groups);

  /** @param {Entry} entry */
  function rowOf(entry) {
    const box = el('input', { type: 'checkbox', checked: isShown(entry.id), onchange: () => choose(entry.id, box.checked) });
    const picture = el('span', { class: 'spark-place' });
    const note = el('span', { class: 'quiet' }, entry.note);
    const row = el('label', { class: 'check picker-row' }, box, el('bdi', {}, entry.title), note, picture);
    const { parts } = entry;
    if (parts.length > 0 && parts.every(({ kind }) => kind !== 'log')) {
      waiting.push(whenSeen(row, async () => {
        const read = await Promise.all(parts.slice(0, LOOKED_AT).map(async ({ path, columns }) => {
          const all = await source.glimpse(path, { signal: controller.signal }).catch(() => []);
          return all.filter(({ column }) => columns.test(column));
        }));
        const series = read.flat();
        const best = series.find((one) => !one.categories && !isConstant(one)) ?? series.find(({ categories }) => !categories);
        if (best) {
          picture.replaceChildren(sparkline(best));
        }
        if (parts.length <= LOOKED_AT && series.length > 0 && series.every(isConstant)) {
          setText(note, [entry.note, 'unchanged lately'].filter(Boolean).join(' · '));
        }
      }));
    }
    rows.push({ entry, box, row });
    return row;
  }

  function filter() {
    const words = search.value.toLowerCase().split(/\s+/).filter(Boolean);
    let count = 0;
    for (const { entry, row } of rows) {
      row.hidden = !words.every((word) => entry.search.includes(word));
      count += Number(!row.hidden);
    }
    for (const details of groups.querySelectorAll('details')) {
      const left = [...details.querySelectorAll('.picker-row')].filter((row) => !(/** @type {HTMLElement} */ (row).hidden)).length;
      details.hidden = left === 0;
      const number = details.querySelector('summary .quiet');
      if (number) {
        setText(number, String(left));
      }
      if (words.length > 0) {
        details.open = left > 0;
      }
    }
    setText(status, words.length === 0 ? '' : count === 0 ? `Nothing recorded is called “${search.value.trim()}”.` : `${count} match`);
  }

  /** Enter: the first of those in sight. */
  function takeFirst() {
    const name = search.value.trim().toLowerCase();
    const left = rows.filter(({ row, box }) => !row.hidden && !box.checked);
    const first = left.find(({ entry }) => entry.title.toLowerCase() === name) ?? left[0];
    if (!first) {
      setText(status, rows.some(({ row }) => !row.hidden) ? 'All that match are shown already.' : `Nothing recorded is called “${search.value.trim()}”.`);
      return;
    }
    first.box.checked = true;
    choose(first.entry.id, true);
    setText(status, `${first.entry.title} is shown.`);
  }

  return {
    element,
    /**
     * @param {import('./catalogue.js').Chart[]} charts
     * @param {import('./recording.js').Csv[]} files
     */
    show(charts, files) {
      this.stop();
      rows = [];
      const searchText = (/** @type {string[]} */ ...texts) => texts.join(' ').toLowerCase();
      /** @type {Entry[]} */
      const ofCatalogue = charts.map(({ id, title, group, parts, unit }) => ({
        id, title, group, note: [unit, parts.length > 1 ? counted(parts.length, 'file') : ''].filter(Boolean).join(' · '),
        search: searchText(title, group, WORDS[group] ?? '', ...parts.slice(0, 200).map(({ path }) => path)), parts,
      }));
      /** @type {Entry[]} */
      const ofFiles = files.map(({ path, bytes }) => ({
        id: idOfFile(path), title: titleOf(path), group: groupOf(path), note: byteSize(bytes), search: searchText(path, WORDS[groupOf(path)] ?? ''),
        parts: chartOfFile(path).parts,
      }));
      /** @param {Entry[]} entries @param {boolean} open */
      const listed = (entries, open) => GROUPS.flatMap((group) => {
        const own = entries.filter((entry) => entry.group === group);
        return own.length === 0 ? [] : [el('details', { open }, el('summary', {}, `${group} `, el('span', { class: 'quiet' }, String(own.length))),
          ...own.map(rowOf))];
      });
      const id = newId('files');
      groups.replaceChildren(...listed(ofCatalogue, true),
        el('h3', { id }, `All files (${files.length})`), el('div', { role: 'group', 'aria-labelledby': id }, ...listed(ofFiles, false)));
      filter();
    },
    /** After what is shown has changed. */
    update() {
      for (const { entry, box } of rows) {
        box.checked = isShown(entry.id);
      }
    },
    focus: () => search.focus(),
    stop() {
      waiting.forEach((stop) => stop());
      waiting = [];
    },
    close() {
      this.stop();
      controller.abort();
    },
  };
}
