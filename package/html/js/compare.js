// What differs between two recordings, or two spans of one. Figures that single odd values don't change:
// the median, the 95th percentile, and in how many of all pairs of a row here and a row there the second
// one is higher. Pure.

import { firstFrom } from './series.js';
import { valueText } from './units.js';

const FEWEST_ROWS = 5; // of each side, to be compared
const LEAST_SCORE = 0.1; // below it two are about the same
const LEAST_CLEAR = 0.3;
const HIGH = 0.95;
const DETAIL_WEIGHT = 0.3;
// What differs in each recording, and is no difference of the cameras.
const OF_EACH = /^(?:Start|Stop) Time of the session$|^(?:Duration|Collected Data Points|(?:Session )?Size)/i;

/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./catalogue.js').Chart} Chart */
/** @typedef {[number, number]} Range */

/**
 * One quantity on both sides.
 * @typedef {object} Quantity
 * @property {Chart} chart
 * @property {string} name of the series
 * @property {string} a what it was, as text
 * @property {string} b
 * @property {string} change
 * @property {string} clear how clear it is
 * @property {number} score from 0 for the same to 1
 * @property {boolean} differs
 */

/** The known values of a span, ascending. @param {Series} series @param {Range} range */
function sortedValues({ times, values }, [from, to]) {
  return Float64Array.from(values.slice(firstFrom(times, from), firstFrom(times, to + 1e-6)).filter((value) => value !== null)).sort();
}
/** @param {Float64Array} sorted @param {number} part */
const quantile = (sorted, part) => sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * part))] ?? NaN;

/** In which share of all pairs the second is higher; equal ones count half. @param {Float64Array} a @param {Float64Array} b ascending */
export function higherShare(a, b) {
  let [below, same, sum] = [0, 0, 0];
  for (const value of b) {
    while (below < a.length && /** @type {number} */ (a[below]) < value) {
      below++;
    }
    same = Math.max(same, below);
    while (same < a.length && /** @type {number} */ (a[same]) <= value) {
      same++;
    }
    sum += below + (same - below) / 2;
  }
  return sum / (a.length * b.length);
}

/** How far apart two values are: 0 for equal ones, 1 where one of them is nothing. @param {number} a @param {number} b */
const apart = (a, b) => (a === b ? 0 : Math.min(1, Math.abs(b - a) / Math.max(Math.abs(a), Math.abs(b))));

/** "+12%", "3.1 times", "+4 °C". @param {number} a @param {number} b @param {string} unit */
function changeText(a, b, unit) {
  const difference = `${b >= a ? '+' : '−'}${valueText(Math.abs(b - a), unit)}`;
  if (unit === '°C' || unit === '%' || a < 0 || b < 0) {
    return difference;
  }
  const ratio = b / a;
  return a === 0 ? 'from none' : b === 0 ? 'to none' : ratio >= 2 ? `${ratio >= 100 ? Math.round(ratio).toLocaleString('en') : ratio.toPrecision(2)} times`
    : `${ratio >= 1 ? '+' : '−'}${Math.round(Math.abs(ratio - 1) * 100)}%`;
}

/** @param {Series} a @param {Series} b @param {Range} rangeA @param {Range} rangeB @returns {Omit<Quantity, 'chart' | 'name'> | null} */
function numbersOf(a, b, rangeA, rangeB) {
  const [left, right] = [sortedValues(a, rangeA), sortedValues(b, rangeB)];
  if (left.length < FEWEST_ROWS || right.length < FEWEST_ROWS) {
    return null;
  }
  const unit = b.unit ?? '';
  const [median, high] = [0.5, HIGH].map((part) => [quantile(left, part), quantile(right, part)]);
  const [a50 = 0, b50 = 0] = median ?? [];
  const [a95 = 0, b95 = 0] = high ?? [];
  const share = higherShare(left, right);
  const clear = Math.abs(2 * share - 1);
  const usual = clear * apart(a50, b50);
  const peaks = Math.max(0.5, clear) * apart(a95, b95) / 2;
  const text = (/** @type {number} */ mid, /** @type {number} */ most) => `${valueText(mid, unit)} (${valueText(most, unit)})`;
  const isUsual = usual >= peaks;
  return {
    a: text(a50, a95), b: text(b50, b95),
    change: isUsual ? changeText(a50, b50, unit) : `highest: ${changeText(a95, b95, unit)}`,
    clear: `${share >= 0.5 ? 'B' : 'A'} higher in ${Math.round(100 * Math.max(share, 1 - share))}% of pairs`,
    score: Math.max(usual, peaks), differs: (usual >= LEAST_SCORE && clear >= LEAST_CLEAR) || peaks >= 2 * LEAST_SCORE,
  };
}

/** The share of the rows of each state. @param {Series} series @param {Range} range */
function sharesOf({ times, values, categories }, [from, to]) {
  /** @type {Map<string, number>} */
  const counts = new Map();
  const rows = values.slice(firstFrom(times, from), firstFrom(times, to + 1e-6)).filter((value) => value !== null);
  for (const value of rows) {
    const state = categories?.[value] ?? '';
    counts.set(state, (counts.get(state) ?? 0) + 1 / rows.length);
  }
  return new Map([...counts].sort(([, a], [, b]) => b - a));
}

/** @param {Series} a @param {Series} b @param {Range} rangeA @param {Range} rangeB @returns {Omit<Quantity, 'chart' | 'name'> | null} */
function statesOf(a, b, rangeA, rangeB) {
  const [left, right] = [sharesOf(a, rangeA), sharesOf(b, rangeB)];
  if (left.size === 0 || right.size === 0) {
    return null;
  }
  const text = (/** @type {Map<string, number>} */ shares) => [...shares].slice(0, 3)
    .map(([state, share]) => `${state} ${share > 0.995 ? '' : `${Math.max(1, Math.round(share * 100))}%`}`.trim()).join(', ');
  const changes = [...new Set([...left.keys(), ...right.keys()])].map((state) => ({ state, by: (right.get(state) ?? 0) - (left.get(state) ?? 0) }))
    .sort((x, y) => Math.abs(y.by) - Math.abs(x.by));
  const score = changes.reduce((sum, { by }) => sum + Math.abs(by) / 2, 0);
  const [most] = changes;
  return {
    a: text(left), b: text(right), change: most ? `${most.state} ${most.by < 0 ? '−' : '+'}${Math.round(Math.abs(most.by) * 100)}%` : '',
    clear: `differs ${Math.round(score * 100)}% of the time`, score, differs: score >= LEAST_SCORE,
  };
}

/**
 * Every quantity of both sides, the greatest differences first, those of charts on no dashboard behind, and what only one side has recorded.
 * @param {{chart: Chart, a: Series[], b: Series[]}[]} read @param {Range} rangeA @param {Range} rangeB
 * @param {() => Promise<void>} [breathe] between two quantities
 */
export async function comparedQuantities(read, rangeA, rangeB, breathe) {
  /** @type {Quantity[]} */
  const quantities = [];
  /** @type {{a: string[], b: string[]}} */
  const only = { a: [], b: [] };
  for (const { chart, a, b } of read) {
    for (const name of new Set([...a, ...b].map((series) => series.name))) {
      await breathe?.();
      const [left, right] = [a, b].map((side) => side.find((series) => series.name === name));
      const title = `${chart.title}: ${name}`;
      const found = left && right && Boolean(left.categories) === Boolean(right.categories)
        ? (left.categories ? statesOf : numbersOf)(left, right, rangeA, rangeB) : null;
      const has = (/** @type {Series | undefined} */ one, /** @type {Range} */ range) => one && sharesOf(one, range).size > 0;
      if (found) {
        quantities.push({ chart, name, ...found });
      } else if (has(left, rangeA) && !has(right, rangeB)) {
        only.a.push(title);
      } else if (has(right, rangeB) && !has(left, rangeA)) {
        only.b.push(title);
      }
    }
  }
  const weight = (/** @type {Quantity} */ { chart, score }) => (chart.rank > 0 ? score : score * DETAIL_WEIGHT);
  quantities.sort((x, y) => Number(y.differs) - Number(x.differs) || weight(y) - weight(x));
  return { quantities, only };
}

/**
 * What of the information differs.
 * @param {[string, string][]} a @param {[string, string][]} b
 * @returns {[string, string, string][]} name and both values
 */
export function comparedFacts(a, b) {
  const [left, right] = [new Map(a), new Map(b)];
  return [...new Set([...left.keys(), ...right.keys()])].filter((name) => !OF_EACH.test(name) && left.get(name) !== right.get(name))
    .map((name) => [name, left.get(name) ?? '', right.get(name) ?? '']);
}

/**
 * The findings of each side that the other does not have, whatever their figures.
 * @template {{rule: string, text: string}} Some
 * @param {Some[]} a @param {Some[]} b
 */
export function comparedFindings(a, b) {
  const keyOf = (/** @type {Some} */ { rule, text }) => `${rule} ${text.split(/\d/)[0]}`;
  const [left, right] = [a, b].map((side) => new Set(side.map(keyOf)));
  return { a: a.filter((finding) => !right?.has(keyOf(finding))), b: b.filter((finding) => !left?.has(keyOf(finding))) };
}

/**
 * Spans of one recording that are worth comparing.
 * @param {Range} whole @param {Range | null} sight what is in sight of it
 * @param {import('./marks.js').Mark[]} marks
 * @returns {{title: string, time?: number, a: Range, b: Range}[]} `time` of what stands between the two
 */
export function spansToCompare([from, to], sight, marks) {
  const middle = (from + to) / 2;
  const length = sight ? Math.min(sight[1] - sight[0], sight[0] - from) : 0;
  const restarts = marks.filter(({ kind, time }) => kind === 'reboot' && time > from && time < to).map(({ time }) => time);
  return [
    ...(sight && length > 0 ? [{ title: 'What is in sight and the time before it', a: /** @type {Range} */ ([sight[0] - length, sight[0]]), b: sight }] : []),
    ...restarts.slice(-5).reverse().map((time) => {
      const index = restarts.indexOf(time);
      return { title: 'Before and after the restart of', time, a: /** @type {Range} */ ([restarts[index - 1] ?? from, time]), b: /** @type {Range} */ ([time, restarts[index + 1] ?? to]) };
    }),
    { title: 'First half and second half', a: [from, middle], b: [middle, to] },
  ];
}

/** A series as time since a start, under another name. @param {Series} series @param {Range} range @param {string} name @returns {Series} */
export function sinceStart({ times, values, ...series }, [from, to], name) {
  const [first, end] = [firstFrom(times, from), firstFrom(times, to + 1e-6)];
  return { ...series, name, times: times.slice(first, end).map((time) => time - from), values: values.slice(first, end) };
}
