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
  return bytes < 1e6 ? `${(bytes / 1e3).toFixed(1)} kB` : `${(bytes / 1e6).toFixed(1)} MB`;
}

/** Time of day on the engineer's computer, as 09:30:05. @param {Date} date */
export function clock(date) {
  return date.toLocaleTimeString('en-GB');
}
