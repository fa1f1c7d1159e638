// The still images of a recording along its time, in step with the charts' cursor.

import { el, setText } from './dom.js';
import { createMessage, field } from './controls.js';
import { readWhole } from './recording.js';
import { imagesOf } from './recording_marks.js';
import { wallText } from './series.js';

const MOST_BYTES = 20 * 1024 * 1024;
const SETTLE_MS = 120; // while the cursor runs over the charts nothing is read

/** As a data address: other addresses are not let in. @param {Blob} blob @returns {Promise<string>} */
function addressOf(blob) {
  return new Promise((resolve, reject) => {
    const reader = new FileReader();
    reader.onload = () => resolve(String(reader.result));
    reader.onerror = () => reject(reader.error);
    reader.readAsDataURL(new Blob([blob], { type: 'image/jpeg' }));
  });
}

/**
 * @param {import('./recording.js').Recording} recording
 * @param {(time: number) => void} onChosen
 */
export function createImageCard(recording, onChosen) {
  /** @type {{path: string, time: number}[]} */
  let images = [];
  let at = -1;
  let timer = 0;
  const message = createMessage();
  const image = el('img', { class: 'still', alt: '', hidden: true });
  const caption = el('p', { class: 'quiet', role: 'status' });
  const slider = el('input', { type: 'range', min: 0, max: 0, step: 1, oninput: () => choose(Number(slider.value)) });
  /** @param {string} title @param {number} by */
  const step = (title, by) => el('button', { type: 'button', onclick: () => choose(at + by) }, title);
  const element = el('section', { class: 'card', 'aria-label': 'Images' },
    el('div', { class: 'tools apart' }, el('h2', {}, 'Images'), caption),
    el('div', { class: 'tools' }, step('Previous', -1), field('Time of the image', slider, 'grow'), step('Next', 1)),
    message.element, el('div', {}, image));

  /** @param {number} index */
  function settle(index) {
    const next = Math.min(Math.max(index, 0), images.length - 1);
    if (next === at || images.length === 0) {
      return;
    }
    at = next;
    slider.value = String(at);
    const text = wallText(images[at]?.time ?? 0);
    slider.setAttribute('aria-valuetext', text);
    setText(caption, `${text}, ${at + 1} of ${images.length}`);
    clearTimeout(timer);
    timer = setTimeout(load, SETTLE_MS);
  }
  /** @param {number} index */
  function choose(index) {
    settle(index);
    onChosen(images[at]?.time ?? 0);
  }

  async function load() {
    const wanted = images[at];
    if (!wanted) {
      return;
    }
    try {
      const source = await addressOf(await readWhole(recording, wanted.path, { most: MOST_BYTES }));
      if (wanted === images[at]) {
        message.clear();
        image.src = source;
        image.alt = `Image of ${wallText(wanted.time)}`;
        image.hidden = false;
      }
    } catch (error) {
      image.hidden = true;
      message.fail(error);
    }
  }
  image.addEventListener('error', () => {
    image.hidden = true;
    message.show('bad', 'This image is damaged.');
  });

  return {
    element,
    /** @param {import('./recording.js').Item[]} files */
    show(files) {
      const before = images[at]?.path;
      images = imagesOf(files);
      element.hidden = images.length === 0;
      slider.max = String(Math.max(0, images.length - 1));
      at = -1;
      const again = images.findIndex(({ path }) => path === before);
      settle(again < 0 ? images.length - 1 : again);
    },
    close() {
      clearTimeout(timer);
      images = [];
      image.removeAttribute('src');
    },
    /** Shows the last image of before a time. @param {number} time */
    follow(time) {
      const after = images.findIndex((one) => one.time > time);
      settle((after < 0 ? images.length : after) - 1);
    },
  };
}
