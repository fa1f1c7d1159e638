// Which calls of the HTTP API a recording has seen: its koral_status.txt as a table.

import { createTable } from './controls.js';
import { createFacts, el, setText } from './dom.js';
import { counted } from './format.js';
import { readWhole } from './recording.js';
import { deviceTime } from './session_data.js';

const REPORT = 'system_monitoring/monitoring_koral/koral_status.txt';
const MOST_ROWS = 50;
const MOST_BYTES = 8 * 1024 * 1024;

/**
 * @typedef {object} Call
 * @property {string} url
 * @property {string} user "NULL" where the web server knew none
 * @property {number} count
 * @property {string} first
 * @property {string} last
 * @property {number} perMinute
 * @property {number} average of the process time, in ms
 * @property {number} longest in ms
 */

/**
 * What the report says behind "Total statistics", most frequently called first, and the time that it
 * covers. What can't be understood is left out.
 * @param {string} report
 */
export function readReport(report) {
  const [head = '', statistics = ''] = report.split(/^=+ Total statistics =+\r?$/m);
  const [, from = '', to = ''] = /^Time period: (.*?) -- (.*?)\r?$/m.exec(head) ?? [];
  /** @type {Call[]} */
  const calls = [];
  const item = new RegExp([
    /^URL: (.*) {4}User:(\S+)\r?\n/, / {4}Called (\d+) times during the interval: (.*?) -- (.*?)\r?\n/,
    / {4}Average call frequency: .*? ([\d.]+) per minute .*\r?\n/,
    / {4}Process time: {4}Max:(\d+) ms {4}Min:\d+ ms {4}Average:([\d.]+) ms/,
  ].map(({ source }) => source).join(''), 'gm');
  for (const [, url = '', user = '', count, first = '', last = '', perMinute, longest, average]
    of statistics.matchAll(item)) {
    calls.push({
      url, user, count: Number(count), first: deviceTime(first), last: deviceTime(last),
      perMinute: Number(perMinute), longest: Number(longest), average: Number(average),
    });
  }
  return { from: deviceTime(from), to: deviceTime(to), calls: calls.sort((a, b) => b.count - a.count) };
}

/** "0.3", "7", "1,234". @param {number} value */
const short = (value) => value.toLocaleString('en', { maximumFractionDigits: value < 10 ? 1 : 0 });

export function createHttpReport() {
  const facts = createFacts();
  const note = el('p', { class: 'quiet' });
  const table = createTable({
    caption: 'Calls of the HTTP API',
    columns: [
      { title: 'Call' }, { title: 'User' }, { title: 'Calls', number: true },
      { title: 'Per minute', number: true }, { title: 'Average ms', number: true },
      { title: 'Longest ms', number: true }, { title: 'First' }, { title: 'Last' },
    ],
    key: (/** @type {Call} */ call) => `${call.user}\n${call.url}`,
    make(call) {
      const parts = Array.from({ length: 6 }, () => el('span'));
      return {
        cells: [el('span', {}, call.url), el('span', {}, call.user), ...parts],
        update(next) {
          const texts = [next.count.toLocaleString('en'), short(next.perMinute), short(next.average),
            short(next.longest), next.first, next.last];
          for (const [index, part] of parts.entries()) {
            setText(part, texts[index] ?? '');
          }
        },
      };
    },
  });
  const element = el('section', { class: 'card', hidden: true, 'aria-label': 'HTTP API' },
    el('h2', {}, 'HTTP API'), facts.element, table.element, note);
  return {
    element,
    /**
     * Stays hidden for a recording without a report.
     * @param {import('./recording.js').Recording} recording
     * @param {{path: string}[]} files of it
     */
    async show(recording, files) {
      const report = !files.some(({ path }) => path === REPORT) ? ''
        : await readWhole(recording, REPORT, { most: MOST_BYTES }).then((blob) => blob.text()).catch(() => '');
      const { from, to, calls } = readReport(report);
      const sum = (/** @type {Call[]} */ some) => some.reduce((total, { count }) => total + count, 0);
      const users = new Set(calls.map(({ user }) => user));
      facts.show([['Time', from && `${from} to ${to}`], ['Calls', sum(calls).toLocaleString('en')],
        ...[...users].map((user) => /** @type {[string, string]} */ ([`By ${user}`,
          sum(calls.filter((call) => call.user === user)).toLocaleString('en')]))]);
      table.show(calls.slice(0, MOST_ROWS));
      setText(note, calls.length <= MOST_ROWS ? ''
        : `The ${MOST_ROWS} most frequent of ${counted(calls.length, 'call')}.`);
      element.hidden = calls.length === 0;
    },
  };
}
