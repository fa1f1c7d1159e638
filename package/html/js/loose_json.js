// Reads the daemon's JSON. The daemon does not escape what it puts between quotes, so a name may
// hold a quote, a backslash or a control character, and a reply may be cut.

// Deeper than any reply of the daemon.
const MOST_LEVELS = 50;
const BLANK = /\s*/y;
const PLAIN = /[^\s,{}[\]":]+/y;
const AFTER_KEY = /"\s*:/y;
// What can stand behind a text: the next key, the end of its object or array, and wherever the reply
// is cut in that.
const AFTER_MEMBER = /"\s*(?:,\s*"[^"]{0,80}"\s*:|\}\s*(?:[,\]}]|$)|,\s*(?:"[^"]{0,80}"?\s*)?$|$)/y;
const AFTER_ITEM = /"\s*(?:,\s*(?:["{[\d]|$)|\]|$)/y;

/**
 * What could be read, and whether that is less than, or only a guess of, what was meant.
 * @param {string} text
 * @returns {{value: unknown, damaged: boolean}}
 */
export function readLooseJson(text) {
  // A backslash stands for itself, so the strict reader would change the text behind it.
  if (!text.includes('\\')) {
    try {
      return { value: JSON.parse(text), damaged: false };
    } catch {
      // read below
    }
  }
  return looseReader(text).read();
}

/** @param {string} text */
function looseReader(text) {
  let position = 0;
  let damaged = false;

  /** @param {RegExp} pattern sticky */
  const matchAt = (pattern, at = position) => {
    pattern.lastIndex = at;
    return pattern.exec(text)?.[0];
  };
  const skipBlank = () => {
    position += matchAt(BLANK)?.length ?? 0;
  };

  /** The text from an opening quote to the first quote that something fitting follows. */
  function readText(/** @type {RegExp} */ after) {
    const begin = position + 1;
    for (let at = text.indexOf('"', begin); at >= 0; at = text.indexOf('"', at + 1)) {
      if (matchAt(after, at) !== undefined) {
        position = at + 1;
        return text.slice(begin, at);
      }
    }
    damaged = true;
    position = text.length;
    return text.slice(begin);
  }

  function readPlain() {
    const word = matchAt(PLAIN) ?? '';
    position += word.length;
    try {
      return JSON.parse(word);
    } catch {
      damaged = true;
      return word === '' ? null : word;
    }
  }

  /** @param {RegExp} afterText @param {number} level @returns {unknown} */
  function readValue(afterText, level) {
    skipBlank();
    const first = text[position];
    if (first === '"') {
      return readText(afterText);
    }
    if ((first === '{' || first === '[') && level < MOST_LEVELS) {
      return first === '{' ? readObject(level + 1) : readArray(level + 1);
    }
    return readPlain();
  }

  /**
   * Reads members up to the closing character, skipping what is neither one nor a comma.
   * @param {string} close
   * @param {() => boolean} readMember false when none begins here
   */
  function readMembers(close, readMember) {
    position++;
    let afterComma = true;
    for (;;) {
      skipBlank();
      const next = text[position];
      if (next === undefined) {
        damaged = true;
        return;
      }
      if (next === close) {
        position++;
        return;
      }
      if (next === ',' && !afterComma) {
        position++;
        afterComma = true;
      } else if (afterComma && readMember()) {
        afterComma = false;
      } else {
        damaged = true;
        position++;
      }
    }
  }

  /** @param {number} level */
  function readObject(level) {
    /** @type {Record<string, unknown>} */
    const object = Object.create(null);
    readMembers('}', () => {
      if (text[position] !== '"') {
        return false;
      }
      const key = readText(AFTER_KEY);
      skipBlank();
      position++;
      object[key] = readValue(AFTER_MEMBER, level);
      return true;
    });
    return object;
  }

  /** @param {number} level */
  function readArray(level) {
    /** @type {unknown[]} */
    const array = [];
    readMembers(']', () => {
      const before = position;
      const value = readValue(AFTER_ITEM, level);
      if (position > before) {
        array.push(value);
      }
      return position > before;
    });
    return array;
  }

  return {
    read() {
      const value = readValue(AFTER_ITEM, 0);
      skipBlank();
      return { value, damaged: damaged || position < text.length };
    },
  };
}
