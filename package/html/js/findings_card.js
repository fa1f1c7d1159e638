// The findings of a recording: what was wrong, the gravest first, and the figures of the rest.

import { actionButton, createMessage } from './controls.js';
import { createFacts, el, setText } from './dom.js';
import { bytesToRead } from './findings.js';
import { foundBefore, lookFor } from './findings_memory.js';
import { byteSize, counted } from './format.js';
import { wallText } from './series.js';
import { createSource } from './session_series.js';
import { duration } from './session_data.js';

/** Read from a camera, which has other work. */
export const MOST_UNASKED_BYTES = 48 * 1024 * 1024;

/** @typedef {import('./findings.js').Finding} Finding */
/** @type {Record<import('./findings.js').Severity, string>} */
const TITLES = { grave: 'Grave', warning: 'Warning', note: 'Note' };

/** @param {number} from @param {number} to */
const span = (from, to) => (wallText(from).slice(0, 16) === wallText(to).slice(0, 16) ? wallText(from)
  : `${wallText(from).slice(0, 16)} to ${wallText(to).slice(wallText(from).slice(0, 10) === wallText(to).slice(0, 10) ? 11 : 0, 16)}`);

/** @param {Finding} finding @param {HTMLElement} sentence that leads to it */
export const findingItem = ({ severity, from, to, path }, sentence) => el('li', { 'data-severity': severity },
  el('strong', {}, TITLES[severity]),
  el('div', {}, sentence, el('p', { class: 'quiet' }, `${span(from, to)}${path ? ' · ' : ''}`, el('bdi', {}, path))));

/**
 * @param {import('./recording.js').Recording} recording
 * @param {ReturnType<typeof import('./chart_group.js').createChartGroup>} group whose time in sight can be judged by itself
 * @param {(finding: Finding) => void} open shows the chart and the time of one
 */
export function createFindingsCard(recording, group, open) {
  /** @type {AbortController | null} */
  let running = null;
  /** @type {{contents: import('./recording.js').Contents, marks: import('./marks.js').Mark[]}} */
  let wanted = { contents: { csv: [], files: [], complete: true }, marks: [] };
  /** What of the time is judged; null for all. @type {[number, number] | null} */
  let judged = null;
  const message = createMessage();
  const progress = el('progress', { max: 1, 'aria-label': 'Looking for findings' });
  const stop = el('button', { type: 'button', onclick: () => running?.abort() }, 'Stop');
  const work = el('div', { class: 'tools small', hidden: true }, progress, stop);
  const again = actionButton('Look again', () => look());
  const inSight = actionButton('', () => judge(group.range()), { hidden: true });
  const whole = actionButton('Findings of all', () => judge(null), { hidden: true });
  const stopListening = group.onRange((_, range) => offer(range));
  const heading = el('h2', { tabindex: -1 }, 'Findings');
  const verdict = el('p', { role: 'status' });
  const list = el('ul', { class: 'findings' });
  const notes = el('ul', { class: 'findings' });
  const notesTitle = el('summary');
  const notesPart = el('details', { hidden: true }, notesTitle, notes);
  const figures = createFacts();
  const figuresPart = el('details', { hidden: true }, el('summary', {}, 'Figures'), figures.element);
  const unjudged = el('p', { class: 'quiet' });
  const element = el('section', { class: 'card', 'aria-label': 'Findings' },
    el('div', { class: 'tools apart' }, heading, el('div', { class: 'tools small' }, work, whole, inSight, again)),
    message.element, verdict, list, notesPart, figuresPart, unjudged);
  again.hidden = true;

  /** @param {Finding} finding */
  const item = (finding) => findingItem(finding, el('button', { type: 'button', class: 'plain', onclick: () => open(finding) }, finding.text));

  /** @param {[number, number] | null} range in sight */
  function offer(range) {
    inSight.hidden = !range || String(range) === String(judged) || wanted.contents.csv.length + wanted.contents.files.length === 0;
    setText(inSight, range ? `Only ${span(range[0], range[1])}` : '');
    whole.hidden = judged === null;
  }
  /** @param {[number, number] | null} range */
  async function judge(range) {
    judged = range;
    offer(group.range());
    heading.focus({ preventScroll: true }); // the button that was pressed is gone
    const before = range ? null : foundBefore(recording.title, wanted.contents);
    if (before) {
      show(before);
    } else {
      await look();
    }
  }

  async function look() {
    running?.abort();
    const controller = new AbortController();
    running = controller;
    const { contents, marks } = wanted;
    const files = new Map([...contents.csv, ...contents.files].map((file) => [file.path, file]));
    const source = createSource(recording, (path) => files.get(path)); // let go of with what it has read
    message.clear();
    work.hidden = false;
    again.hidden = true;
    progress.value = 0;
    setText(verdict, 'Looking for findings …');
    try {
      const found = await lookFor(recording.title, {
        recording, source, contents, marks, signal: controller.signal, ...(judged ? { range: judged } : {}), onProgress: (done) => { progress.value = done; },
      });
      if (running === controller) {
        show(found);
      }
    } catch (error) {
      if (running === controller) {
        setText(verdict, controller.signal.aborted ? 'Stopped before the end.' : 'The recording could not be read to its end.');
        if (!controller.signal.aborted) {
          message.fail(error);
        }
      }
    } finally {
      if (running === controller) {
        running = null;
        work.hidden = true;
        setText(again, 'Look again');
        again.hidden = false;
      }
    }
  }

  /** @param {import('./findings_memory.js').Told} found */
  function show({ findings, figures: told, unjudged: missing, span: [from, to] }) {
    const wrong = findings.filter(({ severity }) => severity !== 'note');
    const rest = findings.filter(({ severity }) => severity === 'note');
    const length = judged ? ` from ${span(from, to)}` : to > from ? ` in ${duration(Math.round((to - from) / 60))}` : '';
    const until = judged ? '' : `, up to ${wallText(to)}`;
    group.setLimits(findings);
    again.hidden = running !== null;
    setText(verdict, wrong.length > 0 ? `${counted(wrong.length, 'finding')}${length}${until}.`
      : told.length === 0 ? 'Too little was recorded to judge.' : `Nothing wrong was found${length}${until}. The figures are below.`);
    list.replaceChildren(...wrong.map(item));
    notes.replaceChildren(...rest.map(item));
    notesPart.hidden = rest.length === 0;
    setText(notesTitle, counted(rest.length, 'note'));
    figures.show(told);
    figuresPart.hidden = told.length === 0;
    figuresPart.open = wrong.length === 0;
    setText(unjudged, missing.length > 0 ? `Not judged, as it was not recorded or can’t be read: ${missing.join(', ')}.` : '');
  }

  return {
    element,
    /**
     * Looks for findings, at once only where that is no burden. What was found stays while a recording
     * goes on: it says up to when it holds.
     * @param {typeof wanted} next
     */
    async show(next) {
      const first = wanted.contents.csv.length + wanted.contents.files.length === 0;
      wanted = next;
      const bytes = bytesToRead(next.contents);
      const before = foundBefore(recording.title, next.contents);
      offer(group.range());
      if (first && before) {
        show(before);
      } else if (first && (recording.offline || bytes <= MOST_UNASKED_BYTES)) {
        await look();
      } else if (first) {
        setText(verdict, `To look for findings ${byteSize(bytes)} are read from the camera.`);
        setText(again, 'Look for findings');
        again.hidden = false;
      }
    },
    close() {
      stopListening();
      const ended = running;
      running = null;
      ended?.abort();
      message.clear();
    },
  };
}
