// The camera's system log, loaded on demand, with a filter and optional refreshing.

import { address, request, RequestError } from '../api.js';
import { field, select } from '../controls.js';
import { el, setText } from '../dom.js';
import { byteSize, clock, counted } from '../format.js';
import { createVirtualList } from '../virtual_list.js';
import { cutAtMatches, findAgain, lineCollector, matching, SEVERITIES, severityOf } from './log_lines.js';

// A browser can't scroll over many more rows than this.
const MOST_LINES = 300000;
// Sorting the log takes the camera a while before the first line comes.
const TIMEOUT_MS = 60000;
const PROGRESS_PERIOD_MS = 250;

const SEVERITY_CHOICES = [
  ['-1', 'All lines'],
  ['6', 'Info and above'],
  ['5', 'Notice and above'],
  ['4', 'Warning and above'],
  ['3', 'Error and above'],
  ['2', 'Critical and above'],
];
const REFRESH_CHOICES = [
  ['0', 'Off'],
  ['10', 'Every 10 s'],
  ['30', 'Every 30 s'],
  ['60', 'Every minute'],
];

/** @returns {import('../main.js').View} */
export function create() {
  /** @type {string[]} */
  let lines = [];
  let severities = new Int8Array(0);
  /** @type {number[]} */
  let matches = [];
  let loaded = '';
  /** @type {AbortController | null} */
  let loading = null;
  let refreshTimer = 0;

  const filter = el('input', {
    type: 'search', placeholder: 'Text in the line', spellcheck: 'false', autocomplete: 'off',
    oninput: () => applyFilter(),
  });
  const severity = select(SEVERITY_CHOICES, () => applyFilter());
  const refresh = select(REFRESH_CHOICES, () => {
    clearTimeout(refreshTimer);
    if (refresh.value !== '0') {
      load();
    }
  });
  const loadButton = el('button', { type: 'button', class: 'primary', onclick: () => load() },
    'Load log');
  const cancelButton = el('button', { type: 'button', hidden: true, onclick: () => loading?.abort() },
    'Cancel');
  const count = el('p', { class: 'count', role: 'status' });
  const progress = el('p', { class: 'quiet' });
  const notice = el('p', { class: 'notice', role: 'status', hidden: true });
  const list = createVirtualList('Log lines');
  const empty = el('p', { class: 'empty' }, 'The log is read from the camera when you load it.');
  list.element.hidden = true;

  /** @param {number} position among the matches */
  function makeRow(position) {
    const index = matches[position] ?? 0;
    const parts = cutAtMatches(lines[index] ?? '', filter.value);
    const name = SEVERITIES[severities[index] ?? -1];
    return el('li', name ? { 'data-severity': name } : {},
      ...parts.map((part, number) => (number % 2 === 1 ? el('mark', {}, part) : part)));
  }

  /** Shows the matches with the line `anchor` (Infinity: the last) where the topmost line was. */
  function showMatches(/** @type {number} */ anchor) {
    matches = matching(lines, severities, filter.value, Number(severity.value));
    const after = matches.findIndex((index) => index >= anchor);
    const wanted = filter.value;
    list.element.hidden = matches.length === 0;
    empty.hidden = matches.length !== 0;
    setText(empty, lines.length === 0 ? 'The log is empty.' : 'No line matches the filter.');
    list.show({
      count: matches.length,
      key: (position) => `${wanted}\n${lines[matches[position] ?? 0]}`,
      make: makeRow,
    }, anchor === Infinity || after < 0 ? Infinity : after);
    setText(count, matches.length === lines.length
      ? counted(lines.length, 'line')
      : `${matches.length.toLocaleString('en')} of ${counted(lines.length, 'line')} match`);
    setText(progress, loaded);
  }

  /** The index of the topmost line in sight, Infinity when the end is in sight. */
  function anchorNow() {
    return list.element.hidden || list.atEnd() ? Infinity : matches[list.top()] ?? Infinity;
  }

  function applyFilter() {
    if (loaded !== '') {
      showMatches(anchorNow());
    }
  }

  /** @param {ReturnType<ReturnType<typeof lineCollector>['finish']>} log @param {number} bytes */
  function take(log, bytes) {
    const anchor = anchorNow();
    const topLine = lines[anchor];
    lines = log.lines;
    severities = Int8Array.from(lines, severityOf);
    loaded = `${byteSize(bytes)} at ${clock(new Date())}`;
    const named = severities.some((value) => value >= 0);
    severity.disabled = !named;
    if (!named) {
      severity.value = '-1';
    }
    notice.hidden = log.dropped === 0;
    setText(notice, log.dropped === 0 ? '' : `The log is longer than this view holds: the oldest `
      + `${counted(log.dropped, 'line')} are left out here. The download has them all.`);
    showMatches(topLine === undefined ? Infinity : findAgain(lines, topLine, anchor));
  }

  async function load() {
    if (loading) {
      return;
    }
    clearTimeout(refreshTimer);
    const controller = new AbortController();
    loading = controller;
    loadButton.setAttribute('aria-disabled', 'true');
    cancelButton.hidden = false;
    setText(progress, 'Waiting for the camera …');
    const collector = lineCollector(MOST_LINES);
    let total = 0;
    let told = performance.now();
    try {
      await request('instant_log_view', {}, {
        timeoutMs: TIMEOUT_MS,
        signal: controller.signal,
        onText(text, bytes) {
          collector.add(text);
          total = bytes;
          if (performance.now() - told > PROGRESS_PERIOD_MS) {
            told = performance.now();
            setText(progress, `Loading … ${byteSize(bytes)}`);
          }
        },
      });
      take(collector.finish(), total);
    } catch (error) {
      const { kind, message, advice } = /** @type {RequestError} */ (error);
      setText(progress, loaded);
      notice.hidden = kind === 'cancelled';
      setText(notice, `${message} ${advice}`);
    } finally {
      loading = null;
      loadButton.removeAttribute('aria-disabled');
      setText(loadButton, loaded === '' ? 'Load log' : 'Load again');
      cancelButton.hidden = true;
      refreshAgain();
    }
  }

  function refreshAgain() {
    const period_s = Number(refresh.value);
    clearTimeout(refreshTimer);
    if (period_s > 0) {
      refreshTimer = setTimeout(() => {
        // Not for nobody: each refresh costs the camera a sort of its whole log.
        if (document.hidden || element.hidden) {
          refreshAgain();
        } else {
          load();
        }
      }, period_s * 1000);
    }
  }

  const element = el('div', { class: 'view log-view' },
    el('div', { class: 'tools apart' }, el('h1', {}, 'Log'),
      el('a', { class: 'button', href: address('instant_log_view_download'), download: 'log_viewer.txt' },
        'Download')),
    el('div', { class: 'tools', role: 'search', 'aria-label': 'Log' },
      loadButton, cancelButton,
      field('Filter', filter, 'grow'),
      field('Severity', severity),
      field('Refresh', refresh)),
    notice,
    el('div', { class: 'tools apart' }, count, progress),
    empty,
    list.element);

  return {
    element,
    show(values) {
      const find = values.get('find');
      if (find !== null) {
        filter.value = find;
        load();
      }
    },
  };
}
