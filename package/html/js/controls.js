// The parts that views are built of: fields, buttons, messages, confirmation.

import { RequestError } from './api.js';
import { el, setText } from './dom.js';
import { clock } from './format.js';

let ids = 0;
/** The button that was pressed last: what comes of it is told beside it. @type {HTMLElement | null} */
let pressed = null;

/** An id that no other element has. @param {string} name */
export function newId(name) {
  return `${name}-${++ids}`;
}

/** @param {string} label @param {HTMLElement} control @param {string} [className] */
export function field(label, control, className) {
  return el('label', { class: `field ${className ?? ''}` }, el('span', {}, label), control);
}

/** A field with a line below it that explains it. @param {string} label @param {HTMLElement} control */
export function explainedField(label, control, hint = '') {
  const line = el('p', { class: 'hint', id: newId('hint') }, hint);
  control.setAttribute('aria-describedby', line.id);
  const element = el('div', { class: 'explained' }, field(label, control), line);
  return {
    element,
    /** @param {string} text @param {boolean} [wrong] */
    explain(text, wrong = false) {
      setText(line, text);
      line.classList.toggle('failure', wrong);
      if (wrong) {
        control.setAttribute('aria-invalid', 'true');
      } else {
        control.removeAttribute('aria-invalid');
      }
    },
  };
}

/** @param {string[][]} choices value and text @param {EventListener} onchange */
export function select(choices, onchange) {
  return el('select', { onchange },
    ...choices.map(([value, text]) => el('option', { value }, text)));
}

/**
 * A button that can't be pressed again before what it does has ended. It keeps the focus meanwhile.
 * @param {string} text
 * @param {() => Promise<void>} act
 * @param {Record<string, import('./dom.js').Property>} [properties]
 */
export function actionButton(text, act, properties = {}) {
  const button = el('button', {
    type: 'button',
    ...properties,
    onclick: async () => {
      if (!button.hasAttribute('aria-disabled')) {
        // What was said of the action before is of no use any more.
        for (const old of button.closest('main > .view')?.querySelectorAll('.message:not([data-kind="work"])') ?? []) {
          /** @type {HTMLElement} */ (old).hidden = true;
        }
        pressed = button;
        button.setAttribute('aria-disabled', 'true');
        await act().finally(() => button.removeAttribute('aria-disabled'));
      }
    },
  }, text);
  return button;
}

/** @typedef {ReturnType<typeof createMessage>} Message */

/**
 * The line that tells how an action went. It is always in the document, so that it is read out.
 */
export function createMessage() {
  const progress = el('progress', { 'aria-label': 'Work under way' });
  const text = el('span');
  const elapsed = el('span', { class: 'quiet', 'aria-hidden': 'true' });
  const box = el('div', { class: 'message', hidden: true }, progress, text, elapsed);
  const element = el('div', { class: 'message-place', role: 'status' }, box);
  let ticking = 0;

  /** Where it stands while no button is in sight that it could stand beside. */
  const home = document.createComment('message');
  const hiding = new MutationObserver(() => {
    if (element.closest('[hidden]') && home.parentElement) {
      home.after(element); // the card that it was in has been hidden, as by what was done
    }
  });

  /** Goes to the button that was pressed, where that is of the same view and in sight. */
  function moveToAction() {
    const button = pressed;
    pressed = null;
    const view = element.closest('main > .view');
    if (view && element.parentElement?.getClientRects().length === 0 && home.parentElement) {
      home.after(element); // the card that it was in is hidden
    }
    if (!button || !view?.contains(button) || button.getClientRects().length === 0) {
      return;
    }
    const table = button.closest('.table'); // between rows it would push them away
    const place = table ?? button.closest('.tools');
    if (place && place.parentElement !== view) {
      if (!home.parentElement) {
        element.before(home);
      }
      place[table ? 'before' : 'after'](element);
      hiding.disconnect();
      const card = element.closest('.card');
      if (card) {
        hiding.observe(card, { attributes: true, attributeFilter: ['hidden'] });
      }
    }
  }

  /** @param {'work' | 'good' | 'bad' | 'doubtful'} kind @param {...(Node | string)} parts */
  function show(kind, ...parts) {
    clearInterval(ticking);
    moveToAction();
    box.dataset.kind = kind;
    delete box.dataset.away;
    progress.hidden = kind !== 'work';
    setText(elapsed, kind === 'work' ? '' : clock(new Date()));
    text.replaceChildren(...parts);
    box.hidden = false;
  }
  return {
    element,
    show,
    clear() {
      clearInterval(ticking);
      box.hidden = true;
    },
    /** Work has begun, and goes on until another message is shown. @param {string} what */
    work(what) {
      show('work', what);
      const began = performance.now();
      ticking = setInterval(() => {
        const seconds = Math.floor((performance.now() - began) / 1000);
        setText(elapsed, ` ${Math.floor(seconds / 60)}:${String(seconds % 60).padStart(2, '0')}`);
      }, 1000);
    },
    /** Why something did not work: the daemon's words as a quotation. @param {unknown} error */
    fail(error, what = '') {
      const { kind, message, advice } = /** @type {RequestError} */ (error);
      if (error instanceof RequestError && kind === 'refused') {
        show('bad', what ? `${what}: the daemon refuses. ` : 'The daemon refuses. ',
          el('q', {}, message), advice ? ` ${advice}` : '');
      } else {
        show('bad', `${what ? `${what}: ` : ''}${message} ${advice ?? ''}`.trim());
        // It is no longer true once the daemon answers again.
        box.dataset.away = String(['unreachable', 'stopped', 'timeout'].includes(kind));
      }
    },
  };
}

/**
 * Asks before something that can't be taken back. False when it is cancelled.
 * @param {{title: string, text: string[], action: string, keep: string}} question
 * @returns {Promise<boolean>}
 */
export function confirmed({ title, text, action, keep }) {
  const id = newId('question');
  return new Promise((resolve) => {
    const answer = (/** @type {string} */ value) => () => dialog.close(value);
    const dialog = el('dialog', {
      'aria-labelledby': `${id}-title`,
      'aria-describedby': `${id}-text`,
      onclose: () => {
        dialog.remove();
        resolve(dialog.returnValue === 'yes');
      },
    },
    el('h2', { id: `${id}-title` }, title),
    el('div', { id: `${id}-text` }, ...text.map((line) => el('p', {}, line))),
    el('div', { class: 'tools ends' },
      el('button', { type: 'button', autofocus: true, onclick: answer('no') }, keep),
      el('button', { type: 'button', class: 'danger', onclick: answer('yes') }, action)));
    document.body.append(dialog);
    dialog.showModal();
  });
}

/**
 * A table whose rows stay in place and keep focus and selection while their content changes.
 * @template Row
 * @param {object} options
 * @param {string} options.caption
 * @param {{title: string, number?: boolean, hidden?: () => boolean}[]} options.columns
 * @param {(row: Row) => string} options.key
 * @param {(row: Row) => {cells: HTMLElement[], update: (row: Row) => void}} options.make the first
 *     cell names the row
 */
export function createTable({ caption, columns, key, make }) {
  const heads = columns.map(({ title, number }) =>
    el('th', { scope: 'col', class: number ? 'number' : undefined }, title));
  const body = el('tbody');
  const element = el('div', { class: 'table' }, el('table', {},
    el('caption', { class: 'unseen' }, caption), el('thead', {}, el('tr', {}, ...heads)), body));
  /** @type {Map<string, {row: HTMLTableRowElement, update: (row: Row) => void}>} */
  const shown = new Map();

  /** @param {Row} row */
  function makeRow(row) {
    const { cells, update } = make(row);
    const places = cells.map((cell, index) => el(index === 0 ? 'th' : 'td', {
      'data-title': columns[index]?.title, scope: index === 0 ? 'row' : undefined, class: columns[index]?.number ? 'number' : undefined,
    }, cell));
    return { row: el('tr', {}, ...places), update };
  }

  return {
    element,
    /** @param {Row[]} rows */
    show(rows) {
      const wanted = new Map(rows.map((row) => [key(row), row]));
      for (const [id, { row }] of shown) {
        if (!wanted.has(id)) {
          row.remove();
          shown.delete(id);
        }
      }
      let place = body.firstElementChild;
      for (const [id, content] of wanted) {
        const present = shown.get(id) ?? makeRow(content);
        shown.set(id, present);
        present.update(content);
        if (present.row === place) {
          place = place.nextElementSibling;
        } else {
          body.insertBefore(present.row, place);
        }
      }
      columns.forEach(({ hidden }, index) => {
        const away = hidden?.() ?? false;
        for (const tr of [heads[index]?.parentElement, ...body.children]) {
          const cell = tr?.children[index];
          if (cell instanceof HTMLElement) {
            cell.hidden = away;
          }
        }
      });
    },
  };
}

/**
 * Keeps what is typed or chosen in a field over a reload of the page.
 * @template {HTMLInputElement | HTMLSelectElement} Control
 * @param {Control} control
 * @param {string} name
 * @returns {Control}
 */
export function remembered(control, name) {
  const kept = sessionStorage.getItem(name);
  if (kept !== null) {
    control.value = kept;
  }
  control.addEventListener('change', () => sessionStorage.setItem(name, control.value));
  return control;
}
