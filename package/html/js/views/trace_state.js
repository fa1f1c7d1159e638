// The running trace, and stopping it.

import { requestGranted } from '../api.js';
import { actionButton, confirmed } from '../controls.js';
import { createFacts, el, setText } from '../dom.js';
import { byteSize, clock } from '../format.js';
import { staleNotes } from '../poll.js';
import { partsOfPath } from '../session_data.js';

// The daemon answers nothing else while it repairs, at some MB/s on a slow storage.
const REPAIR_TIMEOUT_MS = 3600000;
// The capture begins some time after the daemon has answered.
const CAPTURE_MS = 8000;
/** What an archive of a trace has. */
export const IN_ARCHIVE = 'The archive of a stopped trace has the repaired capture (trace.pcap), what was '
  + 'repaired in it (repair.log) and a note (note.txt).';

/** @param {string} find @param {string} text */
export const logLink = (find, text) => el('a', { href: `#/log?find=${encodeURIComponent(find)}` }, text);

/**
 * @param {ReturnType<typeof import('../controls.js').createMessage>} message of the view
 * @param {(timeoutMs?: number) => Promise<import('../traces.js').TracesState>} refresh
 */
export function traceStateCard(message, refresh) {
  let folder = '';
  let ending = false;
  /** @type {number | null} since when a trace runs without a capture */
  let withoutCapture = null;
  const badge = el('p', { class: 'badge', role: 'status' });
  const facts = createFacts();
  const trouble = el('div', { role: 'alert' });
  const idle = el('p', { class: 'quiet' });
  const stale = el('p', { class: 'notice', hidden: true });
  const asOf = el('span', { class: 'quiet' });

  async function stop() {
    const sure = await confirmed({
      title: 'Stop the trace?',
      text: ['The capture ends. The camera then repairs and packs it. This takes a while for a large '
        + 'capture, and the daemon answers nothing else meanwhile, on no page.'],
      action: 'Stop trace',
      keep: 'Go on capturing',
    });
    if (!sure) {
      return;
    }
    const stopped = folder;
    ending = true;
    message.work('Stopping, repairing and packing …');
    try {
      // The reply begins before the work and ends after it.
      const words = await requestGranted('stop_wireshark_session', {},
        ['Wireshark session deactivated.'], { timeoutMs: REPAIR_TIMEOUT_MS });
      const { error, traces } = await refresh(REPAIR_TIMEOUT_MS);
      const trace = traces.find(({ path }) => path === stopped);
      if (error) {
        message.fail(error, 'The trace is stopped, but how its repair went is not known yet');
      } else if (trace?.bytes == null) {
        message.show('bad', el('q', {}, words), ' But there is no archive: its storage is full or gone, '
          + 'or nothing was captured. What was captured stays in its folder. ',
        logLink('trace', 'The log tells more.'));
      } else {
        message.show('good', el('q', {}, words), ` ${IN_ARCHIVE}`);
      }
    } catch (error) {
      message.fail(error);
      await refresh();
    } finally {
      ending = false;
    }
  }

  const stopButton = actionButton('Stop trace …', stop, { class: 'danger', hidden: true });
  const stateCard = el('section', { class: 'card', 'aria-label': 'Trace' },
    el('div', { class: 'tools apart' }, el('h2', {}, 'Trace'), badge),
    trouble, facts.element, idle, stale, el('div', { class: 'tools' }, stopButton),
    el('p', { class: 'foot' }, asOf, ' ',
      el('button', { type: 'button', class: 'plain', onclick: () => refresh() }, 'Refresh')));

  /** @param {import('../traces.js').TracesState} told */
  function show(told) {
    const { at, error, damaged, traces } = told;
    if (folder !== '' && told.folder === '' && !error && !ending) {
      message.show('doubtful', 'The trace has ended: someone else has stopped it, or the package was '
        + 'restarted. ', logLink('Wireshark trace', 'The log tells which.'));
    }
    ({ folder } = told);
    const running = folder !== '';
    const current = traces.find((trace) => trace.running);
    const bytes = current?.bytes ?? null;
    withoutCapture = !running || bytes !== null ? null : withoutCapture ?? performance.now();
    const lost = withoutCapture !== null && performance.now() - withoutCapture > CAPTURE_MS;

    badge.dataset.state = at === null ? 'unknown' : lost ? 'trouble' : running ? 'running' : 'idle';
    setText(badge, { unknown: 'Not known yet', trouble: 'Running, nothing captured', running: 'Running',
      idle: 'Not running' }[badge.dataset.state] ?? '');
    trouble.className = lost ? 'notice' : '';
    if (!lost) {
      trouble.replaceChildren();
    } else if (!trouble.hasChildNodes()) {
      trouble.append('The capture’s file is not there. Most likely its storage is not: check that it is '
        + 'inserted and mounted in the camera’s storage settings, then stop this trace and start '
        + 'another. ', logLink('No trace in', 'The log tells why.'));
    }
    facts.show(running ? [
      ['Started', current?.start ?? ''],
      ['Captured', bytes === null ? 'nothing yet' : byteSize(bytes)],
      ['Storage', partsOfPath(folder).storage],
      ['Folder', folder],
    ] : []);
    setText(idle, at && !running ? 'Nothing is being captured.' : '');
    idle.hidden = idle.textContent === '';
    const notes = staleNotes(error, damaged
      ? 'The list of traces is damaged. What could be read is shown; something may be missing.' : '');
    stale.hidden = notes === '';
    setText(stale, notes);
    setText(asOf, at ? `As of ${clock(at)}, this computer’s time` : error ? '' : 'Asking the camera …');
    stopButton.hidden = !running;
  }
  return { element: stateCard, show };
}
