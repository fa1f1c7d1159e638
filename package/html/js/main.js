// The frame around the views: navigation by the address's hash and the state of the daemon.

import { onDaemonState, watchDaemon } from './daemon.js';
import { byId, el, setText } from './dom.js';

/**
 * A view is made when it is first shown and kept, so that nothing typed in it is lost.
 * @typedef {object} View
 * @property {HTMLElement} element
 * @property {(values: URLSearchParams) => void} [show] with what follows "?" in the hash
 * @property {() => void} [hide] when another view is shown
 */

/**
 * @typedef {object} Entry
 * @property {string} id
 * @property {string} title
 * @property {string} [within] the view whose link stands for it
 * @property {() => Promise<{create: () => View}>} load
 */

/** @type {Entry[]} */
const VIEWS = [
  { id: 'overview', title: 'Overview', load: () => import('./views/overview.js') },
  { id: 'sessions', title: 'Sessions', load: () => import('./views/sessions.js') },
  { id: 'session', title: 'Session', within: 'sessions', load: () => import('./views/session.js') },
  { id: 'traces', title: 'Traces', load: () => import('./views/traces.js') },
  { id: 'triggers', title: 'Triggers', load: () => import('./views/triggers.js') },
  { id: 'maintenance', title: 'Maintenance', load: () => import('./views/maintenance.js') },
  { id: 'device_test', title: 'Device test', load: () => import('./views/device_test.js') },
  { id: 'network_tools', title: 'Network tools', load: () => import('./views/network_tools.js') },
  { id: 'archive', title: 'Archive', load: () => import('./views/archive_on_camera.js') },
  { id: 'log', title: 'Log', load: () => import('./views/log.js') },
];

/** Addresses of before. @type {Record<string, string>} */
const MOVED = { charts: 'session' };

/** @type {Map<string, View>} */
const made = new Map();
/** How far each address was scrolled, for those who come back. @type {Map<string, number>} */
const scrolled = new Map();
const main = byId('main');
let shownId = '';

const links = new Map(VIEWS.filter(({ within }) => !within)
  .map(({ id, title }) => [id, el('a', { href: `#/${id}` }, title)]));
byId('views').append(el('ul', {}, ...[...links.values()].map((link) => el('li', {}, link))));

async function showView() {
  const { hash } = location;
  const [path, query] = hash.replace(/^#\//, '').split('?');
  const entry = VIEWS.find(({ id }) => id === (MOVED[path ?? ''] ?? path)) ?? VIEWS[0];
  if (!entry) {
    return;
  }
  const { create } = await entry.load();
  if (hash !== location.hash) {
    return; // the user has gone on while it was loaded
  }
  const isOther = shownId !== entry.id;
  if (isOther) {
    scrolled.set(shownId, main.scrollTop);
    made.get(shownId)?.hide?.();
    shownId = entry.id;
  }
  const view = made.get(entry.id) ?? create();
  made.set(entry.id, view);
  if (!view.element.isConnected) {
    main.append(view.element);
  }
  for (const [id, { element }] of made) {
    element.hidden = id !== entry.id;
  }
  for (const [id, link] of links) {
    if (id === (entry.within ?? entry.id)) {
      link.setAttribute('aria-current', 'page');
    } else {
      link.removeAttribute('aria-current');
    }
  }
  document.title = `${entry.title} – Vandrel`;
  if (isOther) {
    main.scrollTop = cameBack ? scrolled.get(entry.id) ?? 0 : 0;
  }
  view.show?.(new URLSearchParams(query ?? ''));
}

let cameBack = false;
window.addEventListener('popstate', () => { cameBack = true; });
window.addEventListener('click', () => { cameBack = false; }, { capture: true });
window.addEventListener('hashchange', async () => {
  const before = shownId;
  await showView();
  if (shownId !== before) {
    main.focus();
  }
});
byId('skip-link').addEventListener('click', (event) => {
  event.preventDefault(); // the hash names the view
  main.focus();
});

onDaemonState(({ state, text, advice }) => {
  if (state === 'answers') {
    for (const said of main.querySelectorAll('.message[data-away="true"]')) {
      /** @type {HTMLElement} */ (said).hidden = true;
    }
  }
  byId('daemon-state').dataset.state = state;
  setText(byId('daemon-text'), text);
  const notice = byId('daemon-notice');
  notice.hidden = advice === '';
  setText(notice, advice);
});
watchDaemon();
showView();
