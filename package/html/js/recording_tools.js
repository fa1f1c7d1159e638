// What is done with a recording as a whole: a report of it, comparing it. Buttons for the head of its view,
// each with a card that it opens.

import { createCompareCard } from './compare_card.js';
import { el } from './dom.js';
import { createReportCard } from './report_card.js';

/**
 * @param {import('./recording.js').Recording} recording
 * @param {import('./board.js').Group} group its charts
 * @param {() => Promise<import('./compare_card.js').Other[]>} others
 */
export function createRecordingTools(recording, group, others) {
  /** @type {import('./report_data.js').Known} */
  let known = { contents: { csv: [], files: [], complete: true }, facts: [], marks: [] };
  const report = createReportCard(recording, () => known);
  const compare = createCompareCard(recording, () => known, group, others);
  /** @param {string} text @param {HTMLElement} card @param {() => void} [opened] */
  function opener(text, card, opened) {
    const button = el('button', {
      type: 'button', 'aria-expanded': 'false', disabled: true,
      onclick: () => {
        card.hidden = !card.hidden;
        button.setAttribute('aria-expanded', String(!card.hidden));
        if (!card.hidden) {
          opened?.();
          card.scrollIntoView({ block: 'nearest' });
        }
      },
    }, text);
    return button;
  }
  const buttons = [opener('Report', report.element), opener('Compare with …', compare.element, () => { compare.open(); })];
  return {
    buttons,
    cards: [report.element, compare.element],
    /** What has been read of the recording. @param {typeof known} next */
    show(next) {
      known = next;
      compare.forget();
      buttons.forEach((button) => { button.disabled = false; });
    },
    close() {
      report.close();
      compare.close();
    },
  };
}
