// A chart as a picture for a report: title, what is drawn, legend, time span.

import { colour, lookOf } from './plot.js';
import { summaryOf, wallText } from './series.js';
import { valueText } from './units.js';

const EDGE = 16;
const LINE = 20;

/**
 * @param {string} title
 * @param {{canvas: () => HTMLCanvasElement | null, units: () => string}[]} plots
 * @param {import('./plot.js').Shown[]} shown
 * @param {[number, number]} range
 * @returns {Promise<Blob>} PNG
 */
export function chartPicture(title, plots, shown, range) {
  const drawn = plots.flatMap((plot) => {
    const canvas = plot.canvas();
    return canvas ? [{ canvas, unit: plot.units() }] : [];
  });
  const visible = shown.filter((one) => one.visible && !one.series.categories);
  const ratio = devicePixelRatio;
  const width = Math.max(320, ...drawn.map(({ canvas }) => canvas.width / ratio)) + 2 * EDGE;
  const height = drawn.reduce((sum, { canvas }) => sum + canvas.height / ratio, 0) + (visible.length + 3) * LINE + 2 * EDGE;
  const picture = document.createElement('canvas');
  picture.width = width * ratio;
  picture.height = height * ratio;
  const context = /** @type {CanvasRenderingContext2D} */ (picture.getContext('2d'));
  context.scale(ratio, ratio);
  context.fillStyle = colour('--surface');
  context.fillRect(0, 0, width, height);
  let y = EDGE + LINE / 2;
  /** @param {string} text @param {string} [font] @param {number} [x] */
  const write = (text, font = '13px system-ui, sans-serif', x = EDGE) => {
    context.font = font;
    context.fillStyle = colour('--text');
    context.fillText(text, x, y);
    y += LINE;
  };
  write(title, '600 15px system-ui, sans-serif');
  write(`${wallText(range[0])} to ${wallText(range[1])}${drawn.some(({ unit }) => unit) ? `, ${drawn.map(({ unit }) => unit).join(' ')}` : ''}`);
  for (const { canvas } of drawn) {
    context.drawImage(canvas, EDGE, y - LINE / 2, canvas.width / ratio, canvas.height / ratio);
    y += canvas.height / ratio;
  }
  y += LINE / 2;
  for (const { series, look } of visible) {
    const sum = summaryOf(series, ...range);
    context.fillStyle = lookOf(look).stroke;
    context.fillRect(EDGE, y - 6, 16, 3);
    write(sum ? `${series.name}: last ${valueText(sum.last, series.unit)}, least ${valueText(sum.min, series.unit)}, average ${
      valueText(sum.average, series.unit)}, most ${valueText(sum.max, series.unit)}` : series.name, undefined, EDGE + 24);
  }
  return new Promise((resolve, reject) => {
    picture.toBlob((blob) => (blob ? resolve(blob) : reject(new Error('no picture'))), 'image/png');
  });
}
