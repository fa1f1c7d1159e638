// Starting a session.

import { requestGranted } from '../api.js';
import { expectChanges, onCamera, refreshCamera } from '../camera.js';
import { actionButton, explainedField, field, select } from '../controls.js';
import { el, setText } from '../dom.js';
import { STORAGES } from '../session_data.js';
import { storageChoice } from '../storage_choice.js';
import { readStorages } from '../storages.js';
import { byteSize } from '../format.js';

const TIMEOUT_MS = 300000;
const DIGITS = /^\d*$/;
const IMAGES_HINT = 'Seconds between two still images. Empty, 0 or 1: no images.';
const REBOOTS = 'Session will start after reboot.';

/** @param {import('../controls.js').Message} message tells how it went */
export function startCard(message) {
  const storage = storageChoice(STORAGES, adapt);
  const images = el('input', { type: 'text', inputmode: 'numeric', autocomplete: 'off', oninput: adapt });
  const imagesField = explainedField('Image interval', images, IMAGES_HINT);
  const debug = select([['', 'Off'], ['interval', 'Crash reports on a schedule'],
    ['log', 'Crash reports on log messages'], ['both', 'Both']], adapt);
  const debugField = explainedField('Advanced debug mode', debug);
  const interval = el('input', { type: 'text', inputmode: 'numeric', value: '12', autocomplete: 'off', oninput: adapt });
  const intervalField = explainedField('A crash report every', interval);
  const unit = select([['60', 'hours'], ['1', 'minutes']], adapt);
  const intervalRow = el('div', { class: 'tools' }, intervalField.element, field('Unit', unit));
  const storageHint = el('p', { class: 'hint', role: 'status' });
  let hasImages = true;
  /** @type {import('../storages.js').StorageState[]} */
  let states = [];
  async function readStates() {
    states = await readStorages().catch(() => []);
    adapt();
  }

  const isScheduled = () => !debug.disabled && ['interval', 'both'].includes(debug.value);

  /** Shows what goes with the choices, and whether all can be sent. */
  function adapt() {
    const internal = storage.name() === 'localdata';
    const state = states.find(({ name }) => name === storage.name());
    const used = state && state.percent !== null ? `${state.percent} % of ${byteSize(state.bytes)} used` : '';
    setText(storageHint, !state ? '' : state.trouble ? `This storage can’t be used now: ${state.trouble}${used ? ` (${used})` : ''}.` : used);
    storageHint.classList.toggle('failure', Boolean(state?.trouble));
    images.disabled = internal;
    debug.disabled = internal;
    intervalRow.hidden = !isScheduled();
    if (internal) {
      imagesField.explain('No images are taken on the internal storage.');
    } else if (!DIGITS.test(images.value.trim())) {
      imagesField.explain('A whole number of seconds.', true);
    } else {
      imagesField.explain(hasImages ? IMAGES_HINT
        : `${IMAGES_HINT} This camera seems to have no library for taking them.`);
    }
    debugField.explain(internal ? 'Not on the internal storage.'
      : 'Crash reports are large and take the camera some minutes each.');
    const usable = Number(interval.value) > 0 && DIGITS.test(interval.value.trim());
    intervalField.explain(usable || intervalRow.hidden ? '' : 'A whole number above 0.', !usable);
  }

  /** @returns {Record<string, string> | HTMLInputElement} the arguments, or the field that is wrong */
  function values() {
    adapt();
    const missing = storage.missing();
    if (missing) {
      return missing;
    }
    const wrong = [images, interval].find((input) => input.getAttribute('aria-invalid') === 'true'
      && !input.disabled && !(input === interval && intervalRow.hidden));
    if (wrong) {
      return wrong;
    }
    const wanted = { storage: storage.name() };
    return images.disabled ? wanted : {
      ...wanted,
      ...(images.value.trim() === '' ? {} : { save_image_interval: images.value.trim() }),
      ...(debug.value === '' ? {} : { recurrence_crash_reports: debug.value }),
      ...(isScheduled() ? { log_interval: String(Number(interval.value) * Number(unit.value)) } : {}),
    };
  }

  async function start() {
    const wanted = values();
    if (wanted instanceof HTMLInputElement) {
      wanted.focus();
      return;
    }
    message.work('Starting …');
    try {
      const words = await requestGranted('activate_monitor_session', wanted,
        ['Session started.', REBOOTS], { timeoutMs: TIMEOUT_MS });
      expectChanges();
      const { camera, error } = await refreshCamera();
      if (words === REBOOTS) {
        message.show('doubtful', el('q', {}, words), ' The camera restarts now, to switch on the '
          + 'capture of kernel crashes. This takes some minutes; the page goes on by itself.');
      } else if (camera && !error && !camera.active) {
        // The daemon says so too when it found the storage too full.
        message.show('bad', 'The daemon answers ', el('q', {}, words), ' but no session runs. Most '
          + 'likely 90 % or more of the storage is in use: delete sessions or choose another '
          + 'storage. ', el('a', { href: '#/log?find=Could%20not%20start' }, 'The log tells why.'));
      } else {
        message.show('good', el('q', {}, words));
      }
    } catch (error) {
      message.fail(error);
      expectChanges();
      await refreshCamera();
    }
  }

  const form = el('form', {
    novalidate: true,
    onsubmit: (event) => event.preventDefault(), // the button has been clicked then
  },
  el('div', { class: 'form' },
    el('div', {}, storage.element, storageHint),
    imagesField.element,
    el('div', {}, debugField.element, intervalRow)));
  const startButton = actionButton('Start session', start, { type: 'submit', class: 'primary' });
  form.append(el('div', { class: 'tools' }, startButton));

  const element = el('section', { class: 'card', 'aria-label': 'Start a session' },
    el('h2', {}, 'Start a session'), form);
  let asked = '';
  onCamera(element, ({ camera, error, at }) => {
    if (camera && !camera.active && element.isConnected && asked !== String(at)) {
      asked = String(at);
      readStates();
    }
    // Hidden only, so that what was typed is there again afterwards.
    element.hidden = camera ? camera.active : error === null;
    hasImages = camera?.device.images ?? true;
    adapt();
  });
  return element;
}
