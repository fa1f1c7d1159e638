// The rows of a session's CSV file as series over time. Times are seconds since 1970 as the camera's
// clock on the wall showed them, whatever its zone: what the files say is what is shown.

import { counted } from './format.js';

const MOST_CATEGORIES = 30;
const MOST_LINE = 64 * 1024; // characters; a longer line is none of a CSV file
const SHORTEST_INTERVAL_S = 60;
// A hole begins where this many intervals pass without a row: a tick is a few seconds early or late.
const INTERVALS_OF_A_HOLE = 1.75;
const NUMBER = /^([-+]?(?:\d+\.?\d*|\.\d+)(?:e[-+]?\d+)?)(?: *[A-Za-z%/°]+)?$/i;
// Files whose numbers only grow, until the camera restarts.
const COUNTERS = /\/(?:pagefaults|monitoring_network\/(?!network\.csv)[^/]+)(?:\.csv)?$/;

/**
 * @typedef {object} Table
 * @property {string[]} columns but the time
 * @property {number[]} times of the rows, in the order of the file
 * @property {string[][]} rows the cells of each row, one for each column
 * @property {number} skipped lines that are no rows
 * @property {boolean} unfinished whether the last line has no end, and is left out
 */

/**
 * @typedef {object} Series
 * @property {string} name
 * @property {number[]} times ascending
 * @property {(number | null)[]} values null where nothing is known
 * @property {string[] | null} categories the texts that the values are indices of
 */

/** Seconds of "2026-11-21" and "08:46:09", NaN when they are no time. @param {string} day @param {string} time */
export function wallSeconds(day, time) {
  const read = /^(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)/.exec(`${day.trim()}T${time.trim()}`);
  if (!read) {
    return NaN;
  }
  const [year = 0, month = 0, date = 0, hour = 0, minute = 0, second = 0] = read.slice(1).map(Number);
  return month < 1 || month > 12 || date < 1 || date > 31 || hour > 23 || minute > 59 ? NaN
    : Date.UTC(year, month - 1, date, hour, minute, second) / 1000;
}

/** As "2026-11-21 08:46:09". @param {number} seconds */
export function wallText(seconds) {
  return Number.isFinite(seconds) ? new Date(seconds * 1000).toISOString().slice(0, 19).replace('T', ' ') : '';
}

/**
 * The columns that a header names, and where among them the time stands.
 * @param {string} header
 * @param {string} path of the file
 */
function readHeader(header, path) {
  const cells = header.replace(/^\uFEFF/, '').split(',').map((cell) => cell.trim());
  let day = cells.findIndex((cell, index) => /^date$/i.test(cell) && /^time$/i.test(cells[index + 1] ?? ''));
  // "time" alone: both in one column.
  const both = day < 0;
  const titled = cells.some((cell) => /^\d{4}-\d\d-\d\d/.test(cell)) ? null : cells;
  if (both) {
    day = Math.max(0, (titled ?? []).findIndex((cell) => /^(?:date|time|timestamp)$/i.test(cell)));
    if (!titled && /^\d{4}-\d\d-\d\d$/.test(cells[0] ?? '')) {
      return { names: cells.slice(2).map((_, index) => `Column ${index + 3}`), day: 0, both: false, titled: false };
    }
  }
  // "Receive: bytes, packets, Transmit: bytes, packets": what is in small letters belongs to the
  // title before.
  let title = '';
  /** @type {Set<string>} */
  const taken = new Set();
  const names = (titled ?? cells.map((_, index) => `Column ${index + 1}`)).map((cell) => {
    const own = /^(\S[^:]*?) *: *(?=\S)/.exec(cell)?.[1];
    title = own ?? (/^[a-z]/.test(cell) ? title : '');
    let name = own || title === '' ? cell : `${title}: ${cell}`;
    for (let again = 2; taken.has(name); again++) {
      name = `${cell} (${again})`;
    }
    taken.add(name);
    return name || path;
  });
  names.splice(day, both ? 1 : 2);
  return { names, day, both, titled: titled !== null };
}

/**
 * Reads a CSV file that comes in pieces.
 * @param {string} path of the file
 */
export function tableReader(path) {
  const decoder = new TextDecoder();
  let rest = '';
  let tooLong = false;
  /** @type {ReturnType<typeof readHeader> | null} */
  let head = null;
  /** @type {Table} */
  const table = { columns: [], times: [], rows: [], skipped: 0, unfinished: false };

  /** @param {string} line */
  function addLine(line) {
    const text = line.endsWith('\r') ? line.slice(0, -1) : line;
    if (!head) {
      head = readHeader(text, path);
      table.columns = head.names;
      if (head.titled) {
        return;
      }
    }
    const { day, both } = head;
    const cells = text.split(',');
    const stamp = both ? (cells[day] ?? '').trim().split(/[ T]/) : cells.slice(day, day + 2);
    const time = wallSeconds(stamp[0] ?? '', stamp[1] ?? '');
    if (Number.isNaN(time)) {
      table.skipped += Number(text !== '');
      return;
    }
    cells.splice(day, both ? 1 : 2);
    const { length } = table.columns;
    while (cells.length < length) {
      cells.push('');
    }
    if (cells.length > length && length > 0) {
      cells.push(cells.splice(length - 1).join(',')); // the last column's text has commas of its own
    }
    table.times.push(time);
    table.rows.push(cells.map((cell) => cell.trim()));
  }

  return {
    /** @param {Uint8Array} piece */
    add(piece) {
      const lines = (rest + decoder.decode(piece, { stream: true })).split('\n');
      rest = lines.pop() ?? '';
      for (const line of lines) {
        if (tooLong) {
          table.skipped++;
          tooLong = false;
        } else {
          addLine(line);
        }
      }
      if (rest.length > MOST_LINE) {
        tooLong = true;
        rest = '';
      }
    },
    /** What has been read. A last line without its end may be half a number and is left out. */
    finish() {
      table.unfinished = rest !== '' || tooLong;
      return table;
    },
  };
}

/** @param {string} cell */
function valueOf(cell) {
  const read = NUMBER.exec(cell);
  return read ? Number(read[1]) : null;
}

/** The usual time between two rows. @param {number[]} times ascending */
export function usualInterval(times) {
  const steps = times.slice(1).map((time, index) => time - (times[index] ?? time)).filter((step) => step > 0)
    .sort((a, b) => a - b);
  return Math.max(SHORTEST_INTERVAL_S, steps[Math.floor(steps.length / 2)] ?? 0);
}

/** The times between which rows are missing. @param {number[]} times ascending @returns {[number, number][]} */
export function holes(times) {
  const least = usualInterval(times) * INTERVALS_OF_A_HOLE;
  return times.slice(1).flatMap((time, index) => {
    const before = times[index] ?? time;
    return time - before > least ? [/** @type {[number, number]} */ ([before, time])] : [];
  });
}

/**
 * The series of a table: one for each column that has numbers or few different texts, and for each
 * thing that the rows tell of where one file tells of several.
 * @param {Table} table
 * @returns {Series[]}
 */
export function seriesOf(table) {
  const { columns, times, rows } = table;
  const naming = columns.flatMap((name, index) => (/^(?:zone|name|address|port)$/i.test(name) ? [index] : []));
  /** @type {Map<string, number[]>} */
  const groups = new Map();
  for (const index of times.keys()) {
    const key = naming.map((column) => rows[index]?.[column]).filter(Boolean).join(' ');
    const group = groups.get(key) ?? [];
    groups.set(key, group);
    group.push(index);
  }
  return [...groups].flatMap(([group, members]) => {
    // A clock that was set back: rows stay, in the order of their times.
    members.sort((a, b) => (times[a] ?? 0) - (times[b] ?? 0));
    const ownTimes = members.map((index) => times[index] ?? 0);
    return columns.flatMap(/** @returns {Series[]} */ (column, at) => {
      if (naming.includes(at)) {
        return [];
      }
      const cells = members.map((index) => rows[index]?.[at] ?? '');
      const name = groups.size > 1 ? `${group}: ${column}` : column;
      if (cells.every((cell) => cell === '' || NUMBER.test(cell))) {
        const values = cells.map(valueOf);
        return values.every((value) => value === null) ? [] : [{ name, times: ownTimes, values, categories: null }];
      }
      const categories = [...new Set(cells.filter((cell) => cell !== ''))].sort();
      return categories.length > MOST_CATEGORIES ? [] : [{
        name, times: ownTimes, categories,
        values: cells.map((cell) => (cell === '' ? null : categories.indexOf(cell))),
      }];
    });
  });
}

/** Whether a file's numbers are counters. @param {string} path */
export const hasCounters = (path) => COUNTERS.test(path);

/**
 * A counter as its growth in a second. Where it fell, the camera restarted, and nothing is known.
 * @param {Series} series
 * @returns {Series}
 */
export function rateOf(series) {
  const { times, values, categories } = series;
  if (categories) {
    return series;
  }
  return {
    ...series,
    values: values.map((value, index) => {
      const before = values[index - 1] ?? null;
      const passed = (times[index] ?? 0) - (times[index - 1] ?? 0);
      return value === null || before === null || value < before || passed <= 0 ? null
        : (value - before) / passed;
    }),
  };
}

/**
 * Several series over one line of times, as the chart takes them: undefined where a series has no
 * row at a time, null where it is known to have nothing, as in a hole.
 * @param {Series[]} many
 * @returns {[number[], ...(number | null | undefined)[][]]}
 */
export function aligned(many) {
  /** @type {Set<number[]>} */
  const timelines = new Set(many.map(({ times }) => times));
  const inHoles = new Map([...timelines].map((times) => [times, holes(times).map(([from, to]) => (from + to) / 2)]));
  const all = [...new Set([...inHoles].flatMap(([times, middles]) => [times, middles]).flat())].sort((a, b) => a - b);
  const place = new Map(all.map((time, index) => [time, index]));
  return [all, ...many.map(({ times, values }) => {
    /** @type {(number | null | undefined)[]} */
    const column = new Array(all.length).fill(undefined);
    for (const time of inHoles.get(times) ?? []) {
      column[place.get(time) ?? 0] = null;
    }
    for (const [index, time] of times.entries()) {
      column[place.get(time) ?? 0] = values[index] ?? null;
    }
    return column;
  })];
}

/** What of a file could not be shown, "" when all is. @param {Table} table @param {number} bytes of the file @param {number} read of them */
export function remarksOf(table, bytes, read) {
  return [
    read < bytes ? `The file is too large for a chart: its first ${Math.round(read / 1e6)} of ${Math.round(bytes / 1e6)} MB are shown.` : '',
    table.skipped > 0 ? `${counted(table.skipped, 'line')} without a time ${table.skipped === 1 ? 'is' : 'are'} left out.` : '',
    table.unfinished && read >= bytes ? 'The last line is not whole and is left out.' : '',
    table.times.some((time, index) => time < (table.times[index - 1] ?? time)) ? 'The camera’s clock was set back meanwhile: rows are shown by their times.' : '',
  ].filter(Boolean).join(' ');
}

/** Texts as a line of CSV. @param {(string | number | null | undefined)[]} cells */
export function csvLine(cells) {
  return `${cells.map((cell) => {
    const text = String(cell ?? '');
    return /[",\r\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
  }).join(',')}\r\n`;
}
