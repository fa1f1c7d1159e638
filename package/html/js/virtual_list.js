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
  // Scrolled to, in pixels. The element's own value is lost while its view is hidden.
  let position = 0;
  let viewHeight = 0;
  let frame = 0;

  // Whole pixels: millions of pixels down, fractions are lost and rows would be misplaced.
  function measure() {
    const probe = el('li', { class: 'probe' }, 'X');
    list.append(probe);
    const measured = probe.offsetHeight;
    probe.remove();
    if (measured > 0 && measured !== rowHeight) {
      position = rowHeight === 0 ? position : position / rowHeight * measured;
      rowHeight = measured;
      list.style.setProperty('--row-height', `${rowHeight}px`);
    }
  }

  // Brings the element to `position`; in a hidden view that waits until it is shown.
  function place() {
    measure();
    if (element.clientHeight === 0) {
      return;
    }
    viewHeight = element.clientHeight;
    height.style.height = `${rows.count * rowHeight}px`;
    if (element.scrollTop !== position) {
      element.scrollTop = position;
      position = element.scrollTop;
    }
    render();
  }

  function render() {
    const first = Math.max(0, Math.floor(position / rowHeight) - SPARE_ROWS);
    const visible = Math.ceil(viewHeight / rowHeight) + 2 * SPARE_ROWS;
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

  element.addEventListener('scroll', () => {
    if (element.clientHeight > 0) {
      position = element.scrollTop;
      cancelAnimationFrame(frame);
      frame = requestAnimationFrame(render);
    }
  }, { passive: true });
  const observer = new ResizeObserver(place);
  observer.observe(element);

  return {
    element,
    close() {
      observer.disconnect();
      cancelAnimationFrame(frame);
    },
    /** Index of the topmost row in sight. */
    top: () => (rowHeight === 0 ? 0 : Math.floor(position / rowHeight)),
    /** Whether the last row is in sight. */
    atEnd: () => position + viewHeight >= (rows.count - 1) * rowHeight,
    /**
     * Shows other rows, with row `top` topmost.
     * @param {Rows} next
     * @param {number} top Infinity for the end
     */
    show(next, top) {
      rows = next;
      // What is scrolled off by less than a row stays so.
      const part = rowHeight === 0 ? 0 : position % rowHeight;
      position = Math.min(top, rows.count) * rowHeight + (top === Infinity ? 0 : part);
      place();
    },
  };
}
