// The series of a recording's charts: reads what a chart needs, each file once, and makes of it what
// the catalogue says. Needs no page: any recording will do, also in Node.

import { MOST_CHOSEN } from './catalogue.js';
import { logSeries } from './marks.js';
import { aligned, amountRateOf, joined, rateOf, remarksOf, seriesOf, summaryOf, tableReader } from './series.js';
import { inOrder, lineCollector } from './views/log_lines.js';

/** Of one file: rows of half a year have less. */
export const MOST_CSV_BYTES = 32 * 1024 * 1024;
/** Of a log, its end. */
export const MOST_LOG_BYTES = 8 * 1024 * 1024;
const MOST_TABLES = 40; // kept, the last ones asked for
const AT_ONCE = 4; // the camera answers one request at a time: these keep it and the line busy
const END_BYTES = 32 * 1024; // of a file that is only looked at
const HEAD_BYTES = 4096; // of its beginning
const MOST_RANKED = 400; // files

/** @typedef {import('./catalogue.js').Chart} Chart */
/** @typedef {import('./catalogue.js').Part} Part */
/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./series.js').Table} Table */
/** @typedef {{signal?: AbortSignal, onProgress?: (bytes: number) => void}} Options */
/** @typedef {Table & {remarks: string}} ReadTable */

/**
 * @param {import('./recording.js').Recording} recording
 * @param {(path: string) => {bytes: number, header?: string} | undefined} fileOf as the listing told
 * @param {number} [mostLogBytes] read of a log's end
 */
export function createSource(recording, fileOf, mostLogBytes = MOST_LOG_BYTES) {
  const bytesOf = (/** @type {string} */ path) => fileOf(path)?.bytes ?? 0;
  /** @type {Map<string, Promise<ReadTable>>} */
  const tables = new Map();
  /** @type {Map<string, Promise<string[]>>} */
  const logs = new Map();
  /** @type {(() => void)[]} */
  const waiting = [];
  let running = 0;

  /** @template Result @param {() => Promise<Result>} act @returns {Promise<Result>} */
  async function inTurn(act) {
    if (running >= AT_ONCE) {
      await new Promise((resolve) => { waiting.push(() => resolve(undefined)); });
    }
    running++;
    try {
      return await act();
    } finally {
      running--;
      waiting.shift()?.();
    }
  }

  /** @param {string} path @param {RegExp} columns @param {Options} options @param {{from?: number, most: number}} part */
  function readTable(path, columns, { signal, onProgress }, { from = 0, most }) {
    return inTurn(async () => {
      signal?.throwIfAborted();
      const reader = tableReader(path, columns.source === '.' ? undefined : columns);
      let read = 0;
      const take = (/** @type {Uint8Array} */ piece) => {
        read += piece.length;
        onProgress?.(piece.length);
        reader.add(piece);
      };
      if (from > 0) {
        // The header, then what follows the line in whose middle the end begins.
        const header = fileOf(path)?.header;
        if (header) {
          reader.add(new TextEncoder().encode(`${header}\n`));
        } else {
          await recording.read(path, headOnly(take), { from: 0, most: Math.min(from, HEAD_BYTES), signal });
        }
        await recording.read(path, lastLines(take), { from, most, signal });
      } else {
        await recording.read(path, take, { most, signal });
      }
      const table = reader.finish();
      return { ...table, remarks: from > 0 ? '' : remarksOf(table, Math.max(read, bytesOf(path)), read) };
    });
  }

  /** @param {string} path @param {RegExp} columns @param {Options} [options] @returns {Promise<ReadTable>} */
  function table(path, columns, options = {}) {
    const key = `${columns.source}\n${path}`;
    const known = tables.get(key);
    tables.delete(key);
    const reading = known ?? readTable(path, columns, options, { most: MOST_CSV_BYTES });
    tables.set(key, reading);
    reading.catch(() => tables.delete(key)); // asked for anew the next time
    for (const old of [...tables.keys()].slice(0, Math.max(0, tables.size - MOST_TABLES))) {
      tables.delete(old);
    }
    return reading;
  }

  /** The lines of a log's end. @param {string} path @param {Options} [options] */
  function logLines(path, { signal, onProgress } = {}) {
    const reading = logs.get(path) ?? inTurn(async () => {
      const collector = lineCollector(Infinity);
      const decoder = new TextDecoder();
      await recording.read(path, (piece) => {
        onProgress?.(piece.length);
        collector.add(decoder.decode(piece, { stream: true }));
      }, { from: Math.max(0, bytesOf(path) - mostLogBytes), most: mostLogBytes, signal });
      return inOrder(collector.finish().lines);
    });
    logs.set(path, reading);
    reading.catch(() => logs.delete(path));
    return reading;
  }

  /**
   * The series of one part of a chart, by the catalogue's names.
   * @param {Part} part @param {Options} options @param {{from?: number, most: number}} [end] only that of it
   */
  async function seriesOfPart(part, options, end) {
    if (part.kind === 'log') {
      return { series: logSeries(await logLines(part.path, options)), remarks: '' };
    }
    const read = await (end ? readTable(part.path, wantedOf(part), options, end) : table(part.path, wantedOf(part), options));
    const series = seriesOf(read).filter(({ column }) => part.columns.test(column))
      .map((one) => measured(one, part));
    return { series, remarks: read.remarks };
  }

  /**
   * Of a chart with very many things, the parts of those that its choice names, by the ends of the
   * files.
   * @param {Chart} chart @param {Options} options
   */
  async function chosenParts(chart, options) {
    /** @type {Map<string, Part[]>} */
    const things = new Map();
    for (const part of chart.parts) {
      things.set(part.name('', ''), [...things.get(part.name('', '')) ?? [], part]);
    }
    if (chart.choice === null || things.size <= MOST_CHOSEN) {
      return { parts: chart.parts, left: 0 };
    }
    /** @type {Map<string, number>} */
    const weights = new Map();
    await Promise.all(chart.parts.slice(0, MOST_RANKED).map(async (part) => {
      const bytes = bytesOf(part.path);
      const ends = [{ from: Math.max(0, bytes - END_BYTES), most: 2 * END_BYTES }]; // with what has come since
      if (chart.choice === 'growth' && bytes > END_BYTES) {
        ends.push({ from: 0, most: HEAD_BYTES });
      }
      const read = await Promise.all(ends.map(async (end) => (await seriesOfPart(part, options, end)).series[0]));
      const [last, first] = read.map((series) => (series && !series.categories ? summaryOf(series) : null));
      const begin = first ?? last;
      const weight = !last || !begin ? 0 : chart.choice === 'average' ? last.average
        : chart.choice === 'last' ? last.last : last.last - (first ? first.min : begin.min);
      weights.set(part.name('', ''), (weights.get(part.name('', '')) ?? 0) + Math.max(0, weight));
    }));
    const best = [...weights].sort(([, a], [, b]) => b - a).slice(0, MOST_CHOSEN).map(([name]) => name);
    return { parts: chart.parts.filter((part) => best.includes(part.name('', ''))), left: things.size - best.length };
  }

  return {
    table,
    logLines,
    /** What has been recorded meanwhile is read the next time. */
    forget() {
      tables.clear();
      logs.clear();
    },
    /**
     * The series of a chart, of one thing each, and what is to be said about them.
     * @param {Chart & {several?: Chart[]}} chart
     * @param {Options} [options]
     * @returns {Promise<{series: Series[], remarks: string[]}>}
     */
    async read(chart, options = {}) {
      if (chart.several) {
        const all = await Promise.all(chart.several.map((one) => this.read(one, options)));
        return {
          series: all.flatMap(({ series }, index) => series.map((one) => ({ ...one, name: `${chart.several?.[index]?.title}: ${one.name}` }))),
          remarks: all.flatMap(({ remarks }) => remarks),
        };
      }
      const { parts, left } = await chosenParts(chart, options);
      const read = await Promise.all(parts.map((part) => seriesOfPart(part, options)));
      const remarks = [...new Set(read.map((one) => one.remarks).filter(Boolean))];
      if (left > 0) {
        remarks.push(`${left} others are left out, by the ends of their files.`);
      }
      return { series: derived(joinedByName(read.flatMap(({ series }) => series)), chart), remarks };
    },
    /** The series of a chart as far as the ends of its files have them. @param {Chart} chart @param {Options} [options] */
    async readEnd(chart, options = {}) {
      const read = await Promise.all(chart.parts.map((part) =>
        seriesOfPart(part, options, { from: Math.max(0, bytesOf(part.path) - END_BYTES), most: 2 * END_BYTES })));
      return derived(joinedByName(read.flatMap(({ series }) => series)), chart);
    },
    /**
     * The first and the last rows of a file as series.
     * @param {string} path @param {RegExp} columns @param {Options} [options]
     * @returns {Promise<[Series[], Series[]]>}
     */
    async ends(path, columns, options = {}) {
      const bytes = bytesOf(path);
      const last = readTable(path, columns, options, { from: Math.max(0, bytes - END_BYTES), most: END_BYTES });
      const first = bytes > END_BYTES ? readTable(path, columns, options, { most: HEAD_BYTES }) : last;
      return [seriesOf(await first), seriesOf(await last)];
    },
    /** The end of a file as series, for a picture of it in small. @param {string} path @param {Options} [options] */
    async glimpse(path, options = {}) {
      const from = Math.max(0, bytesOf(path) - END_BYTES);
      return seriesOf(await readTable(path, /./, options, { from, most: 2 * END_BYTES }));
    },
  };
}

/** A file of a process has many columns and there are many such files: only what is drawn is kept.
 * @param {Part} part */
const wantedOf = ({ path, columns }) => (/\/(?:vmstatus|topstatus)\.csv$/.test(path) ? columns : /./);

/**
 * A file's series in the chart's unit.
 * @param {Series & {column: string, group: string}} series
 * @param {Part} part
 * @returns {Series}
 */
function measured({ column, group, ...series }, { name, factor, kind }) {
  const named = { ...series, name: name(column, group) };
  if (kind === 'state' && !named.categories) {
    return stateOf(named);
  }
  const rate = kind === 'counter' ? rateOf(named) : kind === 'amount' ? amountRateOf(named) : named;
  return factor === 1 || rate.categories ? rate
    : { ...rate, values: rate.values.map((value) => (value === null ? null : value * factor)) };
}

/** Numbers that stand for states, as texts. @param {Series} series @returns {Series} */
function stateOf(series) {
  const codes = [...new Set(series.values.filter((value) => value !== null))].sort((a, b) => a - b);
  const text = codes.every((code) => code === 0 || code === 1)
    ? (/** @type {number} */ code) => (code === 1 ? 'reachable' : 'not reachable') : String;
  return {
    ...series, categories: codes.map(text),
    values: series.values.map((value) => (value === null ? null : codes.indexOf(value))),
  };
}

/** @param {Series[]} all */
function joinedByName(all) {
  /** @type {Map<string, Series[]>} */
  const byName = new Map();
  for (const series of all) {
    byName.set(series.name, [...byName.get(series.name) ?? [], series]);
  }
  return [...byName].map(([name, parts]) => joined(parts, name));
}

/**
 * With what is computed of a chart's series in the place of what it is computed of, and the chart's
 * unit.
 * @param {Series[]} series @param {Chart} chart
 */
function derived(series, { derived: rules, unit }) {
  const all = series.map((one) => (one.categories ? one : { ...one, unit }));
  for (const { name, of, less } of rules) {
    const [whole] = all.splice(all.findIndex((one) => one.name === of), 1);
    const others = less.flatMap((wanted) => all.find((one) => one.name === wanted) ?? []);
    if (whole && whole.name === of && others.length === less.length) {
      const [times, first = [], ...parts] = aligned([whole, ...others]);
      all.unshift({
        ...whole, name, times,
        values: first.map((value, row) => parts.reduce((/** @type {number | null} */ rest, values) => {
          const part = values[row] ?? null;
          return rest === null || part === null ? null : rest - part;
        }, value ?? null)),
      });
    }
  }
  return all;
}

/** Passes on the first line only, with its end. @param {(piece: Uint8Array) => void} take */
function headOnly(take) {
  let done = false;
  return (/** @type {Uint8Array} */ piece) => {
    const end = piece.indexOf(10);
    if (!done) {
      take(end < 0 ? piece : piece.subarray(0, end + 1));
      done = end >= 0;
    }
  };
}

/** Leaves out what stands in front of the first line end. @param {(piece: Uint8Array) => void} take */
function lastLines(take) {
  let begun = false;
  return (/** @type {Uint8Array} */ piece) => {
    const begin = begun ? 0 : piece.indexOf(10) + 1;
    if (begun || begin > 0) {
      begun = true;
      take(piece.subarray(begin));
    }
  };
}

