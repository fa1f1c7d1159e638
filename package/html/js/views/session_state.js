// The state of the running session, as a card.

import { onCamera, refreshCamera } from '../camera.js';
import { createFacts, el, setText } from '../dom.js';
import { clock } from '../format.js';
import { staleNotes } from '../poll.js';
import { duration } from '../session_data.js';

/** @typedef {import('../session_data.js').Camera} Camera */

/** @param {Camera['debug']} debug */
function debugText({ log, interval, minutes }) {
  const schedule = minutes > 0 ? `every ${duration(minutes)}` : 'on a schedule';
  return [interval ? `crash reports ${schedule}` : '', log ? 'crash reports on log messages' : '']
    .filter(Boolean).join(', ');
}

/** What is wrong with the session's storage, "" when nothing is. @param {Camera} camera */
function trouble({ active, lostMinutes, storage, directory }) {
  if (!active || lostMinutes === null) {
    return '';
  }
  const since = lostMinutes > 1 ? ` for ${duration(lostMinutes)}` : '';
  const remedy = directory.includes('/NetworkShare/')
    ? 'Check that the share’s server is up and that the camera reaches it'
    : 'Check that it is inserted and mounted in the camera’s storage settings';
  return `The storage (${storage}) can’t be used${since}: nothing is being recorded. ${remedy}. The `
    + 'session goes on by itself once it is back; there is no need to start it again.';
}

/**
 * @param {...HTMLElement} more what stands below the facts
 */
export function sessionCard(...more) {
  const badge = el('p', { class: 'badge', role: 'status' });
  const facts = createFacts();
  const storageTrouble = el('div', { role: 'alert' });
  const idle = el('p', { class: 'quiet' });
  const contents = el('a', { href: '#/session', hidden: true }, 'The camera’s condition and what else it has recorded');
  const asOf = el('span', { class: 'quiet' });
  const stale = el('p', { class: 'notice', hidden: true });
  const element = el('section', { class: 'card', 'aria-label': 'Session' },
    el('div', { class: 'tools apart' }, el('h2', {}, 'Session'), badge),
    storageTrouble, facts.element, el('p', {}, contents), idle, stale, ...more,
    el('p', { class: 'foot' }, asOf, ' ',
      el('button', { type: 'button', class: 'plain', onclick: () => refreshCamera() }, 'Refresh')));

  onCamera(element, ({ camera, information, damaged, at, error, asking }) => {
    const active = camera?.active ?? false;
    badge.dataset.state = camera === null ? 'unknown' : active ? 'running' : 'idle';
    const wrong = camera ? trouble(camera) : '';
    if (wrong !== '') {
      badge.dataset.state = 'trouble';
    }
    setText(badge, { unknown: 'Not known yet', running: 'Running', idle: 'Not running',
      trouble: 'Running, storage lost' }[badge.dataset.state] ?? '');
    setText(storageTrouble, wrong);
    storageTrouble.className = wrong ? 'notice' : '';
    const told = new Map(information ?? []);
    facts.show(camera && active ? [
      ['Started', camera.startTime],
      ['Duration', duration(camera.minutes)],
      ['Data points', told.get('Collected Data Points') ?? 'can’t be read now'],
      ['Storage', camera.storage],
      ['Advanced debug', debugText(camera.debug)],
      ['Folder', camera.directory],
    ] : []);
    contents.hidden = !active;
    contents.href = `#/session?path=${encodeURIComponent(camera?.directory ?? '')}`;
    setText(idle, camera && !active ? 'Nothing is being recorded.' : '');
    idle.hidden = idle.textContent === '';
    const notes = staleNotes(error, damaged ? 'The camera’s reply was damaged, most likely by an odd '
      + 'character in a name. What could be read is shown; something may be missing.' : '');
    stale.hidden = notes === '';
    setText(stale, notes);
    setText(asOf, asking && !at ? 'Asking the camera …' : at ? `As of ${clock(at)}, this computer’s time` : '');
  });
  return element;
}
