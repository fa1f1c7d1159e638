// Reads what a report of a recording holds. Needs no page.

import { chartOfId, chartsOf, chartsOfBoard, GLANCE } from './catalogue.js';
import { findingsOf } from './findings.js';
import { counted } from './format.js';
import { wallText } from './series.js';
import { duration } from './session_data.js';
import { createSource } from './session_series.js';

const MOST_PICTURES = 24;
const MARGIN_S = 900; // beside a finding's time

/** What a thing was last. @param {import('./series.js').Series} series @returns {[string, string]} its name and state */
export function lastState({ name, values, categories }) {
  const last = values.filter((value) => value !== null).at(-1);
  return [name, last === undefined ? '' : categories?.[last] ?? String(last)];
}

/**
 * What is known of a recording before it is read through.
 * @typedef {object} Known
 * @property {import('./recording.js').Contents} contents
 * @property {[string, string][]} facts of its information file
 * @property {import('./marks.js').Mark[]} marks
 */

/**
 * @param {import('./recording.js').Recording} recording
 * @param {Known} known
 * @param {{signal?: AbortSignal, onProgress?: (done: number) => void}} options
 * @returns {Promise<import('./report.js').Report>}
 */
export async function readReport(recording, { contents, facts, marks }, { signal, onProgress }) {
  const files = new Map([...contents.csv, ...contents.files].map((file) => [file.path, file]));
  const source = createSource(recording, (path) => files.get(path));
  const charts = chartsOf(contents.csv, contents.files);
  const { findings, figures, unjudged, span } = await findingsOf({
    recording, source, contents, marks, signal, onProgress: (done) => onProgress?.(done * 0.8),
  });
  const seriesOf = async (/** @type {import('./catalogue.js').Chart} */ chart) => (await source.read(chart, { signal })).series;
  let pictures = 0;
  /** @type {import('./report.js').Report['findings']} */
  const shown = [];
  for (const finding of findings) {
    const chart = finding.chart && finding.severity !== 'note' ? chartOfId(charts, finding.chart, (path) => files.has(path)) : null;
    const margin = Math.max(MARGIN_S, (finding.to - finding.from) / 10);
    shown.push({ ...finding, ...(chart && pictures++ < MOST_PICTURES ? { picture: {
      title: chart.title, series: await seriesOf(chart), matters: [finding.from, finding.to], ...(finding.limit ? { limit: finding.limit } : {}),
      range: [Math.max(span[0], finding.from - margin), Math.min(span[1], finding.to + margin)],
    } } : {}) });
  }
  onProgress?.(0.9);
  /** @type {import('./report.js').Report['pictures']} */
  const whole = [];
  for (const chart of chartsOfBoard(charts, GLANCE)) {
    whole.push({ title: chart.title, series: await seriesOf(chart), range: span });
  }
  const versions = charts.find(({ id }) => id === 'package-version');
  const wrong = findings.filter(({ severity }) => severity !== 'note').length;
  const length = span[1] > span[0] ? ` in ${duration(Math.round((span[1] - span[0]) / 60))}, from ${wallText(span[0])} to ${wallText(span[1])}` : '';
  return {
    title: recording.title, made: wallText((Date.now() - new Date().getTimezoneOffset() * 60000) / 1000), facts, findings: shown, figures, unjudged, marks, span, pictures: whole,
    verdict: wrong > 0 ? `${counted(wrong, 'finding')}${length}.` : span[1] > span[0] ? `Nothing wrong was found${length}.` : 'Too little was recorded to judge.',
    versions: (versions ? await seriesOf(versions) : []).map(lastState),
  };
}
