// The recording as a report, and a copy of it without secrets.

import { copyWithoutSecrets, countsText, readSecrets } from './archive_copy.js';
import { actionButton, createMessage } from './controls.js';
import { el } from './dom.js';
import { byteSize, counted } from './format.js';
import { createLongWork } from './long_work.js';
import { saveBlob } from './recording.js';
import { reportHtml } from './report.js';
import { readReport } from './report_data.js';

/**
 * @param {import('./recording.js').Recording} recording
 * @param {() => import('./report_data.js').Known} known
 */
export function createReportCard(recording, known) {
  const message = createMessage();
  const work = createLongWork('Reading', message);
  const box = el('input', { type: 'checkbox', checked: true });

  const makeReport = actionButton('Save report', () => work.run(async ({ signal, onProgress }) => {
    const without = box.checked;
    const secrets = without ? (await readSecrets(recording, known().contents, false, { signal, onProgress: (done) => onProgress(done / 2) })).secrets : null;
    const report = await readReport(recording, known(), { signal, onProgress: (done) => onProgress(without ? 0.5 + done / 2 : done) });
    const replaced = () => `Replaced by stand-ins: ${countsText(secrets?.counts() ?? []) || 'nothing'}.`;
    const html = secrets ? reportHtml(report, secrets.hide, replaced) : reportHtml(report);
    const title = secrets ? secrets.hide(recording.title) : recording.title;
    const name = `${title.replace(/\.zip$/i, '').replaceAll(/[^\p{L}\p{N}.-]+/gu, '_')}_report.html`;
    saveBlob(new Blob([html], { type: 'text/html' }), name);
    return `Saved as ${name}. ${secrets ? replaced() : 'It has names and addresses as they were recorded.'}`;
  }), { class: 'primary' });
  const makeCopy = actionButton('Save a copy without secrets', () => work.run(async (options) => {
    const { blob, name, counts, files, left } = await copyWithoutSecrets(recording, known().contents, options);
    saveBlob(blob, name);
    return `Saved as ${name}: ${counted(files, 'text file')}, ${byteSize(blob.size)}. Replaced: ${countsText(counts) || 'nothing'}. ${
      left > 0 ? `${counted(left, 'file')} that ${left === 1 ? 'is' : 'are'} no text ${left === 1 ? 'is' : 'are'} left out and listed in it.` : ''}`;
  }));

  const element = el('section', { class: 'card', 'aria-label': 'Report' },
    el('h2', {}, 'Report'),
    el('p', {}, 'The findings with their charts, what happened and what the camera is, as one HTML file to mail or print.'),
    el('div', { class: 'tools' }, el('label', { class: 'check' }, box, 'Without secrets'), makeReport, makeCopy), work.element, message.element,
    el('p', { class: 'quiet' }, 'Without secrets, names of users, addresses, host names, serial and MAC numbers and passwords have stand-ins such as “user-1”, '
      + 'the same ones everywhere. The copy is an archive of the text files alone: cores, images, traces and packed files are left out and listed. '
      + 'What people wrote in words of their own can’t be recognised: look through it before you hand it on.'));
  return { element, close: work.close };
}
