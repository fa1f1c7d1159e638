// The lines of a log: collecting them from pieces of text, their severity, which of them match.

/** From the most severe on; a line names one of them as in "[ WARNING ]". */
export const SEVERITIES = ['emerg', 'alert', 'crit', 'err', 'warning', 'notice', 'info', 'debug'];

const SEVERITY_NAME = /\[ ?(EMERG|ALERT|CRIT|ERR|WARNING|NOTICE|INFO|DEBUG)[A-Z]* *\]/;
// Behind time and host name, and before anything that a program has written.
const SEVERITY_WITHIN = 120;

/**
 * Index into SEVERITIES, or -1 for a line that names none.
 * "2024-05-17T09:30:00.123+00:00 camera [ ERR     ] Vandrel[412]: (main:80, ..."
 * @param {string} line
 */
export function severityOf(line) {
  const name = SEVERITY_NAME.exec(line.slice(0, SEVERITY_WITHIN))?.[1];
  return name ? SEVERITIES.indexOf(name.toLowerCase()) : -1;
}

/**
 * Collects lines from text that comes in pieces, the last `most` of them.
 * @param {number} most
 */
export function lineCollector(most) {
  /** @type {string[]} */
  let lines = [];
  let unfinished = '';
  let dropped = 0;
  const shorten = () => {
    dropped += Math.max(0, lines.length - most);
    lines = lines.slice(-most);
  };
  return {
    /** @param {string} text */
    add(text) {
      const parts = (unfinished + text).split('\n');
      unfinished = parts.pop() ?? '';
      for (const part of parts) {
        lines.push(part);
      }
      if (lines.length > 2 * most) {
        shorten();
      }
    },
    /** All lines, and how many older ones were left out. */
    finish() {
      if (unfinished !== '') {
        lines.push(unfinished);
      }
      shorten();
      return { lines, dropped };
    },
  };
}

/**
 * The indices of the lines that hold the text, in any case, and are severe enough.
 * @param {string[]} lines
 * @param {Int8Array} severities
 * @param {string} text
 * @param {number} least index into SEVERITIES; -1 for all lines
 */
export function matching(lines, severities, text, least) {
  const wanted = text.toLowerCase();
  const found = [];
  for (const [index, line] of lines.entries()) {
    const severity = severities[index] ?? -1;
    if ((least < 0 || (severity >= 0 && severity <= least))
        && (wanted === '' || line.toLowerCase().includes(wanted))) {
      found.push(index);
    }
  }
  return found;
}

/**
 * The line cut at each place that holds the text: other, match, other, match, ..., other.
 * @param {string} line
 * @param {string} text
 */
export function cutAtMatches(line, text) {
  const lower = line.toLowerCase();
  const wanted = text.toLowerCase();
  const parts = [];
  let begin = 0;
  // A few letters change their length with their case; such a line is shown without marks.
  if (wanted !== '' && lower.length === line.length) {
    for (let at = lower.indexOf(wanted); at >= 0; at = lower.indexOf(wanted, begin)) {
      parts.push(line.slice(begin, at), line.slice(at, at + wanted.length));
      begin = at + wanted.length;
    }
  }
  return [...parts, line.slice(begin)];
}

/**
 * Where a line is found again after the log was loaded anew: the same text nearest to its old index.
 * @param {string[]} lines
 * @param {string} line
 * @param {number} index
 */
export function findAgain(lines, line, index) {
  for (let distance = 0; distance < lines.length; distance++) {
    if (lines[index - distance] === line) {
      return index - distance;
    }
    if (lines[index + distance] === line) {
      return index + distance;
    }
  }
  return Math.min(index, lines.length - 1);
}

/**
 * The lines of a session's log as they came: a restarted camera appends what it may have written
 * before, so lines with a time of fractions of a second that are there twice are one, and what is
 * older stands in front.
 * @param {string[]} lines
 */
export function inOrder(lines) {
  /** @type {Set<string>} */
  const seen = new Set();
  /** @type {string[]} */
  const kept = [];
  let last = '';
  let ascending = true;
  for (const line of lines) {
    const stamp = line[19] === '.' && line[10] === 'T' ? line.slice(0, 26) : '';
    if (stamp !== '') {
      if (seen.has(line)) {
        continue;
      }
      seen.add(line);
      ascending &&= stamp >= last;
      last = stamp;
    }
    kept.push(line);
  }
  if (ascending) {
    return kept;
  }
  let stamp = '';
  return kept.map((line) => {
    stamp = line[10] === 'T' ? line.slice(0, 26) : stamp; // what has no time belongs to the line before
    return { line, stamp };
  }).sort((a, b) => Number(a.stamp > b.stamp) - Number(a.stamp < b.stamp)).map(({ line }) => line);
}
