// The charts of one session on the camera.

import { actionButton, field, select } from '../controls.js';
import { el, setText } from '../dom.js';
import { cameraRecording } from '../recording.js';
import { createRecordingView } from '../recording_view.js';

/** @returns {import('../main.js').View} */
export function create() {
  let path = '';
  /** @type {ReturnType<typeof createRecordingView> | null} */
  let view = null;
  const title = el('h1');
  const back = el('a', {}, '← The session');
  const place = el('div');
  let timer = 0;
  const refresh = select([['0', 'Off'], ['60', 'Every minute']], () => refreshLater());
  function refreshLater() {
    clearTimeout(timer);
    if (refresh.value !== '0') {
      timer = setTimeout(async () => {
        if (!document.hidden && !element.hidden) {
          await view?.open();
        }
        refreshLater();
      }, Number(refresh.value) * 1000);
    }
  }
  const element = el('div', { class: 'view' }, el('p', {}, back),
    el('div', { class: 'tools apart' }, title,
      el('div', { class: 'tools' }, field('Refresh', refresh), actionButton('Read again', async () => view?.open()))), place);
  return {
    element,
    async show(values) {
      const next = values.get('path') ?? path;
      const file = values.get('file');
      if (view && next === path) {
        await view.open(); // it may have gone on meanwhile
        if (file !== null) {
          await view.addChart(file);
        }
        return;
      }
      path = next;
      const recording = cameraRecording(path);
      setText(title, `${recording.title}: charts`);
      back.href = `#/session?path=${encodeURIComponent(path)}`;
      view = createRecordingView(recording);
      place.replaceChildren(view.element);
      await view.open(file);
    },
  };
}
