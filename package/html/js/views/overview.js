// What matters now and the next step, then the camera, whether the daemon answers, and the self-test of
// the logging.

import { request, RequestError } from '../api.js';
import { onCamera, schedule } from '../camera.js';
import { onDaemonState } from '../daemon.js';
import { createFacts, el, setText } from '../dom.js';
import { clock } from '../format.js';
import { sessionCard } from './session_state.js';

/** The severities that the self-test knows, with what it logs. */
const SEVERITIES = [
  { type: 'warn', title: 'Warning', find: 'A test warning message!' },
  { type: 'error', title: 'Error', find: 'A test error message!' },
  { type: 'crit', title: 'Critical', find: 'A test critical message!' },
  { type: 'alert', title: 'Alert', find: 'A test alert message!' },
  { type: 'emerg', title: 'Emergency', find: 'A test emergency message!' },
];
const RESULTS_KEPT = 20;
const BEHIND_MS = 300;

function daemonCard() {
  const text = el('dd');
  const answered = el('dd');
  const roundTrip = el('dd');
  onDaemonState((state) => {
    setText(text, state.text);
    setText(answered, state.answeredAt ? clock(state.answeredAt) : 'none yet');
    setText(roundTrip, state.roundTripMs ? `${Math.round(state.roundTripMs)} ms` : '–');
  });
  return el('section', { class: 'card', 'aria-labelledby': 'daemon-heading' },
    el('h2', { id: 'daemon-heading' }, 'Daemon'),
    el('dl', { class: 'facts' },
      el('dt', {}, 'State'), text,
      el('dt', {}, 'Last answer'), answered,
      el('dt', {}, 'Round trip'), roundTrip,
      el('dt', {}, 'Camera'), el('dd', {}, location.host)),
    el('p', { class: 'quiet' }, 'For a whole fleet: ', el('a', { href: 'access.cgi?action=metrics' }, 'this camera’s figures'),
      ', as Prometheus reads them.'));
}

function cameraCard() {
  const facts = createFacts();
  const empty = el('p', { class: 'quiet' });
  const element = el('section', { class: 'card', 'aria-label': 'Camera' }, el('h2', {}, 'Camera'),
    facts.element, empty);
  onCamera(element, ({ camera, error }) => {
    setText(empty, camera ? '' : error ? 'The camera’s facts can’t be read now.' : 'Asking the camera …');
    empty.hidden = camera !== null;
    if (camera) {
      const { device } = camera;
      facts.show([
        ['Model', device.model], ['Type', device.type], ['Firmware', device.firmware],
        ['Serial number', device.serial], ['Architecture', device.architecture],
        ['IP address', device.ip], ['MAC address', device.mac],
        ['Resolutions', device.resolutions], ['Camera’s time', device.time],
        ['Log daemon', device.logDaemon], ['Still images', device.images ? 'can be taken' : 'no library'],
      ]);
    }
  });
  return element;
}

function selfTestCard() {
  const results = el('ol', { class: 'results' });
  /** @param {typeof SEVERITIES[number]} severity @param {HTMLButtonElement} button */
  async function run({ type, title, find }, button) {
    button.setAttribute('aria-disabled', 'true');
    const line = el('li', {}, el('time', {}, clock(new Date())), ' ', el('b', {}, title), ' ');
    try {
      const reply = await request('test', { type });
      line.append(el('q', {}, reply.trim()), ' ',
        el('a', { href: `#/log?find=${encodeURIComponent(find)}` }, 'Find it in the log'));
    } catch (error) {
      const { message, advice } = /** @type {RequestError} */ (error);
      line.append(el('span', { class: 'failure' }, `${message} ${advice}`));
    } finally {
      button.removeAttribute('aria-disabled');
    }
    results.prepend(line);
    results.children[RESULTS_KEPT]?.remove();
  }
  const buttons = SEVERITIES.map((severity) => {
    const button = el('button', {
      type: 'button',
      'data-severity': severity.type,
      onclick: () => {
        if (!button.hasAttribute('aria-disabled')) {
          run(severity, button);
        }
      },
    }, severity.title);
    return button;
  });
  return el('section', { class: 'card', 'aria-labelledby': 'self-test-heading' },
    el('h2', { id: 'self-test-heading' }, 'Log self-test'),
    el('p', { class: 'quiet' }, 'Writes one message of the chosen severity to the camera’s system '
      + 'log, to try out triggers and a remote log server.'),
    el('div', { class: 'tools', role: 'group', 'aria-labelledby': 'self-test-heading' }, ...buttons),
    el('div', { role: 'log', 'aria-label': 'Replies to the self-test' }, results));
}

/** One obvious button for what comes next. */
function nextStep() {
  const link = el('a', { class: 'button primary', href: '#/sessions', hidden: true });
  onCamera(link, ({ camera }) => {
    link.hidden = camera === null;
    link.href = camera?.active ? `#/session?path=${encodeURIComponent(camera.directory)}` : '#/sessions';
    setText(link, camera?.active ? 'Open the dashboards' : 'Start a session');
  });
  return el('div', { class: 'tools' }, link, el('a', { class: 'button', href: '#/sessions' }, 'Other recordings'));
}

/** @returns {import('../main.js').View} */
export function create() {
  const now = el('div', { class: 'columns' }, sessionCard(nextStep()));
  // What needs much code comes behind the first view; without it the facts below are there.
  let asked = false;
  onCamera(now, ({ camera }) => {
    if (camera && !asked) {
      asked = true;
      setTimeout(() => import('../overview_now.js').then(({ createNow }) => now.append(...createNow()), () => {}), BEHIND_MS);
    }
  });
  return {
    element: el('div', { class: 'view' }, el('h1', {}, 'Overview'), now,
      el('div', { class: 'columns' }, cameraCard(), daemonCard(), selfTestCard())),
    show: schedule,
  };
}
