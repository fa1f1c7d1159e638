// The running session, starting and stopping one, and the list of all.

import { requestGranted } from '../api.js';
import { expectChanges, onCamera, refreshCamera, schedule } from '../camera.js';
import { actionButton, confirmed, createMessage } from '../controls.js';
import { el } from '../dom.js';
import { sessionList } from './session_list.js';
import { startCard } from './session_start.js';
import { sessionCard } from './session_state.js';

const TIMEOUT_MS = 600000;
const REBOOTS = 'Session deactivation requires reboot.';

/** @returns {import('../main.js').View} */
export function create() {
  const message = createMessage();
  const list = sessionList(message);
  let directory = '';
  let stopping = false;

  async function stop() {
    const sure = await confirmed({
      title: 'Stop the session?',
      text: ['Recording ends. The camera collects its last reports, and then packs the session into an '
        + 'archive. This can take some minutes, in which it answers slowly.'],
      action: 'Stop session',
      keep: 'Go on recording',
    });
    if (!sure) {
      return;
    }
    const stopped = directory;
    stopping = true;
    message.work('Stopping …');
    try {
      const words = await requestGranted('deactivate_monitor_session', {},
        ['Session deactivated.', REBOOTS], { timeoutMs: TIMEOUT_MS });
      expectChanges();
      await list.collectAgain();
      if (words === REBOOTS) {
        message.show('doubtful', el('q', {}, words), ' The camera restarts now, to switch off the '
          + 'capture of kernel crashes. This takes some minutes; the page goes on by itself. The '
          + 'session is complete but not zipped.');
      } else {
        message.show('good', el('q', {}, words));
        list.watchArchive(stopped);
      }
    } catch (error) {
      message.fail(error);
      expectChanges();
      await refreshCamera();
    } finally {
      stopping = false;
    }
  }

  const stopButton = actionButton('Stop session …', stop, { class: 'danger', hidden: true });
  const start = startCard(message);
  const state = sessionCard(el('div', { class: 'tools' }, stopButton));
  const element = el('div', { class: 'view' }, el('h1', {}, 'Sessions'), message.element,
    el('div', { class: 'cards' }, state, start), list.element);

  onCamera(element, ({ camera, error }) => {
    stopButton.hidden = !camera?.active;
    if (camera && !error) {
      if (directory !== '' && !camera.active && !stopping) {
        message.show('doubtful', 'The session has ended: someone else has stopped it, or the daemon '
          + 'has because 90 % of its storage was in use. ',
        el('a', { href: '#/log?find=monitoring%20session' }, 'The log tells which.'));
      }
      directory = camera.directory;
    }
  });
  return { element, show: schedule };
}
