// The files of a recording as a list with a filter.

import { createTable } from './controls.js';
import { el, setText } from './dom.js';
import { byteSize, counted } from './format.js';

const MOST_FILES = 500; // a folder of images may hold many thousands

/** @typedef {import('./recording.js').Item} Item */

/**
 * @param {string} caption
 * @param {(item: Item) => HTMLElement} open what opens or saves a file, with its name
 */
export function createFiles(caption, open) {
  /** @type {Item[]} */
  let all = [];
  const filter = el('input', {
    type: 'search', placeholder: 'Part of the name', spellcheck: 'false', autocomplete: 'off', 'aria-label': `Filter of ${caption}`, oninput: () => show(),
  });
  const count = el('span', { class: 'quiet', role: 'status' });
  const table = createTable({
    caption,
    columns: [{ title: 'File' }, { title: 'Changed' }, { title: 'Size', number: true }],
    key: (/** @type {Item} */ { path }) => path,
    make(item) {
      const time = el('span', { class: 'stamp' });
      const size = el('span');
      return {
        cells: [open(item), time, size],
        update(next) {
          setText(time, next.time);
          setText(size, byteSize(next.bytes));
        },
      };
    },
  });
  // Closed, so that what matters does not stand behind hundreds of rows.
  const details = el('details', { ontoggle: () => show() }, el('summary', {}, el('h2', {}, caption), ' ', count), filter, table.element);
  const element = el('section', { class: 'card files', 'aria-label': caption }, details);
  function show() {
    const text = filter.value.toLowerCase();
    const matching = all.filter(({ path }) => path.toLowerCase().includes(text));
    table.show(details.open ? matching.slice(0, MOST_FILES) : []);
    setText(count, `${matching.length > MOST_FILES && details.open ? `The first ${MOST_FILES} of ` : ''}${counted(matching.length, 'file')}`);
    element.hidden = all.length === 0;
  }
  return {
    element,
    /** @param {Item[]} items */
    show(items) {
      all = [...items].sort((a, b) => a.path.localeCompare(b.path, 'en'));
      show();
    },
  };
}
