// What a session last recorded of the camera's own condition, out of the ends of its files.

import { request } from './api.js';

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

/**
 * @param {string} session
 * @param {{path: string, columns: string[], bytes: number}[]} files of the session
 * @returns {Promise<Measure[]>}
 */
export async function readCondition(session, files) {
  /** @type {Measure[]} */
  const measures = [];
  for (const { path, columns, bytes } of files.filter((file) => tellsCondition(file.columns))) {
    const end = await request('view_monitor_data', {
      storage: session, file: path, offset: String(Math.max(0, bytes - END_BYTES)),
      length: String(2 * END_BYTES), // with what has come since
    });
    const measure = lastMeasure(path, columns, end);
    if (measure) {
      measures.push(measure);
    }
  }
  return measures;
}
