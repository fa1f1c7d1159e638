// What happened, on a line of time for each kind of mark and as a list.

import { colourOfKind } from './chart_group.js';
import { actionButton, createTable } from './controls.js';
import { el, setText } from './dom.js';
import { counted } from './format.js';
import { folded, gathered, KIND_TITLES, KINDS } from './marks.js';
import { wallText } from './series.js';

const MOST_ROWS = 300;
const NEAR = 0.035; // of what is in sight: two marks that are one button
const MOST_IN_READING = 8;

/** @typedef {import('./marks.js').Mark} Mark */
/** @typedef {import('./marks.js').Kind} Kind */
/** @typedef {ReturnType<typeof import('./chart_group.js').createChartGroup>} Group */

const fileName = (/** @type {string} */ path) => path.slice(path.lastIndexOf('/') + 1);

/**
 * @param {Group} group
 * @param {(path: string) => Promise<void>} save lets the browser download a file
 * @param {(time: number) => void} go
 */
export function createTimeline(group, save, go) {
  const lanes = el('div', { class: 'lanes' });
  const reading = el('div', { class: 'reading', role: 'status' });
  const element = el('section', { class: 'card timeline', 'aria-label': 'Line of time', hidden: true }, lanes, reading);
  /** @type {Mark[]} */
  let marks = [];

  /** The marks of a place, with their files. @param {Mark[]} some */
  function tell(some) {
    const most = some.slice(0, MOST_IN_READING);
    reading.replaceChildren(...most.map(({ time, kind, text, path }) => el('p', {},
      el('b', {}, wallText(time)), ` ${KIND_TITLES[kind]}: `, el('bdi', {}, text), ' ',
      path ? actionButton(fileName(path), () => save(path), { class: 'plain' }) : null)),
    ...(some.length > most.length ? [el('p', {}, `and ${some.length - most.length} more: zoom in.`)] : []));
  }

  /** @param {Kind} kind @param {Mark[]} own */
  function lane(kind, own) {
    const [from, to] = group.inSight();
    const shown = !group.isHidden(kind);
    const box = el('input', { type: 'checkbox', checked: shown, onchange: () => group.showKind(kind, box.checked) });
    const strip = el('div', { class: 'strip' });
    const near = (to - from) * NEAR;
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
      button.style.left = `${100 * (begin - from) / (to - from)}%`;
      button.style.minWidth = `${100 * (end - begin) / (to - from)}%`;
      button.style.background = `var(${colourOfKind(kind)})`;
      strip.append(button);
    }
    return el('div', { class: 'lane' },
      el('label', { class: 'check' }, box, `${KIND_TITLES[kind]} `, el('span', { class: 'quiet' }, own.length.toLocaleString('en'))), strip);
  }

  function show() {
    const focused = lanes.contains(document.activeElement) ? document.activeElement?.getAttribute('aria-label') : null;
    lanes.replaceChildren(...KINDS.flatMap((kind) => {
      const own = marks.filter((mark) => mark.kind === kind);
      return own.length === 0 ? [] : [lane(kind, own)];
    }));
    if (focused) {
      const again = [...lanes.querySelectorAll('button')].find((button) => button.getAttribute('aria-label') === focused);
      again?.focus();
    }
    element.hidden = marks.length === 0;
  }
  let soon = 0;
  group.onRange(() => {
    clearTimeout(soon);
    soon = setTimeout(() => {
      show();
      list.show();
    }, 80);
  });

  const list = createList(() => marks.filter(({ kind }) => !group.isHidden(kind)), save, (mark) => {
    go(mark.time);
    tell([mark]);
  });
  return {
    element,
    list: list.element,
    tell,
    /** What stands at the time under the cursor. @param {number} time */
    read(time) {
      const some = group.marksAt(time);
      if (some.length > 0) {
        tell(some);
      } else {
        reading.replaceChildren(el('p', {}, el('b', {}, wallText(time))));
      }
    },
    /** @param {Mark[]} next in the order of their times */
    show(next) {
      marks = next;
      show();
      list.show();
      if (reading.childElementCount === 0) {
        setText(reading, 'Point at a chart, or choose a mark.');
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
