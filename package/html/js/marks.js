// What happened during a session, out of the names of its files and the lines of its log. Pure.

import { wallSeconds, wallText } from './series.js';
import { severityOf, SEVERITIES } from './views/log_lines.js';

const SAME = 10; // more of one kind and text stand in one row of a list
const LOG_STEP_S = 600;
const LEAST_IMAGE_HOLE_S = 120;
// A restart or a storage's return is logged within so much of the end of what was not recorded.
const CAUSE_S = 600;

/**
 * @typedef {object} Mark
 * @property {number} time as on the camera's clock
 * @property {number} [until] where it lasted
 * @property {Kind} kind
 * @property {string} text
 * @property {string} [path] of the file that tells more
 * @property {'camera' | 'storage'} [cause] of what was not recorded
 */

/** @typedef {'crash' | 'reboot' | 'storage' | 'gap' | 'session' | 'host' | 'trigger' | 'report'} Kind */

/** The kinds, the gravest first. @type {Record<Kind, string>} */
export const KIND_TITLES = {
  crash: 'Crash', reboot: 'Restart', storage: 'Storage', gap: 'Not recorded', session: 'Session', host: 'Device test',
  trigger: 'Trigger', report: 'Report',
};
export const KINDS = /** @type {Kind[]} */ (Object.keys(KIND_TITLES));
/** The kinds that are rare and explain much: a line through each chart. @type {Kind[]} */
export const GRAVE = ['crash', 'reboot', 'storage', 'gap', 'session'];

/** @type {[RegExp, Mark['kind'], (read: RegExpExecArray) => string][]} */
const LOG_LINES = [
  [/Continuing System Monitoring Session\. Device was rebooted/, 'reboot', () => 'The camera was restarted or lost power'],
  [/Connection to edge storage location re-established, connection was lost since (.*?)\. /, 'storage',
    ([, since]) => `The storage was back after ${since}`],
  [/Advanced Debug Mode: Found log message\.$/, 'trigger', () => 'A log message asked for a crash report'],
  [/Advanced Debug Mode: Crash Report generation interval reached/, 'trigger', () => 'A scheduled crash report was due'],
  [/Lost connection to edge storage location, no data can be saved/, 'storage', () => 'The storage was lost'],
  [/Secondary storage is running out of free space/, 'storage', () => 'The storage was full: the session was ended'],
  [/Monitoring session stopped\./, 'session', () => 'The session was stopped'],
];
const LOG_TIME = /^(\d{4}-\d\d-\d\d)T(\d\d:\d\d:\d\d)\S*?([-+]\d\d):?(\d\d) /;

/** What the clock on the camera's wall was ahead of UTC, by a line of its log; null without one. @param {string} line */
export function zoneOf(line) {
  const [, , , hours, minutes] = LOG_TIME.exec(line) ?? [];
  return hours === undefined ? null : Number(hours) * 3600 + Math.sign(Number(`${hours}1`)) * Number(minutes) * 60;
}

/** @param {string} line @returns {Mark[]} */
export function markOfLine(line) {
  if (!line.includes(' Vandrel[')) {
    return [];
  }
  const stamp = LOG_TIME.exec(line);
  for (const [pattern, kind, told] of stamp ? LOG_LINES : []) {
    const read = pattern.exec(line);
    if (read && / Vandrel\[\d+\]: /.test(line)) {
      return [{ time: wallSeconds(stamp?.[1] ?? '', stamp?.[2] ?? ''), kind, text: told(read) }];
    }
  }
  return [];
}

/**
 * The names of the log triggers, as the daemon's log tells them: it numbers them as it makes them, anew
 * after each of its starts.
 * @param {string[]} lines of the log
 * @returns {(number: number, time: number) => string} "" where the log does not tell
 */
export function triggerNames(lines) {
  /** @type {{time: number, names: string[]}[]} */
  const states = [];
  let process = '';
  /** @type {string[]} */
  let names = [];
  /** @type {Set<string>} */
  let present = new Set();
  for (const line of lines) {
    if (!/systemlog trigger rule|System log trigger named/.test(line)) {
      continue;
    }
    const [, day = '', clock = '', pid = '', made, subscribed, gone] = TRIGGER_LINE.exec(line) ?? [];
    if (pid === '') {
      continue;
    }
    if (pid !== process) {
      [process, names, present] = [pid, [], new Set()];
    }
    if (gone !== undefined) {
      present.delete(gone);
    } else if (subscribed !== undefined) {
      names = [...names, ''];
    } else if (made !== undefined && !present.has(made)) {
      present.add(made);
      names = [...names, made];
    }
    states.push({ time: wallSeconds(day, clock), names });
  }
  return (number, time) => states.filter((state) => state.time <= time + 1).at(-1)?.names[number] ?? '';
}
const TRIGGER_LINE = /^(\d{4}-\d\d-\d\d)T(\d\d:\d\d:\d\d).* Vandrel\[(\d+)\]: (?:Creating systemlog trigger rule(?:: (.*)|( with limit): .*)|System log trigger named: "(.*)" is removed\.)\r?$/;

/**
 * The daemon's own events among those that the device's event listener printed: "Timestamp: " with the
 * time in UTC, then the topics. Of the device test each change of a host counts, not each check.
 * @param {string[]} lines
 * @param {number} zone seconds that the camera's clock is ahead of UTC
 * @param {(number: number, time: number) => string} [nameOf] a trigger's name
 * @returns {Mark[]}
 */
export function marksOfEvents(lines, zone, nameOf = () => '') {
  let time = NaN;
  /** @type {Map<string, string>} */
  const hosts = new Map();
  return lines.flatMap(/** @returns {Mark[]} */ (line) => {
    if (line.startsWith('Timestamp: ')) {
      const [, day = '', clock = ''] = /^Timestamp: (\d{4}-\d\d-\d\d)T(\d\d:\d\d:\d\d)/.exec(line) ?? [];
      time = wallSeconds(day, clock) + zone;
      return [];
    }
    const name = line.includes("topic1 = 'Vandrel'") ? /topic2 = '([^']*)'/.exec(line)?.[1] ?? '' : '';
    const [, number] = /^systemlogs_(\d+)$/.exec(name) ?? [];
    if (number) {
      const title = nameOf(Number(number), time);
      return [{ time, kind: 'trigger', text: `Log trigger ${title ? `“${title}”` : number} found its message` }];
    }
    const [, not = '', address, port] = /^nfd_(not_)?ip(.+)p(-?\d+)$/.exec(name) ?? [];
    const host = `${address} ${port}`;
    if (!address || hosts.get(host) === not) {
      return [];
    }
    const isFirst = !hosts.has(host);
    hosts.set(host, not);
    return isFirst && not === '' ? [] : [{
      time, kind: 'host',
      text: `The device test ${not ? 'did not reach' : 'reached'} ${
        address.replace(/(?<=\d)o(?=\d)/g, '.')}${port === '-1' ? '' : `, port ${port}`}${isFirst || not ? '' : ' again'}`,
    }];
  });
}

/**
 * What was not recorded, with its cause as far as other marks tell it.
 * @param {[number, number][]} holes of a file that has a row in each collection
 * @param {Mark[]} marks
 * @returns {Mark[]}
 */
export function marksOfHoles(holes, marks) {
  return holes.map(([from, to]) => {
    const near = marks.filter(({ time, until }) => until === undefined && time > from - CAUSE_S && time < to + CAUSE_S);
    // The one within it or next to it; a restart also makes the storage come back.
    const away = (/** @type {Mark} */ { time }) => Math.max(0, from - time, time - to);
    const [cause] = near.filter(({ kind }) => kind === 'reboot' || kind === 'storage')
      .sort((a, b) => away(a) - away(b) || Number(b.kind === 'reboot') - Number(a.kind === 'reboot'));
    const why = cause?.kind === 'reboot' ? ': the camera was restarted or had no power'
      : cause ? ': the storage could not be used' : '';
    return {
      time: from, until: to, kind: 'gap', text: `Nothing was recorded until ${wallText(to)}${why}`,
      ...(cause ? { cause: cause.kind === 'reboot' ? 'camera' : 'storage' } : {}),
    };
  });
}

/**
 * How many lines of a log were errors and warnings in each ten minutes.
 * @param {string[]} lines
 * @returns {import('./series.js').Series[]}
 */
export function logSeries(lines) {
  /** @type {Map<number, [number, number]>} */
  const counts = new Map();
  let [first, last] = [Infinity, -Infinity];
  for (const line of lines) {
    const severity = severityOf(line);
    const time = severity < 0 ? NaN : lineTime(line);
    if (!Number.isNaN(time)) {
      const step = Math.floor(time / LOG_STEP_S) * LOG_STEP_S;
      [first, last] = [Math.min(first, step), Math.max(last, step)];
      if (severity <= SEVERITIES.indexOf('warning')) {
        const count = counts.get(step) ?? [0, 0];
        counts.set(step, count);
        count[severity <= SEVERITIES.indexOf('err') ? 0 : 1]++;
      }
    }
  }
  const length = last < first ? 0 : Math.min((last - first) / LOG_STEP_S + 1, MOST_STEPS);
  const times = Array.from({ length }, (_, index) => first + index * LOG_STEP_S);
  return ['errors', 'warnings'].map((name, at) => ({
    name, times, categories: null, values: times.map((time) => counts.get(time)?.[at] ?? 0),
  }));
}
const MOST_STEPS = 100000; // a log whose times are odd

/** The time of a line of the device's log; NaN without. @param {string} line */
export function lineTime(line) {
  return line[10] === 'T' ? wallSeconds(line.slice(0, 10), line.slice(11, 19)) : NaN;
}

/**
 * @param {string} path
 * @param {number} zone seconds that the camera's clock is ahead of UTC
 * @param {number} changed when the file was changed last, by the camera's clock; NaN when not known
 * @returns {Mark[]}
 */
export function markOfFile(path, zone, changed) {
  const name = path.slice(path.lastIndexOf('/') + 1);
  const core = /^coredumps\/core\.(.+?)\.\d+\..+\.(\d{9,11})$/.exec(path);
  if (core) {
    return [{ time: Number(core[2]) + zone, kind: 'crash', text: `${core[1]?.replaceAll('!', '/')} crashed`, path }];
  }
  if (/^coredumps\/.*\.elf\.lzo$/.test(path)) {
    return [{ time: changed, kind: 'crash', text: `Dump of the kernel: ${name}`, path }];
  }
  const report = /^(Server_Report|Debug)_(\d{4}-\d\d-\d\d)T(\d\d)(\d\d)(\d\d)/.exec(name);
  if (report) {
    const time = wallSeconds(report[2] ?? '', `${report[3]}:${report[4]}:${report[5]}`);
    const text = report[1] === 'Debug' ? 'Crash report' : 'Server report';
    return [{ time, kind: 'report', text, path }];
  }
  return [];
}

/**
 * In the order of their times, each once.
 * @param {Mark[]} marks
 */
export function sortedMarks(marks) {
  const once = new Map(marks.filter(({ time }) => Number.isFinite(time))
    .map((mark) => [`${mark.time} ${mark.kind} ${mark.text}`, mark]));
  return [...once.values()].sort((a, b) => a.time - b.time);
}

/**
 * Marks as rows of a list: many of one kind and text are one.
 * @param {Mark[]} marks in the order of their times
 * @returns {(Mark & {count: number, last: number})[]}
 */
export function folded(marks) {
  const keyOf = (/** @type {Mark} */ { kind, text }) => `${kind} ${text}`;
  /** @type {Map<string, number>} */
  const counts = new Map();
  for (const mark of marks) {
    counts.set(keyOf(mark), (counts.get(keyOf(mark)) ?? 0) + 1);
  }
  /** @type {Map<string, Mark & {count: number, last: number}>} */
  const one = new Map();
  return marks.flatMap((mark) => {
    const key = keyOf(mark);
    if ((counts.get(key) ?? 0) <= SAME) {
      return [{ ...mark, count: 1, last: mark.time }];
    }
    const known = one.get(key);
    if (known) {
      known.count++;
      known.last = mark.time;
      return [];
    }
    const fold = { ...mark, count: 1, last: mark.time };
    one.set(key, fold);
    return [fold];
  });
}

/**
 * Marks that stand so near that they would cover each other, as one; the gravest of them names it.
 * @param {Mark[]} marks in the order of their times
 * @param {number} near seconds
 * @returns {{time: number, until: number, kind: Kind, marks: Mark[]}[]}
 */
export function gathered(marks, near) {
  /** @type {{time: number, until: number, kind: Kind, marks: Mark[]}[]} */
  const groups = [];
  for (const mark of marks) {
    const group = groups.at(-1);
    if (group && mark.time - group.time < near) {
      group.marks.push(mark);
      group.until = Math.max(group.until, mark.until ?? mark.time);
      group.kind = KINDS.indexOf(mark.kind) < KINDS.indexOf(group.kind) ? mark.kind : group.kind;
    } else {
      groups.push({ time: mark.time, until: mark.until ?? mark.time, kind: mark.kind, marks: [mark] });
    }
  }
  return groups;
}

/** Spans that overlap as one. @param {[number, number][]} spans */
function joinedSpans(spans) {
  /** @type {[number, number][]} */
  const joined = [];
  for (const [from, to] of [...spans].sort(([a], [b]) => a - b)) {
    const before = joined.at(-1);
    if (before && from <= before[1]) {
      before[1] = Math.max(before[1], to);
    } else {
      joined.push([from, to]);
    }
  }
  return joined;
}

/**
 * What was there all the time, and when it was not: the camera, its storage, images.
 * @param {Mark[]} marks in the order of their times
 * @param {number[]} images their times, ascending
 * @param {[number, number]} extent of the recording
 * @returns {{name: string, spans: {from: number, to: number, isGood: boolean, text: string}[]}[]}
 */
export function bandsOf(marks, images, [first, last]) {
  /** @type {(name: string, good: string, bad: string, away: [number, number][]) => ReturnType<typeof bandsOf>[number]} */
  const band = (name, good, bad, away) => {
    /** @type {ReturnType<typeof bandsOf>[number]['spans']} */
    const spans = [];
    let at = first;
    for (const [from, to] of away) {
      if (from > at) {
        spans.push({ from: at, to: from, isGood: true, text: good });
      }
      if (to > at) {
        spans.push({ from: Math.max(from, at), to, isGood: false, text: bad });
      }
      at = Math.max(at, to);
    }
    return { name, spans: at < last ? [...spans, { from: at, to: last, isGood: true, text: good }] : spans };
  };
  const gaps = (/** @type {Mark['cause']} */ cause) => marks.flatMap((mark) => (mark.kind === 'gap' && mark.cause === cause
    ? [/** @type {[number, number]} */ ([mark.time, mark.until ?? mark.time])] : []));
  const isBack = (/** @type {Mark} */ { kind, text }) => kind === 'reboot' || (kind === 'storage' && text.startsWith('The storage was back'));
  const lost = marks.flatMap(({ kind, text, time }, index) => (kind !== 'storage' || !text.startsWith('The storage was lost') ? []
    : [/** @type {[number, number]} */ ([time, marks.find((mark, later) => later > index && isBack(mark))?.time ?? last])]));
  const steps = images.slice(1).map((time, index) => time - (images[index] ?? 0)).sort((a, b) => a - b);
  const least = Math.max(LEAST_IMAGE_HOLE_S, 3 * (steps[steps.length >> 1] ?? 0));
  const [firstImage = first, lastImage = last] = [images[0], images.at(-1)];
  const holes = images.flatMap((time, index) => (time - (images[index - 1] ?? time) > least ? [/** @type {[number, number]} */ ([images[index - 1] ?? time, time])] : []));
  return [
    band('Camera', 'up', 'down', gaps('camera')),
    band('Storage', 'there', 'away', joinedSpans([...gaps('storage'), ...lost])),
    ...(gaps(undefined).length > 0 ? [band('Rows', 'recorded', 'not recorded', gaps(undefined))] : []),
    ...(images.length > 0 ? [band('Images', 'taken', 'none', [
      ...(firstImage - first > least ? [/** @type {[number, number]} */ ([first, firstImage])] : []), ...holes,
      ...(last - lastImage > least ? [/** @type {[number, number]} */ ([lastImage, last])] : [])])] : []),
  ];
}
