// What happened, on a line of time for each kind of mark and as a list.

import { colourOfKind } from './chart_group.js';
import { actionButton, createTable } from './controls.js';
import { el, setText } from './dom.js';
import { counted } from './format.js';
import { bandsOf, folded, gathered, KIND_TITLES, KINDS } from './marks.js';
import { extentOf, wallText } from './series.js';
import { duration } from './session_data.js';

const MOST_ROWS = 300;
const NEAR = 0.035; // of what is in sight: two marks that are one button
const NEAR_PX = 28; // at least, so that a number of three digits fits, and a finger
const MOST_IN_READING = 8;
const TICKS = 5;
const DAY_S = 86400;
const DRAG_PX = 4; // below it was a click
const KEY_STEPS = 60; // of the cursor through what is in sight
const ZOOM = 2;
const PAN = 0.25;

/** @typedef {import('./marks.js').Mark} Mark */
/** @typedef {import('./marks.js').Kind} Kind */
/** @typedef {ReturnType<typeof import('./chart_group.js').createChartGroup>} Group */

const fileName = (/** @type {string} */ path) => path.slice(path.lastIndexOf('/') + 1);

/**
 * The whole session on one line of time: what was there and when not, each mark, and what the charts have in sight.
 * @param {Group} group
 * @param {object} act
 * @param {(path: string) => Promise<void>} act.save lets the browser download a file
 * @param {(time: number) => void} act.go everything goes to a time
 * @param {(time: number) => void} act.showCharts leads to the charts of a time
 * @param {(time: number) => void} act.showLog leads to the log of a time
 */
export function createTimeline(group, { save, go, showCharts, showLog }) {
  const lanes = el('div', { class: 'lanes' });
  const sweep = el('div', { class: 'sweep', hidden: true });
  const cursor = el('div', { class: 'cursor', hidden: true });
  const over = el('div', { class: 'over', 'aria-hidden': 'true' }, sweep, cursor);
  const place = el('div', {
    class: 'line-of-time', tabindex: 0, role: 'group',
    'aria-label': 'Line of time. Arrow keys move the cursor, Enter shows its charts, plus and minus zoom, Page Up and Page Down move, Home shows all.',
  }, lanes, over);
  const reading = el('div', { class: 'reading', role: 'status' });
  const element = el('section', { class: 'card timeline', 'aria-label': 'Timeline', hidden: true }, el('h2', {}, 'Timeline'), place, reading);
  /** @type {Mark[]} */
  let marks = [];
  /** @type {ReturnType<typeof bandsOf>} */
  let bands = [];
  /** Those of the rows, or of the marks where there are none. @type {number[]} */
  let times = [];
  let at = NaN; // the cursor's time

  /** The marks of a place, with where they lead. @param {Mark[]} some */
  function tell(some) {
    const most = some.slice(0, MOST_IN_READING);
    reading.replaceChildren(...most.map(({ time, kind, text, path }) => el('p', {},
      el('b', {}, wallText(time)), ` ${KIND_TITLES[kind]}: `, el('bdi', {}, text), ' ',
      el('button', { type: 'button', class: 'plain', onclick: () => showCharts(time) }, 'Charts'), ' ',
      el('button', { type: 'button', class: 'plain', onclick: () => showLog(time) }, 'Log'), ' ',
      path ? actionButton(fileName(path), () => save(path), { class: 'plain' }) : null)),
    ...(some.length > most.length ? [el('p', {}, `and ${some.length - most.length} more: zoom in.`)] : []));
  }

  /** Where a time stands, as CSS has it. @param {number} time */
  function left(time) {
    const [from, to] = group.inSight();
    return `${100 * (Math.min(Math.max(time, from), to) - from) / (to - from)}%`;
  }

  /** @param {Kind} kind @param {Mark[]} own */
  function lane(kind, own) {
    const [from, to] = group.inSight();
    const shown = !group.isHidden(kind);
    const box = el('input', { type: 'checkbox', checked: shown, onchange: () => group.showKind(kind, box.checked) });
    const strip = el('div', { class: 'strip' });
    const near = (to - from) * Math.max(NEAR, NEAR_PX / (lanes.querySelector('.strip')?.clientWidth || innerWidth * 0.55)); // before it is laid out, about
    for (const { time, until, marks: some } of shown ? gathered(own.filter((mark) => (mark.until ?? mark.time) >= from && mark.time <= to), near) : []) {
      const [begin, end] = [Math.max(time, from), Math.min(until, to)];
      const what = some.length === 1 ? some[0]?.text : `${counted(some.length, 'mark')}: ${some[0]?.text} …`;
      const button = el('button', {
        type: 'button', class: 'mark', title: `${wallText(time)} ${what}`, 'aria-label': `${wallText(time)} ${what}`,
        onclick: () => {
          go(time);
          tell(some);
        },
      }, some.length > 1 ? String(some.length) : '');
      button.style.left = `min(${left(begin)}, 100% - 0.5rem)`;
      button.style.minWidth = `${100 * (end - begin) / (to - from)}%`;
      button.style.background = `var(${colourOfKind(kind)})`;
      strip.append(button);
    }
    return el('div', { class: 'lane' },
      el('label', { class: 'check' }, box, `${KIND_TITLES[kind]} `, el('span', { class: 'quiet' }, own.length.toLocaleString('en'))), strip);
  }

  /** @param {ReturnType<typeof bandsOf>[number]} band */
  function bandLane({ name, spans }) {
    const [from, to] = group.inSight();
    const bad = spans.filter(({ isGood }) => !isGood);
    const good = spans.find(({ isGood }) => isGood)?.text ?? '';
    const sum = bad.reduce((all, one) => all + one.to - one.from, 0);
    const told = bad.length === 0 ? good : `${bad[0]?.text} ${bad.length === 1 ? 'once' : `${bad.length} times`}, ${duration(Math.max(1, Math.round(sum / 60)))}`;
    const strip = el('div', { class: 'strip band', role: 'img', 'aria-label': `${name}: ${told}` },
      ...spans.filter((one) => one.to >= from && one.from <= to).map((one) => {
        const part = el('span', { class: one.isGood ? 'good' : 'bad', title: `${name}: ${one.text}, ${wallText(one.from)} to ${wallText(one.to)}` });
        part.style.left = left(one.from);
        part.style.width = `calc(${left(one.to)} - ${left(one.from)})`;
        return part;
      }));
    return el('div', { class: 'lane' }, el('span', {}, `${name} `, el('span', { class: 'quiet' }, told)), strip);
  }

  /** Times below the lanes. */
  function axis() {
    const [from, to] = group.inSight();
    const days = to - from > DAY_S * 1.5;
    return el('div', { class: 'lane axis', 'aria-hidden': 'true' }, el('span'), el('div', { class: 'strip' },
      ...Array.from({ length: TICKS }, (_, tick) => {
        const time = from + (to - from) * tick / TICKS;
        const label = el('span', {}, days ? wallText(time).slice(5, 16) : wallText(time).slice(11, to - from < 600 ? 19 : 16));
        label.style.left = left(time);
        return label;
      })));
  }

  function show() {
    const focused = lanes.contains(document.activeElement) ? document.activeElement?.getAttribute('aria-label') : null;
    lanes.replaceChildren(...bands.map(bandLane), ...KINDS.flatMap((kind) => {
      const own = marks.filter((mark) => mark.kind === kind);
      return own.length === 0 ? [] : [lane(kind, own)];
    }), axis());
    if (focused) {
      const again = [...lanes.querySelectorAll('button')].find((button) => button.getAttribute('aria-label') === focused);
      again?.focus();
    }
    element.hidden = marks.length === 0 && times.length === 0;
    showCursor(at);
  }
  /** @param {number} time NaN for none */
  function showCursor(time) {
    const [from, to] = group.inSight();
    at = time;
    cursor.hidden = !(time >= from && time <= to);
    cursor.style.left = left(time);
  }
  let soon = 0;
  group.onRange(() => {
    clearTimeout(soon);
    soon = setTimeout(() => {
      show();
      list.show();
    }, 80);
  });
  /** @type {import('./chart_group.js').Member} */
  const member = {
    extent: (from) => extentOf(times, from),
    setRange() {},
    setCursor: (time) => showCursor(time ?? NaN),
    redraw() {},
  };

  /** @param {number} x of a pointer @returns {number} */
  function timeAt(x) {
    const { left: begin, width } = over.getBoundingClientRect();
    const [from, to] = group.inSight();
    return from + (to - from) * Math.min(Math.max((x - begin) / width, 0), 1);
  }
  place.addEventListener('pointerdown', (event) => {
    const strip = /** @type {HTMLElement} */ (event.target).closest('.strip');
    if (event.button !== 0 || !strip || /** @type {HTMLElement} */ (event.target).closest('button')) {
      return;
    }
    const begin = event.clientX;
    const move = (/** @type {PointerEvent} */ moved) => {
      const [from, to] = [Math.min(begin, moved.clientX), Math.max(begin, moved.clientX)];
      sweep.hidden = to - from < DRAG_PX;
      sweep.style.left = left(timeAt(from));
      sweep.style.width = `calc(${left(timeAt(to))} - ${left(timeAt(from))})`;
    };
    const end = (/** @type {PointerEvent} */ ended) => {
      removeEventListener('pointermove', move);
      removeEventListener('pointerup', end);
      removeEventListener('pointercancel', end);
      sweep.hidden = true;
      if (ended.type === 'pointerup' && Math.abs(ended.clientX - begin) >= DRAG_PX) {
        group.setRange([timeAt(Math.min(begin, ended.clientX)), timeAt(Math.max(begin, ended.clientX))]);
      } else if (ended.type === 'pointerup') {
        go(timeAt(begin));
        read(timeAt(begin));
      }
    };
    addEventListener('pointermove', move);
    addEventListener('pointerup', end);
    addEventListener('pointercancel', end);
  });
  place.addEventListener('dblclick', () => group.setRange(null));
  place.addEventListener('keydown', (event) => {
    const [from, to] = group.inSight();
    const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
    const now = at >= from && at <= to ? at : (from + to) / 2;
    if (event.target !== place || event.ctrlKey || event.altKey || event.metaKey) {
      return;
    }
    if (step) {
      go(now + step * (to - from) / KEY_STEPS);
      read(at);
    } else if (event.key === 'Enter') {
      showCharts(now);
    } else if (event.key === '+' || event.key === '-') {
      group.zoom(event.key === '+' ? 1 / ZOOM : ZOOM, now);
    } else if (event.key === 'PageUp' || event.key === 'PageDown') {
      group.pan(event.key === 'PageUp' ? -PAN : PAN);
    } else if (event.key === 'Home') {
      group.setRange(null);
    } else {
      return;
    }
    event.preventDefault();
  });

  /** What stands at the time under the cursor. @param {number} time */
  function read(time) {
    const some = group.marksAt(time);
    if (some.length > 0) {
      tell(some);
    } else {
      reading.replaceChildren(el('p', {}, el('b', {}, wallText(time))));
    }
  }

  const list = createList(() => marks.filter(({ kind }) => !group.isHidden(kind)), save, (mark) => {
    go(mark.time);
    tell([mark]);
  });
  return {
    element,
    list: list.element,
    tell,
    read,
    /**
     * @param {Mark[]} next in the order of their times
     * @param {number[]} rows their times, ascending
     * @param {number[]} images their times, ascending
     */
    show(next, rows, images) {
      marks = next;
      times = rows.length > 1 ? rows : next.map(({ time }) => time);
      const extent = times.length > 1 ? extentOf(times) : null;
      bands = extent ? bandsOf(next, images, extent) : [];
      group.add(member);
      show();
      list.show();
      if (reading.childElementCount === 0) {
        setText(reading, 'Drag over the lanes to zoom, a double click shows all. Choose a mark, or point at a chart.');
      }
    },
  };
}

/**
 * @param {() => Mark[]} marksNow
 * @param {(path: string) => Promise<void>} save
 * @param {(mark: Mark) => void} open
 */
function createList(marksNow, save, open) {
  const count = el('p', { class: 'quiet' });
  const table = createTable({
    caption: 'What happened',
    columns: [{ title: 'Time' }, { title: 'Kind' }, { title: 'What' }, { title: 'File' }],
    key: (/** @type {ReturnType<typeof folded>[number]} */ mark) => `${mark.time} ${mark.kind} ${mark.text} ${mark.count}`,
    make(mark) {
      const { path } = mark;
      const often = mark.count > 1 ? `, ${mark.count.toLocaleString('en')} times until ${wallText(mark.last)}` : '';
      return {
        cells: [el('button', { type: 'button', class: 'plain stamp', onclick: () => open(mark) }, wallText(mark.time)),
          el('span', { class: 'stamp' }, KIND_TITLES[mark.kind]), el('span', {}, el('bdi', {}, mark.text), often),
          path ? actionButton(fileName(path), () => save(path), { class: 'plain' }) : el('span')],
        update() {},
      };
    },
  });
  const element = el('section', { class: 'card', 'aria-label': 'What happened', hidden: true },
    el('div', { class: 'tools apart' }, el('h2', {}, 'What happened'), count), table.element);
  return {
    element,
    show() {
      const rows = folded(marksNow());
      // Where there are too many, what is rare and grave stays.
      const kept = rows.length <= MOST_ROWS ? rows : [...rows]
        .sort((a, b) => KINDS.indexOf(a.kind) - KINDS.indexOf(b.kind)).slice(0, MOST_ROWS).sort((a, b) => a.time - b.time);
      table.show(kept);
      element.hidden = element.hidden && rows.length === 0;
      setText(count, rows.length > kept.length ? `The gravest ${kept.length} of ${rows.length}` : '');
    },
  };
}
