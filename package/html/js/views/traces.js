// Network traces: the running one, starting and stopping one, and the list of all.

import { request, requestGranted } from '../api.js';
import { download } from '../archive.js';
import { actionButton, confirmed, createFacts, createMessage, createTable, explainedField }
  from '../controls.js';
import { el, setText } from '../dom.js';
import { byteSize, clock, counted, dateTime } from '../format.js';
import { staleNotes } from '../poll.js';
import { partsOfPath, STORAGES } from '../session_data.js';
import { storageChoice } from '../storage_choice.js';
import { watchTraces } from '../traces.js';

const TIMEOUT_MS = 120000;
// The daemon answers nothing else while it repairs, at some MB/s on a slow storage.
const REPAIR_TIMEOUT_MS = 3600000;
const FIRST_LOOK_MS = 2000;
const REPAIR_SHOWN = 1_000_000; // bytes
// The capture begins some time after the daemon has answered.
const CAPTURE_MS = 8000;
const PLAIN = /^[A-Za-z0-9_][A-Za-z0-9._-]*$/;
const ID_HINT = 'Names the trace’s folder. Letters, digits, “.”, “_” and “-”.';
const IN_ARCHIVE = 'The archive of a stopped trace has the repaired capture (trace.pcap), what was '
  + 'repaired in it (repair.log) and a note (note.txt).';

/** @typedef {import('../traces.js').Trace} Trace */

const proposal = () => `trace_${dateTime(new Date()).replace(/[-:]/g, '').replace(' ', '_')}`;
const logLink = (/** @type {string} */ find, /** @type {string} */ text) =>
  el('a', { href: `#/log?find=${encodeURIComponent(find)}` }, text);

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

/** @returns {import('../main.js').View} */
export function create() {
  const message = createMessage();
  /** @type {Trace[]} */
  let traces = [];
  let folder = '';
  let ending = false;
  let typed = false;
  /** @type {number | null} since when a trace runs without a capture */
  let withoutCapture = null;

  // Starting
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

  // The running one
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
      const { error } = await refresh(REPAIR_TIMEOUT_MS);
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

  // A trace that was taken elsewhere
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
  const directCard = el('section', { class: 'card', 'aria-label': 'Direct trace' },
    el('h2', {}, 'A trace taken from elsewhere'),
    el('p', { class: 'quiet' }, 'Has the camera’s log say that a trace was taken past this page, such as '
      + 'with the camera’s own trace download, so that whoever reads the log knows of it.'),
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() }, secondsField.element,
      el('div', { class: 'tools' }, actionButton('Note in the log', noteDirect, { type: 'submit' }))));

  // The list
  /** @param {Trace} trace */
  async function downloadTrace({ path, name }) {
    message.clear();
    const { error } = await refresh();
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
      await refresh();
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

  // What was repaired
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

  /** @param {Trace} first */
  function makeRow(first) {
    let trace = first;
    const begin = el('span', { class: 'stamp' });
    const end = el('span', { class: 'stamp' });
    const size = el('span');
    const state = el('span', { class: 'badge' });
    const archive = actionButton('Download', () => downloadTrace(trace),
      { 'aria-label': `Download trace ${trace.name}` });
    const repair = actionButton('Repair log', () => showRepair(trace),
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

  /** @param {import('../traces.js').TracesState} told */
  function show(told) {
    const { at, error, damaged } = told;
    if (folder !== '' && told.folder === '' && !error && !ending) {
      message.show('doubtful', 'The trace has ended: someone else has stopped it, or the package was '
        + 'restarted. ', logLink('Wireshark trace', 'The log tells which.'));
    }
    ({ traces, folder } = told);
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
    startCard.hidden = running || (at === null && error === null); // keeps what was typed

    table.show(traces);
    table.element.hidden = traces.length === 0;
    empty.hidden = traces.length > 0;
    setText(empty, at ? 'No trace has been captured yet, or its storage is not there.'
      : error ? 'The traces can’t be listed now.' : 'Asking the camera …');
    setText(count, traces.length === 0 ? '' : counted(traces.length, 'trace'));
    if (!typed && !running && document.activeElement !== id) {
      id.value = proposal();
    }
    checkId();
  }

  const element = el('div', { class: 'view' }, el('h1', {}, 'Traces'), message.element,
    el('div', { class: 'cards' }, stateCard, startCard), listCard, repairCard, directCard);
  const { refresh } = watchTraces(element, show);
  return { element, show: () => { refresh(); } };
}
