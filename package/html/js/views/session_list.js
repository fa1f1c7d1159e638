// The sessions that the camera has found, and what can be done with each.

import { requestGranted } from '../api.js';
import { ARCHIVE_HOLDS, downloadArchive, haveArchive } from '../archive.js';
import { onCamera, refreshCamera } from '../camera.js';
import { actionButton, confirmed, createTable, field, select } from '../controls.js';
import { el, setText } from '../dom.js';
import { byteSize, counted } from '../format.js';
import { isOwn, monitorTitle, runsElsewhere } from '../session_data.js';

const TIMEOUT_MS = 600000;
const MANY = 8; // sessions, from which on they are filtered, sorted and ticked
const NAMED = 5;

/** @typedef {import('../session_data.js').Session} Session */

/** @type {Record<string, (a: Session, b: Session) => number>} */
const ORDERS = {
  newest: (a, b) => Number(a.title < b.title) - Number(a.title > b.title),
  oldest: (a, b) => Number(a.title > b.title) - Number(a.title < b.title),
  largest: (a, b) => b.bytes - a.bytes,
};

/** @param {Session} session @param {string} serial of this camera */
function stateOf(session, serial) {
  const { running, lost, bytes, zipped } = session;
  if (running) {
    return { state: 'running', text: 'Running' };
  }
  if (runsElsewhere(session, serial)) {
    return { state: 'running', text: `Recording on ${session.serial}` };
  }
  if (lost) {
    return { state: 'trouble', text: bytes > 0 ? 'Lost' : 'Not reachable' };
  }
  return zipped ? { state: 'good', text: 'Archive ready' } : { state: 'idle', text: 'Not zipped' };
}

/**
 * @param {import('../controls.js').Message} message tells how an action went
 */
export function sessionList(message) {
  let allCameras = false;
  let serial = '';
  /** @type {Map<string, string>} sessions on which work is under way, and which */
  const working = new Map();
  /** @type {Session[]} */
  let sessions = [];
  /** @type {Set<string>} paths of the ticked ones */
  const chosen = new Set();

  /** What the daemon lists depends on what it was last asked to collect. */
  const lookAgain = async () => {
    await refreshCamera(allCameras ? 'export' : 'reload');
  };
  /** @param {string} path @param {string} what */
  function mark(path, what) {
    if (what === '') {
      working.delete(path);
    } else {
      working.set(path, what);
    }
    show();
  }

  /**
   * @param {Session} session
   * @param {boolean} [begun]
   * @returns {Promise<'there' | 'made' | 'failed'>}
   */
  async function zip({ path, title }, begun = false) {
    try {
      await haveArchive(path, () => mark(path, 'Zipping …'), begun);
      return working.has(path) ? 'made' : 'there';
    } catch (error) {
      message.fail(error, `Session ${title}`);
      return 'failed';
    } finally {
      const waited = working.has(path);
      mark(path, '');
      if (waited) {
        await refreshCamera();
      }
    }
  }

  /** @param {Session} session */
  async function zipOrDownload(session) {
    message.clear();
    const archive = await zip(session);
    if (archive === 'there') {
      // That of a running session is soon out of date: the next one is made anew.
      downloadArchive(session.path, session.running);
    } else if (archive === 'made') {
      message.show('good', `Session ${session.title}: the archive is ready for download.`);
    }
  }

  /** The sessions that are ticked, of those that are shown. */
  const ticked = () => matching().filter(({ path }) => chosen.has(path));

  /** Deletes the ticked sessions, one after the other. */
  async function removeTicked() {
    const all = ticked().filter((session) => !session.running && !runsElsewhere(session, serial));
    const bytes = all.reduce((sum, session) => sum + session.bytes, 0);
    if (all.length === 0 || !await confirmed({
      title: `Delete ${counted(all.length, 'session')}?`,
      text: [`${byteSize(bytes)} and their archives are deleted from the camera. This can’t be taken back.`,
        all.slice(0, NAMED).map(({ title }) => title).join(', ') + (all.length > NAMED ? ` and ${all.length - NAMED} more` : '')],
      action: 'Delete',
      keep: 'Keep',
    })) {
      return;
    }
    let failed = 0;
    for (const [index, { path, title }] of all.entries()) {
      message.work(`Deleting session ${title}, ${index + 1} of ${all.length} …`);
      await requestGranted('remove', { path }, ['Files deleted.'], { timeoutMs: TIMEOUT_MS })
        .then(() => chosen.delete(path), () => { failed++; });
    }
    await refreshCamera();
    message.show(failed > 0 ? 'bad' : 'good', `${counted(all.length - failed, 'session')} deleted${failed > 0 ? `, ${failed} could not be` : ''}.`);
  }

  /** @param {Session} session */
  async function remove(session) {
    const { path, title, bytes, storage, zipped } = session;
    const sure = await confirmed({
      title: `Delete session ${title}?`,
      text: [...runsElsewhere(session, serial) ? [`The camera ${session.serial} has not stopped this `
        + 'session and may be recording it now. What it records from then on is lost as well. Stop the '
        + 'session on that camera first, unless it is gone.'] : [], `${byteSize(bytes)} on ${storage}${zipped ? ', and its archive,' : ''} are deleted from the `
        + 'camera. This can’t be taken back.'],
      action: 'Delete',
      keep: 'Keep',
    });
    if (!sure) {
      return;
    }
    message.work(`Deleting session ${title} …`);
    mark(path, 'Deleting …');
    try {
      const words = await requestGranted('remove', { path }, ['Files deleted.'],
        { timeoutMs: TIMEOUT_MS });
      message.show('good', `Session ${title}: `, el('q', {}, words));
    } catch (error) {
      message.fail(error, `Session ${title}`);
    }
    mark(path, '');
    await refreshCamera();
    if (document.activeElement === document.body) {
      heading.focus(); // the row that had it is gone
    }
  }

  /** @param {Session} first */
  function makeRow(first) {
    let session = first;
    const tick = el('input', {
      type: 'checkbox', class: 'tick', 'aria-label': `Choose session ${session.title}`,
      onchange: () => {
        chosen[tick.checked ? 'add' : 'delete'](session.path);
        showChosen();
      },
    });
    const start = el('a', { class: 'stamp', href: `#/session?path=${encodeURIComponent(session.path)}` }, session.title);
    const end = el('span', { class: 'stamp' });
    const storage = el('span');
    const camera = el('span');
    const size = el('span');
    const kinds = el('summary');
    const names = el('p');
    const recorded = el('details', {}, kinds, names);
    const state = el('span', { class: 'badge' });
    const progress = el('progress', { 'aria-label': `Work on session ${session.title}`, hidden: true });
    const archive = actionButton('Zip', () => zipOrDownload(session));
    const deletion = actionButton('Delete', () => remove(session), { class: 'danger',
      'aria-label': `Delete session ${session.title}` });
    return {
      cells: [el('span', { class: 'check' }, tick, start), end, storage, camera, size, recorded, el('div', { class: 'state' }, state, progress),
        el('div', { class: 'tools' }, archive, deletion)],
      /** @param {Session} next */
      update(next) {
        session = next;
        tick.hidden = !many() || next.running;
        tick.checked = chosen.has(next.path);
        setText(end, next.end || '–');
        setText(storage, next.storage);
        setText(camera, next.serial || serial);
        setText(size, next.bytes > 0 ? byteSize(next.bytes) : '–');
        setText(kinds, `${counted(next.monitors.length, 'kind')} of data`);
        setText(names, next.monitors.map(monitorTitle).join(', '));
        const work = working.get(next.path);
        const shown = work ? { state: 'working', text: work } : stateOf(next, serial);
        state.dataset.state = shown.state;
        setText(state, shown.text);
        progress.hidden = work === undefined;
        setText(archive, next.zipped ? 'Download' : 'Zip');
        archive.setAttribute('aria-label', `${archive.textContent} session ${next.title}`);
      },
    };
  }

  const table = createTable({
    caption: 'Sessions',
    columns: [
      { title: 'Start' }, { title: 'End' }, { title: 'Storage' },
      { title: 'Camera', hidden: () => !allCameras }, { title: 'Size', number: true },
      { title: 'Recorded' }, { title: 'State' }, { title: 'Actions' },
    ],
    key: (/** @type {Session} */ session) => session.path,
    make: makeRow,
  });
  const heading = el('h2', { tabindex: -1 }, 'Sessions');
  const count = el('span', { class: 'quiet' });
  const empty = el('p', { class: 'empty' });
  const all = el('input', {
    type: 'checkbox',
    onchange: async () => {
      allCameras = all.checked;
      message.work('Collecting the sessions …');
      await lookAgain();
      message.clear();
    },
  });
  const filter = el('input', {
    type: 'search', placeholder: 'Time, storage, camera', autocomplete: 'off', spellcheck: 'false', oninput: () => show(),
  });
  const order = select([['newest', 'Newest first'], ['oldest', 'Oldest first'], ['largest', 'Largest first']], () => show());
  const allShown = el('input', {
    type: 'checkbox',
    onchange: () => {
      for (const { path, running } of matching()) {
        chosen[allShown.checked && !running ? 'add' : 'delete'](path);
      }
      show();
    },
  });
  const deleteTicked = actionButton('Delete the ticked', removeTicked, { class: 'danger' });
  const tools = el('div', { class: 'tools', hidden: true }, field('Filter', filter, 'grow'), field('Order', order),
    el('label', { class: 'check' }, allShown, 'Tick all shown'), deleteTicked);
  const many = () => sessions.length >= MANY;

  function matching() {
    const words = filter.value.toLowerCase().split(/\s+/).filter(Boolean);
    return sessions.filter((session) => allCameras || isOwn(session, serial))
      .filter(({ title, storage, serial: camera }) => words.every((word) => `${title} ${storage} ${camera}`.toLowerCase().includes(word)));
  }
  function showChosen() {
    const all = ticked();
    deleteTicked.hidden = all.length === 0;
    setText(deleteTicked, `Delete ${counted(all.length, 'session')} …`);
  }

  const element = el('section', { class: 'card', 'aria-label': 'Sessions' },
    el('div', { class: 'tools apart' },
      el('div', { class: 'tools' }, heading, count),
      el('div', { class: 'tools' },
        el('label', { class: 'check' }, all, el('span', {}, 'Sessions of all cameras on the share')),
        actionButton('Look again', lookAgain, { title: 'Search the storages for sessions' }))),
    tools, empty, table.element, el('p', { class: 'quiet' }, ARCHIVE_HOLDS));

  function show() {
    const shown = matching();
    tools.hidden = !many();
    table.show(order.value === 'newest' ? shown : [...shown].sort(ORDERS[order.value]));
    showChosen();
    table.element.hidden = shown.length === 0;
    empty.hidden = shown.length > 0;
    const bytes = shown.reduce((sum, session) => sum + session.bytes, 0);
    setText(count, shown.length === 0 ? '' : `${counted(shown.length, 'session')}, ${byteSize(bytes)}`);
  }

  onCamera(element, ({ camera, error }) => {
    if (camera) {
      sessions = camera.sessions;
      serial = camera.device.serial;
    }
    setText(empty, camera && sessions.length > 0 ? 'No session matches the filter.' : camera ? 'No session has been recorded yet, or its storage is not there.'
      : error ? 'The sessions can’t be listed now.' : 'Asking the camera …');
    show();
  });

  return {
    element,
    /**
     * To be called when the daemon makes an archive by itself: a session has been stopped.
     * @param {string} path
     */
    watchArchive(path) {
      const session = sessions.find((one) => one.path === path);
      if (session) {
        zip(session, true);
      }
    },
    collectAgain: () => (allCameras ? lookAgain() : refreshCamera()),
  };
}
