// One session: what it has recorded, and its files.

import { address, request } from '../api.js';
import { ARCHIVE_HOLDS, downloadArchive, haveArchive } from '../archive.js';
import { refreshCamera } from '../camera.js';
import { actionButton, createMessage, field, select } from '../controls.js';
import { el, setText } from '../dom.js';
import { byteSize, clock } from '../format.js';
import { sightOf } from '../link.js';
import { cameraRecording, NOT_TEXT } from '../recording.js';
import { createRecordingView } from '../recording_view.js';
import { partsOfPath } from '../session_data.js';

const PIECE_BYTES = 256 * 1024;

/** The text of one file, in pieces: a log of weeks is too much for one. */
function createViewer() {
  let session = '';
  /** @type {{path: string, bytes: number | null}} the size where it is known */
  let item = { path: '', bytes: 0 };
  let offset = 0;
  const name = el('h2', { tabindex: -1 });
  const place = el('span', { class: 'quiet', role: 'status' });
  const content = el('pre', { class: 'content', tabindex: 0, role: 'region', 'aria-label': 'Content of the file' });
  const message = createMessage();
  const last = () => Math.max(0, Math.ceil((item.bytes ?? 0) / PIECE_BYTES) - 1) * PIECE_BYTES;
  /** @param {string} title @param {() => number} target */
  const step = (title, target) => actionButton(title, () => load(target()));
  const steps = [
    step('First', () => 0), step('Previous', () => Math.max(0, offset - PIECE_BYTES)),
    step('Next', () => Math.min(last(), offset + PIECE_BYTES)), step('Last', last),
  ];
  const stepTools = el('div', { class: 'tools', role: 'group', 'aria-label': 'Part of the file' }, ...steps);
  const save = el('a', { class: 'button', download: '' }, 'Download file');
  const element = el('section', { class: 'card', 'aria-label': 'File' },
    el('div', { class: 'tools apart' }, name, el('a', { class: 'button', href: '#/session' }, 'Close')),
    el('div', { class: 'tools apart' }, el('div', { class: 'tools' }, stepTools, save), place),
    message.element, content);

  /** @param {number} from */
  async function load(from) {
    try {
      const body = await request('view_monitor_data', {
        storage: session, file: item.path, offset: String(from), length: String(PIECE_BYTES),
      });
      offset = from;
      message.clear();
      setText(content, body === '' ? 'This file is empty.' : body);
      content.scrollTop = 0;
      const { bytes } = item;
      setText(place, bytes === null ? '' : bytes <= PIECE_BYTES ? byteSize(bytes)
        : `${byteSize(from)} to ${byteSize(Math.min(bytes, from + PIECE_BYTES))} of ${byteSize(bytes)}`);
    } catch (error) {
      message.fail(error);
    }
  }
  return {
    element,
    /** @param {string} path @param {typeof item} file */
    async open(path, file) {
      session = path;
      item = file;
      setText(name, file.path);
      setText(content, '');
      stepTools.hidden = (file.bytes ?? 0) <= PIECE_BYTES;
      save.href = address('view_monitor_data', { storage: path, file: file.path });
      save.download = file.path.slice(file.path.lastIndexOf('/') + 1);
      element.querySelector('a[href^="#"]')?.setAttribute('href', hashOf(path));
      await load(0);
    },
  };
}

/** @param {string} session @param {{path: string, bytes: number}} [file] */
function hashOf(session, file) {
  const query = `path=${encodeURIComponent(session)}`;
  return `#/session?${file ? `${query}&file=${encodeURIComponent(file.path)}&bytes=${file.bytes}` : query}`;
}

/** @returns {import('../main.js').View} */
export function create() {
  let path = '';
  /** @type {ReturnType<typeof createRecordingView> | null} */
  let view = null;
  const title = el('h1', { tabindex: -1 });
  const where = el('p', { class: 'quiet' });
  const message = createMessage();
  const viewer = createViewer();
  const place = el('div');

  const archiveButton = actionButton('Download archive', async () => {
    const asked = path;
    try {
      await haveArchive(asked, () => message.work('Zipping …'));
      message.show('good', `The archive is complete (${clock(new Date())}).`);
      downloadArchive(asked);
    } catch (error) {
      message.fail(error);
    }
  });
  const more = el('div', { class: 'tools small' });
  const refresh = select([['0', 'Off'], ['60', 'Every minute']], () => refreshLater());
  let timer = 0;
  function refreshLater() {
    clearTimeout(timer);
    if (refresh.value !== '0') {
      timer = setTimeout(async () => {
        if (!document.hidden && !element.hidden) {
          await view?.refresh();
        }
        refreshLater();
      }, Number(refresh.value) * 1000);
    }
  }
  const element = el('div', { class: 'view' },
    el('p', {}, el('a', { href: '#/sessions' }, '← All sessions')),
    el('div', { class: 'tools apart' }, title,
      el('div', { class: 'tools small' }, field('Refresh', refresh), actionButton('Read again', async () => view?.refresh()), more, archiveButton)),
    where, el('p', { class: 'quiet' }, ARCHIVE_HOLDS), message.element, viewer.element, place);

  function leave() {
    view?.close();
    view = null;
    more.replaceChildren();
  }

  /** @param {URLSearchParams} values */
  async function showRecording(values) {
    if (view) {
      view.apply(sightOf(values));
      return;
    }
    const asked = path;
    view = createRecordingView(cameraRecording(asked), (file) => hrefOf(asked, file), async () => (await refreshCamera()).camera?.sessions
      .filter((session) => session.path !== asked && !session.lost)
      .map((session) => ({ title: `${session.title}, ${session.storage}`, recording: cameraRecording(session.path) })) ?? []);
    more.replaceChildren(...view.tools);
    place.replaceChildren(view.element);
    await view.open(sightOf(values));
  }

  return {
    element,
    async show(values) {
      const next = values.get('path') ?? path;
      if (next !== path) {
        leave();
        path = next;
        message.clear();
        const { title: start, storage, serial } = partsOfPath(path);
        setText(title, `Session ${start}`);
        setText(where, `${storage}${serial ? `, camera ${serial}` : ''}: ${path}`);
      }
      const file = values.get('file');
      viewer.element.hidden = file === null;
      place.hidden = file !== null;
      if (file !== null) {
        leave();
        await viewer.open(path, { path: file, bytes: values.has('bytes') ? Number(values.get('bytes')) : null });
      } else {
        await showRecording(values);
      }
    },
    // What it has read and drawn is let go; the address brings it back.
    hide: leave,
  };
}

/** Where a file of a session is read, or downloaded where it is no text. @param {string} session @param {{path: string, bytes: number}} file */
const hrefOf = (session, file) => (NOT_TEXT.test(file.path)
  ? address('view_monitor_data', { storage: session, file: file.path }) : hashOf(session, file));
