// A series as a line in small, without axes.

const [WIDTH, HEIGHT] = [96, 22];
const SVG = 'http://www.w3.org/2000/svg';

/** @param {import('./series.js').Series} series @param {string} [label] for those who can't see it */
export function sparkline({ times, values, categories }, label = '') {
  const picture = document.createElementNS(SVG, 'svg');
  picture.setAttribute('viewBox', `0 0 ${WIDTH} ${HEIGHT}`);
  picture.setAttribute('class', 'spark');
  picture.setAttribute('preserveAspectRatio', 'none');
  if (label === '') {
    picture.setAttribute('aria-hidden', 'true');
  } else {
    picture.setAttribute('role', 'img');
    picture.setAttribute('aria-label', label);
  }
  const known = values.filter((value) => value !== null);
  const [min, max] = [Math.min(...known), Math.max(...known)];
  const [first, last] = [times[0] ?? 0, times[times.length - 1] ?? 1];
  const points = times.flatMap((time, index) => {
    const value = values[index] ?? null;
    return value === null || categories ? [] : [`${((time - first) / (last - first || 1) * WIDTH).toFixed(1)},${
      (HEIGHT - 2 - (max > min ? (value - min) / (max - min) : 0.5) * (HEIGHT - 4)).toFixed(1)}`];
  });
  const line = document.createElementNS(SVG, 'polyline');
  line.setAttribute('points', points.join(' '));
  picture.append(line);
  return picture;
}
