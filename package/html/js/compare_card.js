// Two recordings, or two spans of one, beside each other: what differs, the most first, each with a chart
// that has both on one line of time, the time since the start of each.

import { openArchive } from './archive_file.js';
import { createBreath } from './breath.js';
import { createChartGroup } from './chart_group.js';
import { comparedFacts, comparedFindings, comparedQuantities, sinceStart, spansToCompare } from './compare.js';
import { readBoth } from './compare_data.js';
import { actionButton, createMessage, createTable, field, select } from './controls.js';
import { el, setText } from './dom.js';
import { counted } from './format.js';
import { createLongWork } from './long_work.js';
import { createPlot, lookOf } from './plot.js';
import { wallSeconds, wallText } from './series.js';

const MOST_ROWS = 200;
const FIRST_ROWS = 20;
const FILE = 'file';
const OWN = 'own';

/** @typedef {{title: string, recording: import('./recording.js').Recording}} Other */
/** @typedef {[number, number]} Range */
/** @typedef {import('./compare.js').Quantity} Quantity */

/** A field for a time of the camera's clock. @param {string} label @param {() => void} onchange */
function timeField(label, onchange) {
  const input = el('input', { type: 'datetime-local', step: 1, 'aria-label': label, onchange });
  return {
    input,
    get: () => {
      const [day = '', clock = ''] = input.value.split('T');
      return wallSeconds(day, clock.length === 5 ? `${clock}:00` : clock.slice(0, 8));
    },
    /** @param {number} time */
    set(time) {
      input.value = wallText(Math.round(time)).replace(' ', 'T');
    },
  };
}

/**
 * @param {import('./recording.js').Recording} recording
 * @param {() => import('./report_data.js').Known} known
 * @param {import('./board.js').Group} main the charts of the recording
 * @param {() => Promise<Other[]>} others
 */
export function createCompareCard(recording, known, main, others) {
  /** @type {Other[]} */
  let sessions = [];
  /** @type {ReturnType<typeof spansToCompare>} */
  let spans = [];
  /** @type {Awaited<ReturnType<typeof readBoth>> | null} */
  let read = null;
  /** @type {string | null} */
  let readWith = null;
  const message = createMessage();
  const work = createLongWork('Reading both', message);
  const what = select([], () => chosen());
  const file = el('input', { type: 'file', accept: '.zip,application/zip', 'aria-label': 'Archive to compare with' });
  const filePlace = el('div', { class: 'tools', hidden: true }, file);
  const times = ['A from', 'A to', 'B from', 'B to'].map((label) => timeField(label, () => {
    if (spanNow()) {
      what.value = OWN;
    }
  }));
  const spanPlace = el('div', { class: 'tools' }, ...['A', 'B'].map((side, index) =>
    el('fieldset', { class: 'span' }, el('legend', {}, side), times[2 * index]?.input ?? '', ' to ', times[2 * index + 1]?.input ?? '')));
  const verdict = el('p', { role: 'status' });
  const sides = el('dl', { class: 'facts' });
  const facts = createTable({
    caption: 'Information that differs', columns: [{ title: 'What' }, { title: 'A' }, { title: 'B' }],
    key: (/** @type {[string, string, string]} */ row) => row.join('\n'),
    make: ([name, a, b]) => ({ cells: [name, a, b].map((text) => el('bdi', {}, text)), update() {} }),
  });
  const findings = el('div');
  const quantities = createTable({
    caption: 'Quantities that differ',
    columns: [{ title: 'Quantity' }, { title: 'A' }, { title: 'B' }, { title: 'Change' }, { title: 'How clear' }],
    key: (/** @type {Quantity} */ { chart, name, a, b }) => `${chart.id} ${name} ${a} ${b}`,
    make: (quantity) => ({
      cells: [el('button', { type: 'button', class: 'plain', onclick: () => draw(quantity) }, `${quantity.chart.title}: ${quantity.name}`),
        ...[quantity.a, quantity.b, quantity.change, quantity.clear].map((text) => el('bdi', {}, text))],
      update() {},
    }),
  });
  const more = el('button', { type: 'button', class: 'plain', hidden: true });
  const hint = el('p', { class: 'quiet' }, 'The median, with the 95th percentile in brackets: a twentieth of the rows is above that. “How clear” takes a row of A '
    + 'and a row of B at a time: 50% would be chance.');
  const rest = el('p', { class: 'quiet' });
  const group = createChartGroup();
  const plots = [false, true].map((states) => createPlot(group, states ? 'both, states' : 'both', { sinceStart: true }));
  const chartTitle = el('h3', { tabindex: -1 });
  const legend = el('p', { class: 'quiet sides' });
  const chart = el('div', { class: 'chart', hidden: true }, chartTitle, ...plots.map((plot) => plot.element), legend);
  const result = el('div', { class: 'view', hidden: true }, verdict, sides, facts.element, findings, chart, el('div', { class: 'differences' }, quantities.element, more), hint, rest);
  const element = el('section', { class: 'card', 'aria-label': 'Compare' },
    el('h2', {}, 'Compare'),
    el('p', {}, 'What differs between this recording and another one, or between two spans of it: before and after a restart or a firmware, a good camera and a bad one.'),
    el('div', { class: 'tools' }, field('Compare', what, 'grow')), filePlace, spanPlace,
    el('div', { class: 'tools' }, actionButton('Show differences', () => compare(), { class: 'primary' })), work.element, message.element, result);

  const titleOf = (/** @type {typeof spans[number]} */ { title, time }) => (time === undefined ? title : `${title} ${wallText(time)}`);
  const spanNow = () => spans.find((span) => titleOf(span) === what.value);

  function offer() {
    const [from, to] = main.whole();
    spans = spansToCompare([from, to], main.range(), known().marks);
    const before = what.value;
    const choices = [
      ...spans.map((span) => [titleOf(span), titleOf(span)]),
      [OWN, 'Two spans of my own'],
      ...sessions.map(({ title }, index) => [`session${index}`, `This one and session ${title}`]),
      [FILE, 'This one and an archive on this computer'],
    ];
    what.replaceChildren(...choices.map(([value = '', text = '']) => el('option', { value }, text)));
    what.value = choices.some(([value]) => value === before) ? before : choices[0]?.[0] ?? OWN;
    chosen();
  }
  function chosen() {
    const span = spanNow();
    filePlace.hidden = what.value !== FILE;
    spanPlace.hidden = !span && what.value !== OWN;
    if (span) {
      [...span.a, ...span.b].forEach((time, index) => times[index]?.set(time));
    }
  }

  /** What this recording is compared with. */
  async function otherOf() {
    if (what.value === FILE) {
      const [chosenFile] = file.files ?? [];
      if (!chosenFile) {
        throw Object.assign(new Error('No archive is chosen.'), { advice: 'Choose the zip archive of the other session.' });
      }
      return { key: `${chosenFile.name} ${chosenFile.size} ${chosenFile.lastModified}`, recording: (await openArchive(chosenFile)).recording };
    }
    const index = /^session(\d+)$/.exec(what.value)?.[1];
    const session = index === undefined ? undefined : sessions[Number(index)];
    return session ? { key: session.title, recording: session.recording } : { key: '', recording };
  }

  const compare = () => work.run(async (options) => {
    result.hidden = true;
    const other = await otherOf();
    const own = times.map(({ get }) => get());
    if (other.key === '' && !(Number(own[0]) < Number(own[1]) && Number(own[2]) < Number(own[3]))) {
      throw Object.assign(new Error('A span ends before it begins.'), { advice: 'Give both a beginning and a later end.' });
    }
    if (read === null || readWith !== other.key) {
      read = null;
      const both = await readBoth(recording, known(), other.recording, options);
      options.signal.throwIfAborted();
      [read, readWith] = [both, other.key];
    }
    await show(read, options.signal, .../** @type {[Range, Range]} */ (other.key === '' ? [[own[0], own[1]], [own[2], own[3]]] : [read.a.span, read.b.span]));
    return '';
  });

  /** @type {[Range, Range]} */
  let ranges = [[0, 1], [0, 1]];
  /** @param {NonNullable<typeof read>} both @param {AbortSignal} signal @param {Range} rangeA @param {Range} rangeB */
  async function show(both, signal, rangeA, rangeB) {
    const { quantities: all, only } = await comparedQuantities(both.charts, rangeA, rangeB, createBreath(signal));
    ranges = [rangeA, rangeB];
    const differing = all.filter(({ differs }) => differs);
    const within = (/** @type {typeof both.a} */ side, /** @type {Range} */ [from, to]) => side.findings.filter((finding) => finding.to >= from && finding.from <= to);
    const found = comparedFindings(within(both.a, rangeA), within(both.b, rangeB));
    const told = both.same ? [] : comparedFacts(both.a.facts, both.b.facts);
    setText(verdict, all.length === 0 ? 'There are not enough rows on both sides to compare.'
      : `${differing.length.toLocaleString('en')} of ${counted(all.length, 'quantity').replace(/quantitys$/, 'quantities')} differ clearly${
        told.length > 0 ? `, and ${counted(told.length, 'line')} of the information` : ''}.`);
    sides.replaceChildren(...[both.a, both.b].flatMap((side, index) => [el('dt', {}, index === 0 ? 'A' : 'B'),
      el('dd', {}, el('bdi', {}, side.title), `, ${ranges[index]?.map(wallText).join(' to ')}`)]));
    facts.show(told);
    facts.element.hidden = told.length === 0;
    findings.replaceChildren(...[[found.a, 'Found only in A'], [found.b, 'Found only in B']].flatMap(([some, title]) => (some && some.length > 0 && typeof title === 'string' ? [
      el('h3', {}, title), el('ul', { class: 'plain-list' }, .../** @type {typeof found.a} */ (some).map(({ text }) => el('li', {}, text)))] : [])));
    const rows = (/** @type {number} */ most) => quantities.show(differing.slice(0, most));
    rows(FIRST_ROWS);
    more.hidden = differing.length <= FIRST_ROWS;
    setText(more, `All ${Math.min(differing.length, MOST_ROWS)} differences`);
    more.onclick = () => {
      rows(MOST_ROWS);
      more.hidden = true;
    };
    quantities.element.hidden = differing.length === 0;
    hint.hidden = differing.length === 0;
    const names = (/** @type {string[]} */ some) => `${some.slice(0, 12).join(', ')}${some.length > 12 ? ` and ${some.length - 12} more` : ''}`;
    setText(rest, [differing.length > MOST_ROWS ? `The ${MOST_ROWS} greatest differences are shown.` : '',
      all.length > differing.length ? `${(all.length - differing.length).toLocaleString('en')} are about the same.` : '',
      only.a.length > 0 ? `Recorded only in A: ${names(only.a)}.` : '', only.b.length > 0 ? `Recorded only in B: ${names(only.b)}.` : ''].filter(Boolean).join(' '));
    result.hidden = false;
    chart.hidden = true;
    if (differing[0]) {
      draw(differing[0], false);
    }
  }

  /** @param {Quantity} quantity @param {boolean} [focus] */
  function draw({ chart: { id, title }, name }, focus = true) {
    const both = read?.charts.find((one) => one.chart.id === id);
    const series = [both?.a, both?.b].flatMap((side, index) => {
      const one = side?.find((some) => some.name === name);
      return one ? [sinceStart(one, ranges[index] ?? [0, 1], index === 0 ? 'A' : 'B')] : [];
    });
    setText(chartTitle, `${title}: ${name}`);
    chart.hidden = false;
    for (const [index, plot] of plots.entries()) {
      const shown = series.filter(({ categories }) => (categories !== null) === (index === 1));
      plot.element.hidden = shown.length === 0;
      plot.show(shown.map((one, look) => ({ series: one, look, visible: true })));
    }
    group.setRange(null);
    legend.replaceChildren(...series.filter(({ categories }) => !categories).flatMap((one, look) => {
      const swatch = el('span', { class: 'swatch', 'aria-hidden': 'true' });
      swatch.style.borderTop = `3px solid ${lookOf(look).stroke}`;
      return [swatch, ` ${one.name} `];
    }), 'Time since the beginning of each.');
    if (focus) {
      chartTitle.focus();
    }
  }

  main.onRange(() => {
    if (element.getClientRects().length > 0 && document.activeElement !== what) {
      offer();
    }
  });

  return {
    element,
    /** The recording has gone on. */
    forget() {
      readWith = null; // what is shown stays until it is asked for again
    },
    async open() {
      offer();
      sessions = await others().catch(() => []);
      offer();
    },
    close() {
      work.close();
      read = null;
      plots.forEach((plot) => plot.close());
      group.close();
    },
  };
}
