// Figures about series that single odd values do not change. Pure.

import { firstFrom } from './series.js';

/** @typedef {import('./series.js').Series} Series */
/** @typedef {{time: number, value: number}} Point */

const NEIGHBOURS = 2; // on each side, in what is smoothed
const MOST_POINTS = 300; // of which all pairs are looked at

/** @param {number[]} values @returns {number} NaN of none */
export function median(values) {
  const sorted = Float64Array.from(values).sort();
  const middle = sorted.length >> 1;
  return sorted.length === 0 ? NaN : sorted.length % 2 ? sorted[middle] ?? NaN : ((sorted[middle - 1] ?? NaN) + (sorted[middle] ?? NaN)) / 2;
}

/** The value below which a part of all lies. @param {number[]} values @param {number} part @returns {number} NaN of none */
export function quantile(values, part) {
  const sorted = Float64Array.from(values).sort();
  return sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * part))] ?? NaN;
}

/** Each value as the median of itself and its neighbours: of noisy samples what lasts. @template {Series} Some @param {Some} series @returns {Some} */
export function smoothed(series) {
  const { values } = series;
  /** @type {number[]} */
  const near = [];
  return { ...series, values: values.map((value, row) => {
    near.length = 0;
    for (let at = Math.max(0, row - NEIGHBOURS); value !== null && at <= row + NEIGHBOURS && at < values.length; at++) {
      const one = values[at] ?? null;
      let place = near.length;
      for (; one !== null && place > 0 && /** @type {number} */ (near[place - 1]) > one; place--) {
        near[place] = /** @type {number} */ (near[place - 1]);
      }
      if (one !== null) {
        near[place] = one;
      }
    }
    return value === null ? null : near[near.length >> 1] ?? null;
  }) };
}

/**
 * The median of each stretch of time that has rows.
 * @param {Series} series of numbers
 * @param {number} [width] seconds; longer where there would be too many
 * @returns {Point[]}
 */
export function medians({ times, values }, width = 3600) {
  const [first = 0, last = 0] = [times[0], times.at(-1)];
  const step = Math.max(width, (last - first) / MOST_POINTS);
  /** @type {Point[]} */
  const points = [];
  for (let row = 0; row < times.length;) {
    const begin = first + Math.floor(((times[row] ?? 0) - first) / step) * step;
    const end = Math.max(row + 1, firstFrom(times, begin + step));
    const value = median(values.slice(row, end).filter((one) => one !== null));
    if (!Number.isNaN(value)) {
      points.push({ time: Math.min(begin + step / 2, last), value });
    }
    row = end;
  }
  return points;
}

/**
 * How points rise: the median of the slopes of all pairs of them, and which share of the pairs rises.
 * @param {Point[]} points
 * @returns {{slope: number, rising: number}} per second
 */
export function trend(points) {
  const slopes = [];
  let rising = 0;
  for (const [index, b] of points.entries()) {
    for (let other = 0; other < index; other++) {
      const a = /** @type {Point} */ (points[other]);
      slopes.push((b.value - a.value) / (b.time - a.time));
      rising += Number(b.value > a.value);
    }
  }
  const sorted = Float64Array.from(slopes).sort();
  return { slope: sorted[sorted.length >> 1] ?? 0, rising: slopes.length === 0 ? 0 : rising / slopes.length };
}

/**
 * The stretches of rows for which something holds, without a break but for rows without a value.
 * @param {Series} series
 * @param {(value: number) => boolean} holds
 * @returns {{from: number, to: number, rows: number, most: number}[]} from the first such row to the row that
 *     ended it, or the last one of all
 */
export function stretches({ times, values }, holds) {
  /** @type {{from: number, to: number, rows: number, most: number}[]} */
  const found = [];
  /** @type {{from: number, to: number, rows: number, most: number} | null} */
  let open = null;
  for (const [row, value] of values.entries()) {
    const time = /** @type {number} */ (times[row]);
    if (value === null) {
      continue;
    }
    if (open) {
      open.to = time;
    }
    if (!holds(value)) {
      open = null;
    } else if (open) {
      open.rows++;
      open.most = Math.max(open.most, value);
    } else {
      open = { from: time, to: time, rows: 1, most: value };
      found.push(open);
    }
  }
  return found;
}
