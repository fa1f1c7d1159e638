// Log triggers: the ones there are, the five severities, own texts, and crash reports on messages.

import { requestGranted } from '../api.js';
import { actionButton, confirmed, createMessage, createTable, explainedField } from '../controls.js';
import { el, setText } from '../dom.js';
import { clock, counted } from '../format.js';
import { staleNotes } from '../poll.js';
import { duration } from '../session_data.js';
import { encoded, watchTriggers } from '../triggers.js';

/** @typedef {import('../triggers.js').Trigger} Trigger */

/** The log's severities, as its lines show them. */
const PRESETS = [
  { name: 'Warning', key: '[ WARN' },
  { name: 'Error', key: '[ ERR' },
  { name: 'Critical', key: '[ CRIT' },
  { name: 'Alert', key: '[ ALERT' },
  { name: 'Emergency', key: '[ EMERG' },
];
const ADDED = 'New systemlog trigger added.';
// In bytes; what is longer the daemon refuses.
const NAME_MAX = 242;
const KEY_MAX = 494;
const NAME_HINT = 'What the event is called in the camera’s event rules.';
const KEY_HINT = 'Any text that a line of the system log contains, upper and lower case as there.';
const DIGITS = /^\d{1,9}$/;

/** What is wrong with a text, "" when nothing is. @param {string} text @param {number} bytesMax */
function fault(text, bytesMax) {
  if (text === '') {
    return 'Can’t be empty.';
  }
  if (/[\x00-\x1f\x7f]/.test(text)) {
    return 'Can’t hold control characters.';
  }
  const bytes = new TextEncoder().encode(text).length;
  return bytes > bytesMax ? `Too long: ${bytes} bytes of at most ${bytesMax}.` : '';
}

/** A text field that says what is wrong with it. @param {string} label @param {string} hint
 * @param {(text: string) => string} check @param {Record<string, import('../dom.js').Property>} [properties] */
function checkedField(label, hint, check, properties = {}) {
  const input = el('input', { type: 'text', autocomplete: 'off', spellcheck: 'false', ...properties,
    oninput: () => explained.explain(hint) });
  const explained = explainedField(label, input, hint);
  return {
    element: explained.element,
    input,
    value: () => input.value.trim(),
    /** Says what is wrong. */
    good() {
      const wrong = check(input.value.trim());
      explained.explain(wrong || hint, wrong !== '');
      return wrong === '';
    },
  };
}

/** The first of the fields that is wrong gets the focus. @param {ReturnType<typeof checkedField>[]} fields */
function allGood(fields) {
  const wrong = fields.filter((one) => !one.good());
  wrong[0]?.input.focus();
  return wrong.length === 0;
}

/** @returns {import('../main.js').View} */
export function create() {
  const message = createMessage();
  /** @type {Trigger[]} */
  let triggers = [];

  const nameFault = (/** @type {string} */ name) => fault(name, NAME_MAX)
    || (triggers.some((one) => one.name === name) ? 'There is a trigger of that name. Remove it first.' : '');

  /** @param {string} name @param {Record<string, string>} values */
  async function add(name, values) {
    message.work('Adding …');
    try {
      // Of a plain trigger the daemon says it twice.
      await requestGranted('systemlog_trigger', { do: 'add', name: encoded(name), ...values },
        [ADDED, ADDED + ADDED]);
      await refresh();
      message.show('good', `${name}: `, el('q', {}, ADDED));
      return true;
    } catch (error) {
      message.fail(error, name);
      return false;
    }
  }

  /** @param {Trigger} trigger */
  async function remove({ name, report, count }) {
    const sure = await confirmed({
      title: `Remove trigger ${name}?`,
      text: [`It has fired ${counted(count, 'time')}; the count is lost. ${report
        ? 'No crash reports are made for its message any more.'
        : 'Event rules of the camera that use its event are no longer called.'}`],
      action: 'Remove',
      keep: 'Keep',
    });
    if (!sure) {
      return;
    }
    message.work(`Removing ${name} …`);
    try {
      const words = await requestGranted('systemlog_trigger', { do: 'remove', name: encoded(name) },
        ['Systemlog trigger removed.']);
      await refresh();
      message.show('good', `${name}: `, el('q', {}, words));
    } catch (error) {
      message.fail(error, name);
      await refresh();
    }
    if (document.activeElement === document.body) {
      heading.focus(); // the row that had it is gone
    }
  }

  // The severities
  const presets = PRESETS.map(({ name, key }) => {
    const button = actionButton(name, async () => {
      const free = triggers.some((one) => one.name === name) ? `${name} messages` : name;
      await add(free, { key: encoded(key) });
    });
    return { key, button };
  });
  const presetCard = el('section', { class: 'card', 'aria-label': 'Severities' },
    el('h2', {}, 'Severities'),
    el('p', { class: 'quiet' }, 'Raise an event for each message of a severity.'),
    el('div', { class: 'tools', role: 'group', 'aria-label': 'Add a trigger on a severity' },
      ...presets.map(({ button }) => button)),
    el('p', { class: 'hint' }, 'Try them out with the log self-test of the overview.'));

  // An own text
  const name = checkedField('Name', NAME_HINT, nameFault);
  const key = checkedField('Text to look for', KEY_HINT, (text) => fault(text, KEY_MAX));
  const addText = actionButton('Add trigger', async () => {
    if (allGood([name, key]) && await add(name.value(), { key: encoded(key.value()) })) {
      name.input.value = key.input.value = '';
    }
  }, { type: 'submit', class: 'primary' });
  const textCard = el('section', { class: 'card', 'aria-label': 'Own text' }, el('h2', {}, 'Own text'),
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() },
      el('div', { class: 'form' }, name.element, key.element), el('div', { class: 'tools' }, addText)));

  // Crash reports
  const reportName = checkedField('Name', '', nameFault);
  const reportKey = checkedField('Message to look for', KEY_HINT, (text) => fault(text, KEY_MAX));
  const limit = checkedField('At most', 'Reports in all, also across restarts.',
    (text) => (DIGITS.test(text) && Number(text) > 0 ? '' : 'A whole number above 0.'),
    { inputmode: 'numeric', value: '5' });
  const cooldown = checkedField('Minutes between two', 'Each report takes the camera some minutes.',
    (text) => (/^\d{1,7}$/.test(text) ? '' : 'A whole number.'), { inputmode: 'numeric', value: '60' });
  const addReport = actionButton('Add crash-report trigger', async () => {
    const added = allGood([reportName, reportKey, limit, cooldown]) && await add(reportName.value(), {
      subscription_message: encoded(reportKey.value()), limit: limit.value(),
      cooldown: String(Number(cooldown.value()) * 60),
    });
    if (added) {
      reportName.input.value = reportKey.input.value = '';
    }
  }, { type: 'submit', class: 'primary' });
  const reportCard = el('section', { class: 'card', 'aria-label': 'Crash reports' },
    el('h2', {}, 'Crash reports'),
    el('p', { class: 'quiet' }, 'Make a crash report when a message comes, while a session with crash '
      + 'reports on log messages runs. They are removed when that session ends.'),
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() },
      el('div', { class: 'form' }, reportName.element, reportKey.element, limit.element,
        cooldown.element),
      el('div', { class: 'tools' }, addReport)));

  // The list
  let active = false;
  const table = createTable({
    caption: 'Triggers',
    columns: [{ title: 'Name' }, { title: 'Looks for' }, { title: 'Does' }, { title: 'Fired', number: true },
      { title: 'First' }, { title: 'Last' }, { title: 'Actions' }],
    key: (/** @type {Trigger} */ trigger) => trigger.name,
    make: (/** @type {Trigger} */ first) => {
      let trigger = first;
      const looksFor = el('code');
      const does = el('span');
      const fired = el('span');
      const begin = el('span', { class: 'stamp' });
      const end = el('span', { class: 'stamp' });
      return {
        cells: [el('span', {}, first.name), looksFor, does, fired, begin, end,
          actionButton('Remove', () => remove(trigger),
            { class: 'danger', 'aria-label': `Remove trigger ${first.name}` })],
        /** @param {Trigger} next */
        update(next) {
          trigger = next;
          setText(looksFor, next.key);
          setText(does, next.report ? `Crash report, at most ${next.limit}, ${
            next.cooldown === 0 ? 'no pause between' : `${duration(Math.ceil(next.cooldown / 60))} between two`}${
            active ? '' : '; waits for a session'}` : 'Event');
          setText(fired, String(next.count));
          setText(begin, next.first || '–');
          setText(end, next.last || '–');
        },
      };
    },
  });
  const heading = el('h2', { tabindex: -1 }, 'Triggers');
  const count = el('span', { class: 'quiet' });
  const empty = el('p', { class: 'empty' });
  const stale = el('p', { class: 'notice', hidden: true });
  const asOf = el('span', { class: 'quiet' });
  const listCard = el('section', { class: 'card', 'aria-label': 'Triggers' },
    el('div', { class: 'tools' }, heading, count), stale, empty, table.element,
    el('p', { class: 'foot' }, asOf, ' ',
      el('button', { type: 'button', class: 'plain', onclick: () => refresh() }, 'Refresh')));

  const element = el('div', { class: 'view' }, el('h1', {}, 'Log triggers'), message.element,
    listCard, el('div', { class: 'columns' }, presetCard, textCard, reportCard));
  const { refresh } = watchTriggers(element, (told) => {
    ({ triggers, active } = told);
    for (const { key: wanted, button } of presets) {
      button.disabled = triggers.some((one) => one.key === wanted && !one.report);
    }
    table.show(triggers);
    table.element.hidden = triggers.length === 0;
    empty.hidden = triggers.length > 0;
    setText(empty, told.at ? 'No line of the log raises an event yet.'
      : told.error ? 'The triggers can’t be listed now.' : 'Asking the camera …');
    setText(count, triggers.length === 0 ? '' : counted(triggers.length, 'trigger'));
    const notes = staleNotes(told.error, told.damaged ? 'Some of the list could not be read, most '
      + 'likely because of an odd character in a name.' : '');
    setText(stale, notes);
    stale.hidden = notes === '';
    setText(asOf, told.at ? `As of ${clock(told.at)}, this computer’s time` : '');
  });
  return { element, show: () => { refresh(); } };
}
