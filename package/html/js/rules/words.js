// How the rules of the findings say what they found. Pure.

import { median } from '../robust.js';
import { wallText } from '../series.js';
import { duration } from '../session_data.js';
import { numberText } from '../units.js';

export const MINUTE = 60;
export const HOUR = 3600;
export const DAY = 86400;
export const MB = 1e6;

/** "3 days 2 h", "5 min", "40 s". @param {number} seconds */
export const lasting = (seconds) => (seconds < 90 ? `${Math.round(seconds)} s`
  : duration(seconds < 2 * DAY ? Math.round(seconds / MINUTE) : Math.round(seconds / HOUR) * 60));
/** "2026-11-21 08:46". @param {number} time */
export const at = (time) => wallText(time).slice(0, 16);
/** "2 times" @param {number} count */
export const times = (count) => (count === 1 ? 'once' : count === 2 ? 'twice' : `${numberText(count)} times`);
/** @param {number} part */
export const percent = (part) => `${numberText(Math.round(part * 1000) / 10)}%`;

/** The most of many, more than a call could take. @param {number[]} values */
export const mostOf = (values) => values.reduce((a, b) => Math.max(a, b), -Infinity);

/** @param {{from: number, to: number}[]} spans */
export const lengthOf = (spans) => spans.reduce((sum, { from, to }) => sum + to - from, 0);

/** How often something happened, by the usual time between. @param {number[]} moments ascending */
export function often(moments) {
  const [first = 0, last = 0] = [moments[0], moments.at(-1)];
  const gaps = moments.slice(1).map((time, index) => time - (moments[index] ?? 0));
  return moments.length === 1 ? `once, at ${at(first)}`
    : `${times(moments.length)} between ${at(first)} and ${at(last)}${moments.length > 2 ? `, mostly ${lasting(median(gaps))} apart` : ''}`;
}

/** @template Item @param {Item[]} items @param {(item: Item) => string} keyOf @returns {Map<string, Item[]>} */
export function groupedBy(items, keyOf) {
  /** @type {Map<string, Item[]>} */
  const groups = new Map();
  for (const item of items) {
    const group = groups.get(keyOf(item));
    if (group) {
      group.push(item);
    } else {
      groups.set(keyOf(item), [item]);
    }
  }
  return groups;
}

/**
 * What is found in each of many things; the page goes on between them.
 * @template Item, Found
 * @param {Item[]} items @param {() => Promise<void>} breathe @param {(item: Item) => Found[]} find
 */
export async function foundInEach(items, breathe, find) {
  /** @type {Found[]} */
  const found = [];
  for (const item of items) {
    await breathe();
    found.push(...find(item));
  }
  return found;
}
