// One chart of a recording: its plot, a legend that sums up what is in sight, its rows as a table and
// as CSV, and the picture.

import { createMessage, newId, select } from './controls.js';
import { el, setText } from './dom.js';
import { byteSize, counted } from './format.js';
import { chartPicture } from './picture.js';
import { createPlot, lookOf, seriesText } from './plot.js';
import { saveBlob } from './recording.js';
import { csvLine, firstFrom, isConstant, rateOf, summaryOf, wallText } from './series.js';
import { valueText } from './units.js';

const MOST_ROWS = 300; // of the table
const FIRST_SERIES = 6; // of a file that nobody knows
const MOST_SERIES = 60;
const MANY = 12; // series, of which only the visible ones are listed at first
const PROGRESS_PERIOD_MS = 250;
const SUM_MS = 50; // while the time in sight is dragged along nothing is summed up

/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./plot.js').Shown} Shown */
/** @typedef {import('./catalogue.js').Chart} Chart */

/** The lowest look that no visible series has. @param {Shown[]} shown */
function freeLook(shown) {
  const taken = new Set(shown.filter(({ visible }) => visible).map(({ look }) => look));
  let look = 0;
  while (taken.has(look)) {
    look++;
  }
  return look;
}

/**
 * The series of the chart with what is in sight of each: last, least, average, most.
 * @param {(one: Shown, visible: boolean) => void} onToggle
 */
function createLegend(onToggle) {
  const body = el('tbody');
  const more = el('button', { type: 'button', class: 'plain', hidden: true, onclick: () => { all = true; show(shown); } });
  const element = el('div', { class: 'legend' }, el('table', {},
    el('caption', { class: 'unseen' }, 'Series'),
    el('thead', {}, el('tr', {}, ...['Series', 'At the cursor', 'Last', 'Least', 'Average', 'Most'].map((title, index) =>
      el('th', { scope: 'col', class: index > 0 ? 'number' : undefined }, title)))), body), more);
  /** @type {Shown[]} */
  let shown = [];
  /** @type {Map<Shown, {at: HTMLElement, sums: HTMLElement[], swatch: HTMLElement, row: HTMLElement}>} */
  const rows = new Map();
  let all = false;

  /** @param {Shown} one */
  function rowOf(one) {
    const swatch = el('span', { class: 'swatch', 'aria-hidden': 'true' });
    const box = el('input', { type: 'checkbox', checked: one.visible, onchange: () => onToggle(one, box.checked) });
    const at = el('td', { class: 'number at' });
    const sums = Array.from({ length: 4 }, () => el('td', { class: 'number' }));
    const row = el('tr', {}, el('th', { scope: 'row' }, el('label', { class: 'check' }, box, swatch, el('bdi', {}, one.series.name))), at, ...sums);
    rows.set(one, { at, sums, swatch, row });
    paint(one);
    return row;
  }
  /** @param {Shown} one */
  function paint(one) {
    const { stroke, dash } = lookOf(one.look);
    const row = rows.get(one);
    if (row) {
      row.swatch.style.borderTop = one.series.categories ? '' : `3px ${dash.length > 0 ? 'dashed' : 'solid'} ${stroke}`;
      row.swatch.style.visibility = one.visible ? '' : 'hidden';
    }
  }
  /** @param {Shown[]} next */
  function show(next) {
    shown = next;
    rows.clear();
    const listed = all || shown.length <= MANY ? shown : shown.filter(({ visible }) => visible);
    body.replaceChildren(...listed.map(rowOf));
    more.hidden = listed.length === shown.length;
    setText(more, `All ${shown.length} series`);
    element.hidden = shown.length === 0;
  }
  return {
    element,
    show,
    paint,
    /** @param {(one: Shown) => number | null | undefined} valueAt */
    showCursor(valueAt) {
      for (const [one, { at }] of rows) {
        setText(at, seriesText(one.series, valueAt(one)));
      }
    },
    /** @param {[number, number]} range */
    sumUp([from, to]) {
      for (const [{ series, visible }, { sums }] of rows) {
        const sum = visible && !series.categories ? summaryOf(series, from, to) : null;
        const texts = sum ? [sum.last, sum.min, sum.average, sum.max].map((value) => valueText(value, series.unit))
          : [series.categories && visible ? lastState(series, to) : '', '', '', ''];
        sums.forEach((cell, index) => setText(cell, texts[index] ?? ''));
      }
    },
  };
}

/** @param {Series} series @param {number} to */
const lastState = (series, to) => seriesText(series, series.values[firstFrom(series.times, to + 1) - 1]);

/** The shown values of a time span, a row for each time. @param {Series[]} visible @param {[number, number]} range */
export function rowsOf(visible, [from, to]) {
  /** @type {Map<number, (string | undefined)[]>} */
  const rows = new Map();
  visible.forEach((series, column) => {
    for (let index = firstFrom(series.times, from); index < series.times.length && (series.times[index] ?? 0) <= to; index++) {
      const time = series.times[index] ?? 0;
      const row = rows.get(time) ?? [];
      rows.set(time, row);
      const value = series.values[index];
      row[column] = value === null || value === undefined ? '' : series.categories ? series.categories[value] : String(value);
    }
  });
  return [...rows].sort(([a], [b]) => a - b);
}

/** The rows in sight as a table. @param {string} title */
function createRows(title) {
  const place = el('div', { class: 'table chart-table', tabindex: 0, role: 'region', 'aria-label': `Rows of ${title}` });
  const count = el('p', { class: 'quiet' });
  const element = el('div', { hidden: true }, count, place);
  return {
    element,
    /** @param {Series[]} visible @param {[number, number]} range */
    show(visible, range) {
      if (element.hidden) {
        return;
      }
      const rows = rowsOf(visible, range);
      setText(count, rows.length > MOST_ROWS
        ? `The first ${MOST_ROWS} of ${counted(rows.length, 'row')}: zoom in to see others.` : counted(rows.length, 'row'));
      place.replaceChildren(el('table', {},
        el('caption', { class: 'unseen' }, title),
        el('thead', {}, el('tr', {}, el('th', { scope: 'col' }, 'Time'),
          ...visible.map(({ name, unit }) => el('th', { scope: 'col', class: 'number' }, unit ? `${name} (${unit})` : name)))),
        el('tbody', {}, ...rows.slice(0, MOST_ROWS).map(([time, cells]) => el('tr', {},
          el('th', { scope: 'row', class: 'stamp' }, wallText(time)),
          ...visible.map((_, index) => el('td', { class: 'number' }, cells[index] ?? '')))))));
    },
  };
}

/**
 * @param {object} options
 * @param {ReturnType<typeof import('./session_series.js').createSource>} options.source
 * @param {Chart} options.chart
 * @param {ReturnType<typeof import('./chart_group.js').createChartGroup>} options.group
 * @param {() => void} options.remove
 */
export function createChartCard({ source, chart, group, remove }) {
  const { title } = chart;
  const isFile = chart.id.startsWith('file:');
  const headingId = newId('chart');
  let controller = new AbortController();
  /** @type {Shown[]} */
  let shown = [];
  /** @type {Series[]} */
  let read = [];
  /** What the legend holds for. @type {[number, number]} */
  let summed = [NaN, NaN];
  const message = createMessage();
  const remarks = el('p', { class: 'quiet' });
  const lines = createPlot(group, title, { id: chart.id, stacked: chart.stacked, onIndex: (index) => atCursor(false, index) });
  const bands = createPlot(group, `${title}: states`, { onIndex: (index) => atCursor(true, index) });
  const legend = createLegend(toggle);
  const rows = createRows(title);
  const values = select([['', 'As recorded'], ['rate', 'Per second']], () => showSeries());
  values.value = chart.counts ? 'rate' : '';
  values.setAttribute('aria-label', `Values of ${title}`);
  const stop = el('button', { type: 'button', hidden: true, onclick: () => controller.abort() }, 'Stop');

  /** @param {boolean} states */
  const part = (states) => shown.filter(({ series }) => (series.categories !== null) === states);
  const visibleSeries = () => shown.filter(({ visible }) => visible).map(({ series }) => series);

  /** @param {boolean} states @param {number | null} index */
  function atCursor(states, index) {
    const plot = states ? bands : lines;
    const own = part(states);
    legend.showCursor((one) => (own.includes(one) ? plot.valueAt(own.indexOf(one), index)
      : (states ? lines : bands).valueAt(part(!states).indexOf(one), null)));
  }

  /** @param {Shown} one @param {boolean} visible */
  function toggle(one, visible) {
    if (visible) {
      one.look = freeLook(shown);
    }
    one.visible = visible;
    legend.paint(one);
    draw();
  }

  function draw() {
    for (const [plot, states] of /** @type {[typeof lines, boolean][]} */ ([[lines, false], [bands, true]])) {
      const own = part(states);
      plot.element.hidden = own.length === 0;
      if (own.length > 0) {
        plot.show(own);
      }
    }
    sumUp(group.inSight());
  }
  /** @param {[number, number]} range */
  function sumUp(range) {
    summed = range;
    legend.sumUp(range);
    rows.show(visibleSeries(), range);
  }

  function showSeries() {
    const before = new Map(shown.map((one) => [one.series.name, one]));
    const series = isFile && values.value === 'rate'
      ? read.map((one) => ({ ...rateOf(one), unit: one.categories ? undefined : '1/s' })) : read;
    // What never changes tells little: it is there to be chosen.
    const moving = series.filter((one) => !isConstant(one));
    const first = new Set(!isFile ? series : (moving.length > 0 ? moving : series).slice(0, FIRST_SERIES));
    shown = [];
    for (const one of series) {
      const known = before.get(one.name);
      const visible = known ? known.visible : first.has(one);
      shown.push({ series: one, visible, look: known?.visible ? known.look : visible ? freeLook(shown) : 0 });
    }
    legend.show(shown);
    draw();
  }

  /** Also anew; what was chosen stays so. */
  async function load() {
    controller = new AbortController();
    const { signal } = controller;
    let bytes = 0;
    let told = performance.now();
    if (shown.length === 0) {
      message.work('Reading …');
      stop.hidden = false;
    }
    try {
      const answer = await source.read(chart, {
        signal,
        onProgress(more) {
          bytes += more;
          if (shown.length === 0 && performance.now() - told > PROGRESS_PERIOD_MS) {
            told = performance.now();
            message.work(`Reading … ${byteSize(bytes)}`);
          }
        },
      });
      if (closed) {
        return;
      }
      signal.throwIfAborted();
      message.clear();
      read = answer.series.slice(0, MOST_SERIES);
      setText(remarks, [chart.hint, ...answer.remarks,
        answer.series.length > read.length ? `Only the first ${MOST_SERIES} of ${answer.series.length} series are shown.` : '',
        read.length === 0 ? 'There is nothing yet that can be drawn.'
          : chart.parts.every(({ kind }) => kind !== 'log') && read.every(isConstant) && !isFile ? 'It never changed.' : '',
      ].filter(Boolean).join(' '));
      values.hidden = !isFile || read.every(({ categories }) => categories !== null);
      showSeries();
    } catch (error) {
      if (!closed) {
        message.fail(signal.aborted ? { message: 'Stopped.', advice: '' } : error);
      }
    } finally {
      stop.hidden = true;
    }
  }

  /** @param {string} extension */
  const fileName = (extension) => `${title.replaceAll(/[^\p{L}\p{N}]+/gu, '_')}.${extension}`;
  function saveRows() {
    const visible = visibleSeries();
    const texts = rowsOf(visible, group.inSight()).map(([time, cells]) =>
      csvLine([...wallText(time).split(' '), ...visible.map((_, index) => cells[index])]));
    const heads = visible.map(({ name, unit }) => (unit ? `${name} (${unit})` : name));
    saveBlob(new Blob([csvLine(['Date', 'Time', ...heads]), ...texts], { type: 'text/csv' }), fileName('csv'));
  }
  async function savePicture() {
    saveBlob(await chartPicture(title, [lines, bands], shown, group.inSight()), fileName('png'));
  }

  const tableButton = el('button', {
    type: 'button', 'aria-expanded': 'false', 'aria-label': `Table of ${title}`,
    onclick: () => {
      rows.element.hidden = !rows.element.hidden;
      tableButton.setAttribute('aria-expanded', String(!rows.element.hidden));
      sumUp(group.inSight());
    },
  }, 'Table');
  /** @param {string} text @param {string} name @param {() => void} act */
  const tool = (text, name, act) => el('button', { type: 'button', 'aria-label': `${name} ${title}`, onclick: act }, text);
  const element = el('section', { class: 'card chart', 'aria-labelledby': headingId },
    el('div', { class: 'tools apart' }, el('h3', { id: headingId }, el('bdi', {}, title)),
      el('div', { class: 'tools small' }, values, tableButton, tool('CSV', 'CSV of', saveRows),
        tool('PNG', 'Picture of', () => { savePicture(); }), tool('✕', 'Remove', () => { close(); remove(); }))),
    el('div', { class: 'tools' }, message.element, stop), lines.element, bands.element, legend.element, remarks, rows.element);
  lines.element.hidden = false;
  bands.element.hidden = true;
  let closed = false;
  let summing = 0;
  const stopListening = group.onRange((range) => {
    clearTimeout(summing);
    if (range[0] !== summed[0] || range[1] !== summed[1]) {
      summing = setTimeout(() => sumUp(range), SUM_MS);
    }
  });

  function close() {
    closed = true;
    controller.abort();
    message.clear();
    clearTimeout(summing);
    stopListening();
    lines.close();
    bands.close();
    element.remove();
    shown = [];
    read = [];
  }
  return { element, isLong: chart.choice !== null, load, close };
}
