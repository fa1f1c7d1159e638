// How numbers and times are shown.

/** @param {number} count @param {string} noun */
export function counted(count, noun) {
  return `${count.toLocaleString('en')} ${noun}${count === 1 ? '' : 's'}`;
}

/** @param {number} bytes */
export function byteSize(bytes) {
  if (bytes < 1000) {
    return `${bytes} B`;
  }
  const [unit, size] = bytes < 1e6 ? ['kB', 1e3] : bytes < 1e9 ? ['MB', 1e6] : ['GB', 1e9];
  return `${(bytes / Number(size)).toFixed(1)} ${unit}`;
}

/** Since a start, as "2 d 03:04:05". @param {number} seconds @param {boolean} [short] without seconds */
export function elapsedText(seconds, short = false) {
  const two = (/** @type {number} */ value) => String(Math.floor(value)).padStart(2, '0');
  const days = Math.floor(seconds / 86400);
  return `${days > 0 ? `${days} d ` : ''}${two(seconds / 3600 % 24)}:${two(seconds / 60 % 60)}${short ? '' : `:${two(seconds % 60)}`}`;
}

/** Time of day on the engineer's computer, as 09:30:05. @param {Date} date */
export function clock(date) {
  return date.toLocaleTimeString('en-GB');
}

/** On the engineer's computer, as 2024-05-17 09:30:05. @param {Date} date */
export function dateTime(date) {
  return date.toLocaleString('sv-SE');
}
