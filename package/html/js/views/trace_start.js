// The form that starts a trace.

import { requestGranted } from '../api.js';
import { actionButton, explainedField } from '../controls.js';
import { el } from '../dom.js';
import { dateTime } from '../format.js';
import { STORAGES } from '../session_data.js';
import { storageChoice } from '../storage_choice.js';

const TIMEOUT_MS = 120000;
const FIRST_LOOK_MS = 2000;
const PLAIN = /^[A-Za-z0-9_][A-Za-z0-9._-]*$/;
const ID_HINT = 'Names the trace’s folder. Letters, digits, “.”, “_” and “-”.';

const proposal = () => `trace_${dateTime(new Date()).replace(/[-:]/g, '').replace(' ', '_')}`;

/**
 * @param {ReturnType<typeof import('../controls.js').createMessage>} message of the view
 * @param {() => Promise<unknown>} refresh
 */
export function startTraceCard(message, refresh) {
  /** @type {import('../traces.js').Trace[]} */
  let traces = [];
  let typed = false;
  const storage = storageChoice(STORAGES.filter(({ name }) => name !== 'localdata'), checkId);
  const id = el('input', {
    type: 'text', spellcheck: 'false', autocomplete: 'off', maxlength: 100, value: proposal(),
    oninput: () => {
      typed = true;
      checkId();
    },
  });
  const idField = explainedField('Recording id', id, ID_HINT);

  /** Whether the recording id can be sent; says so when a trace has it already. */
  function checkId() {
    const name = id.value.trim();
    const known = traces.some(({ path }) =>
      path.startsWith(`/var/spool/storage/${storage.name()}/`) && path.endsWith(`/${name}`));
    const wrong = PLAIN.test(name) ? '' : 'One word of letters, digits, “.”, “_” and “-”, that begins '
      + 'with none of “.” and “-”.';
    idField.explain(wrong || (known ? 'This storage has a trace of that name; what it recorded is kept '
      + 'in a folder “earlier_…” of the new one.' : ID_HINT), wrong !== '');
    return wrong === '';
  }

  async function start() {
    const wrong = storage.missing() ?? (checkId() ? null : id);
    if (wrong) {
      wrong.focus();
      return;
    }
    message.work('Starting …');
    try {
      const words = await requestGranted('activate_wireshark_session',
        { recording_id: id.value.trim(), storage: storage.name() }, ['Wireshark session created.'],
        { timeoutMs: TIMEOUT_MS });
      typed = false;
      await refresh();
      message.show('good', 'The trace has been started. ', el('q', {}, words));
      setTimeout(refresh, FIRST_LOOK_MS);
    } catch (error) {
      message.fail(error);
      await refresh();
    }
  }

  const startCard = el('section', { class: 'card', 'aria-label': 'Start a trace' },
    el('h2', {}, 'Start a trace'),
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() },
      el('div', { class: 'form' }, storage.element, idField.element),
      el('div', { class: 'tools' },
        actionButton('Start trace', start, { type: 'submit', class: 'primary' }))));

  return {
    element: startCard,
    /** @param {import('../traces.js').TracesState} told */
    show(told) {
      ({ traces } = told);
      const running = told.folder !== '';
      startCard.hidden = running || (told.at === null && told.error === null); // keeps what was typed
      if (!typed && !running && document.activeElement !== id) {
        id.value = proposal();
      }
      checkId();
    },
  };
}
