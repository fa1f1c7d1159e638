// The archive viewer as a page of its own, without a camera.

import { byId } from './dom.js';
import { create } from './views/archive.js';

const main = byId('main');
main.append(create().element);
byId('skip-link').addEventListener('click', (event) => {
  event.preventDefault();
  main.focus();
});
