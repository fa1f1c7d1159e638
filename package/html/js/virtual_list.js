// A list of very many rows of one height, of which only those in sight are in the document.

import { el } from './dom.js';

const SPARE_ROWS = 12;

/**
 * @typedef {object} Rows
 * @property {number} count
 * @property {(index: number) => string} key changes whenever the row looks different
 * @property {(index: number) => HTMLLIElement} make
 */

/** @param {string} label what a screen reader calls the list */
export function createVirtualList(label) {
  const list = el('ol', { class: 'rows' });
  const height = el('div', { class: 'rows-height' }, list);
  const element = el('div', { class: 'virtual-list', role: 'region', 'aria-label': label, tabindex: 0 },
    height);
  /** @type {Rows} */
  let rows = { count: 0, key: () => '', make: () => el('li') };
  /** @type {Map<number, {row: HTMLLIElement, key: string}>} */
  const shown = new Map();
  let rowHeight = 0;
  let frame = 0;

  function measure() {
    const probe = el('li', {}, 'X');
    list.append(probe);
    rowHeight = probe.getBoundingClientRect().height;
    probe.remove();
  }

  function render() {
    if (rowHeight === 0) {
      measure();
    }
    if (rowHeight === 0) {
      return; // not in sight; rendered when it is
    }
    const first = Math.max(0, Math.floor(element.scrollTop / rowHeight) - SPARE_ROWS);
    const visible = Math.ceil(element.clientHeight / rowHeight) + 2 * SPARE_ROWS;
    const end = Math.min(rows.count, first + visible);
    for (const [index, { row, key }] of shown) {
      if (index < first || index >= end || key !== rows.key(index)) {
        row.remove();
        shown.delete(index);
      }
    }
    // Rows that stay are not touched: a selection in them lives on.
    let before = list.firstChild;
    for (let index = first; index < end; index++) {
      const present = shown.get(index);
      if (present) {
        before = present.row.nextSibling;
      } else {
        const row = rows.make(index);
        row.ariaPosInSet = String(index + 1);
        list.insertBefore(row, before);
        shown.set(index, { row, key: rows.key(index) });
      }
    }
    for (const { row } of shown.values()) {
      row.ariaSetSize = String(rows.count);
    }
    list.style.transform = `translateY(${first * rowHeight}px)`;
  }

  function renderSoon() {
    cancelAnimationFrame(frame);
    frame = requestAnimationFrame(render);
  }
  element.addEventListener('scroll', renderSoon, { passive: true });
  new ResizeObserver(() => {
    measure(); // the zoom may have changed; in a hidden view nothing has a height
    renderSoon();
  }).observe(element);

  return {
    element,
    /** Index of the topmost row in sight. */
    top: () => (rowHeight === 0 ? 0 : Math.floor(element.scrollTop / rowHeight)),
    /** Whether the last row is in sight. */
    atEnd: () => element.scrollTop + element.clientHeight >= element.scrollHeight - rowHeight,
    /**
     * Shows other rows, with row `top` topmost.
     * @param {Rows} next
     * @param {number} top Infinity for the end
     */
    show(next, top) {
      rows = next;
      if (rowHeight === 0) {
        measure();
      }
      // What is scrolled off by less than a row stays so.
      const part = rowHeight === 0 ? 0 : element.scrollTop % rowHeight;
      height.style.height = `${rows.count * rowHeight}px`;
      element.scrollTop = top === Infinity ? rows.count * rowHeight : top * rowHeight + part;
      render();
    },
  };
}
