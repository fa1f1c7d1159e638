// Network traces: the running one, starting and stopping one, and the list of all.

import { requestGranted } from '../api.js';
import { actionButton, createMessage, explainedField } from '../controls.js';
import { el } from '../dom.js';
import { watchTraces } from '../traces.js';
import { traceList } from './trace_list.js';
import { startTraceCard } from './trace_start.js';
import { logLink, traceStateCard } from './trace_state.js';

/** A trace that was taken elsewhere. @param {ReturnType<typeof createMessage>} message of the view */
function directTraceCard(message) {
  const seconds = el('input', { type: 'text', inputmode: 'numeric', autocomplete: 'off' });
  const secondsField = explainedField('Seconds it ran', seconds);
  async function noteDirect() {
    const typedSeconds = seconds.value.trim();
    const wrong = !/^\d{0,9}$/.test(typedSeconds);
    secondsField.explain(wrong ? 'A whole number.' : '', wrong);
    if (wrong) {
      seconds.focus();
      return;
    }
    try {
      await requestGranted('wireshark_direct', typedSeconds === '' ? {} : { duration: typedSeconds }, ['Ok']);
      message.show('good', 'Noted. ', logLink('Direct Network Trace Download', 'It stands in the log.'));
    } catch (error) {
      message.fail(error);
    }
  }
  return el('section', { class: 'card', 'aria-label': 'Direct trace' },
    el('h2', {}, 'A trace taken from elsewhere'),
    el('p', { class: 'quiet' }, 'Has the camera’s log say that a trace was taken past this page, such as '
      + 'with the camera’s own trace download, so that whoever reads the log knows of it.'),
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() }, secondsField.element,
      el('div', { class: 'tools' }, actionButton('Note in the log', noteDirect, { type: 'submit' }))));
}

/** @returns {import('../main.js').View} */
export function create() {
  const message = createMessage();
  /** @param {number} [timeoutMs] */
  const refreshed = (timeoutMs) => refresh(timeoutMs);
  const state = traceStateCard(message, refreshed);
  const start = startTraceCard(message, refreshed);
  const list = traceList(message, refreshed);
  const element = el('div', { class: 'view' }, el('h1', {}, 'Traces'), message.element,
    el('div', { class: 'cards' }, state.element, start.element), ...list.elements, directTraceCard(message));
  const { refresh } = watchTraces(element, (told) => {
    state.show(told);
    start.show(told);
    list.show(told);
  });
  return { element, show: () => { refresh(); } };
}
