// A chart as SVG text, for documents that have no script: lines, or bands of states, the span that matters,
// marks. Pure.

import { aligned, firstFrom, summaryOf, wallText } from './series.js';
import { scaleOf, toneOf, valueText } from './units.js';
import { KIND_TITLES, KINDS } from './marks.js';

const WIDTH = 720;
const HEIGHT = 200;
const LEFT = 56;
const TOP = 22;
const BOTTOM = 34;
const LANE = 22;
const STEPS_S = [1, 5, 10, 30, 60, 300, 600, 1800, 3600, 7200, 10800, 21600, 43200, 86400, 172800, 604800, 1209600];
const FEWEST_TIMES = 5;
const MOST_POINTED = 0.95; // of what is in sight: what is pointed out stands beside something else
// Told apart also by those who see few colours, and on paper.
const COLOURS = ['#2f7ed8', '#d9730d', '#1f9e77', '#c2449a', '#8a6fe8', '#a08000', '#d64545', '#3aa0b5', '#7a8b99', '#5b7f2a'];
const DASHES = ['', '6 4', '2 3', '10 4 2 4'];
const STATES = ['#e0a458', '#9aa5b1', '#c98bb9', '#8fa8d8', '#b8b06a'];
const TONES = { bad: '#d64545', good: '#7fb3a0', quiet: '#c9d0d7' };
const KIND_LEFT = 96; // names of kinds beside their lanes
const KIND_COLOURS = { crash: '#b3261e', reboot: '#7a3fb0', storage: '#c25700', gap: '#e0a458', session: '#0f6d78', host: '#8f5a00', trigger: '#2f6fbf', report: '#55626f' };

/** @typedef {import('./series.js').Series} Series */
/** @typedef {[number, number]} Range */

const MARKUP = /** @type {Record<string, string>} */ ({ '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', '\'': '&#39;' });
/** A text as markup shows it. @param {string} text */
export const markup = (text) => text.replaceAll(/[&<>"']/g, (character) => MARKUP[character] ?? '');

const colourOf = (/** @type {number} */ index) => COLOURS[index % COLOURS.length] ?? '';
const dashOf = (/** @type {number} */ index) => DASHES[Math.floor(index / COLOURS.length) % DASHES.length] ?? '';
const place = (/** @type {number} */ value) => value.toFixed(1);

/** Round steps that divide a span in about four. @param {number} span */
function stepOf(span) {
  const power = 10 ** Math.floor(Math.log10(span / 4));
  return power * ([1, 2, 5, 10].find((factor) => power * factor >= span / 4) ?? 10);
}

/**
 * A line of at most two points for each pixel, the least and the most in it; a new one behind each hole.
 * @param {number[]} times @param {(number | null | undefined)[]} values @param {(time: number) => number} x @param {(value: number) => number} y
 */
function pathOf(times, values, x, y) {
  let path = '';
  /** @type {{at: number, first: number, least: number, most: number, last: number} | null} */
  let column = null;
  let begins = true;
  const flush = () => {
    if (column) {
      const { at, first, least, most, last } = column;
      for (const [index, value] of (first === last && least === most ? [first] : [first, least, most, last]).entries()) {
        path += `${begins && index === 0 ? 'M' : 'L'}${place(at)} ${place(y(value))}`;
      }
      begins = false;
      column = null;
    }
  };
  for (const [row, value] of values.entries()) {
    if (value === undefined) {
      continue; // another series' row
    }
    if (value === null) {
      flush();
      begins = true;
      continue;
    }
    const at = Math.round(x(times[row] ?? 0));
    if (column && column.at === at) {
      column.least = Math.min(column.least, value);
      column.most = Math.max(column.most, value);
      column.last = value;
    } else {
      flush();
      column = { at, first: value, least: value, most: value, last: value };
    }
  }
  flush();
  return path;
}

/** Where a time stands. @param {Range} range @param {number} left @returns {(time: number) => number} */
const placeOf = ([from, to], left) => (time) => left + (time - from) / (to - from) * (WIDTH - left - 8);

/** Lines through a picture at round times, and what they are. @param {Range} range @param {(time: number) => number} x @param {number} base */
function timesBelow([from, to], x, base) {
  const step = STEPS_S.find((one) => (to - from) / one <= FEWEST_TIMES + 2) ?? Math.ceil((to - from) / FEWEST_TIMES / 86400) * 86400;
  let out = '';
  let day = '';
  for (let time = Math.ceil(from / step) * step; time <= to; time += step) {
    const [date = '', clock = ''] = wallText(time).split(' ');
    const texts = [...(step < 86400 ? [clock.slice(0, step < 60 ? 8 : 5)] : []), ...(date === day ? [] : [date])];
    day = date;
    out += `<path d="M${place(x(time))} ${TOP}V${base}" class="grid"/>${texts.map((text, line) =>
      `<text x="${place(Math.min(x(time), WIDTH - 34))}" y="${base + 13 + line * 13}" class="mid">${text}</text>`).join('')}`;
  }
  return out;
}

/**
 * The line of time: a lane for each kind of mark.
 * @param {import('./marks.js').Mark[]} marks @param {Range} range
 * @returns {string} "" without any
 */
export function timelineFigure(marks, range) {
  const [from, to] = range;
  const shown = marks.filter(({ time, until }) => (until ?? time) >= from && time <= to);
  const kinds = KINDS.filter((kind) => shown.some((mark) => mark.kind === kind));
  if (kinds.length === 0 || to <= from) {
    return '';
  }
  const x = placeOf(range, KIND_LEFT);
  const base = TOP + kinds.length * LANE;
  let out = timesBelow(range, x, base);
  for (const [lane, kind] of kinds.entries()) {
    const top = TOP + lane * LANE;
    const own = shown.filter((mark) => mark.kind === kind);
    out += `<text x="${KIND_LEFT - 8}" y="${top + 15}" class="end">${KIND_TITLES[kind]} ${own.length.toLocaleString('en')}</text>`;
    let drawn = -Infinity; // of thousands each pixel once
    for (const { time, until } of own) {
      const [begin, end] = [x(Math.max(time, from)), x(Math.min(until ?? time, to))];
      if (end >= drawn + 1) {
        out += `<rect x="${place(begin - 1)}" y="${top + 4}" width="${place(Math.max(3, end - begin))}" height="${LANE - 8}" fill="${KIND_COLOURS[kind]}"/>`;
        drawn = end;
      }
    }
  }
  return `<figure><svg viewBox="0 0 ${WIDTH} ${base + BOTTOM}" role="img" aria-label="What happened, ${wallText(from)} to ${wallText(to)}">${out}</svg></figure>`;
}

/**
 * @param {object} chart
 * @param {string} chart.title
 * @param {Series[]} chart.series
 * @param {Range} chart.range in sight
 * @param {Range} [chart.matters] the span that is pointed out
 * @param {{time: number, until?: number, text: string}[]} [chart.marks]
 * @param {{value: number, text: string}} [chart.limit] of a finding, for a chart of lines
 * @returns {string} a figure with the picture and its legend; "" where nothing is in sight
 */
export function chartFigure({ title, series, range, matters, marks = [], limit }) {
  const [from, to] = range;
  const cut = series.map((one) => {
    const [first, end] = [firstFrom(one.times, from), firstFrom(one.times, to + 1e-6)];
    return { ...one, times: one.times.slice(first, end), values: one.values.slice(first, end) };
  }).filter(({ values }) => values.some((value) => value !== null));
  const states = cut.filter(({ categories }) => categories);
  const lines = cut.filter(({ categories }) => !categories);
  if (cut.length === 0 || to <= from) {
    return '';
  }
  const bandsHeight = states.length * LANE;
  const plotHeight = lines.length > 0 ? HEIGHT - TOP - BOTTOM : 0;
  const base = TOP + plotHeight;
  const height = base + bandsHeight + BOTTOM;
  const x = placeOf(range, LEFT);
  let out = '';
  const box = (/** @type {number} */ begin, /** @type {number} */ end, /** @type {string} */ fill) =>
    `<rect x="${place(x(Math.max(begin, from)))}" y="${TOP}" width="${place(Math.max(1, x(Math.min(end, to)) - x(Math.max(begin, from))))}" height="${place(base - TOP + bandsHeight)}" fill="${fill}"/>`;
  if (matters && matters[1] > from && matters[0] < to && matters[1] - matters[0] < (to - from) * MOST_POINTED) {
    out += box(...matters, '#fff1cc');
  }
  for (const { time, until } of marks.filter((mark) => (mark.until ?? mark.time) >= from && mark.time <= to)) {
    out += box(time, until ?? time, until === undefined ? '#b3261e' : '#eceff2');
  }

  out += timesBelow(range, x, base + bandsHeight);
  if (lines.length > 0) {
    const [times, ...columns] = aligned(lines);
    let [least, most] = [Infinity, -Infinity];
    for (const column of columns) {
      for (const value of column) {
        if (value !== null && value !== undefined) {
          [least, most] = [Math.min(least, value), Math.max(most, value)];
        }
      }
    }
    if (limit) {
      [least, most] = [Math.min(least, limit.value), Math.max(most, limit.value)];
    }
    least = least >= 0 && least < most * 0.6 ? Math.min(0, least) : least;
    if (least === most) {
      [least, most] = [least - Math.max(1, Math.abs(least) * 0.1), most + Math.max(1, Math.abs(most) * 0.1)];
    }
    const unit = lines[0]?.unit ?? '';
    const { text, size } = scaleOf(unit, Math.max(Math.abs(least), Math.abs(most)));
    const tick = stepOf((most - least) / size) * size;
    const [bottom, top] = [Math.floor(least / tick + 1e-9) * tick, Math.ceil(most / tick - 1e-9) * tick];
    const y = (/** @type {number} */ value) => base - (value - bottom) / (top - bottom) * (base - TOP);
    const digits = Math.min(6, Math.max(0, Math.ceil(-Math.log10(tick / size) - 1e-9)));
    for (let value = bottom; value <= top + tick / 2; value += tick) {
      out += `<path d="M${LEFT} ${place(y(value))}H${WIDTH - 8}" class="grid"/><text x="${LEFT - 6}" y="${place(y(value) + 4)}" class="end">${
        (value / size).toLocaleString('en', { minimumFractionDigits: digits, maximumFractionDigits: digits })}</text>`;
    }
    out += `<text x="${LEFT - 6}" y="10" class="end">${markup(text)}</text>`;
    if (limit) {
      out += `<path d="M${LEFT} ${place(y(limit.value))}H${WIDTH - 8}" stroke="#b3261e" stroke-dasharray="5 3" fill="none"/>`
        + `<text x="${WIDTH - 10}" y="${place(y(limit.value) - 3)}" class="end">limit: ${markup(limit.text)}</text>`;
    }
    for (const [index, column] of columns.entries()) {
      const dash = dashOf(index);
      out += `<path d="${pathOf(times, column, x, y)}" fill="none" stroke="${colourOf(index)}" stroke-width="1.4"${dash ? ` stroke-dasharray="${dash}"` : ''}/>`;
    }
  }

  for (const [lane, { name, times, values, categories }] of states.entries()) {
    const top = base + lane * LANE;
    for (let row = 0; row < times.length;) {
      const value = values[row] ?? null;
      let end = row;
      while (end < times.length && (values[end] ?? null) === value) {
        end++;
      }
      const [begin = 0, until = begin] = [times[row], times[Math.min(end, times.length - 1)]];
      const state = value === null ? '' : categories?.[value] ?? '';
      const tone = toneOf(state);
      if (value !== null) {
        out += `<rect x="${place(x(begin))}" y="${top + 3}" width="${place(Math.max(1, x(until) - x(begin)))}" height="${LANE - 6}" fill="${
          tone ? TONES[tone] : STATES[value % STATES.length]}"><title>${markup(`${name}: ${state}`)}</title></rect>`;
        if (x(until) - x(begin) > state.length * 7 + 8) {
          out += `<text x="${place(x(begin) + 4)}" y="${top + 15}">${markup(state)}</text>`;
        }
      }
      row = end;
    }
    out += `<text x="${LEFT - 6}" y="${top + 15}" class="end">${markup(name.length > 8 ? `${name.slice(0, 7)}…` : name)}</text>`;
  }

  const legend = lines.map((one, index) => {
    const sum = summaryOf(one, from, to);
    return `<tr><th scope="row"><span class="swatch" style="border-top:3px ${dashOf(index) ? 'dashed' : 'solid'} ${colourOf(index)}"></span> ${markup(one.name)}</th>${
      (sum ? [sum.last, sum.min, sum.average, sum.max] : []).map((value) => `<td>${markup(valueText(value, one.unit))}</td>`).join('')}</tr>`;
  });
  const words = `${title}, ${wallText(from)} to ${wallText(to)}`;
  return `<figure><figcaption>${markup(title)}</figcaption><svg viewBox="0 0 ${WIDTH} ${height}" role="img" aria-label="${markup(words)}">${out}</svg>${
    legend.length === 0 ? '' : `<table class="legend"><thead><tr><th scope="col">Series</th>${['Last', 'Least', 'Average', 'Most'].map((head) =>
      `<th scope="col">${head}</th>`).join('')}</tr></thead><tbody>${legend.join('')}</tbody></table>`}${
    states.length === 0 ? '' : `<p class="quiet">${states.map(({ name }) => markup(name)).join(', ')}</p>`}</figure>`;
}
