// The dashboards of a recording: which charts are shown, over which time.

import { chartOfId, chartsOf, chartsOfBoard, GLANCE, GROUPS } from './catalogue.js';
import { createChartCard } from './chart_card.js';
import { actionButton } from './controls.js';
import { el, setText } from './dom.js';
import { createPicker } from './picker.js';
import { whenSeen } from './seen.js';
import { wallText } from './series.js';

const ZOOM = 2;
const PAN = 0.25;
const OWN = 'My choice';
const FRAME_MS = 40;
const FEW = 8;

/** @typedef {import('./catalogue.js').Chart} Chart */
/** @typedef {ReturnType<typeof import('./chart_group.js').createChartGroup>} Group */

/** @param {Group} group */
function rangeTools(group) {
  /** @param {string} text @param {string} name @param {() => void} act */
  const button = (text, name, act) => el('button', { type: 'button', 'aria-label': name, title: name, onclick: act }, text);
  return el('div', { class: 'tools small', role: 'group', 'aria-label': 'Time in sight' },
    button('All', 'All', () => group.setRange(null)),
    button('+', 'Zoom in', () => group.zoom(1 / ZOOM)), button('−', 'Zoom out', () => group.zoom(ZOOM)),
    button('←', 'Earlier', () => group.pan(-PAN)), button('→', 'Later', () => group.pan(PAN)));
}

/**
 * @param {object} options
 * @param {ReturnType<typeof import('./session_series.js').createSource>} options.source
 * @param {Group} options.group
 * @param {(step: boolean) => void} options.changed another choice of charts
 * @param {(board: string) => HTMLElement[]} options.beside what else stands on a dashboard
 */
export function createBoard({ source, group, changed, beside }) {
  /** @type {Chart[]} */
  let charts = [];
  /** @type {import('./recording.js').Csv[]} */
  let files = [];
  let board = GLANCE;
  /** @type {string[]} of one's own choice */
  let own = [];
  /** @type {Map<string, {card: ReturnType<typeof createChartCard>, stop: () => void, seen: Promise<void> | null}>} */
  const cards = new Map();
  const tabs = el('div', { class: 'tools tabs', role: 'group', 'aria-label': 'Dashboards' });
  const place = el('div', { class: 'board' });
  const besides = el('div', { class: 'view' });
  const rangeText = el('p', { class: 'quiet range' });
  const empty = el('p', { class: 'empty', hidden: true });
  const picker = createPicker({
    source,
    isShown: (id) => idsNow().includes(id),
    choose: (id, shown) => take(shown ? [...idsNow(), id] : idsNow().filter((one) => one !== id)),
    join: (ids) => take(ids.length > 1 ? [ids.join('+')] : ids),
  });
  const pickerButton = el('button', {
    type: 'button', 'aria-expanded': 'false',
    onclick: () => {
      picker.element.hidden = !picker.element.hidden;
      pickerButton.setAttribute('aria-expanded', String(!picker.element.hidden));
      if (!picker.element.hidden) {
        picker.show(charts, files);
        picker.focus();
      } else {
        picker.stop();
      }
    },
  }, 'Choose charts');
  const copied = el('span', { class: 'quiet', role: 'status' });
  const copyButton = actionButton('Copy link', async () => {
    changed(false);
    const done = await navigator.clipboard?.writeText(location.href).then(() => true, () => false);
    setText(copied, done ? 'Copied.' : 'The address bar has the link.');
    setTimeout(() => setText(copied, ''), 4000);
  });
  const element = el('section', { class: 'view', 'aria-label': 'Charts', tabindex: -1 },
    el('div', { class: 'chart-tools' }, tabs,
      el('div', { class: 'tools apart' }, el('div', { class: 'tools small' }, pickerButton, rangeTools(group), copyButton, copied), rangeText)),
    picker.element, empty, place, besides,
    el('p', { class: 'quiet' }, 'Drag over a chart to zoom, with the Shift key to move along; Ctrl and the wheel zoom too, '
      + 'a double click shows all. Times are those of the camera’s clock.'));
  group.onRange(([from, to]) => setText(rangeText, to - from <= 1 ? '' : `${wallText(from)} to ${wallText(to)}`));

  const isFile = (/** @type {string} */ path) => files.some((file) => file.path === path);
  const idsNow = () => (board === '' ? own : chartsOfBoard(charts, board).map(({ id }) => id));
  const boards = () => [GLANCE, ...GROUPS].filter((one) => chartsOfBoard(charts, one).length > 0);

  /** @param {string[]} ids */
  function take(ids) {
    board = '';
    own = [...new Set(ids)];
    show();
    changed(true);
  }

  function showTabs() {
    const names = [...boards(), ...(own.length > 0 ? [''] : [])];
    tabs.replaceChildren(...names.map((name) => el('button', {
      type: 'button', 'aria-pressed': String(name === board),
      onclick: () => {
        board = name;
        show();
        changed(true);
        [...tabs.children].find((tab) => tab.textContent === (name || OWN))?.querySelector('button');
        /** @type {HTMLElement | undefined} */ ([...tabs.children].find((tab) => tab.textContent === (name || OWN)))?.focus();
      },
    }, name || OWN)));
  }

  /** Makes what is missing and lets go of what is not shown any more. */
  function show() {
    const wanted = idsNow().flatMap((id) => chartOfId(charts, id, isFile) ?? []);
    for (const [id, { card, stop }] of cards) {
      if (!wanted.some((chart) => chart.id === id)) {
        stop();
        card.close();
        cards.delete(id);
      }
    }
    for (const chart of wanted) {
      const known = cards.get(chart.id);
      if (known) {
        place.append(known.card.element);
        continue;
      }
      const card = createChartCard({ source, chart, group, remove: () => {
        take(idsNow().filter((id) => id !== chart.id));
        cards.delete(chart.id);
      } });
      place.append(card.element);
      /** @type {{card: ReturnType<typeof createChartCard>, stop: () => void, seen: Promise<void> | null}} */
      const record = { card, seen: null, stop: () => {} };
      const load = () => { record.seen = card.load(); };
      if (board === '' && wanted.length <= FEW) {
        load(); // it was asked for, even if the panel still covers it
      } else {
        record.stop = whenSeen(card.element, load);
      }
      cards.set(chart.id, record);
    }
    besides.replaceChildren(...beside(board));
    empty.hidden = wanted.length > 0;
    setText(empty, charts.length === 0 && files.length === 0 ? 'No data has been recorded yet.' : 'No chart is chosen.');
    showTabs();
    picker.update();
  }

  return {
    element,
    sight: () => ({ board: board === GLANCE ? '' : board, charts: board === '' ? own : [] }),
    /**
     * Another listing of the recording.
     * @param {import('./recording.js').Contents} contents
     */
    list(contents) {
      charts = chartsOf(contents.csv, contents.files);
      files = contents.csv;
      if (!picker.element.hidden) {
        picker.show(charts, files);
      }
    },
    /** What a link says. @param {{board: string, charts: string[]}} sight */
    apply(sight) {
      own = sight.charts.filter((id) => chartOfId(charts, id, isFile));
      const all = boards();
      board = own.length > 0 ? '' : all.includes(sight.board) ? sight.board : all[0] ?? GLANCE;
      show();
    },
    /** Resolves once the charts in sight are drawn, but for those that read very many files. */
    async drawn() {
      await new Promise((resolve) => { setTimeout(resolve, FRAME_MS); }); // what is in sight is known a frame later
      await Promise.all([...cards.values()].flatMap(({ card, seen }) => (card.isLong ? [] : [seen])));
    },
    /** Reads what is shown anew. */
    async refresh() {
      show();
      await Promise.all([...cards.values()].flatMap(({ card, seen }) => (seen ? [card.load()] : [])));
    },
    close() {
      picker.close();
      for (const { card, stop } of cards.values()) {
        stop();
        card.close();
      }
      cards.clear();
    },
  };
}
