// What charts have in common: the time in sight, the cursor, the marks. What is zoomed, panned or
// pointed at in one is so in all of its group.

import { GRAVE, KINDS } from './marks.js';
import { CLOCK_IS_SET } from './series.js';

const SHORTEST_RANGE_S = 10;
const MARK_MARGIN_S = 600;
const MARK_REACH = 0.005; // of what is in sight

/** @typedef {import('./marks.js').Mark} Mark */
/** @typedef {import('./marks.js').Kind} Kind */
/** @typedef {[number, number]} Range */

/**
 * What a group knows of a chart.
 * @typedef {object} Member
 * @property {(from: number) => Range | null} extent of its rows from that time on; null without any
 * @property {(range: Range) => void} setRange
 * @property {(time: number | null) => void} setCursor
 * @property {() => void} redraw
 */

/**
 * @param {object} listeners
 * @param {(time: number) => void} [listeners.pointed] at a time
 * @param {(marks: Mark[]) => void} [listeners.opened] marks that were clicked on
 */
export function createChartGroup({ pointed, opened } = {}) {
  /** @type {Set<Member>} */
  const members = new Set();
  /** @type {Set<(range: Range, wanted: Range | null) => void>} */
  const listeners = new Set();
  /** @type {Mark[]} */
  let marks = [];
  /** @type {Set<Kind>} */
  const hidden = new Set();
  /** From which values on findings counted, by the chart. @type {Map<string, import('./findings.js').Limit[]>} */
  const limits = new Map();
  /** @type {Range | null} in sight; null for all */
  let range = null;
  let frame = 0;
  const controller = new AbortController();

  /** From a time on. @returns {Range} */
  function whole(since = -Infinity) {
    const extents = [...members].flatMap((member) => member.extent(since) ?? []);
    const [first, last] = [Math.min(...extents), Math.max(...extents)];
    // What happened just before the first row and after the last is in sight too.
    const near = marks.map(({ time }) => time).filter((time) => time > first - MARK_MARGIN_S && time < last + MARK_MARGIN_S);
    const [from, to] = [Math.min(first, ...near.slice(0, 1)), Math.max(last, ...near.slice(-1))];
    return extents.length === 0 ? [0, 1] : from === to ? [from - 60, to + 60] : [from, to];
  }
  /** All but the minutes before the clock was set: there are decades of nothing between. */
  function usual() {
    const all = whole();
    return all[0] < CLOCK_IS_SET && all[1] >= CLOCK_IS_SET ? whole(CLOCK_IS_SET) : all;
  }
  const inSight = () => range ?? usual();

  function apply() {
    cancelAnimationFrame(frame);
    frame = 0;
    const now = inSight();
    for (const member of members) {
      member.setRange(now);
    }
    listeners.forEach((listener) => listener(now, range));
  }
  /** As many charts come at once, they are told once. */
  function applySoon() {
    frame ||= requestAnimationFrame(apply);
  }

  /** @param {Range | null} wanted */
  function setRange(wanted) {
    const [first, last] = whole();
    if (wanted) {
      const width = Math.min(Math.max(wanted[1] - wanted[0], SHORTEST_RANGE_S), last - first);
      const from = Math.min(Math.max(wanted[0], first), last - width);
      range = width >= last - first && usual()[0] === first ? null : [from, from + width];
    } else {
      range = null;
    }
    apply();
  }

  function redraw() {
    for (const member of members) {
      member.redraw();
    }
  }
  window.matchMedia('(prefers-color-scheme: dark)').addEventListener('change', redraw, { signal: controller.signal });

  const shownMarks = () => marks.filter(({ kind }) => !hidden.has(kind));
  return {
    setRange,
    inSight,
    whole,
    /** Null while all is in sight. */
    range: () => range,
    /** What a link says, before there are rows to hold it against. @param {Range | null} wanted */
    startAt(wanted) {
      range = wanted;
      applySoon();
    },
    /** @param {number} factor below 1 to see less @param {number} [centre] */
    zoom(factor, centre) {
      const [from, to] = inSight();
      const middle = centre ?? (from + to) / 2;
      setRange([middle - (middle - from) * factor, middle + (to - middle) * factor]);
    },
    /** @param {number} part of what is in sight */
    pan(part) {
      const [from, to] = inSight();
      setRange([from + (to - from) * part, to + (to - from) * part]);
    },
    /** Shows the cursor at a time, which is brought into sight. @param {number} time */
    point(time) {
      const [from, to] = inSight();
      if (time < from || time > to) {
        const half = (to - from) / 2;
        setRange([time - half, time + half]);
      }
      for (const member of members) {
        member.setCursor(time);
      }
    },
    /** Tells that the user points at a time. @param {number} time */
    tell(time) {
      pointed?.(time);
    },
    /** @param {Mark[]} some */
    open(some) {
      opened?.(some);
    },
    /** @param {number} time */
    marksAt(time) {
      const [from, to] = inSight();
      const reach = (to - from) * MARK_REACH;
      return shownMarks().filter(({ time: at, until }) => Math.abs(at - time) <= reach
        || (until !== undefined && at < time && time < until))
        .sort((a, b) => KINDS.indexOf(a.kind) - KINDS.indexOf(b.kind));
    },
    /** Those that are shown, in the order of their times. */
    marks: shownMarks,
    isHidden: (/** @type {Kind} */ kind) => hidden.has(kind),
    /** @param {Kind} kind @param {boolean} shown */
    showKind(kind, shown) {
      hidden[shown ? 'delete' : 'add'](kind);
      redraw();
      listeners.forEach((listener) => listener(inSight(), range));
    },
    /** @param {Mark[]} next in the order of their times */
    setMarks(next) {
      marks = next;
      applySoon();
      redraw();
    },
    /** @param {string} chart its id */
    limitsOf: (chart) => limits.get(chart) ?? [],
    /** @param {import('./findings.js').Finding[]} findings whose limits are drawn */
    setLimits(findings) {
      limits.clear();
      for (const { chart, limit } of findings) {
        const own = limits.get(chart) ?? [];
        if (limit && own.every(({ text }) => text !== limit.text)) {
          limits.set(chart, [...own, limit]);
        }
      }
      redraw();
    },
    /** @param {(range: Range, wanted: Range | null) => void} listener */
    onRange(listener) {
      listeners.add(listener);
      return () => listeners.delete(listener);
    },
    /** @param {Member} member */
    add(member) {
      members.add(member);
      applySoon();
    },
    /** @param {Member} member */
    remove(member) {
      members.delete(member);
      const [first, last] = whole();
      if (members.size > 0 && range && (range[0] >= last || range[1] <= first)) {
        range = null; // without it there would be nothing in sight
      }
      applySoon();
    },
    close() {
      cancelAnimationFrame(frame);
      controller.abort();
      listeners.clear();
      members.clear();
    },
  };
}

/** @param {Kind} kind */
export const isGrave = (kind) => GRAVE.includes(kind);
/** The page's colour for a kind of mark. @param {Kind} kind */
export const colourOfKind = (kind) => ({
  crash: '--bad', reboot: '--reboot', storage: '--storage', gap: '--storage', session: '--accent', host: '--doubtful',
  trigger: '--trigger', report: '--quiet',
})[kind];
