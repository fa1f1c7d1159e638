// A recording as a whole: findings, dashboards with marks, images, logs, the camera's condition, files. The same
// for a session on the camera and for an archive.

import { createBoard } from './board.js';
import { GLANCE, idOfFile } from './catalogue.js';
import { createChartGroup } from './chart_group.js';
import { readCondition } from './condition.js';
import { actionButton, createMessage, createTable } from './controls.js';
import { createFacts, el, setText } from './dom.js';
import { createFiles } from './file_list.js';
import { createFindingsCard } from './findings_card.js';
import { createHttpReport } from './http_report.js';
import { createImageCard } from './image_card.js';
import { writeSight } from './link.js';
import { readWhole } from './recording.js';
import { imagesOf, readMarks, readTimes } from './recording_marks.js';
import { createRecordingTools } from './recording_tools.js';
import { createSource } from './session_series.js';
import { whenSeen } from './seen.js';
import { informationOf } from './session_data.js';
import { createTextCard } from './text_card.js';
import { createTimeline } from './timeline.js';

const INFORMATION = 'Session_Information.txt';
const MOST_INFORMATION_BYTES = 256 * 1024;
const CRASH_FILE = /^coredumps\/|\/(?:Crash_Reports|Server_Reports)\//;
const FINDING_MARGIN_S = 900; // of what is seen of a finding's time
const MARK_MARGIN_S = 1800; // of what is seen of a mark's time
const LINK_MS = 400; // while the time in sight changes the address bar waits

/** @typedef {import('./recording.js').Item} Item */

/** @param {import('./recording.js').Recording} recording */
function createConditionCard(recording) {
  const table = createTable({
    caption: 'Condition of the camera',
    columns: [{ title: 'What' }, { title: 'Last recorded' }, { title: 'At' }],
    key: (/** @type {import('./condition.js').Measure} */ measure) => measure.name,
    make(measure) {
      const value = el('span');
      const time = el('span', { class: 'stamp' });
      return {
        cells: [el('bdi', {}, measure.name), value, time],
        update(next) {
          setText(value, next.value);
          setText(time, next.time);
        },
      };
    },
  });
  const empty = el('p', { class: 'empty' });
  const element = el('section', { class: 'card', 'aria-label': 'Condition of the camera' },
    el('h2', {}, 'Condition of the camera'), empty, table.element);
  return {
    element,
    /** @param {import('./recording.js').Csv[]} files */
    async show(files) {
      const measures = await readCondition(recording, files).catch(() => null);
      table.show(measures ?? []);
      table.element.hidden = !measures?.length;
      empty.hidden = !table.element.hidden;
      setText(empty, measures ? 'Nothing has been recorded of it. Sessions on the internal storage '
        + 'have none, others after some minutes.' : 'It can’t be read now.');
    },
  };
}

/** @param {import('./recording.js').Recording} recording @param {import('./recording.js').Contents} contents @returns {Promise<[string, string][]>} */
async function readInformation(recording, contents) {
  if (!contents.files.some(({ path }) => path === INFORMATION)) {
    return [];
  }
  const blob = await readWhole(recording, INFORMATION, { most: MOST_INFORMATION_BYTES });
  return informationOf(await blob.text());
}

/**
 * @param {import('./recording.js').Recording} recording
 * @param {((file: Item) => string)} [hrefOf] where a text file can be read; without, it is saved
 * @param {() => Promise<import('./compare_card.js').Other[]>} [others] recordings to compare it with
 */
export function createRecordingView(recording, hrefOf, others = async () => []) {
  /** @type {import('./recording.js').Contents} */
  let contents = { csv: [], files: [], complete: true };
  /** @type {Map<string, {bytes: number, header?: string}>} */
  let listed = new Map();
  let closed = false;
  const message = createMessage();
  const source = createSource(recording, (path) => listed.get(path));
  const group = createChartGroup({
    pointed(time) {
      timeline.read(time);
      images.follow(time);
      texts.follow(time);
    },
    opened: (marks) => timeline.tell(marks),
  });
  /** Everything goes to a time. @param {number} time */
  function go(time) {
    group.point(time);
    images.follow(time);
    texts.follow(time);
  }
  /** @param {HTMLElement} place */
  function leadTo(place) {
    place.scrollIntoView();
    place.focus({ preventScroll: true });
  }
  const timeline = createTimeline(group, {
    save, go,
    showCharts(time) {
      group.setRange([time - MARK_MARGIN_S, time + MARK_MARGIN_S]);
      leadTo(board.element);
      go(time);
    },
    showLog(time) {
      leadTo(texts.element);
      go(time);
    },
  });
  const images = createImageCard(recording, (time) => {
    group.point(time);
    timeline.read(time);
    texts.follow(time);
  });
  const texts = createTextCard(recording, (time) => {
    group.point(time);
    timeline.read(time);
    images.follow(time);
  });
  const tools = createRecordingTools(recording, group, others);
  const httpReport = createHttpReport();
  const condition = createConditionCard(recording);
  const board = createBoard({
    source, group,
    changed: (step) => writeLink(step),
    beside: (name) => [...(name === GLANCE || name === 'Temperature and power' ? [condition.element] : []),
      ...(name === GLANCE || name === 'HTTP API' ? [httpReport.element] : [])],
  });
  const information = createFacts();
  const findings = createFindingsCard(recording, group, ({ chart, path, from, to }) => {
    const margin = Math.max(FINDING_MARGIN_S, (to - from) / 10);
    board.apply({ board: '', charts: [chart || (path.endsWith('.csv') ? idOfFile(path) : 'log')] });
    group.startAt([from - margin, to + margin]);
    written = JSON.stringify(group.range());
    writeLink(true);
    leadTo(board.element);
    go(from);
  });

  // --- The address bar

  /** @param {boolean} step */
  function writeLink(step) {
    if (!closed) {
      writeSight({ ...board.sight(), range: group.range() }, step);
    }
  }
  let linkTimer = 0;
  let written = 'null'; // all is in sight
  group.onRange((_, range) => {
    if (JSON.stringify(range) !== written) {
      written = JSON.stringify(range);
      clearTimeout(linkTimer);
      linkTimer = setTimeout(() => writeLink(true), LINK_MS);
    }
  });

  // --- Files

  /** @param {string} path */
  async function save(path) {
    try {
      await recording.save(path);
    } catch (error) {
      message.fail(error);
    }
  }
  /** @param {Item} item */
  const openFile = (item) => (hrefOf ? el('a', { href: hrefOf(item) }, el('bdi', {}, item.path))
    : actionButton(item.path, () => save(item.path), { class: 'plain' }));
  const crashFiles = createFiles('Crash files and reports', ({ path }) => actionButton(path, () => save(path), { class: 'plain' }));
  const allFiles = createFiles('All files', openFile);

  const informationCard = el('section', { class: 'card', 'aria-label': 'Information' },
    el('details', {}, el('summary', {}, el('h2', {}, 'Information')), information.element));
  const element = el('div', { class: 'view' }, message.element, ...tools.places, findings.element, timeline.element, board.element,
    informationCard, timeline.list, images.element, texts.element, crashFiles.element, allFiles.element);
  const stopWaiting = whenSeen(texts.element, () => {
    textsSeen = true;
    texts.load();
  });
  let textsSeen = false;

  async function list() {
    contents = await recording.list();
    contents.csv.sort((a, b) => a.path.localeCompare(b.path, 'en'));
    listed = new Map([...contents.files, ...contents.csv].map((file) => [file.path, file]));
    images.show(contents.files);
    crashFiles.show(contents.files.filter(({ path }) => CRASH_FILE.test(path)));
    allFiles.show([...contents.files, ...contents.csv.map((csv) => ({ ...csv, time: '', utc: null }))]);
    texts.show(contents.files);
    board.list(contents);
  }

  async function readRest() {
    const facts = await readInformation(recording, contents);
    information.show(facts.length > 0 ? facts : [['Information', 'Session_Information.txt can’t be read.']]);
    const marks = await readMarks(source, contents, facts);
    if (closed) {
      return;
    }
    group.setMarks(marks);
    timeline.show(marks, await readTimes(source, contents), imagesOf(contents.files).map(({ time }) => time));
    tools.show({ contents, facts, marks });
    await condition.show(contents.csv);
    await httpReport.show(recording, contents.files);
    if (!contents.complete) {
      message.show('doubtful', 'The session holds more files than the daemon lists. The archive has them all.');
    }
    await findings.show({ contents, marks });
  }

  return {
    element,
    /** Buttons for its head. */
    tools: tools.buttons,
    /** Reads it and shows what a link says. @param {import('./link.js').Sight} sight */
    async open(sight) {
      message.work('Reading what was recorded …');
      try {
        await list();
        if (!closed) {
          message.clear();
          this.apply(sight);
          await board.drawn(); // what is looked at comes first
          await readRest();
        }
      } catch (error) {
        if (!closed) {
          message.fail(error);
        }
      }
    },
    /** @param {import('./link.js').Sight} sight */
    apply(sight) {
      board.apply(sight);
      group.startAt(sight.range);
      written = JSON.stringify(sight.range);
    },
    /** Reads anew what has been recorded meanwhile, with all that was chosen. */
    async refresh() {
      try {
        source.forget();
        await list();
        await board.refresh();
        await readRest();
        if (textsSeen) {
          await texts.load();
        }
      } catch (error) {
        message.fail(error);
      }
    },
    close() {
      closed = true;
      message.clear();
      clearTimeout(linkTimer);
      stopWaiting();
      tools.close();
      findings.close();
      board.close();
      group.close();
      images.close();
      texts.close();
      source.forget();
      element.remove();
    },
  };
}
