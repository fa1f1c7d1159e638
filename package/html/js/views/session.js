// One session: its information, what it has recorded, and its files.

import { address, request } from '../api.js';
import { downloadArchive, haveArchive } from '../archive.js';
import { actionButton, createFacts, createMessage, createTable, field } from '../controls.js';
import { readInformation } from '../camera.js';
import { readCondition } from '../condition.js';
import { createHttpReport } from '../http_report.js';
import { el, setText } from '../dom.js';
import { byteSize, clock, counted } from '../format.js';
import { cameraRecording, NOT_TEXT } from '../recording.js';
import { partsOfPath } from '../session_data.js';

// A folder of images may hold many thousands.
const MOST_ROWS = 500;
const MOST_COLUMNS = 6;
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

/** @param {string} session @param {string} [file] */
function hashOf(session, file) {
  const query = `path=${encodeURIComponent(session)}`;
  return `#/session?${file ? `${query}&file=${encodeURIComponent(file)}` : query}`;
}

/** @param {string} session @param {string} [file] */
const chartsOf = (session, file) => hashOf(session, file).replace('#/session?', '#/charts?');

/** @param {{path: string}} file */
const shortName = ({ path }) => path.replace(/^system_monitoring\/monitoring_/, '');

/** @returns {import('../main.js').View} */
export function create() {
  let path = '';
  let read = false;
  /** @type {import('../recording.js').Contents} */
  let found = { csv: [], files: [], complete: true };
  /** @type {Map<string, number>} */
  let sizes = new Map();
  const title = el('h1');
  const where = el('p', { class: 'quiet' });
  const message = createMessage();
  const information = createFacts();
  const viewer = createViewer();
  const httpReport = createHttpReport();

  /** @param {{path: string}} item @param {HTMLElement} shown */
  const openLink = (item, shown) => (NOT_TEXT.test(item.path)
    ? el('a', { href: address('view_monitor_data', { storage: path, file: item.path }), download: '' }, shown)
    : el('a', { href: hashOf(path, item.path) }, shown));

  const csvTable = createTable({
    caption: 'Recorded data',
    columns: [{ title: 'File' }, { title: 'Columns' }, { title: 'Size', number: true }, { title: 'Chart' }],
    key: (/** @type {import('../recording.js').Csv} */ csv) => `${path}\n${csv.path}`,
    make(csv) {
      const size = el('span');
      const columns = el('span');
      return {
        cells: [openLink(csv, el('span', {}, shortName(csv))),
          columns, size,
          el('a', { href: chartsOf(path, csv.path), 'aria-label': `Chart of ${shortName(csv).replace(/\.csv$/, '')}` }, 'Chart')],
        update(next) {
          setText(size, byteSize(next.bytes));
          setText(columns, next.columns.length > MOST_COLUMNS
            ? `${next.columns.slice(0, MOST_COLUMNS - 1).join(', ')} and ${
              next.columns.length - MOST_COLUMNS + 1} more`
            : next.columns.join(', '));
        },
      };
    },
  });
  const fileTable = createTable({
    caption: 'Files',
    columns: [{ title: 'File' }, { title: 'Changed' }, { title: 'Size', number: true }],
    key: (/** @type {import('../recording.js').Item} */ item) => `${path}\n${item.path}`,
    make(item) {
      const time = el('span');
      const size = el('span');
      return {
        cells: [openLink(item, el('span', {}, item.path)), time, size],
        update(next) {
          setText(time, next.time);
          setText(size, byteSize(next.bytes));
        },
      };
    },
  });
  const conditionTable = createTable({
    caption: 'Condition of the camera',
    columns: [{ title: 'What' }, { title: 'Last recorded' }, { title: 'At' }],
    key: (/** @type {import('../condition.js').Measure} */ measure) => `${path}\n${measure.name}`,
    make(measure) {
      const value = el('span');
      const time = el('span');
      return {
        cells: [el('span', {}, measure.name), value, time],
        update(next) {
          setText(value, next.value);
          setText(time, next.time);
        },
      };
    },
  });
  const noCondition = el('p', { class: 'empty' });
  const filter = el('input', {
    type: 'search', placeholder: 'Part of the name', spellcheck: 'false', autocomplete: 'off',
    oninput: () => showContents(),
  });
  const noData = el('p', { class: 'empty' });
  const dataCount = el('p', { class: 'quiet', role: 'status' });
  const fileCount = el('p', { class: 'quiet', role: 'status' });
  const contents = el('div', { class: 'view' },
    el('section', { class: 'card', 'aria-label': 'Information' }, el('h2', {}, 'Information'), information.element),
    el('section', { class: 'card', 'aria-label': 'Condition of the camera' },
      el('h2', {}, 'Condition of the camera'), noCondition, conditionTable.element),
    httpReport.element,
    el('div', { class: 'tools' }, field('Filter of the files', filter, 'grow')),
    el('section', { class: 'card', 'aria-label': 'Recorded data' },
      el('div', { class: 'tools apart' }, el('h2', {}, 'Recorded data'), dataCount), noData, csvTable.element),
    el('section', { class: 'card', 'aria-label': 'Other files' },
      el('div', { class: 'tools apart' }, el('h2', {}, 'Other files'), fileCount), fileTable.element));

  /**
   * @template {{path: string}} Row
   * @param {Row[]} all
   * @param {{element: HTMLElement, show: (rows: Row[]) => void}} table
   * @param {HTMLElement} count
   */
  function showMatching(all, table, count) {
    const wanted = filter.value.toLowerCase();
    const matching = all.filter((item) => item.path.toLowerCase().includes(wanted));
    table.show(matching.slice(0, MOST_ROWS));
    table.element.hidden = matching.length === 0;
    const some = matching.length > MOST_ROWS ? `The first ${MOST_ROWS} of ` : '';
    setText(count, `${some}${counted(matching.length, 'file')}`);
  }

  function showContents() {
    showMatching(found.csv, csvTable, dataCount);
    showMatching(found.files, fileTable, fileCount);
    noData.hidden = !csvTable.element.hidden;
    setText(noData, found.csv.length === 0 ? 'No data has been recorded yet.'
      : 'No file matches the filter.');
  }

  /** @param {string} asked */
  async function showCondition(asked) {
    const measures = await readCondition(asked, found.csv).catch(() => null);
    if (asked !== path) {
      return;
    }
    conditionTable.show(measures ?? []);
    conditionTable.element.hidden = !measures?.length;
    noCondition.hidden = !conditionTable.element.hidden;
    setText(noCondition, measures ? 'Nothing has been recorded of it. Sessions on the internal storage '
      + 'have none, others after some minutes.' : 'It can’t be read now.');
  }

  async function load() {
    const asked = path;
    message.work('Reading what the session has …');
    try {
      const listed = await cameraRecording(asked).list();
      const facts = await readInformation(asked).catch(() => null);
      if (asked !== path) {
        return;
      }
      found = listed;
      const order = (/** @type {{path: string}} */ a, /** @type {{path: string}} */ b) =>
        a.path.localeCompare(b.path, 'en');
      found.csv.sort(order);
      found.files.sort(order);
      sizes = new Map([...found.csv, ...found.files].map((item) => [item.path, item.bytes]));
      information.show(facts ?? [['Information', 'Session_Information.txt can’t be read.']]);
      showContents();
      await showCondition(asked);
      await httpReport.show(asked, sizes);
      if (asked !== path) {
        return;
      }
      read = true;
      message.clear();
      if (!found.complete) {
        message.show('doubtful', 'The session holds more files than the daemon lists. The archive has '
          + 'them all.');
      }
    } catch (error) {
      if (asked === path) {
        message.fail(error);
      }
    }
  }

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
  const charts = el('a', { class: 'button' }, 'Charts');
  const element = el('div', { class: 'view' },
    el('p', {}, el('a', { href: '#/sessions' }, '← All sessions')),
    el('div', { class: 'tools apart' }, title,
      el('div', { class: 'tools' }, charts, actionButton('Refresh', load), archiveButton)),
    where, message.element, viewer.element, contents);

  return {
    element,
    async show(values) {
      const next = values.get('path') ?? path;
      if (next !== path) {
        path = next;
        read = false;
        filter.value = '';
        contents.hidden = true;
        charts.href = chartsOf(path);
        const { title: start, storage, serial } = partsOfPath(path);
        setText(title, `Session ${start}`);
        setText(where, `${storage}${serial ? `, camera ${serial}` : ''}: ${path}`);
        await load();
      }
      const file = values.get('file');
      viewer.element.hidden = file === null;
      contents.hidden = file !== null || !read;
      if (file !== null) {
        await viewer.open(path, { path: file, bytes: sizes.get(file) ?? null });
      }
    },
  };
}
