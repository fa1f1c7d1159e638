// What is done with a recording as a whole: a report of it, comparing it. Buttons for the head of its view,
// each with a card, which is loaded when it is first opened.

import { el } from './dom.js';

/** @typedef {{element: HTMLElement, open?: () => void, forget?: () => void, close: () => void}} Card */

/**
 * @param {import('./recording.js').Recording} recording
 * @param {import('./board.js').Group} group its charts
 * @param {() => Promise<import('./compare_card.js').Other[]>} others
 */
export function createRecordingTools(recording, group, others) {
  /** @type {import('./report_data.js').Known} */
  let known = { contents: { csv: [], files: [], complete: true }, facts: [], marks: [] };
  /** @type {Card[]} */
  const cards = [];
  let closed = false;

  /** @param {string} text @param {() => Promise<Card>} load */
  function opener(text, load) {
    const place = el('div', { hidden: true });
    /** @type {Promise<Card> | null} */
    let loading = null;
    const button = el('button', {
      type: 'button', 'aria-expanded': 'false', disabled: true,
      onclick: async () => {
        loading ??= load();
        const card = await loading.catch(() => null);
        if (card === null || closed) {
          loading = card && loading; // what can't be loaded now is tried again the next time
          return;
        }
        if (!card.element.isConnected) {
          cards.push(card);
          place.append(card.element);
        }
        place.hidden = !place.hidden;
        button.setAttribute('aria-expanded', String(!place.hidden));
        if (!place.hidden) {
          card.open?.();
          place.scrollIntoView({ block: 'nearest' });
        }
      },
    }, text);
    return { button, place };
  }
  const openers = [
    opener('Report', async () => (await import('./report_card.js')).createReportCard(recording, () => known)),
    opener('Compare with …', async () => (await import('./compare_card.js')).createCompareCard(recording, () => known, group, others)),
  ];
  return {
    buttons: openers.map(({ button }) => button),
    places: openers.map(({ place }) => place),
    /** What has been read of the recording. @param {typeof known} next */
    show(next) {
      known = next;
      cards.forEach((card) => card.forget?.());
      openers.forEach(({ button }) => { button.disabled = false; });
    },
    close() {
      closed = true;
      cards.forEach((card) => card.close());
    },
  };
}
