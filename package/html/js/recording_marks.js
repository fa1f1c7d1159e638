// Reads what happened in a recording: the end of its log, its events, the names of its files. Needs no
// page.

import { LOG } from './catalogue.js';
import { markOfFile, markOfLine, marksOfEvents, marksOfHoles, sortedMarks, triggerNames, zoneOf } from './marks.js';
import { holes, orderedTimes, wallSeconds } from './series.js';

const EVENTS = 'system_monitoring/monitoring_metadata/eventlistener.txt';
const REGULAR = 'system_monitoring/monitoring_load/load.csv'; // has a row in every collection
const REPORT = /\/Server_Report_[^/]*\.txt$/;

const IMAGE = /\/monitoring_snapshots\/(\d{4})(\d\d)(\d\d)T(\d\d)(\d\d)(\d\d)\.jpg$/;

/** @typedef {import('./marks.js').Mark} Mark */

/** The still images, by their times. @template {{path: string}} File @param {File[]} files @returns {(File & {time: number})[]} */
export function imagesOf(files) {
  return files.flatMap((file) => {
    const [, year, month, day, hour, minute, second] = IMAGE.exec(file.path) ?? [];
    const time = wallSeconds(`${year}-${month}-${day}`, `${hour}:${minute}:${second}`);
    return Number.isNaN(time) ? [] : [{ ...file, time }];
  }).sort((a, b) => a.time - b.time);
}

/**
 * @param {ReturnType<typeof import('./session_series.js').createSource>} source
 * @param {import('./recording.js').Contents} contents
 * @param {[string, string][]} information of the session
 * @returns {Promise<Mark[]>} in the order of their times, each once
 */
export async function readMarks(source, contents, information) {
  const linesOf = async (/** @type {string | undefined} */ path) =>
    (path !== undefined && contents.files.some((file) => file.path === path) ? source.logLines(path) : []);
  const log = await linesOf(LOG);
  // Names of cores have the time in UTC. The zone stands in the device's log, which a report has too.
  const report = contents.files.find(({ path }) => REPORT.test(path))?.path;
  const zoneIn = (/** @type {string[]} */ lines) => {
    const line = lines.find((one) => zoneOf(one) !== null);
    return line === undefined ? null : zoneOf(line);
  };
  const zone = zoneIn(log) ?? zoneIn(await linesOf(report)) ?? 0;
  const found = [...log.flatMap(markOfLine), ...marksOfEvents(await linesOf(EVENTS), zone, triggerNames(log))];
  for (const { path, time, utc } of [...contents.files, ...contents.left ?? []]) {
    const [day = '', clock = ''] = time.split(' ');
    found.push(...markOfFile(path, zone, utc === null ? wallSeconds(day, clock) : utc + zone));
  }
  for (const [name, value] of information) {
    const [day = '', clock = ''] = value.split(' ');
    if (/^(?:Start|Stop) Time of the session$/.test(name)) {
      found.push({ time: wallSeconds(day, clock), kind: 'session', text: name.startsWith('Start') ? 'The session was started' : 'The session was stopped' });
    }
  }
  return sortedMarks([...found, ...marksOfHoles(holes(await readTimes(source, contents)), found)]);
}

/** The times of the rows. @param {ReturnType<typeof import('./session_series.js').createSource>} source @param {import('./recording.js').Contents} contents */
export async function readTimes(source, contents) {
  return contents.csv.some(({ path }) => path === REGULAR) ? orderedTimes((await source.table(REGULAR, /./)).times) : [];
}
