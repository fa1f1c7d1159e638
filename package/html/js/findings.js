// What was wrong while a recording was made: a table of rules over its charts, its marks and its logs.
// What a rule says has its figures, its time and the file it comes from; what was not recorded is said
// to be not judged. Needs no page, and gives way to it while it computes.

import { chartsOf, LOG } from './catalogue.js';
import { byteSize } from './format.js';
import { httpDigest, lineReader, logDigest, LOG_STEP_S } from './log_digest.js';
import { CAMERA_RULES, REGULAR } from './rules/camera.js';
import { LOG_RULES } from './rules/log.js';
import { HTTP_LOG, NETWORK_RULES } from './rules/network.js';
import { RESOURCE_RULES } from './rules/resources.js';
import { groupedBy } from './rules/words.js';
import { firstFrom, holes, orderedTimes, seriesOf } from './series.js';
import { numberText } from './units.js';

const IMAGES = /\/monitoring_snapshots\/[^/]+\.jpg$/;
const INTERRUPTS = /\/monitoring_interrupts\/[^/]+_interrupts\.txt$/;
const HEAD_BYTES = 16 * 1024; // of a table of interrupts: its first line names the processors
const MOST_LOG_BYTES = 64 * 1024 * 1024; // of each log, its end
const MOST_CHART_BYTES = 64 * 1024 * 1024; // of a chart of processes; of a larger one those with most
const MOST_OF_A_RULE = 20; // findings shown; of others only how many
const AT_ONCE = 4; // of the things of a chart
const SLICE_MS = 10;
const SLAB_BYTES = 36 * 1024; // of each cache, its ends

/** The gravest first. */
export const SEVERITIES = /** @type {const} */ (['grave', 'warning', 'note']);
/** @typedef {typeof SEVERITIES[number]} Severity */
/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./marks.js').Mark} Mark */

/**
 * @typedef {object} Finding
 * @property {string} rule its name
 * @property {Severity} severity
 * @property {string} text one sentence, with figures
 * @property {number} from
 * @property {number} to
 * @property {string} chart the id of the chart that shows it; "" for none
 * @property {string} path of the file that it was read from
 * @property {Limit} [limit] from which on it counted
 */
/** @typedef {{value: number, text: string}} Limit in the unit of the chart */
/** @typedef {Omit<Finding, 'rule' | 'chart' | 'path'> & {chart?: string, path?: string}} Found */
/** @typedef {Series & {whole: Series}} Judged the part of a series that is judged, with all of it for what is usual */

/**
 * @typedef {object} Rule
 * @property {string} name
 * @property {string} subject as a gap in what was judged is told
 * @property {string[]} reads charts of the catalogue, all of an interface by "-"; "log", "http", "rows", "images" or "marks"
 * @property {string} why what its limits are, and why these
 * @property {Record<string, number>} limits
 * @property {(known: Known, limits: Record<string, any>) => Promise<Found[]>} find
 */

/** @typedef {Awaited<ReturnType<typeof createKnown>>} Known */

/** In which order findings of one severity stand: causes before what comes of them. */
const ORDER = ['kernel dump', 'full storage', 'storage lost', 'crash', 'clock', 'restart', 'calls', 'more calls', 'log storm', 'memory of a process', 'slab caches',
  'memory of the system', 'memory low', 'page faults', 'process takes a core', 'fan', 'temperature', 'load', 'link', 'host', 'traffic', 'network errors', 'bandwidth',
  'errors in the log', 'images', 'rows', 'triggers'];

/** @type {Rule[]} */
export const RULES = [...CAMERA_RULES, ...RESOURCE_RULES, ...NETWORK_RULES, ...LOG_RULES].sort((a, b) => ORDER.indexOf(a.name) - ORDER.indexOf(b.name));

// --- Reading

/**
 * What the rules read, each thing once and only when it is asked for.
 * @param {Input} input @param {() => Promise<void>} breathe
 */
async function createKnown({ recording, source, contents, marks, range, signal }, breathe) {
  const files = [...contents.csv, ...contents.files];
  const bytesOf = (/** @type {string} */ path) => files.find((file) => file.path === path)?.bytes ?? 0;
  const charts = chartsOf(contents.csv, contents.files);
  /** @type {Map<string, Promise<Judged[]>>} */
  const known = new Map();
  /** @type {[string, string][]} */
  const figures = [];
  /** @type {string[]} */
  const remarks = [];
  const within = (/** @type {number} */ time) => !range || (time >= range[0] && time <= range[1]);
  /** The part of a series that is judged. @param {Series} whole @returns {Judged} */
  function judged(whole) {
    const [first, end] = range ? [firstFrom(whole.times, range[0]), firstFrom(whole.times, range[1] + 1)] : [0, whole.times.length];
    return { ...whole, times: whole.times.slice(first, end), values: whole.values.slice(first, end), whole };
  }

  /** @template Digest @param {string} path @param {{add: (line: string) => void, finish: (steps?: number) => Digest}} digest @param {number} [steps] */
  async function digestOf(path, digest, steps) {
    const bytes = bytesOf(path);
    if (bytes === 0) {
      return null;
    }
    const reader = lineReader(digest.add);
    await recording.read(path, (piece) => reader.add(piece), { from: Math.max(0, bytes - MOST_LOG_BYTES), most: MOST_LOG_BYTES, signal });
    reader.finish();
    if (bytes > MOST_LOG_BYTES) {
      remarks.push(`of ${path} all but the last ${byteSize(MOST_LOG_BYTES)}`);
    }
    return digest.finish(bytes > MOST_LOG_BYTES ? 0 : steps);
  }
  const allRows = contents.csv.some(({ path }) => path === REGULAR) ? (await source.table(REGULAR, /./, { signal })).times : [];
  const rows = allRows.filter(within);
  const log = await digestOf(LOG, logDigest(within));
  await breathe();
  const everyRow = orderedTimes(allRows);
  const http = await digestOf(HTTP_LOG, httpDigest(within), Math.round(((everyRow.at(-1) ?? 0) - (everyRow[0] ?? 0)) / LOG_STEP_S));
  await breathe();
  const ascending = everyRow.filter(within);
  const span = /** @type {[number, number]} */ (range ?? (ascending.length > 0 ? [ascending[0], ascending.at(-1)]
    : log && log.all.count > 0 ? [log.all.first, log.all.last] : [0, 0]));
  const judgedMarks = marks.filter(({ time, until }) => !range || ((until ?? time) >= range[0] && time <= range[1]));
  /** @type {Promise<number> | null} */
  let cores = null;

  return {
    files, marks: judgedMarks, log, http, rows, sorted: ascending, span, within, figures, remarks, breathe,
    gaps: holes(everyRow).filter(([from, to]) => !range || (to > range[0] && from < range[1])),
    restarts: marks.filter(({ kind }) => kind === 'reboot').map(({ time }) => time),
    /** How many processors the camera has, as its log or a table of its interrupts tells; 0 where neither does. */
    cores() {
      cores ??= (async () => {
        const table = files.filter(({ path }) => INTERRUPTS.test(path)).at(-1);
        if (log?.processors || !table) {
          return log?.processors ?? 0;
        }
        let head = '';
        await recording.read(table.path, (piece) => { head += new TextDecoder().decode(piece); }, { most: HEAD_BYTES, signal });
        return head.split('\n')[0]?.match(/\bCPU\d+\b/g)?.length ?? 0;
      })();
      return cores;
    },
    /** @param {string} beginning of ids */
    idsOf: (beginning) => charts.map(({ id }) => id).filter((id) => id.startsWith(beginning)),
    /** @param {string} name @param {string} value */
    figure: (name, value) => { figures.push([name, value]); },
    /** The series of a chart; none where it was not recorded. @param {string} id @returns {Promise<Judged[]>} */
    series(id) {
      const chart = charts.find((one) => one.id === (id === 'memory-total' ? 'memory' : id));
      const reading = known.get(id) ?? (async () => {
        if (!chart) {
          return [];
        }
        const all = chart.parts.reduce((sum, { path }) => sum + bytesOf(path), 0) <= MOST_CHART_BYTES;
        const reads = id === 'memory-total' ? [{ ...chart, derived: [], parts: chart.parts.filter(({ path }) => path.endsWith('/MemTotal.csv')) }]
          // Of many things each by itself: they are put together in one go.
          : chart.choice === null || !all ? [chart]
            : [...groupedBy(chart.parts, ({ name }) => name('', '')).values()].map((parts) => ({ ...chart, parts }));
        /** @type {Series[]} */
        const series = [];
        for (let next = 0; next < reads.length; next += AT_ONCE) {
          for (const read of await Promise.all(reads.slice(next, next + AT_ONCE).map((one) => source.read(one, { signal })))) {
            series.push(...read.series);
          }
          await breathe();
        }
        const isState = chart.parts.some(({ kind }) => kind === 'state');
        for (const { name } of isState ? [] : series.filter(({ categories }) => categories)) {
          remarks.push(`${chart.title}: ${name}, where texts stand among the numbers`);
        }
        if (series.length === 0) {
          remarks.push(`${chart.title}: no rows that can be used`); // none at all, or texts among the numbers
        }
        return series.filter(({ categories }) => isState || !categories).map(judged);
      })();
      known.set(id, reading);
      return reading;
    },
    /**
     * The bytes of the kernel's caches that a first and a last row make worth reading.
     * @param {(cache: {name: string, first: number, last: number}) => boolean} isWanted
     * @returns {Promise<Judged[]>}
     */
    async slabCaches(isWanted) {
      /** @type {Judged[]} */
      const wanted = [];
      const parts = charts.find(({ id }) => id === 'slab')?.parts ?? [];
      for (let next = 0; next < parts.length; next += AT_ONCE) {
        await breathe();
        await Promise.all(parts.slice(next, next + AT_ONCE).map(async ({ path, name: nameOf }) => {
          const name = nameOf('', '');
          const [first, last] = await source.ends(path, SLAB, { signal });
          if (isWanted({ name, first: bytesOfSlab(first)[0] ?? 0, last: bytesOfSlab(last).at(-1) ?? 0 })) {
            const all = seriesOf(await source.table(path, SLAB, { signal }));
            wanted.push(judged({ name, times: all[0]?.times ?? [], values: bytesOfSlab(all), categories: null, unit: 'B' }));
          }
        }));
      }
      return wanted;
    },
    /** A file of a chart by a part of its path. @param {string} id @param {string} part */
    fileOf: (id, part) => {
      const paths = charts.find((one) => one.id === id)?.parts.map(({ path }) => path) ?? [];
      return paths.find((path) => path.includes(part)) ?? paths[0];
    },
    /** @param {string} what of a rule's "reads" */
    isRecorded: (what) => (what === 'marks' || (what === 'rows' ? rows.length > 1 : what === 'log' ? log !== null : what === 'http' ? http !== null : what === 'images' ? contents.complete && files.some(({ path }) => IMAGES.test(path))
      : charts.some(({ id }) => (what.endsWith('-') ? id.startsWith(what) : id === what)))),
  };
}

/**
 * @typedef {object} Input
 * @property {import('./recording.js').Recording} recording
 * @property {ReturnType<typeof import('./session_series.js').createSource>} source
 * @property {import('./recording.js').Contents} contents
 * @property {Mark[]} marks
 * @property {[number, number]} [range] only that time is judged, by what is usual in all of it
 * @property {AbortSignal} [signal]
 * @property {(done: number) => void} [onProgress] from 0 to 1
 */

const SLAB = /^(?:Active objects|Object size)$/;
/** The bytes of a cache's objects in each row. @param {Series[]} columns @returns {(number | null)[]} */
function bytesOfSlab(columns) {
  const [objects, size] = ['Active objects', 'Object size'].map((title) => columns.find(({ name }) => name === title)?.values ?? []);
  return (objects ?? []).map((count, row) => (count === null || size?.[row] === null || size?.[row] === undefined ? null : count * size[row]));
}

/** How much the rules read of a recording. @param {import('./recording.js').Contents} contents */
export function bytesToRead({ csv, files }) {
  const wanted = RULES.flatMap(({ reads }) => reads);
  const paths = new Set(chartsOf(csv, files).filter(({ id }) => wanted.some((one) => id === one || (one.endsWith('-') && id.startsWith(one))))
    .flatMap(({ parts }) => parts.map(({ path }) => path)).concat(LOG, HTTP_LOG, REGULAR));
  return [...csv, ...files].reduce((sum, { path, bytes }) => sum + (!paths.has(path) ? 0 : path.includes('/monitoring_slabinfo/') ? Math.min(bytes, SLAB_BYTES) : bytes), 0);
}

/**
 * Applies all rules. Throws when it is aborted, and what reading throws.
 * @param {Input} input
 * @returns {Promise<{findings: Finding[], figures: [string, string][], unjudged: string[], span: [number, number]}>} the gravest
 *     findings first; what figures there are; what was not recorded or not whole
 */
export async function findingsOf(input) {
  const { signal, onProgress } = input;
  let since = performance.now();
  /** Lets the page go on. */
  async function breathe() {
    signal?.throwIfAborted();
    if (performance.now() - since > SLICE_MS) {
      await new Promise((resolve) => { setTimeout(resolve, 0); });
      since = performance.now();
    }
  }
  const known = await createKnown(input, breathe);
  /** @type {Finding[]} */
  const findings = [];
  /** @type {string[]} */
  const unjudged = [];
  for (const [index, rule] of RULES.entries()) {
    onProgress?.((index + 1) / (RULES.length + 1));
    await breathe();
    if (!rule.reads.every(known.isRecorded)) {
      unjudged.push(rule.subject);
      continue;
    }
    const found = await rule.find(known, rule.limits);
    for (const { severity, text, from, to, limit, chart = '', path = '' } of found.slice(0, MOST_OF_A_RULE)) {
      findings.push({ rule: rule.name, severity, text, from, to, chart, ...(limit ? { limit } : {}), path: (chart && !path.includes('_monitoring/') ? known.fileOf(chart, path) : path) ?? '' });
    }
    if (found.length > MOST_OF_A_RULE) {
      known.figure(`More findings: ${rule.name}`, numberText(found.length - MOST_OF_A_RULE));
    }
  }
  findings.sort((a, b) => SEVERITIES.indexOf(a.severity) - SEVERITIES.indexOf(b.severity));
  return { findings, figures: known.figures, unjudged: [...unjudged, ...known.remarks], span: known.span };
}
