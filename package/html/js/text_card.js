// The text files of a recording, with a search in their lines, in step with the charts' cursor.

import { createMessage, field, select } from './controls.js';
import { el, setText } from './dom.js';
import { byteSize, counted } from './format.js';
import { NOT_TEXT } from './recording.js';
import { firstFrom } from './series.js';
import { lineTime } from './marks.js';
import { cutAtMatches, inOrder, lineCollector, matching, SEVERITIES, severityOf } from './views/log_lines.js';
import { createVirtualList } from './virtual_list.js';

const MOST_LINES = 300000;
const MOST_LINE = 10000; // characters, of what may be no text at all
const MOST_BYTES = 32 * 1024 * 1024;
const ABOVE = 4; // lines in sight before that of the cursor
const SETTLE_MS = 120; // while the cursor runs over the charts the lines stay

/** Logs first. @param {string} path */
const weight = (path) => (/Continuous_Syslog/.test(path) ? 0 : /\.log$|eventlistener|changes\.txt/.test(path) ? 1
  : /Session_Information/.test(path) ? 2 : 3);

/**
 * @param {import('./recording.js').Recording} recording
 * @param {(time: number) => void} onTime the time of a line that was clicked on
 */
export function createTextCard(recording, onTime) {
  /** @type {string[]} */
  let lines = [];
  /** Of each line; of one without a time that of the line before. @type {number[]} */
  let times = [];
  let pointed = -1; // index of the line under the charts' cursor
  let timer = 0;
  let severities = new Int8Array(0);
  /** @type {number[]} */
  let matches = [];
  /** @type {import('./recording.js').Item[]} */
  let files = [];
  let asked = '';
  let shown = '';
  const file = select([], () => load());
  const search = el('input', {
    type: 'search', placeholder: 'Text in the line', spellcheck: 'false', autocomplete: 'off', oninput: () => showMatches(Infinity),
  });
  const count = el('p', { class: 'quiet', role: 'status' });
  const message = createMessage();
  const list = createVirtualList('Lines of the file');
  list.element.hidden = true;
  const element = el('section', { class: 'card text', 'aria-label': 'Logs and texts', tabindex: -1 },
    el('div', { class: 'tools apart' }, el('h2', {}, 'Logs and texts'), count),
    el('div', { class: 'tools' }, field('File', file, 'grow'), field('Search', search, 'grow')),
    message.element, list.element);

  /** @param {number} top index of the match to begin with */
  function showMatches(top) {
    const wanted = search.value;
    matches = matching(lines, severities, wanted, -1);
    list.element.hidden = matches.length === 0;
    setText(count, wanted === '' ? counted(lines.length, 'line')
      : `${matches.length.toLocaleString('en')} of ${counted(lines.length, 'line')} match`);
    list.show({
      count: matches.length,
      key: (position) => `${wanted}\n${matches[position] === pointed}\n${lines[matches[position] ?? 0]}`,
      make(position) {
        const index = matches[position] ?? 0;
        const name = SEVERITIES[severities[index] ?? -1];
        return el('li', {
          'data-severity': name, 'aria-current': index === pointed ? 'true' : undefined,
          onclick: () => {
            const time = times[index] ?? NaN;
            if (!Number.isNaN(time) && String(getSelection()) === '') {
              onTime(time);
            }
          },
        }, ...cutAtMatches(lines[index] ?? '', wanted)
          .map((part, number) => (number % 2 === 1 ? el('mark', {}, part) : part)));
      },
    }, top);
  }

  async function load() {
    const path = file.value;
    const item = files.find((one) => one.path === path);
    const again = path === shown;
    asked = path;
    if (!item) {
      return;
    }
    if (!again) {
      message.work('Reading …');
    }
    const collector = lineCollector(MOST_LINES);
    const decoder = new TextDecoder();
    const from = Math.max(0, item.bytes - MOST_BYTES);
    try {
      await recording.read(path, (piece) => collector.add(decoder.decode(piece, { stream: true })), { from, most: MOST_BYTES });
    } catch (error) {
      message.fail(error);
      return;
    }
    if (asked !== path) {
      return;
    }
    shown = path;
    const read = collector.finish();
    lines = inOrder(read.lines).map((line) => (line.endsWith('\r') ? line.slice(0, -1) : line).slice(0, MOST_LINE));
    severities = Int8Array.from(lines, severityOf);
    let time = NaN;
    times = lines.map((line) => {
      const own = lineTime(line);
      time = Number.isNaN(own) ? time : own;
      return time;
    });
    pointed = -1;
    message.clear();
    if (from > 0 || read.dropped > 0) {
      message.show('doubtful', `This file is too large for this view: its end is shown (${
        counted(lines.length, 'line')} of ${byteSize(item.bytes)}).`);
    }
    showMatches(again && !list.atEnd() ? list.top() : Infinity);
  }

  return {
    element,
    /** @param {import('./recording.js').Item[]} all */
    show(all) {
      files = all.filter(({ path, bytes }) => !NOT_TEXT.test(path) && bytes > 0)
        .sort((a, b) => weight(a.path) - weight(b.path) || a.path.localeCompare(b.path, 'en'));
      const before = file.value;
      file.replaceChildren(...files.map(({ path }) => el('option', { value: path }, path)));
      if (files.some(({ path }) => path === before)) {
        file.value = before;
      }
      element.hidden = files.length === 0;
    },
    load,
    /** Shows the line of a time, if the file has times. @param {number} time */
    follow(time) {
      clearTimeout(timer);
      timer = setTimeout(() => {
        const begin = times.findIndex((one) => !Number.isNaN(one));
        const index = begin < 0 ? -1 : Math.max(begin, firstFrom(times.slice(begin), time + 1) + begin - 1);
        if (index >= 0 && index !== pointed && element.getClientRects().length > 0) {
          pointed = index;
          showMatches(Math.max(0, firstFrom(matches, index) - ABOVE));
        }
      }, SETTLE_MS);
    },
    close() {
      clearTimeout(timer);
      lines = [];
      times = [];
      list.close();
    },
  };
}
