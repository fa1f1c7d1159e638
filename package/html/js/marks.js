// What happened during a session, out of the names of its files and the lines of its log.

import { wallSeconds } from './series.js';

/**
 * @typedef {object} Mark
 * @property {number} time as on the camera's clock
 * @property {number} [until] where it lasted
 * @property {'session' | 'crash' | 'reboot' | 'storage' | 'trigger' | 'report'} kind
 * @property {string} text
 * @property {string} [path] of the file that tells more
 */

export const KIND_TITLES = {
  session: 'Session', crash: 'Crash', reboot: 'Restart', storage: 'Storage', trigger: 'Trigger', report: 'Report',
};

/** @type {[RegExp, Mark['kind'], (read: RegExpExecArray) => string][]} */
const LOG_LINES = [
  [/Continuing System Monitoring Session\. Device was rebooted/, 'reboot', () => 'The camera was restarted or lost power'],
  [/Connection to edge storage location re-established, connection was lost since (.*?)\. /, 'storage',
    ([, since]) => `The storage was back after ${since}`],
  [/Advanced Debug Mode: Found log message\.$/, 'trigger', () => 'A log message asked for a crash report'],
  [/Advanced Debug Mode: Crash Report generation interval reached/, 'trigger', () => 'A scheduled crash report was due'],
  [/Monitoring session stopped\./, 'session', () => 'The session was stopped'],
];
const LOG_TIME = /^(\d{4}-\d\d-\d\d)T(\d\d:\d\d:\d\d)\S*?([-+]\d\d):?(\d\d) /;

/** What the clock on the camera's wall was ahead of UTC, by a line of its log; null without one. @param {string} line */
export function zoneOf(line) {
  const [, , , hours, minutes] = LOG_TIME.exec(line) ?? [];
  return hours === undefined ? null : Number(hours) * 3600 + Math.sign(Number(`${hours}1`)) * Number(minutes) * 60;
}

/** @param {string} line @returns {Mark[]} */
export function markOfLine(line) {
  const stamp = LOG_TIME.exec(line);
  for (const [pattern, kind, told] of stamp ? LOG_LINES : []) {
    const read = pattern.exec(line);
    if (read && / Vandrel\[\d+\]: /.test(line)) {
      return [{ time: wallSeconds(stamp?.[1] ?? '', stamp?.[2] ?? ''), kind, text: told(read) }];
    }
  }
  return [];
}

/**
 * The daemon's own events among those that the device's event listener printed: "Timestamp: " with the
 * time in UTC, then the topics.
 * @param {string[]} lines
 * @param {number} zone seconds that the camera's clock is ahead of UTC
 * @returns {Mark[]}
 */
export function marksOfEvents(lines, zone) {
  let time = NaN;
  return lines.flatMap((line) => {
    const [, day = '', clock = ''] = /^Timestamp: (\d{4}-\d\d-\d\d)T(\d\d:\d\d:\d\d)/.exec(line) ?? [];
    if (line.startsWith('Timestamp: ')) {
      time = wallSeconds(day, clock) + zone;
    }
    const name = line.includes("topic1 = 'Vandrel'") ? /topic2 = '([^']*)'/.exec(line)?.[1] ?? '' : '';
    const [, number] = /^systemlogs_(\d+)$/.exec(name) ?? [];
    const [, not, address, port] = /^nfd_(not_)?ip(.+)p(-?\d+)$/.exec(name) ?? [];
    const text = number ? `Log trigger ${number} found its message`
      : address ? `The device test ${not ? 'did not reach' : 'reached'} ${
        address.replace(/(?<=\d)o(?=\d)/g, '.')}${port === '-1' ? '' : `, port ${port}`}` : '';
    return text === '' ? [] : [{ time, kind: /** @type {const} */ ('trigger'), text }];
  });
}

/**
 * @param {string} path
 * @param {number} zone seconds that the camera's clock is ahead of UTC
 * @param {number} changed when the file was changed last, by the camera's clock; NaN when not known
 * @returns {Mark[]}
 */
export function markOfFile(path, zone, changed) {
  const name = path.slice(path.lastIndexOf('/') + 1);
  const core = /^coredumps\/core\.(.+?)\.\d+\..+\.(\d{9,11})$/.exec(path);
  if (core) {
    return [{ time: Number(core[2]) + zone, kind: 'crash', text: `${core[1]?.replaceAll('!', '/')} crashed`, path }];
  }
  if (/^coredumps\/.*\.elf\.lzo$/.test(path)) {
    return [{ time: changed, kind: 'crash', text: `Dump of the kernel: ${name}`, path }];
  }
  const report = /^(Server_Report|Debug)_(\d{4}-\d\d-\d\d)T(\d\d)(\d\d)(\d\d)/.exec(name);
  if (report) {
    const time = wallSeconds(report[2] ?? '', `${report[3]}:${report[4]}:${report[5]}`);
    const text = report[1] === 'Debug' ? 'Crash report' : 'Server report';
    return [{ time, kind: 'report', text, path }];
  }
  return [];
}

/**
 * In the order of their times, each once.
 * @param {Mark[]} marks
 */
export function sortedMarks(marks) {
  const once = new Map(marks.filter(({ time }) => Number.isFinite(time))
    .map((mark) => [`${mark.time} ${mark.kind} ${mark.text}`, mark]));
  return [...once.values()].sort((a, b) => a.time - b.time);
}
