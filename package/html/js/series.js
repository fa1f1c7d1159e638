// The rows of a session's CSV file as series over time. Times are seconds since 1970 as the camera's
// clock on the wall showed them, whatever its zone: what the files say is what is shown. Pure: no page
// and no camera, so it runs in a worker and in Node too.

import { counted } from './format.js';

const MOST_CATEGORIES = 100;
const MOST_TEXTS = 5000; // different ones of a column; one with more is no series
const MOST_LINE = 64 * 1024; // bytes; a longer line is none of a CSV file
const MOST_CELLS = 4096; // of a row
const SHORTEST_INTERVAL_S = 60;
// A hole begins where this many intervals pass without a row: a tick is a few seconds early or late.
const INTERVALS_OF_A_HOLE = 1.75;
// Rows of several files that are no further apart are of one collection.
const COLLECTION_S = 5;
const LINES = 1024; // timelines of one chart
const NUMBER = /^([-+]?(?:\d+\.?\d*|\.\d+)(?:e[-+]?\d+)?)(?: *[A-Za-z%/°]+)?$/i;
const NAMING = /^(?:zone|name|address|port)$/i;

/**
 * A column as it is read. Of numbers `values` are these, of texts the indices of `texts`; null where
 * the cell is empty.
 * @typedef {object} Column
 * @property {string} name
 * @property {(number | null)[]} values one for each row
 * @property {string[] | null} texts in the order in which they came; null for numbers
 */

/**
 * @typedef {object} Table
 * @property {Column[]} columns but the time
 * @property {number[]} times of the rows, in the order of the file
 * @property {number} skipped lines that are no rows
 * @property {boolean} unfinished whether the last line has no end, and is left out
 */

/**
 * @typedef {object} Series
 * @property {string} name
 * @property {number[]} times ascending
 * @property {(number | null)[]} values null where nothing is known
 * @property {string[] | null} categories the texts that the values are indices of
 * @property {string} [unit] as units.js has them
 * @property {(number | undefined)[]} [before] where a clock was set back: which row was written before each; otherwise the one of the time before
 */

/** Seconds of "2026-11-21" and "08:46:09", NaN when they are no time. @param {string} day @param {string} time */
export function wallSeconds(day, time) {
  const read = /^(\d\d):(\d\d):(\d\d)/.exec(time.trim());
  const [hour = NaN, minute = 0, second = 0] = read ? [Number(read[1]), Number(read[2]), Number(read[3])] : [];
  return hour > 23 || minute > 59 ? NaN : daySeconds(day.trim()) + hour * 3600 + minute * 60 + second;
}

let [lastDay, lastDaySeconds] = ['', NaN]; // rows and lines follow each other by the thousand a day
/** @param {string} day */
function daySeconds(day) {
  if (day !== lastDay) {
    const [, year = NaN, month = 0, date = 0] = (/^(\d{4})-(\d\d)-(\d\d)$/.exec(day) ?? []).map(Number);
    lastDaySeconds = month < 1 || month > 12 || date < 1 || date > 31 ? NaN : Date.UTC(year, month - 1, date) / 1000;
    lastDay = day;
  }
  return lastDaySeconds;
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

const [LF, CR, BLANK, COMMA, ZERO, NINE, MINUS, DOT, COLON] = [10, 13, 32, 44, 48, 57, 45, 46, 58];
const POWERS = Array.from({ length: 16 }, (_, power) => 10 ** power);

/** The number of some digits; NaN when they are none. @param {Uint8Array} bytes @param {number} at @param {number} count */
function digits(bytes, at, count) {
  let value = 0;
  for (let end = at + count; at < end; at++) {
    const byte = bytes[at] ?? 0;
    if (byte < ZERO || byte > NINE) {
      return NaN;
    }
    value = value * 10 + byte - ZERO;
  }
  return value;
}

/** A column while its cells come. @param {string} name */
function columnReader(name) {
  /** @type {(number | null)[]} */
  const values = [];
  /** @type {Map<string, number> | null} */
  let texts = null;
  /** How numbers were written that a number's own text does not give: "53.50", "0.5 Mbit/s".
   * @type {Map<number, string>} */
  const written = new Map();

  /** @param {string} text */
  function addText(text) {
    if (!texts) {
      texts = new Map();
      for (const [index, value] of values.entries()) {
        values[index] = value === null ? null : codeOf(written.get(value) ?? String(value));
      }
    }
    values.push(codeOf(text));
  }
  /** @param {string} text */
  function codeOf(text) {
    const known = texts?.get(text);
    if (known !== undefined || !texts) {
      return known ?? null;
    }
    if (texts.size >= MOST_TEXTS) {
      return null;
    }
    texts.set(text, texts.size);
    return texts.size - 1;
  }
  /** @param {number} value @param {() => string} text */
  function note(value, text) {
    if (!written.has(value) && written.size < MOST_TEXTS) {
      written.set(value, text());
    }
  }
  return {
    values,
    note,
    /** @param {string} text not empty */
    add(text) {
      const read = texts ? null : NUMBER.exec(text);
      if (read) {
        const value = Number(read[1]);
        values.push(value);
        if (String(value) !== text) {
          note(value, () => text);
        }
      } else {
        addText(text);
      }
    },
    isText: () => texts !== null,
    /** @returns {Column} */
    finish: () => ({ name, values, texts: texts && [...texts.keys()] }),
  };
}

/**
 * Reads a CSV file that comes in pieces, from its bytes: a text for each cell of a file of weeks would
 * be most of the work.
 * @param {string} path of the file
 * @param {RegExp} [wanted] the columns to keep, by their names
 */
export function tableReader(path, wanted) {
  const decoder = new TextDecoder();
  /** @type {Uint8Array} */
  let rest = new Uint8Array(0);
  let tooLong = false;
  /** @type {ReturnType<typeof readHeader> | null} */
  let head = null;
  /** @type {(ReturnType<typeof columnReader> | null)[]} */
  let readers = [];
  /** @type {Table} */
  const table = { columns: [], times: [], skipped: 0, unfinished: false };
  const ends = new Int32Array(MOST_CELLS);

  /** @param {Uint8Array} bytes @param {number} from @param {number} to */
  function textOf(bytes, from, to) {
    while (from < to && (bytes[from] === BLANK || bytes[from] === CR || bytes[from] === 9)) {
      from++;
    }
    while (to > from && (bytes[to - 1] === BLANK || bytes[to - 1] === CR || bytes[to - 1] === 9)) {
      to--;
    }
    if (to - from > 24) {
      return decoder.decode(bytes.subarray(from, to));
    }
    let text = '';
    for (let at = from; at < to; at++) {
      const byte = /** @type {number} */ (bytes[at]);
      if (byte > 127) {
        return decoder.decode(bytes.subarray(from, to));
      }
      text += String.fromCharCode(byte);
    }
    return text;
  }

  let knownDay = -1; // as 20261121
  let knownDaySeconds = 0;
  /** Of "2026-11-21,08:46:09", as most rows begin; NaN for all others. @param {Uint8Array} bytes @param {number} at */
  function plainTime(bytes, at) {
    const day = digits(bytes, at, 4) * 10000 + digits(bytes, at + 5, 2) * 100 + digits(bytes, at + 8, 2);
    const [hour, minute, second] = [digits(bytes, at + 11, 2), digits(bytes, at + 14, 2), digits(bytes, at + 17, 2)];
    if (!(day > 0 && hour < 24 && minute < 60 && second < 60) || bytes[at + 4] !== MINUS || bytes[at + 7] !== MINUS
        || bytes[at + 13] !== COLON || bytes[at + 16] !== COLON) {
      return NaN;
    }
    if (day !== knownDay) {
      knownDay = day;
      knownDaySeconds = wallSeconds(textOf(bytes, at, at + 10), '00:00:00');
    }
    return knownDaySeconds + hour * 3600 + minute * 60 + second;
  }

  /** A plain number of few digits, as most cells are; NaN for all others.
   * @param {Uint8Array} bytes @param {number} from @param {number} to @param {ReturnType<typeof columnReader>} reader */
  function plainNumber(bytes, from, to, reader) {
    const negative = bytes[from] === MINUS;
    let at = from + Number(negative);
    if (to - at > 15 || to === at) {
      return NaN;
    }
    const first = at;
    let whole = 0;
    let point = -1;
    for (; at < to; at++) {
      const byte = /** @type {number} */ (bytes[at]);
      if (byte >= ZERO && byte <= NINE) {
        whole = whole * 10 + byte - ZERO;
      } else if (byte === DOT && point < 0 && at > first && at < to - 1) {
        point = at;
      } else {
        return NaN;
      }
    }
    const size = point < 0 ? whole : whole / /** @type {number} */ (POWERS[to - point - 1]);
    const value = negative ? -size : size;
    // "007" and "1.50" are not how a number is written by itself.
    if ((bytes[first] === ZERO && to - first > 1 && point !== first + 1) || (point > 0 && bytes[to - 1] === ZERO)) {
      reader.note(value, () => textOf(bytes, from, to));
    }
    return value;
  }

  /** @param {Uint8Array} bytes @param {number} from @param {number} to */
  function addLine(bytes, from, to) {
    if (!head) {
      const titled = readHeader(textOf(bytes, from, to), path);
      head = titled;
      readers = titled.names.map((name) => (!wanted || wanted.test(name) || NAMING.test(name) ? columnReader(name) : null));
      if (titled.titled) {
        return;
      }
    }
    const { day, both } = head;
    const stampCells = both ? 1 : 2;
    const last = readers.length + stampCells - 1; // a text with commas of its own goes to the line's end
    let count = 0;
    for (let at = from; at < to && count < last && count < MOST_CELLS - 1; at++) {
      if (bytes[at] === COMMA) {
        ends[count++] = at;
      }
    }
    ends[count++] = to;
    const startOf = (/** @type {number} */ cell) => (cell === 0 ? from : /** @type {number} */ (ends[cell - 1]) + 1);
    const cellText = (/** @type {number} */ cell) => (cell < count
      ? textOf(bytes, startOf(cell), /** @type {number} */ (ends[cell])) : '');
    let time = count > day ? plainTime(bytes, startOf(day)) : NaN;
    if (Number.isNaN(time)) {
      const stamp = both ? cellText(day).split(/[ T]/) : [cellText(day), cellText(day + 1)];
      time = wallSeconds(stamp[0] ?? '', stamp[1]?.split(',')[0] ?? '');
    }
    if (Number.isNaN(time)) {
      table.skipped += Number(textOf(bytes, from, to) !== '');
      return;
    }
    table.times.push(time);
    for (let index = 0; index < readers.length; index++) {
      const reader = readers[index];
      if (!reader) {
        continue;
      }
      const cell = index < day ? index : index + stampCells;
      if (cell >= count) {
        reader.values.push(null);
        continue;
      }
      let begin = startOf(cell);
      let end = /** @type {number} */ (ends[cell]);
      while (begin < end && bytes[begin] === BLANK) {
        begin++;
      }
      while (end > begin && (bytes[end - 1] === CR || bytes[end - 1] === BLANK)) {
        end--;
      }
      const value = reader.isText() ? NaN : plainNumber(bytes, begin, end, reader);
      if (!Number.isNaN(value)) {
        reader.values.push(value);
      } else if (begin === end) {
        reader.values.push(null);
      } else {
        reader.add(textOf(bytes, begin, end));
      }
    }
  }

  return {
    /** @param {Uint8Array} piece */
    add(piece) {
      let bytes = piece;
      if (rest.length > 0) {
        bytes = new Uint8Array(rest.length + piece.length);
        bytes.set(rest);
        bytes.set(piece, rest.length);
      }
      let from = 0;
      for (let to = bytes.indexOf(LF); to >= 0; to = bytes.indexOf(LF, from)) {
        if (tooLong || to - from > MOST_LINE) {
          table.skipped++;
          tooLong = false;
        } else {
          addLine(bytes, from, to);
        }
        from = to + 1;
      }
      rest = bytes.slice(from);
      if (rest.length > MOST_LINE) {
        tooLong = true;
        rest = new Uint8Array(0);
      }
    },
    /** What has been read. A last line without its end may be half a number and is left out. */
    finish() {
      table.unfinished = rest.length > 0 || tooLong;
      table.columns = readers.flatMap((reader) => (reader ? [reader.finish()] : []));
      return table;
    },
  };
}

/** The usual time between two rows. @param {number[]} times ascending */
export function usualInterval(times) {
  const steps = new Float64Array(Math.max(0, times.length - 1));
  let count = 0;
  for (let index = 1; index < times.length; index++) {
    const step = /** @type {number} */ (times[index]) - /** @type {number} */ (times[index - 1]);
    if (step > 0) {
      steps[count++] = step;
    }
  }
  return Math.max(SHORTEST_INTERVAL_S, steps.subarray(0, count).sort()[Math.floor(count / 2)] ?? 0);
}

/** @type {WeakMap<number[], [number, number][]>} */
const knownHoles = new WeakMap();

/** The times between which rows are missing. @param {number[]} times ascending @returns {[number, number][]} */
export function holes(times) {
  const known = knownHoles.get(times);
  if (known) {
    return known;
  }
  const least = usualInterval(times) * INTERVALS_OF_A_HOLE;
  /** @type {[number, number][]} */
  const found = [];
  for (let index = 1; index < times.length; index++) {
    const [before, time] = [/** @type {number} */ (times[index - 1]), /** @type {number} */ (times[index])];
    if (time - before > least) {
      found.push([before, time]);
    }
  }
  knownHoles.set(times, found);
  return found;
}

/** Whether no time is before the one in front of it. @param {number[]} times */
const isAscending = (times) => times.every((time, index) => index === 0 || time >= /** @type {number} */ (times[index - 1]));

/**
 * The rows of each thing that a file tells of, by its name; "" where it tells of one.
 * @param {Table} table
 * @returns {Map<string, number[] | null>} null for all rows as they stand
 */
function membersOf({ columns, times }) {
  const naming = columns.filter(({ name }) => NAMING.test(name));
  /** @type {Map<string, number[] | null>} */
  const groups = new Map();
  if (naming.length === 0) {
    groups.set('', null);
    return groups;
  }
  for (let index = 0; index < times.length; index++) {
    const key = naming.map(({ values, texts }) => {
      const value = values[index] ?? null;
      return value === null ? '' : texts ? texts[value] ?? '' : String(value);
    }).filter(Boolean).join(' ');
    const group = groups.get(key) ?? [];
    groups.set(key, group);
    group.push(index);
  }
  return groups;
}

/**
 * The series of a table: one for each column that has numbers or few different texts, and for each
 * thing that the rows tell of where one file tells of several.
 * @param {Table} table
 * @returns {(Series & {column: string, group: string})[]}
 */
export function seriesOf(table) {
  const { columns, times } = table;
  const groups = membersOf(table);
  return [...groups].flatMap(([group, all]) => {
    let members = all;
    /** @type {(number | undefined)[] | undefined} */
    let before;
    if (!isAscending(members ? members.map((index) => times[index] ?? 0) : times)) {
      // A clock that was set back: rows stay, in the order of their times.
      const written = [...(members ?? times.keys())];
      members = [...written].sort((a, b) => (times[a] ?? 0) - (times[b] ?? 0));
      const place = new Map(members.map((row, index) => [row, index]));
      const beforeRow = new Map(written.map((row, index) => [row, written[index - 1]]));
      before = members.map((row) => place.get(beforeRow.get(row) ?? -1));
    }
    const chosen = members;
    const ownTimes = chosen ? chosen.map((index) => times[index] ?? 0) : times;
    return columns.flatMap(/** @returns {(Series & {column: string, group: string})[]} */ ({ name: column, values: cells, texts }) => {
      const values = chosen ? chosen.map((index) => cells[index] ?? null) : cells;
      if (NAMING.test(column) || values.every((value) => value === null)) {
        return [];
      }
      const series = { name: groups.size > 1 ? `${group}: ${column}` : column, column, group, times: ownTimes, ...(before ? { before } : {}) };
      if (!texts) {
        return [{ ...series, values, categories: null }];
      }
      const used = new Set(values);
      const categories = texts.filter((_, code) => used.has(code)).sort();
      const place = texts.map((text) => categories.indexOf(text));
      return categories.length > MOST_CATEGORIES ? [] : [{
        ...series, categories, values: values.map((value) => (value === null ? null : place[value] ?? null)),
      }];
    });
  });
}

/**
 * A counter as its growth in a second. Where it fell, the camera restarted, and nothing is known.
 * @template {Series} Some
 * @param {Some} series
 * @returns {Some}
 */
export function rateOf(series) {
  return perSecond(series, (value, before) => (before === null || value < before ? null : value - before));
}

/**
 * What is counted anew from each row to the next as so many in a second. The first row's time is not
 * known, and nothing of it.
 * @template {Series} Some
 * @param {Some} series
 * @returns {Some}
 */
export function amountRateOf(series) {
  return perSecond(series, (value) => value);
}

/**
 * @template {Series} Some
 * @param {Some} series
 * @param {(value: number, before: number | null) => number | null} grown
 * @returns {Some}
 */
function perSecond(series, grown) {
  const { times, values, categories, before } = series;
  return categories ? series : {
    ...series,
    values: values.map((value, index) => {
      const last = (before ? before[index] : index - 1) ?? -1;
      const passed = (times[index] ?? 0) - (times[last] ?? NaN);
      const growth = value === null || !(passed > 0) ? null : grown(value, values[last] ?? null);
      return growth === null ? null : growth / passed;
    }),
  };
}

/**
 * Several series over one line of times, as the chart takes them: undefined where a series has no
 * row at a time, null where it is known to have nothing, as in a hole. Rows of different files that
 * were written in one collection stand at the time of the first of them.
 * @param {Pick<Series, 'times' | 'values'>[]} many
 * @returns {[number[], ...(number | null | undefined)[][]]}
 */
export function aligned(many) {
  /** @type {number[][]} */
  const timelines = [];
  const lines = many.map(({ times }) => {
    const known = timelines.findIndex((other) => areSame(other, times));
    return known < 0 ? timelines.push(times) - 1 : known;
  });
  const [only] = timelines;
  if (timelines.length === 1 && only) {
    return [withHoles(only, only, ([from, to]) => (from + to) / 2), ...many.map(({ values }) => withHoles(only, values, () => null))];
  }
  // Each timeline's rows, with a place in the middle of each hole, where -1 stands for a row.
  const own = timelines.map((times) => {
    /** @type {number[]} */
    const moments = [];
    /** @type {number[]} */
    const rows = [];
    const missing = holes(times);
    let next = 0;
    for (let row = 0; row < times.length; row++) {
      const time = /** @type {number} */ (times[row]);
      moments.push(time);
      rows.push(row);
      const hole = missing[next];
      if (hole?.[0] === time && hole[1] === times[row + 1]) {
        moments.push((hole[0] + hole[1]) / 2);
        rows.push(-1);
        next++;
      }
    }
    return { moments, rows, at: 0, last: -1 };
  });
  // Sorted as plain numbers, which is far quicker than as records: half seconds, then the timeline.
  const keys = new Float64Array(own.reduce((sum, { moments }) => sum + moments.length, 0));
  let count = 0;
  for (const [line, { moments }] of own.entries()) {
    for (const time of moments) {
      keys[count++] = Math.round(time * 2) * LINES + line;
    }
  }
  keys.sort();
  /** @type {number[]} */
  const all = [];
  const columns = many.map(() => /** @type {(number | null | undefined)[]} */ ([]));
  /** @type {number[][]} */
  const drawnOn = timelines.map((_, line) => lines.flatMap((one, index) => (one === line ? [index] : [])));
  for (const key of keys) {
    const line = key % LINES;
    const timeline = own[line];
    if (!timeline) {
      continue;
    }
    const row = timeline.rows[timeline.at] ?? -1;
    const time = timeline.moments[timeline.at++] ?? 0;
    // Of one file every row keeps its own time.
    if (all.length === 0 || timeline.last === all.length - 1
        || time - /** @type {number} */ (all[all.length - 1]) > COLLECTION_S) {
      all.push(time);
      for (const column of columns) {
        column.push(undefined);
      }
    }
    timeline.last = all.length - 1;
    for (const index of drawnOn[line] ?? []) {
      /** @type {(number | null | undefined)[]} */ (columns[index])[all.length - 1] = row < 0 ? null : many[index]?.values[row] ?? null;
    }
  }
  return [all, ...columns];
}

/**
 * The cells of a file's rows with one more in each hole.
 * @template Cell
 * @param {number[]} times
 * @param {Cell[]} cells
 * @param {(hole: [number, number]) => Cell} filler
 */
function withHoles(times, cells, filler) {
  /** @type {Cell[]} */
  let filled = [];
  let from = 0;
  for (const hole of holes(times)) {
    const to = firstFrom(times, hole[1]);
    filled = filled.concat(cells.slice(from, to), [filler(hole)]);
    from = to;
  }
  return from === 0 ? cells : filled.concat(cells.slice(from));
}

/** @param {number[]} a @param {number[]} b */
function areSame(a, b) {
  return a === b || (a.length === b.length && a.every((time, index) => time === b[index]));
}

/**
 * Series of one thing that began anew, or that is there several times at once, as one: what was
 * recorded in one collection is added up. Of texts the last one stands.
 * @param {Series[]} parts at least one
 * @param {string} name
 * @returns {Series}
 */
export function joined(parts, name) {
  const [first] = parts;
  if (parts.length === 1 && first) {
    return { ...first, name };
  }
  const categories = first?.categories ? [...new Set(parts.flatMap((part) => part.categories ?? []))].sort() : null;
  const told = parts.filter((part) => (part.categories !== null) === (categories !== null));
  const [times, ...columns] = aligned(told.map(({ times: own, values, categories: texts }) => ({
    times: own,
    values: texts && categories ? values.map((value) => (value === null ? null : categories.indexOf(texts[value] ?? ''))) : values,
  })));
  const values = times.map((_, row) => {
    /** @type {number | null} */
    let sum = null;
    for (const column of columns) {
      const value = column[row] ?? null;
      sum = value === null ? sum : categories || sum === null ? value : sum + value;
    }
    return sum;
  });
  // The middles of the holes of single parts are no rows.
  const kept = times.flatMap((_, row) => (values[row] === null ? [] : [row]));
  return {
    name, categories, unit: first?.unit,
    times: kept.map((row) => times[row] ?? 0), values: kept.map((row) => values[row] ?? null),
  };
}

/** The index of the first time that is not before another. @param {number[]} times ascending @param {number} time */
export function firstFrom(times, time) {
  let [low, high] = [0, times.length];
  while (low < high) {
    const middle = (low + high) >> 1;
    if (/** @type {number} */ (times[middle]) < time) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

/** Earlier is the clock of a camera that was without power and has not been told the time yet. */
export const CLOCK_IS_SET = Date.UTC(2015, 0, 1) / 1000;

/** Times in their order, without those before the clock was set when there are others. @param {number[]} times @returns {number[]} */
export function orderedTimes(times) {
  const ascending = [...times].sort((a, b) => a - b);
  const first = firstFrom(ascending, CLOCK_IS_SET);
  return first < ascending.length ? ascending.slice(first) : ascending;
}

/** From the first to the last of the times that are not before another; null without any. @param {number[]} times ascending @param {number} [from] */
export function extentOf(times, from = -Infinity) {
  const first = times[firstFrom(times, from)];
  return first === undefined ? null : /** @type {[number, number]} */ ([first, times[times.length - 1]]);
}

/**
 * What the rows of a time span say together; the average is that of the rows.
 * @param {Series} series of numbers
 * @param {number} [from]
 * @param {number} [to] itself included
 */
export function summaryOf({ times, values }, from = -Infinity, to = Infinity) {
  let [count, sum, min, max] = [0, 0, Infinity, -Infinity];
  /** @type {number | null} */
  let last = null;
  for (let index = firstFrom(times, from); index < times.length && /** @type {number} */ (times[index]) <= to; index++) {
    const value = values[index];
    if (value !== null && value !== undefined) {
      count++;
      sum += value;
      min = value < min ? value : min;
      max = value > max ? value : max;
      last = value;
    }
  }
  return count === 0 ? null : { count, min, max, average: sum / count, last: /** @type {number} */ (/** @type {unknown} */ (last)) };
}

/** Whether a series never had but one value. @param {Series} series */
export function isConstant({ values }) {
  const first = values.find((value) => value !== null);
  return values.every((value) => value === null || value === first);
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
