// Ping, traceroute, port check and look-ups from the camera, with their output as it comes.

import { request, RequestError } from '../api.js';
import { actionButton, createMessage, explainedField, field, remembered, select } from '../controls.js';
import { el, setText } from '../dom.js';
import { clock } from '../format.js';

const END = 'STOPSPINNER';
const TIMEOUT_MS = 300000;
const RUNS_KEPT = 10;
const ADDRESS_HINT = 'An IP address or a host’s name.';

const TOOLS = [
  ['ping', 'Ping'], ['traceroute', 'Traceroute'], ['portcheck', 'Port check'],
  ['dnslookup', 'DNS lookup'], ['get_ip_address', 'Network share’s address'],
];

/** The daemon's lines end in "<br>"; of other markup only the words are kept. @param {string} reply */
function plain(reply) {
  return reply.replaceAll(/\n?<br>\n?/g, '\n').replaceAll(/<\/?i>/g, '');
}

/**
 * What came of a run, by the tool's own words; a run that ended tells nothing by that alone.
 * @param {string} tool
 * @param {string} output
 * @returns {{good: boolean, text: string} | null} null where the words are not known
 */
export function verdictOf(tool, output) {
  if (output.trim() === '') {
    return { good: false, text: 'nothing was answered' };
  }
  if (tool === 'ping') {
    const [, loss] = /([\d.]+)% packet loss/.exec(output) ?? [];
    return loss !== undefined && Number(loss) > 0 && Number(loss) < 100 ? { good: true, text: `it replies, ${loss} % lost` }
      : Number(loss) === 0 || /is alive|bytes from/i.test(output) ? { good: true, text: 'it replies' } : { good: false, text: 'no reply' };
  }
  if (tool === 'portcheck') {
    return /fail|refused|timed out|unreachable/i.test(output) ? { good: false, text: 'the port does not answer' }
      : /open|succe/i.test(output) ? { good: true, text: 'the port is open' } : null;
  }
  if (tool === 'dnslookup') {
    return /address: *\S/i.test(output) && !/fail|not found|could not/i.test(output) ? { good: true, text: 'found' }
      : { good: false, text: 'no address was found' };
  }
  return /fail|error|unreachable|could not|not found|no such/i.test(output) ? { good: false, text: 'it failed' } : null;
}

/** The last runs, with what they said. */
function createRuns() {
  const list = el('ol', { class: 'results' });
  const element = el('details', { hidden: true }, el('summary', {}, 'Last runs'), list);
  return {
    element,
    /** @param {string} title @param {ReturnType<typeof verdictOf>} verdict @param {string} output */
    add(title, verdict, output) {
      list.prepend(el('li', {}, el('details', {}, el('summary', {}, el('time', {}, clock(new Date())), ' ', el('bdi', {}, title), ': ',
        el('span', { class: verdict?.good === false ? 'failure' : '' }, verdict?.text ?? 'has ended')), el('pre', { class: 'content', tabindex: 0 }, output))));
      list.children[RUNS_KEPT]?.remove();
      element.hidden = false;
    },
  };
}

/** @returns {import('../main.js').View} */
export function create() {
  const message = createMessage();
  const address = remembered(el('input', { type: 'text', autocomplete: 'off', spellcheck: 'false' }), 'tools-address');
  const port = remembered(el('input', { type: 'number', min: 1, max: 65535, value: 80 }), 'tools-port');
  const group = el('input', { type: 'text', autocomplete: 'off', spellcheck: 'false', value: 'S1' });
  const mode = select([['icmp', 'ICMP'], ['udp', 'UDP'], ['tcp', 'TCP']], () => {});
  const tool = remembered(select(TOOLS, adapt), 'tools-tool');
  const addressField = explainedField('Address', address, ADDRESS_HINT);
  const portField = explainedField('Port', port, '1 to 65535.');
  const groupField = explainedField('Storage group', group, 'As the camera’s parameters name it.');
  const modeField = field('Probes', mode);
  const output = el('pre', { class: 'content', tabindex: 0, 'aria-label': 'Output', hidden: true });
  const runs = createRuns();
  const copy = actionButton('Copy', async () => {
    await navigator.clipboard?.writeText(output.textContent ?? '').catch(() => {});
    const selection = getSelection();
    selection?.selectAllChildren(output); // where the browser lets nothing be copied, it is a key away
  }, { hidden: true });

  function adapt() {
    const share = tool.value === 'get_ip_address';
    addressField.element.hidden = share;
    groupField.element.hidden = !share;
    portField.element.hidden = tool.value !== 'portcheck';
    modeField.hidden = tool.value !== 'traceroute';
  }
  adapt();

  /** Nothing when a field has to be filled first. @returns {Record<string, string> | null} */
  function argumentsOf() {
    if (tool.value === 'get_ip_address') {
      return { group: group.value.trim() };
    }
    const host = address.value.trim();
    const wrongHost = host === '' || host.startsWith('-') || /[\s"`$\\]/.test(host);
    addressField.explain(wrongHost ? 'One address or name, without blanks and quotes.' : ADDRESS_HINT, wrongHost);
    const wrongPort = tool.value === 'portcheck'
      && !(/^\d{1,5}$/.test(port.value) && Number(port.value) >= 1 && Number(port.value) <= 65535);
    portField.explain(wrongPort ? 'A number from 1 to 65535.' : '1 to 65535.', wrongPort);
    if (wrongHost || wrongPort) {
      (wrongHost ? address : port).focus();
      return null;
    }
    return {
      address: host,
      ...(tool.value === 'portcheck' ? { port: port.value } : {}),
      ...(tool.value === 'traceroute' ? { mode: mode.value } : {}),
    };
  }

  /** @param {string} title @param {Record<string, string>} values @param {string} reply */
  function tell(title, values, reply) {
    const verdict = verdictOf(tool.value, plain(reply));
    message.show(verdict ? verdict.good ? 'good' : 'bad' : 'doubtful', `${title} has ended${verdict ? `: ${verdict.text}` : ''}.`);
    runs.add([title, ...Object.values(values)].join(' '), verdict, plain(reply));
    copy.hidden = false;
  }

  async function run() {
    const values = argumentsOf();
    if (!values) {
      return;
    }
    const title = tool.selectedOptions[0]?.text ?? '';
    let reply = '';
    let ended = false;
    output.hidden = false;
    setText(output, '');
    message.work(`${title} is running …`);
    try {
      await request(tool.value, values, {
        timeoutMs: TIMEOUT_MS,
        onText(piece) {
          reply += piece;
          const end = reply.indexOf(END);
          setText(output, plain(end < 0 ? reply : reply.slice(0, end)));
          if (end >= 0 && !ended) {
            ended = true;
            tell(title, values, reply.slice(0, end));
          }
        },
      });
      if (!ended && (tool.value === 'dnslookup' || tool.value === 'get_ip_address')) {
        tell(title, values, reply);
      } else if (!ended) {
        throw new RequestError('unexpected', 'The output was cut.', 'Look at the log.');
      }
      if (reply.trim() === '') {
        setText(output, 'Nothing was answered.');
      }
    } catch (error) {
      message.fail(error, title);
    }
  }

  const element = el('div', { class: 'view' }, el('h1', {}, 'Network tools'), message.element,
    el('section', { class: 'card', 'aria-label': 'Tool' },
      el('form', { novalidate: true, onsubmit: (event) => event.preventDefault() },
        el('div', { class: 'form' }, field('Tool', tool), addressField.element, portField.element,
          modeField, groupField.element),
        el('div', { class: 'tools' },
          actionButton('Run', run, { type: 'submit', class: 'primary' }), copy)),
      output, runs.element,
      el('p', { class: 'hint' }, 'The tools run on the camera, which answers nothing else meanwhile.')));
  return { element };
}
