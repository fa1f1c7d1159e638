// Scheduled restarts and PTZ tests, and the remote log server.

import { requestGranted } from '../api.js';
import { onCamera, refreshCamera, schedule } from '../camera.js';
import { actionButton, confirmed, createMessage, explainedField, field, select } from '../controls.js';
import { createFacts, el, setText } from '../dom.js';
import { duration } from '../session_data.js';

/** @typedef {import('../session_data.js').Schedule} Schedule */

const MINUTES_MIN = 3;
const MINUTES_ODD = 60; // shorter intervals are asked about
const TIME = /^([01]\d|2[0-3]):[0-5]\d$/;
const TIMES_HINT = 'Times of day on the camera’s clock, as 08:00, 20:30.';
const ADDRESS_HINT = 'A host name or an IP address. The whole system log goes there by UDP, port 514.';

const TASKS = [
  {
    rule: 'automatic_restart',
    title: 'Scheduled restart',
    about: 'Restarts the whole camera. A running session goes on afterwards.',
    of: 'restart',
    set: ['Automatic restart rule has been set.'],
    stopped: ['Automatic restart rule has been stopped.',
      'Automatic restart rule at given times has been stopped.'],
  },
  {
    rule: 'automatic_ptz_test',
    title: 'PTZ test',
    about: 'Sends a PTZ camera’s head through its end stops and back. The picture moves meanwhile.',
    of: 'ptz',
    set: ['Automatic PTZ test has been set.', 'PTZ test rule has been set.'],
    stopped: ['Automatic PTZ test has been stopped.',
      'PTZ test rule at given times has been stopped.'],
  },
];

/** Minutes from a time of day to the next of the times. @param {string} now "08:27:40 2023-05-31"
 * @param {string[]} times */
function untilNext(now, times) {
  const minutes = (/** @type {string} */ time) => Number(time.slice(0, 2)) * 60 + Number(time.slice(3, 5));
  const left = times.filter((time) => TIME.test(time))
    .map((time) => ({ time, minutes: (minutes(time) - minutes(now) + 1439) % 1440 + 1 }))
    .sort((a, b) => a.minutes - b.minutes)[0];
  return left ? `${left.time}, in ${duration(left.minutes)}` : '';
}

/** @param {Schedule} set @param {string} now the camera's time @returns {[string, string][]} */
function factsOf({ minutes, minutesLeft, times }, now) {
  return [
    ['Every', minutes > 0 ? duration(minutes) : ''],
    ['Next', minutes > 0 ? (minutesLeft > 0 ? `in ${duration(minutesLeft)}` : 'within a minute')
      : untilNext(now, times.split(','))],
    ['At', times.replaceAll(',', ', ')],
    ['Note', minutes > 0 && times !== '' ? 'The times wait while the interval is set.' : ''],
  ];
}

/** @param {typeof TASKS[number]} task @param {import('../controls.js').Message} message */
function taskCard(task, message) {
  const badge = el('p', { class: 'badge', role: 'status' });
  const facts = createFacts();
  const kind = select([['set_interval', 'At an interval'], ['set_times', 'At times of day']], adapt);
  const interval = el('input', { type: 'text', inputmode: 'numeric', autocomplete: 'off', value: '24', oninput: adapt });
  const unit = select([['60', 'hours'], ['1', 'minutes']], adapt);
  const times = el('input', { type: 'text', autocomplete: 'off', placeholder: '08:00, 20:30', oninput: adapt });
  const intervalField = explainedField('Every', interval);
  const timesField = explainedField('At', times, TIMES_HINT);
  const intervalRow = el('div', { class: 'tools' }, intervalField.element, field('Unit', unit));

  const minutes = () => Number(interval.value.trim()) * Number(unit.value);
  const entries = () => times.value.split(/[\s,]+/).filter(Boolean);

  /** Shows what goes with the choice. */
  function adapt() {
    const byInterval = kind.value === 'set_interval';
    intervalRow.hidden = !byInterval;
    timesField.element.hidden = byInterval;
    intervalField.explain('');
    timesField.explain(TIMES_HINT);
  }

  /** The argument, or nothing after having said what is wrong. */
  function argument() {
    if (kind.value === 'set_interval') {
      const good = /^\d{1,7}$/.test(interval.value.trim()) && minutes() >= MINUTES_MIN;
      intervalField.explain(good ? '' : `A whole number; at least ${MINUTES_MIN} minutes.`, !good);
      return good ? String(minutes()) : null;
    }
    const wrong = entries().find((entry) => !TIME.test(entry));
    const good = entries().length > 0 && wrong === undefined;
    timesField.explain(good ? TIMES_HINT : wrong ? `“${wrong}” is no time of day such as 08:00.`
      : 'At least one time of day such as 08:00.', !good);
    return good ? [...new Set(entries())].sort().join(',') : null;
  }

  async function set() {
    const value = argument();
    if (value === null) {
      (kind.value === 'set_interval' ? interval : times).focus();
      return;
    }
    if (kind.value === 'set_interval' && minutes() < MINUTES_ODD && !await confirmed({
      title: `${task.title} every ${duration(minutes())}?`,
      text: [task.about, 'So short an interval leaves the camera little time for anything else.'],
      action: `Every ${duration(minutes())}`,
      keep: 'Change it',
    })) {
      return;
    }
    message.work('Setting …');
    try {
      const words = await requestGranted('miscellaneous',
        { rule: task.rule, status: kind.value, argument: value }, task.set);
      await refreshCamera();
      message.show('good', el('q', {}, words));
    } catch (error) {
      message.fail(error, task.title);
    }
  }

  async function stop() {
    message.work('Stopping …');
    try {
      const words = await requestGranted('miscellaneous', { rule: task.rule, status: 'stop' }, task.stopped);
      const { camera } = await refreshCamera();
      const left = camera?.maintenance[/** @type {'restart' | 'ptz'} */ (task.of)];
      message.show('good', el('q', {}, words),
        left?.times ? ' The times of day are still set and act now; stop again to end them too.' : '');
    } catch (error) {
      message.fail(error, task.title);
      await refreshCamera();
    }
  }

  const stopButton = actionButton('Stop', stop, { class: 'danger', 'aria-label': `Stop: ${task.title}` });
  const element = el('section', { class: 'card', 'aria-label': task.title },
    el('div', { class: 'tools apart' }, el('h2', {}, task.title), badge),
    el('p', { class: 'quiet' }, task.about), facts.element,
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() },
      el('div', { class: 'form' }, field('When', kind), el('div', {}, intervalRow, timesField.element)),
      el('div', { class: 'tools' },
        actionButton('Set', set, { type: 'submit', class: 'primary', 'aria-label': `Set: ${task.title}` }),
        stopButton)));
  adapt();
  onCamera(element, ({ camera }) => {
    const told = camera?.maintenance[/** @type {'restart' | 'ptz'} */ (task.of)];
    const on = told !== undefined && (told.minutes > 0 || told.times !== '');
    badge.dataset.state = told === undefined ? 'unknown' : on ? 'running' : 'idle';
    setText(badge, told === undefined ? 'Not known yet' : on ? 'Set' : 'Not set');
    facts.show(told && camera ? factsOf(told, camera.device.time) : []);
    stopButton.hidden = !on;
  });
  return element;
}

/** @param {import('../controls.js').Message} message */
function serverCard(message) {
  const facts = createFacts();
  const address = el('input', { type: 'text', autocomplete: 'off', spellcheck: 'false',
    oninput: () => addressField.explain(ADDRESS_HINT) });
  const addressField = explainedField('Server', address, ADDRESS_HINT);
  /** The server set from here: the camera does not name the first one that was ever set on rsyslog. */
  let setHere = '';
  let logDaemon = '';

  /** @param {string} what @param {Record<string, string>} values @param {RegExp} granted
   * @param {string} [more] */
  async function change(what, values, granted, more = '') {
    message.work(`${what} …`);
    try {
      const words = await requestGranted('miscellaneous', { rule: 'syslog_server', ...values }, granted);
      await refreshCamera();
      message.show('good', el('q', {}, words), more);
      return true;
    } catch (error) {
      message.fail(error, 'Remote log server');
      return false;
    }
  }

  let told = '';
  const server = () => told || setHere;

  async function set() {
    const wanted = address.value.trim();
    if (!/^[A-Za-z0-9._:[\]-]+$/.test(wanted)) {
      addressField.explain('A host name or an IP address, nothing else.', true);
      address.focus();
      return;
    }
    if (logDaemon === 'syslog-ng' && /^([^:]+|\[.*\]):\d+$/.test(wanted)) {
      addressField.explain('With syslog-ng no port can be given: it is always 514.', true);
      address.focus();
      return;
    }
    if (await change('Setting the server', { status: 'set', argument: wanted },
      /^Remote server changed/,
      ' The log program restarts, which takes some seconds. Then send a test message.')) {
      setHere = wanted;
      await refreshCamera();
    }
  }

  async function remove() {
    const sure = await confirmed({
      title: 'Remove the remote log server?',
      text: ['The system log is no longer sent there. The camera’s own log goes on.'],
      action: 'Remove server',
      keep: 'Keep',
    });
    if (sure && await change('Removing the server', { status: 'remove' },
      /^Remote syslog server was removed/)) {
      setHere = '';
      await refreshCamera();
    }
  }

  async function test() {
    const done = await change('Sending', { status: 'test' }, /^Test message in the log sent/, ' Look for it on the server.');
    if (done && server() === '') {
      message.show('doubtful', 'The message is in the camera’s log. The camera names no remote server: set one for it to go there.');
    }
  }

  const element = el('section', { class: 'card', 'aria-label': 'Remote log server' },
    el('h2', {}, 'Remote log server'), facts.element,
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() },
      addressField.element,
      el('div', { class: 'tools' },
        actionButton('Set server', set, { type: 'submit', class: 'primary' }),
        actionButton('Send test message', test),
        actionButton('Remove server …', remove, { class: 'danger' }))));
  onCamera(element, ({ camera }) => {
    logDaemon = camera?.device.logDaemon ?? '';
    told = camera?.maintenance.server ?? '';
    facts.show(camera ? [['Server', server() || 'the camera names none'],
      ['Log daemon', camera.device.logDaemon]] : []);
  });
  return element;
}

/** @returns {import('../main.js').View} */
export function create() {
  const message = createMessage();
  return {
    element: el('div', { class: 'view' }, el('h1', {}, 'Maintenance'), message.element,
      el('div', { class: 'columns' }, ...TASKS.map((task) => taskCard(task, message)),
        serverCard(message))),
    show: schedule,
  };
}
