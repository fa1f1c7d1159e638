// Requests to the daemon. It answers them one at a time: a reply may wait for the end of another's
// work, so limits count from the last sign of life, not from the start.

import { adviceFor } from './refusals.js';

const ENDPOINT = 'access.cgi';

/**
 * A request that got no usable reply: what happened (message) and what the engineer can do (advice).
 */
export class RequestError extends Error {
  /**
   * @param {'cancelled' | 'unreachable' | 'timeout' | 'login' | 'forbidden' | 'stopped' | 'refused'
   *     | 'unexpected'} kind
   * @param {string} message
   * @param {string} advice
   */
  constructor(kind, message, advice) {
    super(message);
    this.kind = kind;
    this.advice = advice;
  }
}

/**
 * @typedef {object} RequestOptions
 * @property {number} [timeoutMs] longest silence
 * @property {AbortSignal} [signal] cancels the request
 * @property {(text: string, bytes: number) => void} [onText] receives the reply in pieces, each
 *     with the bytes of the reply so far; the request then resolves to an empty text
 * @property {(piece: Uint8Array) => void} [onBytes] the same for what is no text
 */

let pendingCount = 0;

/** Where the tabs of the page tell each other that something was changed. @type {BroadcastChannel | null} */
let changes = null;

/** @param {() => void} listener called when another tab has changed something */
export function onChanges(listener) {
  changes ??= new BroadcastChannel('vandrel-changes');
  changes.addEventListener('message', listener);
}

/** Requests under way. While there are any, silence of the daemon means nothing. */
export function pending() {
  return pendingCount;
}

/**
 * The address of an action.
 * @param {string} action "" for none
 * @param {Record<string, string>} [values]
 */
export function address(action, values = {}) {
  const pairs = Object.entries(action ? { action, ...values } : values);
  // Not URLSearchParams: a "+" would reach the daemon as it is.
  const query = pairs.map((pair) => pair.map(encodeURIComponent).join('=')).join('&');
  return query ? `${ENDPOINT}?${query}` : ENDPOINT;
}

/**
 * @typedef {object} Reply
 * @property {number} status
 * @property {string} text
 */

/**
 * Sends an action and resolves to the text of its reply, or throws a RequestError, also when the
 * daemon refuses by the reply's status.
 * @param {string} action
 * @param {Record<string, string>} [values]
 * @param {RequestOptions} [options]
 * @returns {Promise<string>}
 */
export async function request(action, values = {}, options = {}) {
  const { status, text } = await ask(action, values, options);
  if (status >= 400) {
    throw refusal(wordsOf(text) || `Refused with status ${status}.`);
  }
  return text;
}

/**
 * As request, for an action that refuses in plain words with a good status.
 * @param {string} action
 * @param {Record<string, string>} values
 * @param {string[] | RegExp} granted the replies that are no refusals
 * @param {RequestOptions} [options]
 */
export async function requestGranted(action, values, granted, options = {}) {
  const words = wordsOf(await request(action, values, options));
  if (Array.isArray(granted) ? !granted.includes(words) : !granted.test(words)) {
    throw refusal(words || 'The daemon’s reply is empty.');
  }
  changes?.postMessage(action);
  return words;
}

/** @param {string} words the daemon's own */
export function refusal(words) {
  return new RequestError('refused', words, adviceFor(words));
}

/**
 * The words of a reply, which is plain text or JSON with an error, a message or a success.
 * @param {string} text
 */
export function wordsOf(text) {
  try {
    const { error, message, success } = JSON.parse(text);
    return String(error ?? message ?? success ?? text).trim();
  } catch {
    return text.trim();
  }
}

/**
 * Sends an action and resolves to the daemon's reply, a refusal too. Throws a RequestError when
 * something else answers, or nothing.
 * @param {string} action
 * @param {Record<string, string>} [values]
 * @param {RequestOptions} [options]
 * @returns {Promise<Reply>}
 */
export async function ask(action, values = {}, options = {}) {
  const { timeoutMs = 20000, signal, onText, onBytes } = options;
  const silence = new AbortController();
  let timer = 0;
  const alive = () => {
    clearTimeout(timer);
    timer = setTimeout(() => silence.abort(), timeoutMs);
  };
  const cancel = () => silence.abort();
  signal?.addEventListener('abort', cancel);
  pendingCount++;
  try {
    alive();
    signal?.throwIfAborted();
    const response = await fetch(address(action, values), {
      cache: 'no-store',
      signal: silence.signal,
    });
    const { status } = response;
    const good = response.ok && !isHtml(response);
    const text = await readBody(response, alive, good ? { onText, onBytes } : {});
    if (status === 401 || status === 403 || isHtml(response)) {
      throw errorOf(status);
    }
    return { status, text };
  } catch (error) {
    if (error instanceof RequestError) {
      throw error;
    }
    if (signal?.aborted) {
      throw new RequestError('cancelled', 'Cancelled.', '');
    }
    if (silence.signal.aborted) {
      throw new RequestError('timeout', `No reply within ${timeoutMs / 1000} seconds.`,
        'The daemon does one thing at a time and may be busy with long work. Wait a little; '
        + 'if it stays like this, look at the log and restart the package.');
    }
    throw new RequestError('unreachable', 'The camera cannot be reached.',
      'Check its power and the network in between. The page goes on trying.');
  } finally {
    clearTimeout(timer);
    signal?.removeEventListener('abort', cancel);
    pendingCount--;
  }
}

/**
 * @param {Response} response
 * @param {() => void} alive called for every piece
 * @param {Pick<RequestOptions, 'onText' | 'onBytes'>} receivers
 */
async function readBody(response, alive, { onText, onBytes }) {
  const reader = response.body?.getReader();
  const decoder = new TextDecoder();
  let kept = '';
  let bytes = 0;
  for (;;) {
    const piece = await reader?.read();
    if (onBytes) {
      if (piece?.value) {
        onBytes(piece.value);
      }
      if (!piece || piece.done) {
        return '';
      }
      alive();
      continue;
    }
    const text = piece?.value ? decoder.decode(piece.value, { stream: true }) : decoder.decode();
    bytes += piece?.value?.length ?? 0;
    if (onText) {
      onText(text, bytes);
    } else {
      kept += text;
    }
    if (!piece || piece.done) {
      return kept;
    }
    alive();
  }
}

/** @param {Response} response */
function isHtml(response) {
  return (response.headers.get('Content-Type') ?? '').startsWith('text/html');
}

/**
 * The daemon refuses in plain text or JSON; a page of HTML comes from the web server or something
 * between.
 * @param {number} status
 */
function errorOf(status) {
  if (status === 401) {
    return new RequestError('login', 'Not signed in.',
      'Reload the page and sign in as an administrator of the camera.');
  }
  if (status === 403) {
    return new RequestError('forbidden', 'This user may not use the package.',
      'Sign in as an administrator of the camera; closing the browser forgets the present user.');
  }
  if (status === 404) {
    return new RequestError('unexpected', 'The web server does not know the package.',
      'Check on the camera that the package is installed and started.');
  }
  if (status >= 500) {
    return new RequestError('stopped', `The daemon does not answer the web server (${status}).`,
      'It may be starting: wait a minute. Otherwise start the package on the camera, '
      + 'and look in the camera’s system log for why it stopped.');
  }
  return new RequestError('unexpected', `Something else than the daemon answered (${status}).`,
    'Check that the address is the camera’s own and that no proxy stands in between.');
}
