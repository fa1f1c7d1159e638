// The choice of a storage, of those that cameras usually have or by its name.

import { explainedField, field, select } from './controls.js';
import { el } from './dom.js';

const OTHER = 'other';
const HINT = 'As the camera’s storage settings name it.';

/**
 * @param {{name: string, title: string}[]} storages
 * @param {() => void} [onchange]
 */
export function storageChoice(storages, onchange) {
  const choice = select(
    [...storages.map(({ name, title }) => [name, title]), [OTHER, 'Another storage …']], () => {
      adapt();
      onchange?.();
    });
  const input = el('input', {
    type: 'text', spellcheck: 'false', autocomplete: 'off', oninput: () => onchange?.(),
  });
  const other = explainedField('Name of the storage', input, HINT);
  function adapt() {
    other.element.hidden = choice.value !== OTHER;
  }
  adapt();
  const name = () => (choice.value === OTHER ? input.value.trim() : choice.value);
  return {
    element: el('div', {}, field('Storage', choice), other.element),
    /** The storage's name, "" while none is typed. */
    name,
    /** The field that is to be filled first. @returns {HTMLInputElement | null} */
    missing() {
      const missing = name() === '';
      other.explain(missing ? 'Type the storage’s name.' : HINT, missing);
      return missing ? input : null;
    },
  };
}
