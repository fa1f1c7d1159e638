// Work that takes a while: its progress, a button that stops it, and how it went.

import { el } from './dom.js';

/**
 * @param {string} label what is done
 * @param {ReturnType<typeof import('./controls.js').createMessage>} message
 */
export function createLongWork(label, message) {
  /** @type {AbortController | null} */
  let running = null;
  const progress = el('progress', { max: 1, 'aria-label': label });
  const stop = el('button', { type: 'button', onclick: () => running?.abort() }, 'Stop');
  const element = el('div', { class: 'tools small', hidden: true }, progress, stop);
  return {
    element,
    /**
     * Does it, in the place of what went on.
     * @param {(options: {signal: AbortSignal, onProgress: (done: number) => void}) => Promise<string>} act resolves to what is to be told, "" for nothing
     */
    async run(act) {
      running?.abort();
      const controller = new AbortController();
      running = controller;
      message.clear();
      progress.value = 0;
      element.hidden = false;
      try {
        const done = await act({ signal: controller.signal, onProgress: (part) => { progress.value = part; } });
        controller.signal.throwIfAborted();
        if (done !== '') {
          message.show('good', done);
        }
      } catch (error) {
        if (running === controller) {
          message.fail(controller.signal.aborted ? { message: 'Stopped.', advice: '' } : error);
        }
      } finally {
        if (running === controller) {
          running = null;
          element.hidden = true;
        }
      }
    },
    close() {
      const ended = running;
      running = null;
      ended?.abort();
      message.clear();
    },
  };
}
