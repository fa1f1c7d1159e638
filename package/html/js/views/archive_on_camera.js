// The archive viewer in the camera's page, which also hands it out as a page of its own.

import { el } from '../dom.js';
import { create as createViewer } from './archive.js';

/** @returns {import('../main.js').View} */
export function create() {
  return createViewer(el('a', { class: 'button', href: 'viewer.html', download: 'viewer.html' },
    'Download this viewer as one file'));
}
