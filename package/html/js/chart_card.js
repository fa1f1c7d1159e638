// One file of a recording as a chart, with its series to choose, its rows as a table and as CSV.

import { lookOf, valueText } from './chart.js';
import { createMessage, newId, select } from './controls.js';
import { el, setText } from './dom.js';
import { counted } from './format.js';
import { saveBlob } from './recording.js';
import { csvLine, hasCounters, rateOf, remarksOf, seriesOf, tableReader, wallText } from './series.js';

/** Of one file: rows of half a year have less. */
export const MOST_CSV_BYTES = 32 * 1024 * 1024;
const MOST_ROWS = 300; // of the table
const FIRST_SERIES = 6;
const MOST_SERIES = 60;

/** @typedef {import('./series.js').Series} Series */

/** "system_monitoring/monitoring_load/load.csv" as "load/load". @param {string} path */
export const titleOf = (path) => path.replace(/^system_monitoring\/(?:monitoring_)?/, '').replace(/\.csv$/, '');

/**
 * @param {import('./recording.js').Recording} recording
 * @param {{path: string, bytes: number}} file
 * @param {ReturnType<import('./chart.js').createChartGroup>} group
 * @param {() => void} remove
 */
export function createChartCard(recording, file, group, remove) {
  const { path } = file;
  /** @type {import('./series.js').Table} */
  let table = { columns: [], times: [], rows: [], skipped: 0, unfinished: false };
  /** @type {Series[]} */
  let plain = [];
  /** @type {Series[]} */
  let shown = [];
  /** @type {Set<string>} */
  let visible = new Set();
  /** @type {HTMLElement[]} */
  let readings = [];
  const controller = new AbortController();
  const title = titleOf(path);
  const headingId = newId('chart');
  const message = createMessage();
  const remarks = el('p', { class: 'quiet' });
  const chart = group.createChart(title, (index) => {
    readings.forEach((reading, number) => {
      const series = shown[number];
      setText(reading, series ? valueText(series, chart.valueAt(number, index)) : '');
    });
  });
  const values = select([['', 'As recorded'], ['rate', 'Per second']], () => showSeries());
  values.value = hasCounters(path) ? 'rate' : '';
  values.setAttribute('aria-label', `Values of ${title}`);
  const choices = el('fieldset', { class: 'series' });
  const tablePlace = el('div', { class: 'table chart-table', tabindex: 0, role: 'region', 'aria-label': `Rows of ${title}` });
  const tableCount = el('p', { class: 'quiet' });
  const tableBox = el('div', { hidden: true }, tableCount, tablePlace);
  const tableButton = el('button', {
    type: 'button', 'aria-expanded': 'false',
    onclick: () => {
      tableBox.hidden = !tableBox.hidden;
      tableButton.setAttribute('aria-expanded', String(!tableBox.hidden));
      showTable();
    },
  }, 'Table');
  const element = el('section', { class: 'card chart', 'aria-labelledby': headingId },
    el('div', { class: 'tools apart' }, el('h3', { id: headingId }, title),
      el('div', { class: 'tools' }, values, tableButton,
        el('button', { type: 'button', onclick: () => saveShown() }, 'Download CSV'),
        el('button', {
          type: 'button', 'aria-label': `Remove ${title}`,
          onclick: () => {
            close();
            remove();
          },
        }, 'Remove'))),
    message.element, chart.element, choices, remarks, tableBox);
  const stopListening = group.onRange(() => showTable());

  function close() {
    controller.abort();
    stopListening();
    chart.remove();
    element.remove();
  }

  const visibleSeries = () => shown.filter(({ name }) => visible.has(name));

  /** The shown values of the time in sight, a row for each time. */
  function rowsInSight() {
    const [from, to] = group.inSight();
    /** @type {Map<number, (string | undefined)[]>} */
    const rows = new Map();
    visibleSeries().forEach((series, column) => {
      series.times.forEach((time, index) => {
        if (time >= from && time <= to) {
          const row = rows.get(time) ?? [];
          rows.set(time, row);
          const value = series.values[index];
          row[column] = value === null || value === undefined ? ''
            : series.categories ? series.categories[value] : String(value);
        }
      });
    });
    return [...rows].sort(([a], [b]) => a - b);
  }

  function showTable() {
    if (tableBox.hidden) {
      return;
    }
    const rows = rowsInSight();
    const names = visibleSeries().map(({ name }) => name);
    setText(tableCount, rows.length > MOST_ROWS
      ? `The first ${MOST_ROWS} of ${counted(rows.length, 'row')}: zoom in to see others.` : counted(rows.length, 'row'));
    tablePlace.replaceChildren(el('table', {},
      el('caption', { class: 'unseen' }, title),
      el('thead', {}, el('tr', {}, el('th', { scope: 'col' }, 'Time'),
        ...names.map((name) => el('th', { scope: 'col', class: 'number' }, name)))),
      el('tbody', {}, ...rows.slice(0, MOST_ROWS).map(([time, cells]) => el('tr', {},
        el('th', { scope: 'row', class: 'stamp' }, wallText(time)),
        ...names.map((_, index) => el('td', { class: 'number' }, cells[index] ?? '')))))));
  }

  function saveShown() {
    const names = visibleSeries().map(({ name }) => name);
    const lines = rowsInSight().map(([time, cells]) =>
      csvLine([...wallText(time).split(' '), ...names.map((_, index) => cells[index])]));
    const unit = values.value === 'rate' ? ' per second' : '';
    saveBlob(new Blob([csvLine(['Date', 'Time', ...names.map((name) => name + unit)]), ...lines], { type: 'text/csv' }),
      `${title.replaceAll('/', '_')}.csv`);
  }

  function showSeries() {
    shown = values.value === 'rate' ? plain.map(rateOf) : plain;
    chart.show(shown, ({ name }) => visible.has(name));
    readings = shown.map(() => el('output', { 'aria-live': 'off' }));
    choices.replaceChildren(el('legend', { class: 'unseen' }, 'Series'), ...shown.map(({ name }, index) => {
      const swatch = el('span', { class: 'swatch', 'aria-hidden': 'true' });
      const { stroke, dash } = lookOf(index);
      swatch.style.borderTop = `3px ${dash.length > 0 ? 'dashed' : 'solid'} ${stroke}`;
      const box = el('input', {
        type: 'checkbox', checked: visible.has(name),
        onchange: () => {
          visible[box.checked ? 'add' : 'delete'](name);
          chart.setVisible(index, box.checked);
          showTable();
        },
      });
      return el('label', { class: 'check' }, box, swatch, name, readings[index]);
    }));
    showTable();
  }

  /** Also anew; what was chosen stays so. */
  async function load() {
    if (table.times.length === 0) {
      message.work('Reading …');
    }
    const reader = tableReader(path);
    let read = 0;
    try {
      await recording.read(path, (piece) => {
        read += piece.length;
        reader.add(piece);
      }, { most: MOST_CSV_BYTES, signal: controller.signal });
    } catch (error) {
      if (!controller.signal.aborted) {
        message.fail(error);
      }
      return;
    }
    message.clear();
    table = reader.finish();
    const all = seriesOf(table);
    plain = all.slice(0, MOST_SERIES);
    const names = new Set(plain.map(({ name }) => name));
    visible = new Set([...visible].filter((name) => names.has(name)));
    // What never changes tells little: it is there to be chosen.
    const moving = plain.filter((series) => series.values.some((value) => value !== series.values[0]));
    const chosen = visible.size > 0 ? plain.filter(({ name }) => visible.has(name)) : (moving.length > 0 ? moving : plain).slice(0, FIRST_SERIES);
    visible = new Set(chosen.map(({ name }) => name));
    setText(remarks, [
      remarksOf(table, Math.max(read, file.bytes), read),
      all.length > plain.length ? `Only the first ${MOST_SERIES} of ${all.length} series are shown.` : '',
      table.times.length === 0 ? 'This file has no rows yet.'
        : plain.length === 0 ? 'Nothing in this file can be drawn.' : '',
    ].filter(Boolean).join(' '));
    values.hidden = plain.every(({ categories }) => categories !== null);
    showSeries();
  }
  return { element, path, load, close, times: () => table.times };
}
