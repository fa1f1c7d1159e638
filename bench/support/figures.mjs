// A row of the table of figures, as ./bench/run gathers them: what, ours, the peer's in the same run,
// the ratio of the two, what it should be, and whether it is. All are costs: less is better.

/** Three digits or the whole number. @param {number} value */
const short = (value) => {
  if (value >= 100) return value.toFixed(0);
  if (value >= 10) return value.toFixed(1);
  return value.toFixed(value >= 0.1 ? 2 : 3);
};

/**
 * @param {string} what
 * @param {number} ours
 * @param {string} unit
 * @param {{ peer?: string, theirs?: number, ratio?: number, most?: number }} [beside]
 *     the peer with its value; the largest ratio, or the largest value of ours, that is good
 */
export function figure(what, ours, unit, { peer = "", theirs = NaN, ratio, most } = {}) {
  const found = ours / theirs;
  const aim = [ratio === undefined ? "" : `ratio ${ratio}`, most === undefined ? "" : `${most} ${unit}`].filter(Boolean).join(", ");
  const isMet = !(found > (ratio ?? Infinity)) && !(ours > (most ?? Infinity));
  console.log(`| ${[what, `${short(ours)} ${unit}`, peer && `${peer} ${short(theirs)} ${unit}`, peer && theirs > 0 ? short(found) : "",
    aim, aim && (isMet ? "met" : "missed")].join(" | ")} |`);
}

/** @param {number[]} values */
export const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)] ?? NaN;
