// What matters now: the last hour of the running session in small, what happened lately, the state of
// the storages, what is set.

import { request } from './api.js';
import { onCamera } from './camera.js';
import { chartsOf, idOfFile } from './catalogue.js';
import { el, setText } from './dom.js';
import { bytesToRead } from './findings.js';
import { findingItem, MOST_UNASKED_BYTES } from './findings_card.js';
import { foundBefore, lookFor } from './findings_memory.js';
import { byteSize, counted } from './format.js';
import { readLooseJson } from './loose_json.js';
import { KIND_TITLES } from './marks.js';
import { cameraRecording } from './recording.js';
import { readMarks } from './recording_marks.js';
import { firstFrom, summaryOf, wallText } from './series.js';
import { duration, list } from './session_data.js';
import { createSource } from './session_series.js';
import { sparkline } from './sparkline.js';
import { daysLeft, readStorages } from './storages.js';
import { valueText } from './units.js';

const HOUR_S = 3600;
const PERIOD_MS = 60000;
const MOST_LOG_BYTES = 256 * 1024;
const MOST_MARKS = 6;
const MOST_FINDINGS = 3;
const FINDINGS_PERIOD_MS = 600000; // a running session changes all the time: its findings hold for so long
const SMALL = ['load', 'available', 'temperature', 'traffic-eth0'];

/** @typedef {import('./session_data.js').Camera} Camera */
/** @typedef {import('./series.js').Series} Series */

/** @param {Series} series @param {number} from */
function since(series, from) {
  const first = firstFrom(series.times, from);
  return { ...series, times: series.times.slice(first), values: series.values.slice(first) };
}

/** @param {string} title @param {Series[]} all @param {string} href */
function smallChart(title, all, href) {
  const end = Math.max(...all.map(({ times }) => times[times.length - 1] ?? 0));
  const hour = all.map((series) => since(series, end - HOUR_S)).filter(({ times }) => times.length > 0);
  return el('a', { class: 'small-chart', href }, el('h3', {}, title), ...hour.slice(0, 3).flatMap((series) => {
    const sum = summaryOf(series);
    return !sum ? [] : [el('p', { class: 'now' }, el('b', {}, valueText(sum.last, series.unit)), ' ',
      el('span', { class: 'quiet' }, el('bdi', {}, series.name))),
    sparkline(series, `${series.name}: ${valueText(sum.min, series.unit)} to ${valueText(sum.max, series.unit)}`)];
  }));
}

/** @param {import('./storages.js').StorageState} storage @param {string} note */
function storageRow({ title, bytes, percent, trouble }, note) {
  const used = percent === null ? '' : `${percent} % of ${byteSize(bytes)} used`;
  const bar = el('meter', { min: 0, max: 100, high: 80, optimum: 0, value: percent ?? 0, 'aria-label': `${title}: ${used}` });
  return el('li', {}, el('p', {}, el('b', {}, title), ' ', el('span', { class: 'quiet' }, used)),
    percent === null ? null : bar,
    trouble || note ? el('p', { class: trouble ? 'failure' : 'quiet' }, trouble || note) : null);
}

/** @param {Camera} camera @returns {Promise<(string | Node)[][]>} */
async function whatIsSet(camera) {
  const { restart, ptz, server } = camera.maintenance;
  const schedule = (/** @type {import('./session_data.js').Schedule} */ { minutes, times }) => (minutes > 0 ? `every ${duration(minutes)}` : times);
  const told = readLooseJson(await request('list_nc_rules')).value;
  const rules = list(/** @type {{Rules?: unknown}} */ (told ?? {}).Rules)
    .map((one) => /** @type {Record<string, unknown>} */ (one ?? {}));
  const failing = rules.filter(({ alive, checks }) => alive !== 1 && Number(checks) > 0);
  const link = (/** @type {string} */ hash, /** @type {string} */ text) => el('a', { href: hash }, text);
  return [
    ...(failing.length > 0 ? [[link('#/device_test', counted(failing.length, 'host')), ` of the device test can’t be reached: `,
      el('bdi', {}, failing.slice(0, 3).map(({ name, address }) => String(name || address)).join(', '))]] : []),
    [link('#/triggers', counted(camera.triggers, 'log trigger')), rules.length > 0 ? ', ' : '',
      rules.length > 0 ? link('#/device_test', `${counted(rules.length, 'host')} under test`) : ''],
    ...(schedule(restart) ? [[link('#/maintenance', 'Restarts'), ` ${schedule(restart)}`]] : []),
    ...(schedule(ptz) ? [[link('#/maintenance', 'PTZ tests'), ` ${schedule(ptz)}`]] : []),
    [link('#/maintenance', 'Remote log'), server ? ': ' : ': none', server ? el('bdi', {}, server) : ''],
  ];
}

/** As the address has a time. @param {number} seconds */
const stamp = (seconds) => wallText(seconds).replace(' ', 'T');

/** Where a finding is shown: its chart at its time. @param {string} directory @param {import('./findings.js').Finding} finding */
function hrefOfFinding(directory, { chart, path, from, to }) {
  const margin = Math.max(HOUR_S / 4, (to - from) / 10);
  const id = chart || (path.endsWith('.csv') ? idOfFile(path) : 'log');
  return `#/session?path=${encodeURIComponent(directory)}&charts=${encodeURIComponent(id)}&from=${stamp(from - margin)}&to=${stamp(to + margin)}`;
}

/** @returns {HTMLElement[]} cards */
export function createNow() {
  const charts = el('div', { class: 'small-charts' });
  const chartsNote = el('p', { class: 'quiet' });
  const chartsCard = el('section', { class: 'card', 'aria-label': 'The last hour' }, el('h2', {}, 'The last hour'), chartsNote, charts);
  const lately = el('ul', { class: 'lately' });
  const latelyCard = el('section', { class: 'card', 'aria-label': 'What happened lately', hidden: true }, el('h2', {}, 'What happened lately'), lately);
  const findings = el('ul', { class: 'findings' });
  const findingsNote = el('p', { class: 'quiet', role: 'status' });
  const findingsCard = el('section', { class: 'card', 'aria-label': 'Findings', hidden: true }, el('h2', {}, 'Findings'), findingsNote, findings);
  const storages = el('ul', { class: 'storages' });
  const storagesCard = el('section', { class: 'card', 'aria-label': 'Storages' }, el('h2', {}, 'Storages'), storages);
  const set = el('ul', { class: 'lately' });
  const setCard = el('section', { class: 'card', 'aria-label': 'What is set' }, el('h2', {}, 'What is set'), set);

  /** The marks of all of its log, of which only the end is read each minute. @type {{directory: string, marks: import('./marks.js').Mark[]}} */
  let whole = { directory: '', marks: [] };

  /** @param {Camera} camera */
  async function showSession({ directory }) {
    const recording = cameraRecording(directory);
    const contents = await recording.list();
    const listed = new Map([...contents.files, ...contents.csv].map((file) => [file.path, file]));
    const source = createSource(recording, (path) => listed.get(path), MOST_LOG_BYTES);
    const found = chartsOf(contents.csv);
    const href = (/** @type {string} */ group) => `#/session?path=${encodeURIComponent(directory)}&board=${encodeURIComponent(group)}`;
    const shown = await Promise.all(SMALL.flatMap((id) => found.find((chart) => chart.id === id) ?? []).map(async (chart) => {
      const series = (await source.readEnd(chart)).filter(({ categories, values }) => !categories && values.some((value) => value !== null));
      return series.length === 0 ? [] : [smallChart(chart.title, series, href(chart.group))];
    }));
    charts.replaceChildren(...shown.flat());
    setText(chartsNote, shown.flat().length === 0 ? 'Nothing has been recorded yet: the first rows come after two minutes.' : '');
    const marks = await readMarks(source, contents, []);
    const known = whole.directory === directory ? whole.marks : [];
    showLately(directory, [...known, ...marks.filter(({ time }) => time > (known.at(-1)?.time ?? -Infinity))]);
  }

  /** @param {string} directory @param {import('./marks.js').Mark[]} marks */
  function showLately(directory, marks) {
    const around = (/** @type {number} */ time) => `&from=${stamp(time - HOUR_S / 2)}&to=${stamp(time + HOUR_S / 2)}`;
    lately.replaceChildren(...marks.slice(-MOST_MARKS).reverse().map(({ time, kind, text }) => el('li', {},
      el('a', { href: `#/session?path=${encodeURIComponent(directory)}${around(time)}` }, wallText(time)),
      ` ${KIND_TITLES[kind]}: `, el('bdi', {}, text))));
    latelyCard.hidden = marks.length === 0;
  }

  /** The gravest findings of the running session. @param {Camera} camera */
  async function showFindings({ directory }) {
    const recording = cameraRecording(directory);
    const contents = await recording.list();
    const link = el('a', { href: `#/session?path=${encodeURIComponent(directory)}` }, 'All findings of the running session');
    if (bytesToRead(contents) > MOST_UNASKED_BYTES && !foundBefore(recording.title, contents, FINDINGS_PERIOD_MS)) {
      findingsNote.replaceChildren('Much has been recorded: they are looked for when asked. ', link);
      return;
    }
    const controller = new AbortController();
    const listed = new Map([...contents.files, ...contents.csv].map((file) => [file.path, file]));
    const source = createSource(recording, (path) => listed.get(path));
    let told = foundBefore(recording.title, contents, FINDINGS_PERIOD_MS);
    if (!told || whole.directory !== directory) {
      whole = { directory, marks: await readMarks(source, contents, []) };
      showLately(directory, whole.marks);
    }
    told ??= await lookFor(recording.title, {
      recording, source, contents, marks: whole.marks, signal: controller.signal,
      onProgress: () => (findingsCard.getClientRects().length === 0 ? controller.abort() : undefined), // who has gone on needs none
    });
    const wrong = told.findings.filter(({ severity }) => severity !== 'note');
    findings.replaceChildren(...wrong.slice(0, MOST_FINDINGS).map((finding) => findingItem(finding, el('a', { href: hrefOfFinding(directory, finding) }, finding.text))));
    findingsNote.replaceChildren(`${wrong.length === 0 ? 'Nothing wrong was found' : wrong.length > MOST_FINDINGS ? `The first ${MOST_FINDINGS} of ${wrong.length}` : counted(wrong.length, 'finding')}, up to ${wallText(told.span[1])}. `, link);
  }

  /** @param {Camera} camera */
  async function showStorages(camera) {
    const running = camera.sessions.find((session) => session.running);
    storages.replaceChildren(...(await readStorages()).map((storage) => {
      const isUsed = camera.active && storage.title === camera.storage;
      const days = isUsed && running ? daysLeft(storage, running.bytes, camera.minutes) : null;
      const note = !isUsed ? '' : days === null ? 'the session is recorded here'
        : `the session is recorded here; at its rate the storage is full in ${days < 1 ? 'less than a day' : counted(Math.floor(days), 'day')}`;
      return storageRow(storage, note);
    }));
  }

  let shownAt = -Infinity;
  let shownFor = '';
  onCamera(chartsCard, async ({ camera, asking }) => {
    const now = performance.now();
    const key = camera ? `${camera.active} ${camera.directory} ${camera.triggers} ${JSON.stringify(camera.maintenance)}` : '';
    if (!camera || asking || (now - shownAt < PERIOD_MS && key === shownFor) || chartsCard.getClientRects().length + latelyCard.getClientRects().length === 0 && shownFor === key) {
      return;
    }
    shownAt = now;
    shownFor = key;
    chartsCard.hidden = !camera.active;
    findingsCard.hidden = !camera.active;
    latelyCard.hidden = !camera.active || lately.childElementCount === 0;
    await showStorages(camera).catch((error) => storages.replaceChildren(el('li', { class: 'quiet' }, error.message)));
    await whatIsSet(camera).then((lines) => set.replaceChildren(...lines.map((parts) => el('li', {}, ...parts))), () => {});
    if (camera.active) {
      await showSession(camera).catch(() => setText(chartsNote, 'It can’t be read now.'));
      await showFindings(camera).catch((error) => setText(findingsNote, error.name === 'AbortError' ? '' : 'They can’t be looked for now.'));
    }
  });
  return [findingsCard, chartsCard, storagesCard, latelyCard, setCard];
}
