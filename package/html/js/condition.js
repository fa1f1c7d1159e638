// What a recording last says of the camera's own condition, out of the ends of its files.

import { readWhole } from './recording.js';

const END_BYTES = 16 * 1024; // of a file; a row of many streams is long

/**
 * @typedef {object} Measure
 * @property {string} name
 * @property {string} value as shown
 * @property {string} time
 */

/** "Main_board" as the parameter has it. @param {string} name */
const plainName = (name) => name.replaceAll('_', ' ');

/**
 * How the values of a file are shown, by its first column behind the time.
 * @type {Record<string, {name: (file: string) => string, value: (recorded: string) => string}>}
 */
const KINDS = {
  'Temperature (Celsius)': { name: (file) => `Temperature, ${plainName(file)}`, value: (recorded) => `${recorded} °C` },
  'Heater status': { name: plainName, value: (recorded) => recorded },
  'Fan status': { name: plainName, value: (recorded) => recorded },
  POWER_mW: { name: () => 'Power', value: (recorded) => (recorded === '' ? 'not measured' : `${recorded} mW`) },
  Streams: {
    name: () => 'Video streams',
    value(recorded) {
      const streams = recorded.split('+').map((stream) => stream.trim());
      return streams[0] === 'No streams' ? 'none' : streams.join('; ');
    },
  },
  '%Vsz': {
    name: () => 'Daemon’s memory and processor share',
    value: (recorded) => recorded.split(',').map((share) => `${share} %`).join(', '),
  },
};

/** Whether a file tells of the camera's condition. @param {string[]} columns but the time */
export const tellsCondition = (columns) => Object.hasOwn(KINDS, columns[0] ?? '');

/**
 * The last whole row, or null when there is none.
 * @param {string} path of the file in the session
 * @param {string[]} columns but the time
 * @param {string} end of the file
 * @returns {Measure | null}
 */
export function lastMeasure(path, columns, end) {
  const kind = KINDS[columns[0] ?? ''];
  const row = end.slice(0, end.lastIndexOf('\n') + 1).trimEnd().split('\n').at(-1) ?? '';
  const [, day, time, recorded = ''] = /^(\d{4}-\d\d-\d\d),(\d\d:\d\d:\d\d),(.*?)\r?$/.exec(row) ?? [];
  const file = path.slice(path.lastIndexOf('/') + 1).replace(/\.csv$/, '');
  return kind && day ? { name: kind.name(file), value: kind.value(recorded), time: `${day} ${time}` } : null;
}

/** Of the files whose columns are not listed, as those of an archive, those that may tell. */
const MAY_TELL = /\/monitoring_(?:environment\/[^/]+|self\/[^/]+|streams\/stream)\.csv$/;
const HEADER_BYTES = 1024;

/**
 * @param {import('./recording.js').Recording} recording
 * @param {{path: string, columns: string[], bytes: number}[]} files of it
 * @returns {Promise<Measure[]>}
 */
export async function readCondition(recording, files) {
  /** @type {Measure[]} */
  const measures = [];
  for (const { path, columns: listed, bytes } of files.filter((file) => tellsCondition(file.columns)
    || (file.columns.length === 0 && MAY_TELL.test(file.path)))) {
    const text = async (/** @type {number} */ from, /** @type {number} */ most) =>
      (await readWhole(recording, path, { from, most })).text();
    const columns = listed.length > 0 ? listed
      : (await text(0, HEADER_BYTES)).split(/\r?\n/)[0]?.split(',').slice(2).map((column) => column.trim()) ?? [];
    const end = await text(Math.max(0, bytes - END_BYTES), 2 * END_BYTES); // with what has come since
    const measure = lastMeasure(path, columns, end);
    if (measure) {
      measures.push(measure);
    }
  }
  return measures;
}
