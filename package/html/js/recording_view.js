// A recording as a whole: charts with marks, images, logs, crash files. The same for a session on the
// camera and for an archive.

import { createChartGroup } from './chart.js';
import { createChartCard, titleOf } from './chart_card.js';
import { actionButton, createFacts, createMessage, createTable, field, newId } from './controls.js';
import { el, setText } from './dom.js';
import { byteSize, counted } from './format.js';
import { createImageCard } from './image_card.js';
import { KIND_TITLES, markOfFile, markOfLine, marksOfEvents, sortedMarks, zoneOf } from './marks.js';
import { readWhole } from './recording.js';
import { holes, wallSeconds, wallText } from './series.js';
import { deviceTime, informationOf } from './session_data.js';
import { createTextCard } from './text_card.js';
import { lineCollector } from './views/log_lines.js';

const INFORMATION = 'Session_Information.txt';
const LOG = 'system_monitoring/monitoring_basic/Continuous_Syslog.txt';
const EVENTS = 'system_monitoring/monitoring_metadata/eventlistener.txt';
const MOST_LOG_BYTES = 8 * 1024 * 1024; // read for marks
const MOST_REPORT_BYTES = 1024 * 1024;
const MOST_INFORMATION_BYTES = 256 * 1024;
const MOST_MARKS = 500;
const MOST_FILES = 500;
const CRASH_FILE = /^coredumps\/|\/(?:Crash_Reports|Server_Reports)\//;
/** What is drawn first, where it is there. */
const FIRST_CHARTS = [/monitoring_load\/load\.csv$/, /monitoring_network\/eth0\.csv$/, /monitoring_environment\/(?!Fan|Heater)[^/]+\.csv$/];
const HINT = 'Point at a chart to read its values.';
const ZOOM = 2;
const PAN = 0.25;

/** @typedef {import('./marks.js').Mark} Mark */
/** @typedef {import('./recording.js').Item} Item */

/**
 * @param {import('./recording.js').Recording} recording
 */
export function createRecordingView(recording) {
  /** @type {Mark[]} */
  let marks = [];
  /** @type {import('./recording.js').Contents} */
  let contents = { csv: [], files: [], complete: true };
  /** @type {ReturnType<typeof createChartCard>[]} */
  let cards = [];
  const message = createMessage();
  const information = createFacts();
  const reading = el('output', { class: 'reading', 'aria-live': 'off' });
  const images = createImageCard(recording, (time) => {
    group.point(time);
    told(time, []);
  });
  const texts = createTextCard(recording);
  const group = createChartGroup((time, there) => {
    told(time, there);
    images.follow(time);
  });
  /** @param {number} time @param {Mark[]} there */
  function told(time, there) {
    setText(reading, [wallText(time), ...there.map(({ text }) => text)].join(' · '));
  }

  // --- Charts

  const datalist = el('datalist', { id: newId('files') });
  const wanted = el('input', {
    list: datalist.id, placeholder: 'Part of the name', autocomplete: 'off', spellcheck: 'false',
    onchange: () => addWanted(false),
    onkeydown: (event) => {
      if (/** @type {KeyboardEvent} */ (event).key === 'Enter') {
        addWanted(true);
      }
    },
  });
  const wantedMessage = el('p', { class: 'hint', role: 'status' });
  const place = el('div', { class: 'view' });
  const rangeText = el('p', { class: 'quiet' });
  /** @param {string} text @param {() => void} act */
  const button = (text, act) => el('button', { type: 'button', onclick: act }, text);
  const charts = el('section', { class: 'view', 'aria-label': 'Charts' },
    el('div', { class: 'tools apart' }, el('h2', {}, 'Charts'), rangeText),
    el('div', { class: 'tools chart-tools' },
      field('File to draw', wanted, 'grow'), datalist, button('Add chart', () => addWanted(true)),
      el('div', { class: 'tools', role: 'group', 'aria-label': 'Time in sight' },
        button('All', () => group.setRange(null)),
        button('Zoom in', () => group.zoom(1 / ZOOM)), button('Zoom out', () => group.zoom(ZOOM)),
        button('Earlier', () => group.pan(-PAN)), button('Later', () => group.pan(PAN)))),
    wantedMessage, reading, place,
    el('p', { class: 'quiet' }, 'Drag over a chart to zoom, with the Shift key to move along; Ctrl and the wheel zoom too, '
      + 'a double click shows all. Times are those of the camera’s clock.'));
  group.onRange(([from, to]) => setText(rangeText, cards.length === 0 ? '' : `${wallText(from)} to ${wallText(to)}`));

  /** @param {boolean} insist whether part of a name will do */
  function addWanted(insist) {
    const name = wanted.value.trim().toLowerCase();
    const found = contents.csv.filter(({ path }) => titleOf(path).toLowerCase() === name || path.toLowerCase() === name);
    const near = insist && name !== '' && found.length === 0
      ? contents.csv.filter(({ path }) => titleOf(path).toLowerCase().includes(name)) : found;
    const [only] = near;
    setText(wantedMessage, name === '' || near.length === 1 || !insist ? '' : near.length > 1
      ? `${counted(near.length, 'file')} have that in their names: choose one.` : 'No recorded file has that name.');
    if (only && near.length === 1) {
      wanted.value = '';
      addChart(only.path);
    }
  }

  /** @param {string} path */
  async function addChart(path) {
    const file = contents.csv.find((csv) => csv.path === path);
    const present = cards.find((card) => card.path === path);
    if (present) {
      present.element.scrollIntoView({ block: 'nearest' });
    }
    if (!file || present) {
      return;
    }
    const card = createChartCard(recording, file, group, () => {
      cards = cards.filter((one) => one !== card);
    });
    cards.push(card);
    place.append(card.element);
    await card.load();
  }

  // --- Marks

  const markTable = createTable({
    caption: 'What happened',
    columns: [{ title: 'Time' }, { title: 'Kind' }, { title: 'What' }, { title: 'File' }],
    key: (/** @type {Mark} */ mark) => `${mark.time} ${mark.kind} ${mark.text}`,
    make(mark) {
      const time = el('button', {
        type: 'button', class: 'plain stamp',
        onclick: () => {
          const [from, to] = group.inSight();
          const half = (to - from) / 2;
          if (mark.time < from || mark.time > to) {
            group.setRange([mark.time - half, mark.time + half]);
          }
          group.point(mark.time);
          told(mark.time, [mark]);
          images.follow(mark.time);
        },
      }, wallText(mark.time));
      const { path } = mark;
      return {
        cells: [time, el('span', { class: 'stamp' }, KIND_TITLES[mark.kind]), el('span', {}, mark.text), path
          ? actionButton(path.slice(path.lastIndexOf('/') + 1), () => save(path), { class: 'plain' }) : el('span')],
        update() {},
      };
    },
  });
  const markCount = el('p', { class: 'quiet' });
  const markCard = el('section', { class: 'card', 'aria-label': 'What happened' },
    el('div', { class: 'tools apart' }, el('h2', {}, 'What happened'), markCount), markTable.element);

  async function readMarks() {
    /** @type {Mark[]} */
    const found = [];
    /** @type {number | null} */
    let zone = null;
    // Names of cores have the time in UTC. The zone stands in the device's log, which a report has too.
    const report = contents.files.find(({ path }) => /\/Server_Report_[^/]*\.txt$/.test(path));
    for (const log of [contents.files.find(({ path }) => path === LOG), report]) {
      if (log && (log !== report || zone === null)) {
        const most = log === report ? MOST_REPORT_BYTES : MOST_LOG_BYTES;
        for (const line of await readLines(log.path, Math.max(0, log.bytes - most), most)) {
          zone ??= zoneOf(line);
          found.push(...(log === report ? [] : markOfLine(line)));
        }
      }
    }
    const events = contents.files.find(({ path }) => path === EVENTS);
    if (events) {
      found.push(...marksOfEvents(await readLines(EVENTS, Math.max(0, events.bytes - MOST_LOG_BYTES), MOST_LOG_BYTES), zone ?? 0));
    }
    for (const { path, time, utc } of contents.files) {
      const [day = '', clock = ''] = time.split(' ');
      found.push(...markOfFile(path, zone ?? 0, utc === null ? wallSeconds(day, clock) : utc + (zone ?? 0)));
    }
    for (const [name, value] of await readInformation()) {
      const [day = '', clock = ''] = value.split(' ');
      if (/^(?:Start|Stop) Time of the session$/.test(name)) {
        found.push({ time: wallSeconds(day, clock), kind: 'session', text: name.startsWith('Start') ? 'The session was started' : 'The session was stopped' });
      }
    }
    const regular = cards.find(({ path }) => /load\.csv$/.test(path)) ?? cards[0];
    for (const [from, to] of holes(regular?.times() ?? [])) {
      found.push({ time: from, until: to, kind: 'storage', text: `Nothing was recorded until ${wallText(to)}` });
    }
    marks = sortedMarks(found);
    group.setMarks(marks);
    markTable.show(marks.slice(0, MOST_MARKS));
    markCard.hidden = marks.length === 0;
    setText(markCount, marks.length > MOST_MARKS ? `The first ${MOST_MARKS} of ${marks.length}` : '');
  }

  /** @param {string} path @param {number} from @param {number} most */
  async function readLines(path, from, most) {
    const collector = lineCollector(Infinity);
    const decoder = new TextDecoder();
    await recording.read(path, (piece) => collector.add(decoder.decode(piece, { stream: true })), { from, most });
    return collector.finish().lines;
  }

  /** @returns {Promise<[string, string][]>} */
  async function readInformation() {
    if (!contents.files.some(({ path }) => path === INFORMATION)) {
      return [];
    }
    const blob = await readWhole(recording, INFORMATION, { most: MOST_INFORMATION_BYTES });
    return informationOf(await blob.text()).map(([name, value]) => [name, deviceTime(value)]);
  }

  // --- Files

  /** @param {string} path */
  async function save(path) {
    try {
      await recording.save(path);
    } catch (error) {
      message.fail(error);
    }
  }

  /** @param {string} caption @param {(item: Item) => boolean} wantedFile */
  function createFiles(caption, wantedFile) {
    /** @type {Item[]} */
    let all = [];
    const filter = el('input', {
      type: 'search', placeholder: 'Part of the name', spellcheck: 'false', autocomplete: 'off', oninput: () => show(),
    });
    const count = el('p', { class: 'quiet', role: 'status' });
    const table = createTable({
      caption,
      columns: [{ title: 'File' }, { title: 'Changed' }, { title: 'Size', number: true }],
      key: (/** @type {Item} */ { path }) => path,
      make: ({ path, time, bytes }) => ({
        cells: [actionButton(path, () => save(path), { class: 'plain' }), el('span', { class: 'stamp' }, time), el('span', {}, byteSize(bytes))],
        update() {},
      }),
    });
    const element = el('section', { class: 'card', 'aria-label': caption },
      el('div', { class: 'tools apart' }, el('h2', {}, caption), count), field('Filter', filter), table.element);
    function show() {
      const text = filter.value.toLowerCase();
      const matching = all.filter(({ path }) => path.toLowerCase().includes(text));
      table.show(matching.slice(0, MOST_FILES));
      setText(count, `${matching.length > MOST_FILES ? `The first ${MOST_FILES} of ` : ''}${counted(matching.length, 'file')}`);
    }
    return {
      element,
      /** @param {Item[]} items */
      show(items) {
        all = items.filter(wantedFile).sort((a, b) => a.path.localeCompare(b.path, 'en'));
        element.hidden = all.length === 0;
        show();
      },
    };
  }
  const crashFiles = createFiles('Crash files and reports', ({ path }) => CRASH_FILE.test(path));
  const allFiles = createFiles('All files', () => recording.offline);

  const element = el('div', { class: 'view' }, message.element,
    el('section', { class: 'card', 'aria-label': 'Information', hidden: !recording.offline }, el('h2', {}, 'Information'), information.element),
    charts, markCard, images.element, crashFiles.element, texts.element, allFiles.element);

  return {
    element,
    addChart,
    /** Reads it, also anew with all that was chosen in it; draws what it draws first, or one file. @param {string | null} [first] */
    async open(first = null) {
      if (contents.csv.length === 0) {
        message.work('Reading what was recorded …');
      }
      try {
        contents = await recording.list();
        contents.csv.sort((a, b) => a.path.localeCompare(b.path, 'en'));
        datalist.replaceChildren(...contents.csv.map(({ path }) => el('option', { value: titleOf(path) })));
        images.show(contents.files);
        crashFiles.show(contents.files);
        allFiles.show([...contents.files, ...contents.csv.map((csv) => ({ ...csv, time: '', utc: null }))]);
        texts.show(contents.files);
        if (recording.offline) {
          information.show(await readInformation());
        }
        for (const card of cards) {
          await card.load();
        }
        const paths = first !== null ? [first]
          : FIRST_CHARTS.flatMap((pattern) => contents.csv.find(({ path }) => pattern.test(path))?.path ?? []);
        for (const path of cards.length === 0 ? paths : []) {
          await addChart(path);
        }
        setText(reading, cards.length === 0 ? 'No data has been recorded yet.' : reading.textContent || HINT);
        message.clear();
        await readMarks();
        await texts.load();
        if (!contents.complete) {
          message.show('doubtful', 'The session holds more files than the daemon lists. The archive has them all.');
        }
      } catch (error) {
        message.fail(error);
      }
    },
  };
}
