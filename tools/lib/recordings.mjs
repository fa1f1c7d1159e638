// The sessions that are read: zip archives by the page's own reader, and folders.

import { createReadStream, openAsBlob } from 'node:fs';
import { readdir, stat } from 'node:fs/promises';
import { basename, join } from 'node:path';
import { openArchive } from '../../package/html/js/archive_file.js';
import { readWhole } from '../../package/html/js/recording.js';

const INFORMATION = 'Session_Information.txt';
const LOG = 'system_monitoring/monitoring_basic/Continuous_Syslog.txt';
const LOG_START = 4096; // bytes, in which the zone is looked for
const MOST_INFORMATION = 1 << 20;
const DEEPEST = 8;

/**
 * A session with what its information file and its log say.
 * @typedef {object} Session
 * @property {string} name as told in messages
 * @property {import('../../package/html/js/recording.js').Recording} recording
 * @property {string[]} paths of its CSV files
 * @property {string} serial
 * @property {string} model
 * @property {string} firmware
 * @property {string} storage
 * @property {string} folder the session's, as "20230531_08_27_40"
 * @property {(wall: number) => number} utcOf what the camera's clock showed, in seconds since 1970 as if
 *     it showed UTC, as seconds since 1970
 */

/** The files below a folder, links left out. @param {string} folder @param {string} [below] @param {number} [depth] @returns {Promise<string[]>} */
async function filesBelow(folder, below = '', depth = 0) {
  const entries = await readdir(join(folder, below), { withFileTypes: true });
  const found = await Promise.all(entries.map((entry) => {
    const path = below + entry.name;
    return entry.isFile() ? [path]
      : entry.isDirectory() && depth < DEEPEST ? filesBelow(folder, `${path}/`, depth + 1) : [];
  }));
  return found.flat();
}

/** @param {string} folder @returns {import('../../package/html/js/recording.js').Recording} */
function folderRecording(folder) {
  return {
    title: basename(folder),
    offline: true,
    async list() {
      const paths = await filesBelow(folder);
      return { csv: paths.filter((path) => path.endsWith('.csv')).map((path) => ({ path, columns: [], bytes: 0 })), files: [], complete: true };
    },
    async read(path, onPiece, { from = 0, most = Infinity } = {}) {
      for await (const piece of createReadStream(join(folder, path), { start: from, end: from + most - 1 })) {
        onPiece(piece);
      }
    },
    async save() {},
  };
}

/** A file's text, "" when it can't be read. @param {import('../../package/html/js/recording.js').Recording} recording @param {string} path @param {number} most */
const textOf = (recording, path, most) => readWhole(recording, path, { most }).then((blob) => blob.text(), () => '');

/** Seconds by which a zone's clocks are ahead of UTC at a time. @param {string} zone */
function zoneReader(zone) {
  const format = new Intl.DateTimeFormat('en', {
    timeZone: zone, hourCycle: 'h23', year: 'numeric', month: 'numeric', day: 'numeric', hour: 'numeric', minute: 'numeric', second: 'numeric',
  });
  return (/** @type {number} */ utc) => {
    const part = Object.fromEntries(format.formatToParts(utc * 1000).map(({ type, value }) => [type, Number(value)]));
    return Date.UTC(part.year, part.month - 1, part.day, part.hour, part.minute, part.second) / 1000 - utc;
  };
}

/** @param {string} zone @returns {(wall: number) => number} */
function wallToUtc(zone) {
  const ahead = zoneReader(zone);
  const known = new Map(); // a zone changes on the hour, or a quarter of it
  return (wall) => {
    const quarter = Math.floor(wall / 900);
    let offset = known.get(quarter);
    if (offset === undefined) {
      const guess = quarter * 900 - ahead(quarter * 900);
      offset = ahead(guess);
      known.set(quarter, offset);
    }
    return wall - offset;
  };
}

/** "2026-11-21T08:46:09.123456+01:00 camera [ INFO ] ...": seconds ahead of UTC. @param {string} log */
function offsetOf(log) {
  const found = /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(?:\.\d+)?(?:Z|([-+])(\d\d):(\d\d)) /m.exec(log);
  return found && (found[1] ? (found[1] === '-' ? -1 : 1) * (Number(found[2]) * 3600 + Number(found[3]) * 60) : 0);
}

/**
 * @param {string} name
 * @param {import('../../package/html/js/recording.js').Recording} recording
 * @param {{zone?: string, complain: (words: string) => void}} options
 * @returns {Promise<Session>}
 */
async function sessionOf(name, recording, { zone, complain }) {
  const contents = await recording.list();
  const information = await textOf(recording, INFORMATION, MOST_INFORMATION);
  /** @param {string} field */
  const told = (field) => new RegExp(`^${field}: *(.*?)\\s*$`, 'm').exec(information)?.[1] ?? '';
  let utcOf = zone === undefined ? undefined : wallToUtc(zone);
  if (!utcOf) {
    const offset = offsetOf(await textOf(recording, LOG, LOG_START));
    if (offset === null) {
      complain(`${name}: its time zone is not told; taken for UTC (see --zone)`);
    }
    utcOf = (wall) => wall - (offset ?? 0);
  }
  return {
    name, recording, utcOf,
    paths: contents.csv.map(({ path }) => path).sort(),
    serial: told('Serial Number'), model: told('Model Name'), firmware: told('Firmware version'),
    storage: told('Edge storage location'),
    folder: /(\d{8}_\d\d_\d\d_\d\d)[^/]*$/.exec(name)?.[1] ?? '',
  };
}

/**
 * The sessions that some paths name, in their order; what can't be opened is complained of.
 * @param {string[]} paths
 * @param {{zone?: string, complain: (words: string) => void}} options
 * @returns {Promise<Session[]>}
 */
export async function openRecordings(paths, options) {
  /** @type {Session[]} */
  const sessions = [];
  /** @param {string} path @param {boolean} isNamed by the caller @param {number} depth */
  async function open(path, isNamed, depth) {
    const kind = await stat(path);
    if (kind.isFile() && (isNamed || path.endsWith('.zip'))) {
      const file = Object.assign(await openAsBlob(path), { name: basename(path) });
      const { recording, remarks } = await openArchive(/** @type {File} */ (/** @type {unknown} */ (file)));
      if (remarks !== '') {
        options.complain(`${path}: ${remarks}`);
      }
      sessions.push(await sessionOf(path, recording, options));
    } else if (kind.isDirectory()) {
      const names = (await readdir(path)).sort();
      if (names.includes(INFORMATION) || names.includes('system_monitoring')) {
        sessions.push(await sessionOf(path, folderRecording(path), options));
      } else if (depth < DEEPEST) {
        for (const name of names) {
          await openOrComplain(join(path, name), false, depth + 1);
        }
      }
    }
  }
  /** @param {string} path @param {boolean} isNamed @param {number} depth */
  async function openOrComplain(path, isNamed, depth) {
    try {
      await open(path, isNamed, depth);
    } catch (error) {
      options.complain(`${path}: ${/** @type {Error} */ (error).message}`);
    }
  }
  for (const path of paths) {
    await openOrComplain(path, true, 0);
  }
  return sessions;
}
