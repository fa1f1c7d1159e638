// Reads what two recordings are compared by. Needs no page.

import { chartsOf } from './catalogue.js';
import { findingsOf } from './findings.js';
import { readMarks } from './recording_marks.js';
import { readWhole } from './recording.js';
import { lastState } from './report_data.js';
import { informationOf } from './session_data.js';
import { createSource } from './session_series.js';

const INFORMATION = 'Session_Information.txt';
const MOST_INFORMATION_BYTES = 256 * 1024;
const VERSIONS = 'package-version'; // told with the information
const TWICE = 'process-growth'; // what other charts have as well

/** @typedef {import('./catalogue.js').Chart} Chart */
/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./report_data.js').Known} Known */
/** @typedef {import('./recording.js').Recording} Recording */
/** @typedef {Awaited<ReturnType<typeof readSide>>} Side */

/** What is known of a recording that is not in sight. @param {Recording} recording @returns {Promise<Known>} */
async function knownOf(recording) {
  const contents = await recording.list();
  const files = new Map([...contents.csv, ...contents.files].map((file) => [file.path, file]));
  const facts = files.has(INFORMATION) ? informationOf(await (await readWhole(recording, INFORMATION, { most: MOST_INFORMATION_BYTES })).text()) : [];
  return { contents, facts, marks: await readMarks(createSource(recording, (path) => files.get(path)), contents, facts) };
}

/** @param {Recording} recording @param {Known | null} known @param {AbortSignal} signal @param {(done: number) => void} onProgress */
async function readSide(recording, known, signal, onProgress) {
  const { contents, facts, marks } = known ?? await knownOf(recording);
  const files = new Map([...contents.csv, ...contents.files].map((file) => [file.path, file]));
  const source = createSource(recording, (path) => files.get(path));
  const { findings, span } = await findingsOf({ recording, source, contents, marks, signal, onProgress });
  return { recording, source, charts: chartsOf(contents.csv, contents.files), facts, marks, findings, span };
}

/**
 * Reads both; of one recording with itself once.
 * @param {Recording} recording @param {Known} known of it
 * @param {Recording} other
 * @param {{signal: AbortSignal, onProgress: (done: number) => void}} options
 */
export async function readBoth(recording, known, other, { signal, onProgress }) {
  const same = other === recording;
  const a = await readSide(recording, known, signal, (done) => onProgress(done * (same ? 0.6 : 0.3)));
  const b = same ? a : await readSide(other, null, signal, (done) => onProgress(0.3 + done * 0.3));
  const ids = [...new Set([...a.charts, ...b.charts].map(({ id }) => id).filter((id) => id !== TWICE))];
  /** @type {{chart: Chart, a: Series[], b: Series[]}[]} */
  const charts = [];
  /** @type {Map<Side, [string, string][]>} */
  const versions = new Map();
  for (const [index, id] of ids.entries()) {
    signal.throwIfAborted();
    onProgress(0.6 + 0.4 * index / ids.length);
    const sides = same ? [a] : [a, b];
    const own = sides.map((side) => side.charts.find((chart) => chart.id === id));
    let read = await Promise.all(own.map((chart, at) => (chart ? sides[at]?.source.read(chart, { signal }) : undefined)));
    const chart = own[0] ?? own[1];
    if (chart?.choice && !same) {
      // Of very many things those that are among the most on either side.
      const names = new Set(read.flatMap((one) => one?.series.map(({ name }) => name) ?? []));
      read = await Promise.all(own.map((one, at) => (one ? sides[at]?.source.read(
        { ...one, choice: null, parts: one.parts.filter((part) => names.has(part.name('', ''))) }, { signal }) : undefined)));
    }
    const series = read.map((one) => one?.series ?? []);
    if (id === VERSIONS) {
      for (const [at, side] of sides.entries()) {
        versions.set(side, (series[at] ?? []).map(lastState).map(([name, version]) => [`Version of ${name}`, version]));
      }
    } else if (chart) {
      charts.push({ chart, a: series[0] ?? [], b: series[same ? 0 : 1] ?? [] });
    }
  }
  const side = (/** @type {Side} */ one) => ({ title: one.recording.title, facts: [...one.facts, ...versions.get(one) ?? []], findings: one.findings, marks: one.marks, span: one.span });
  return { same, a: side(a), b: side(b), charts };
}
