// The list of all traces, and what was repaired in one.

import { request, requestGranted } from '../api.js';
import { download } from '../archive.js';
import { actionButton, confirmed, createTable } from '../controls.js';
import { el, setText } from '../dom.js';
import { byteSize, counted } from '../format.js';
import { partsOfPath } from '../session_data.js';
import { IN_ARCHIVE } from './trace_state.js';

const TIMEOUT_MS = 120000;
const REPAIR_SHOWN = 1_000_000; // bytes

/** @typedef {import('../traces.js').Trace} Trace */

/** @param {Trace} trace */
function stateOf({ running, zipping, bytes, stop }) {
  if (running) {
    return { state: 'running', text: 'Running' };
  }
  if (zipping) {
    return { state: 'working', text: 'Zipping' };
  }
  if (bytes !== null) {
    return { state: 'good', text: 'Archive ready' };
  }
  return stop ? { state: 'trouble', text: 'No archive' } : { state: 'trouble', text: 'Interrupted' };
}

/** What was repaired in a trace. @param {ReturnType<typeof import('../controls.js').createMessage>} message of the view */
function createRepair(message) {
  const repairTitle = el('h2', { tabindex: -1 });
  const repairNote = el('p');
  const repairText = el('pre', { class: 'content', tabindex: 0, 'aria-label': 'Repair log' });
  const repairCard = el('section', { class: 'card', 'aria-label': 'Repair', hidden: true },
    el('div', { class: 'tools apart' }, repairTitle,
      el('button', { type: 'button', onclick: () => { repairCard.hidden = true; } }, 'Close')),
    repairNote, repairText);

  /** @param {Trace} trace */
  async function showRepair({ path, name }) {
    message.clear();
    const read = (/** @type {string} */ file, more = {}) =>
      request('view_monitor_data', { storage: path, file, ...more });
    // Either may be missing: a storage that was full has room for one.
    const [log, note] = await Promise.allSettled([
      read('repair.log', { length: String(REPAIR_SHOWN) }), read('note.txt')]);
    if (log.status === 'rejected' && note.status === 'rejected') {
      message.fail(log.reason, `Trace ${name}`);
      return;
    }
    const text = log.status === 'fulfilled' ? log.value : '';
    setText(repairTitle, `Repair of trace ${name}`);
    setText(repairNote, note.status === 'fulfilled' ? note.value.trim() : 'There is no note on it.');
    setText(repairText, log.status === 'rejected' ? 'There is no repair log.'
      : new Blob([text]).size < REPAIR_SHOWN ? text : `${text}\n… The archive has the rest.`);
    repairCard.hidden = false;
    repairTitle.focus();
  }

  return { element: repairCard, show: showRepair };
}

/**
 * @param {ReturnType<typeof import('../controls.js').createMessage>} message of the view
 * @param {() => Promise<import('../traces.js').TracesState>} refresh
 */
export function traceList(message, refresh) {
  const repairs = createRepair(message);

  /** @param {Trace} trace */
  async function downloadTrace({ path, name }) {
    message.clear();
    const { error, traces } = await refresh();
    const trace = traces.find((one) => one.path === path);
    if (error) {
      message.fail(error, `Trace ${name}`);
    } else if (trace?.bytes == null) {
      message.show('bad', `Trace ${name}: its ${trace?.running ? 'capture' : 'archive'} is not there. `
        + 'Bring its storage back and refresh; otherwise it was deleted.');
    } else {
      if (trace.running) {
        message.show('doubtful', `Trace ${name}: the camera packs what it has captured so far, and `
          + 'answers nothing else meanwhile. The download begins then.');
      }
      download('download_wireshark_session', { storage: path });
    }
  }

  /** @param {Trace} trace */
  async function remove({ path, name, bytes }) {
    const { storage: place } = partsOfPath(path);
    const sure = await confirmed({
      title: `Delete trace ${name}?`,
      text: [`Its folder on ${place}${bytes === null ? '' : `, with an archive of ${byteSize(bytes)},`} is `
        + 'deleted from the camera. This can’t be taken back.'],
      action: 'Delete',
      keep: 'Keep',
    });
    if (!sure) {
      return;
    }
    message.work(`Deleting trace ${name} …`);
    try {
      const words = await requestGranted('remove_wireshark_session', { storage: path },
        ['Session deleted.'], { timeoutMs: TIMEOUT_MS });
      const { traces } = await refresh();
      // The daemon says so too when it has left the folder alone.
      if (traces.some((one) => one.path === path)) {
        message.show('bad', `Trace ${name}: the daemon answers `, el('q', {}, words), ' but the trace is '
          + 'still there. It runs, or its storage can’t be written.');
      } else {
        message.show('good', `Trace ${name}: `, el('q', {}, words));
      }
    } catch (error) {
      message.fail(error, `Trace ${name}`);
      await refresh();
    }
    if (document.activeElement === document.body) {
      heading.focus(); // the row that had it is gone
    }
  }

  /** @param {Trace} first */
  function makeRow(first) {
    let trace = first;
    const begin = el('span', { class: 'stamp' });
    const end = el('span', { class: 'stamp' });
    const size = el('span');
    const state = el('span', { class: 'badge' });
    const archive = actionButton('Download', () => downloadTrace(trace),
      { 'aria-label': `Download trace ${trace.name}` });
    const repair = actionButton('Repair log', () => repairs.show(trace),
      { 'aria-label': `Repair log of trace ${trace.name}` });
    const deletion = actionButton('Delete', () => remove(trace),
      { class: 'danger', 'aria-label': `Delete trace ${trace.name}` });
    return {
      cells: [el('span', {}, trace.name), begin, end, el('span', {}, trace.path), size, state,
        el('div', { class: 'tools' }, archive, repair, deletion)],
      /** @param {Trace} next */
      update(next) {
        trace = next;
        setText(begin, next.start);
        setText(end, next.stop || '–');
        setText(size, next.bytes === null ? '–' : byteSize(next.bytes));
        const shown = stateOf(next);
        state.dataset.state = shown.state;
        setText(state, shown.text);
        archive.hidden = next.bytes === null;
        repair.hidden = next.running || next.stop === '';
        deletion.hidden = next.running;
      },
    };
  }

  const table = createTable({
    caption: 'Traces',
    columns: [{ title: 'Recording id' }, { title: 'Start' }, { title: 'Stop' }, { title: 'Folder' },
      { title: 'Size', number: true }, { title: 'State' }, { title: 'Actions' }],
    key: (/** @type {Trace} */ trace) => trace.path,
    make: makeRow,
  });
  const heading = el('h2', { tabindex: -1 }, 'Traces');
  const count = el('span', { class: 'quiet' });
  const empty = el('p', { class: 'empty' });
  const listCard = el('section', { class: 'card', 'aria-label': 'Traces' },
    el('div', { class: 'tools' }, heading, count), empty, table.element,
    el('p', { class: 'hint' }, `${IN_ARCHIVE} The size is the archive’s, or of a running trace that of `
      + 'the capture so far.'));

  return {
    elements: [listCard, repairs.element],
    /** @param {import('../traces.js').TracesState} told */
    show({ at, error, traces }) {
      table.show(traces);
      table.element.hidden = traces.length === 0;
      empty.hidden = traces.length > 0;
      setText(empty, at ? 'No trace has been captured yet, or its storage is not there.'
        : error ? 'The traces can’t be listed now.' : 'Asking the camera …');
      setText(count, traces.length === 0 ? '' : counted(traces.length, 'trace'));
    },
  };
}
