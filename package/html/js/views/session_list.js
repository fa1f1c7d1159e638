// The sessions that the camera has found, and what can be done with each.

import { requestGranted } from '../api.js';
import { downloadArchive, haveArchive } from '../archive.js';
import { onCamera, refreshCamera } from '../camera.js';
import { actionButton, confirmed, createTable } from '../controls.js';
import { el, setText } from '../dom.js';
import { byteSize, counted } from '../format.js';
import { isOwn, monitorTitle, runsElsewhere } from '../session_data.js';

const TIMEOUT_MS = 600000;

/** @typedef {import('../session_data.js').Session} Session */

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
      cells: [start, end, storage, camera, size, recorded, el('div', { class: 'state' }, state, progress),
        el('div', { class: 'tools' }, archive, deletion)],
      /** @param {Session} next */
      update(next) {
        session = next;
        setText(end, next.end || '–');
        setText(storage, next.storage);
        setText(camera, next.serial || serial);
        setText(size, next.bytes > 0 ? byteSize(next.bytes) : '–');
        setText(kinds, counted(next.monitors.length, 'kind'));
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
  const element = el('section', { class: 'card', 'aria-label': 'Sessions' },
    el('div', { class: 'tools apart' },
      el('div', { class: 'tools' }, heading, count),
      el('div', { class: 'tools' },
        el('label', { class: 'check' }, all, el('span', {}, 'Sessions of all cameras on the share')),
        actionButton('Look again', lookAgain, { title: 'Search the storages for sessions' }))),
    empty, table.element);

  function show() {
    const shown = sessions.filter((session) => allCameras || isOwn(session, serial));
    table.show(shown);
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
    setText(empty, camera ? 'No session has been recorded yet, or its storage is not there.'
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
