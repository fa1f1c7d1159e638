// A downloaded archive, read in the browser; nothing of it is sent anywhere.

import { openArchive } from '../archive_file.js';
import { createMessage } from '../controls.js';
import { el, setText } from '../dom.js';
import { byteSize } from '../format.js';
import { sightOf } from '../link.js';
import { createRecordingView } from '../recording_view.js';

/**
 * @param {...HTMLElement} more what stands beside the choice
 * @returns {import('../main.js').View}
 */
export function create(...more) {
  const message = createMessage();
  const name = el('p', { class: 'quiet' });
  const tools = el('div', { class: 'tools small' });
  const place = el('div');
  /** @type {ReturnType<typeof createRecordingView> | null} */
  let view = null;
  let values = new URLSearchParams();
  const input = el('input', {
    type: 'file', accept: '.zip,application/zip', 'aria-label': 'Archive',
    onchange: () => open(input.files?.[0]),
  });

  /** @param {File | undefined} file */
  async function open(file) {
    if (!file) {
      return;
    }
    message.work('Opening …');
    setText(name, '');
    view?.close();
    view = null;
    tools.replaceChildren();
    try {
      const { recording, remarks } = await openArchive(file);
      message.clear();
      if (remarks) {
        message.show('doubtful', remarks);
      }
      setText(name, `${file.name}, ${byteSize(file.size)}`);
      view = createRecordingView(recording);
      tools.replaceChildren(...view.tools);
      place.replaceChildren(view.element);
      await view.open(sightOf(values));
    } catch (error) {
      message.fail(error);
    }
  }

  const element = el('div', { class: 'view' },
    el('h1', {}, 'Archive'),
    el('section', {
      class: 'card', 'aria-label': 'Open an archive',
      ondragover: (event) => event.preventDefault(),
      ondrop: (event) => {
        event.preventDefault();
        open(/** @type {DragEvent} */ (event).dataTransfer?.files[0]);
      },
    },
    el('p', {}, 'Choose the zip archive of a session, or drop it here. It is read on this computer and sent nowhere.'),
    el('div', { class: 'tools' }, input, ...more), name, tools, message.element),
    place);
  return {
    element,
    show(next) {
      values = next;
      view?.apply(sightOf(values));
    },
  };
}
