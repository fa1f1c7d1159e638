// The network device test: its rules with their present state, adding and removing them.

import { pending, request, requestGranted, RequestError } from '../api.js';
import { download } from '../archive.js';
import { actionButton, confirmed, createMessage, createTable, explainedField, field, select }
  from '../controls.js';
import { el, setText } from '../dom.js';
import { clock, counted } from '../format.js';
import { readLooseJson } from '../loose_json.js';
import { list, text } from '../session_data.js';

const TIMEOUT_MS = 600000; // behind a run with many silent hosts
const PERIOD_MS = 10000;
const RUN_S = 10;
const ADDED = 'All required parameters were given and OK.';
const REMOVED = 'All required parameters were given and OK, could remove nc-rule.';
const ADDRESS = /^[A-Za-z0-9._:%][A-Za-z0-9._:%-]{0,45}$/;
const NAME = /^[^"`$\\\p{Cc}]+$/u;
const NAME_BYTES = 47;

/**
 * @typedef {object} Rule
 * @property {string} address
 * @property {number} port -1 for ICMP
 * @property {number} timer
 * @property {number} fails the threshold
 * @property {boolean} alive
 * @property {number} checks
 * @property {number} failed
 * @property {string} log "" while there is none
 * @property {string} since "" before the first check
 * @property {string} name
 */

/** @param {string} reply @returns {Rule[]} */
function read(reply) {
  const { value } = readLooseJson(reply);
  const told = /** @type {{Rules?: unknown}} */ (value !== null && typeof value === 'object' ? value : {});
  if (!Array.isArray(told.Rules)) {
    throw new RequestError('unexpected', 'The daemon’s reply was not understood.',
      'Reload the page: package and page may be of different versions.');
  }
  return list(told.Rules).map((one) => {
    const rule = /** @type {Record<string, unknown>} */ (one ?? {});
    const known = (/** @type {string} */ word, /** @type {string} */ none) => (word === none ? '' : word);
    return {
      address: text(rule.address), port: Number(rule.port), timer: Number(rule.timer),
      fails: Number(rule.fails), alive: rule.alive === 1, checks: Number(rule.checks),
      failed: Number(rule.total_fails), log: known(text(rule.log_file_path), 'None'),
      since: known(text(rule.since), 'Waiting'), name: text(rule.name),
    };
  });
}

/** @param {Rule} rule */
const hostOf = ({ address, port }) => (port === -1 ? `${address} (ICMP)` : `${address}, port ${port}`);

/**
 * The form that adds a host, or changes one that is there.
 * @param {() => Rule[]} rulesNow
 * @param {import('../controls.js').Message} message
 * @param {() => Promise<void>} refresh
 */
function createForm(rulesNow, message, refresh) {
  const name = el('input', { type: 'text', autocomplete: 'off' });
  const address = el('input', { type: 'text', autocomplete: 'off', spellcheck: 'false' });
  const port = el('input', { type: 'number', min: 1, max: 65535, value: 80 });
  const interval = el('input', { type: 'number', min: RUN_S, step: RUN_S, value: 60 });
  const fails = el('input', { type: 'number', min: 1, value: 1 });
  const fields = {
    name: explainedField('Name', name, 'As the log calls it.'),
    address: explainedField('Address', address, 'An IP address or a host’s name.'),
    port: explainedField('Port', port, '1 to 65535.'),
    interval: explainedField('Interval in seconds', interval, 'A multiple of ten.'),
    fails: explainedField('Failures in a row', fails,
      'Before a host counts as not reachable; only on cameras without tcptest.'),
  };
  const kind = select([['tcp', 'TCP connection'], ['icmp', 'ICMP (ping)']], () => {
    fields.port.element.hidden = kind.value === 'icmp';
  });

  /** The first field that can't be sent as it is. @returns {HTMLInputElement | null} */
  function wrongField() {
    const whole = (/** @type {HTMLInputElement} */ input, /** @type {number} */ most) =>
      /^\d{1,9}$/.test(input.value) && Number(input.value) >= 1 && Number(input.value) <= most;
    /** @type {[keyof typeof fields, HTMLInputElement, boolean, string, string][]} */
    const checks = [
      ['name', name, NAME.test(name.value.trim())
        && new TextEncoder().encode(name.value.trim()).length <= NAME_BYTES,
      'As the log calls it.', 'At most 47 bytes, without quotes, “`”, “$” and “\\”.'],
      ['address', address, ADDRESS.test(address.value.trim()),
        'An IP address or a host’s name.', 'An IP address or a host’s name of at most 46 characters.'],
      ['port', port, kind.value === 'icmp' || whole(port, 65535), '1 to 65535.', 'A number from 1 to 65535.'],
      ['interval', interval, whole(interval, 1e9) && Number(interval.value) % RUN_S === 0,
        'A multiple of ten.', 'A multiple of ten: 10, 20, 60 …'],
      ['fails', fails, whole(fails, 1e9),
        'Before a host counts as not reachable; only on cameras without tcptest.', 'A number from 1 on.'],
    ];
    let wrong = null;
    for (const [id, input, good, hint, complaint] of checks) {
      fields[id].explain(good ? hint : complaint, !good);
      wrong ??= good ? null : input;
    }
    return wrong;
  }

  async function add() {
    const wrong = wrongField();
    if (wrong) {
      wrong.focus();
      return;
    }
    const wanted = kind.value === 'icmp' ? -1 : Number(port.value);
    const known = rulesNow().find((rule) => rule.address === address.value.trim() && rule.port === wanted);
    if (known && !await confirmed({
      title: `Replace the rule of ${known.name || hostOf(known)}?`,
      text: [`${hostOf(known)} is tested already: every ${known.timer * RUN_S} s, as “${known.name}”. The rule is replaced and its counters begin anew.`],
      action: 'Replace',
      keep: 'Keep',
    })) {
      return;
    }
    message.work('Adding …');
    try {
      await requestGranted('declare_nc_rule', {
        ip_address: address.value.trim(), name: name.value.trim(),
        port: kind.value === 'icmp' ? 'ICMP' : String(Number(port.value)),
        timer: String(Number(interval.value) / RUN_S), nbr_of_fails: String(Number(fails.value)),
      }, [ADDED], { timeoutMs: TIMEOUT_MS });
      message.show('good', `${name.value.trim()} is tested from now on.`);
      name.value = '';
      address.value = '';
    } catch (error) {
      message.fail(error);
    }
    await refresh();
  }

  const element = el('section', { class: 'card', 'aria-label': 'Add a host' },
    el('h2', {}, 'Add a host'),
    el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() },
      el('div', { class: 'form' }, fields.name.element, fields.address.element,
        field('Test', kind), fields.port.element, fields.interval.element, fields.fails.element),
      el('div', { class: 'tools' },
        actionButton('Add', add, { type: 'submit', class: 'primary' }))));
  return {
    element,
    /** @param {Rule} rule */
    edit(rule) {
      name.value = rule.name;
      address.value = rule.address;
      kind.value = rule.port === -1 ? 'icmp' : 'tcp';
      fields.port.element.hidden = rule.port === -1;
      port.value = String(rule.port === -1 ? 80 : rule.port);
      interval.value = String(rule.timer * RUN_S);
      fails.value = String(rule.fails);
      element.scrollIntoView({ block: 'nearest' });
      name.focus();
    },
  };
}

/** @returns {import('../main.js').View} */
export function create() {
  const message = createMessage();
  /** @type {Rule[]} */
  let rules = [];
  let timer = 0;
  const form = createForm(() => rules, message, () => refresh());

  /** @param {Rule} rule */
  async function remove(rule) {
    const sure = await confirmed({
      title: `Stop testing ${rule.name || hostOf(rule)}?`,
      text: [`The rule for ${hostOf(rule)} and its counters are deleted.`,
        ...(rules.length === 1 ? ['It is the last one: the log on the storages is emptied too.'] : [])],
      action: 'Delete rule',
      keep: 'Keep',
    });
    if (!sure) {
      return;
    }
    message.work('Deleting …');
    try {
      await requestGranted('remove_nc_rule', { ip_address: rule.address, port: String(rule.port) },
        [REMOVED], { timeoutMs: TIMEOUT_MS });
      message.show('good', `${rule.name || hostOf(rule)} is no longer tested.`);
    } catch (error) {
      message.fail(error);
    }
    await refresh();
    if (document.activeElement === document.body) {
      heading.focus(); // the row that had it is gone
    }
  }

  /** @param {Rule} first */
  function makeRow(first) {
    let rule = first;
    const label = el('span');
    const state = el('span', { class: 'badge' });
    const since = el('span');
    const checks = el('span');
    const failed = el('span');
    const period = el('span');
    const log = actionButton('Log', async () => download('download_nc_log', { path: rule.log }));
    const edit = el('button', { type: 'button', onclick: () => form.edit(rule) }, 'Edit');
    const deletion = actionButton('Delete', () => remove(rule), { class: 'danger' });
    return {
      cells: [label, el('span', {}, hostOf(rule)), state, since, checks, failed, period,
        el('div', { class: 'tools' }, log, edit, deletion)],
      /** @param {Rule} next */
      update(next) {
        rule = next;
        const waiting = next.since === '';
        setText(label, next.name);
        state.dataset.state = waiting ? 'unknown' : next.alive ? 'good' : 'trouble';
        setText(state, waiting ? 'Waiting' : next.alive ? 'Alive' : 'Not reachable');
        setText(since, next.since || '–');
        setText(checks, next.checks.toLocaleString('en'));
        setText(failed, next.failed.toLocaleString('en'));
        setText(period, next.timer === 0 || next.timer > 1e9 ? 'never' : `${next.timer * RUN_S} s`);
        log.hidden = next.log === '';
        log.setAttribute('aria-label', `Log of ${next.name}`);
        edit.setAttribute('aria-label', `Edit rule ${next.name}, ${hostOf(next)}`);
        deletion.setAttribute('aria-label', `Delete rule ${next.name}, ${hostOf(next)}`);
      },
    };
  }

  const table = createTable({
    caption: 'Hosts under test',
    columns: [{ title: 'Name' }, { title: 'Host' }, { title: 'State' }, { title: 'Tested since' },
      { title: 'Checks', number: true }, { title: 'Failed', number: true },
      { title: 'Interval', number: true }, { title: 'Actions' }],
    key: (/** @type {Rule} */ rule) => `${rule.address} ${rule.port}`,
    make: makeRow,
  });
  const heading = el('h2', { tabindex: -1 }, 'Hosts under test');
  const count = el('span', { class: 'quiet' });
  const empty = el('p', { class: 'empty' }, 'Asking the camera …');
  const stale = el('p', { class: 'notice', hidden: true });
  const asOf = el('span', { class: 'quiet' });

  async function refresh() {
    clearTimeout(timer);
    try {
      rules = read(await request('list_nc_rules', {}, { timeoutMs: TIMEOUT_MS }));
      table.show(rules);
      table.element.hidden = rules.length === 0;
      empty.hidden = rules.length > 0;
      setText(empty, 'No host is tested.');
      setText(count, rules.length === 0 ? '' : counted(rules.length, 'host'));
      setText(asOf, `As of ${clock(new Date())}, this computer’s time`);
      stale.hidden = true;
    } catch (error) {
      const { kind: reason, message: words, advice } = /** @type {RequestError} */ (error);
      stale.hidden = false;
      setText(stale, `${words} ${advice}`.trim());
      if (reason === 'login' || reason === 'forbidden') {
        return; // each further request would make the browser ask for a password again
      }
    }
    timer = setTimeout(poll, PERIOD_MS);
  }

  function poll() {
    if (document.hidden || element.getClientRects().length === 0) {
      return;
    }
    if (pending() > 0) {
      timer = setTimeout(poll, 1000);
    } else {
      refresh();
    }
  }
  document.addEventListener('visibilitychange', poll);

  table.element.hidden = true;
  const listCard = el('section', { class: 'card', 'aria-label': 'Hosts under test' },
    el('div', { class: 'tools' }, heading, count), stale, empty, table.element,
    el('p', { class: 'hint' }, 'Each result is an event of the camera, a line of its log and one of the '
      + 'log on its SD card or network share. That of a silent host takes some four seconds, and those of '
      + 'the hosts behind it wait for it.'),
    el('p', { class: 'foot' }, asOf, ' ',
      el('button', { type: 'button', class: 'plain', onclick: () => refresh() }, 'Refresh')));
  const element = el('div', { class: 'view' }, el('h1', {}, 'Device test'), message.element,
    form.element, listCard);
  return { element, show: () => { refresh(); } };
}
