// What numbers are measured in, and how they are written: in the multiple of the unit that suits
// their size. Pure.

const BYTES = [['B', 1], ['kB', 1e3], ['MB', 1e6], ['GB', 1e9], ['TB', 1e12]];

/**
 * The multiples of each unit, with what one is of the unit itself. What is not listed stays as it is.
 * @type {Record<string, (string | number)[][]>}
 */
const MULTIPLES = {
  B: BYTES,
  'B/s': BYTES.map(([name, size]) => [`${name}/s`, size ?? 1]),
  s: [['µs', 1e-6], ['ms', 1e-3], ['s', 1]],
  W: [['mW', 1e-3], ['W', 1]],
  V: [['mV', 1e-3], ['V', 1]],
  A: [['mA', 1e-3], ['A', 1]],
};

/** @typedef {{text: string, size: number}} Scale what stands at the axis, and its size in the unit */

/**
 * The multiple of a unit in which a value is best written.
 * @param {string} unit
 * @param {number} most the largest of the values
 * @returns {Scale}
 */
export function scaleOf(unit, most) {
  const multiples = MULTIPLES[unit];
  if (!multiples) {
    return { text: unit, size: 1 };
  }
  const fitting = multiples.filter(([, size]) => Math.abs(most) >= Number(size));
  const [text, size] = fitting.at(-1) ?? multiples.find(([, size]) => most === 0 && size === 1) ?? multiples[0] ?? [unit, 1];
  return { text: String(text), size: Number(size) };
}

/** "1,234", "12.5", "0.003": at most four digits that tell something. @param {number} value */
export function numberText(value) {
  const size = Math.abs(value);
  return size >= 1e6 || Number.isInteger(value) ? Math.round(value).toLocaleString('en')
    : value.toLocaleString('en', { maximumSignificantDigits: size >= 1000 ? 6 : 4 });
}

/** With its unit: "12.5 MB". @param {number | null | undefined} value @param {string} [unit] */
export function valueText(value, unit = '') {
  if (value === null || value === undefined) {
    return '';
  }
  const { text, size } = scaleOf(unit, value);
  const number = numberText(value / size);
  return text === '%' || text === '' ? `${number}${text}` : text === '1/s' ? `${number}/s` : `${number} ${text}`;
}

const STATES = /** @type {const} */ ([['bad', /^(?:not |lost|fail|d$|z$|error)/i], ['good', /^(?:run|reach|ok|s$|r$|on\b)/i], ['quiet', /^(?:stopp|off|no\b|none)/i]]);
/** What a state's word says of it; "" where it says nothing. @param {string} state */
export const toneOf = (state) => STATES.find(([, words]) => words.test(state))?.[0] ?? '';
