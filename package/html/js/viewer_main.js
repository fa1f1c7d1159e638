// The archive viewer as a page of its own, without a camera.

import { byId } from './dom.js';
import { create } from './views/archive.js';

const main = byId('main');
const viewer = create();
main.append(viewer.element);
/** What of an archive is in sight stands behind "?" in the hash, as on the camera. */
const showLink = () => viewer.show?.(new URLSearchParams(location.hash.split('?')[1] ?? ''));
window.addEventListener('hashchange', showLink);
window.addEventListener('popstate', showLink);
showLink();
byId('skip-link').addEventListener('click', (event) => {
  event.preventDefault();
  main.focus();
});
