// What the daemon tells about sessions, brought into one form whatever is missing or odd in it.

const MINUTES_A_DAY = 1440;

/** Storages that most cameras have, by the name that the daemon knows them by. */
export const STORAGES = [
  { name: 'SD_DISK', title: 'SD card' },
  { name: 'NetworkShare', title: 'Network share' },
  { name: 'HARD_DISK', title: 'Hard disk' },
  { name: 'localdata', title: 'Internal storage' },
];

/**
 * @typedef {object} Session
 * @property {string} path
 * @property {string} title its start, or the folder's name where that is no time stamp
 * @property {string} storage as shown
 * @property {string} serial of the camera that recorded it, "" on the internal storage
 * @property {string} start
 * @property {string} end
 * @property {number} bytes
 * @property {string[]} monitors
 * @property {boolean} lost not ended in order, or not reachable
 * @property {boolean} zipped an archive exists, complete or still being written
 * @property {boolean} running
 */

/**
 * @typedef {object} Camera
 * @property {boolean} active whether a session runs
 * @property {string} directory of the running session
 * @property {string} storage as shown
 * @property {string} startTime
 * @property {number} minutes that the session has been active
 * @property {number | null} lostMinutes since when its storage can't be used; null while it can
 * @property {{log: boolean, interval: boolean, minutes: number}} debug
 * @property {Maintenance} maintenance
 * @property {number} triggers how many log triggers there are
 * @property {Device} device
 * @property {Session[]} sessions newest first, the lost ones behind
 */

/**
 * @typedef {object} Schedule
 * @property {number} minutes of the interval, 0 without one
 * @property {number} minutesLeft until it is due
 * @property {string} times of day, as set; "" without
 */

/**
 * @typedef {object} Maintenance
 * @property {Schedule} restart
 * @property {Schedule} ptz
 * @property {string} server of the remote log, "" when the camera names none
 */

/**
 * @typedef {object} Device
 * @property {string} model
 * @property {string} firmware
 * @property {string} serial
 * @property {string} type
 * @property {string} architecture
 * @property {string} ip
 * @property {string} mac
 * @property {string} resolutions
 * @property {string} time
 * @property {string} logDaemon
 * @property {boolean} images whether still images can be taken
 */

/** @param {unknown} value @returns {Record<string, unknown>} */
function record(value) {
  return value !== null && typeof value === 'object' && !Array.isArray(value)
    ? /** @type {Record<string, unknown>} */ (value) : {};
}

/** @param {unknown} value @returns {unknown[]} */
export function list(value) {
  return Array.isArray(value) ? value : [];
}

/** @param {unknown} value */
export function text(value) {
  return typeof value === 'string' || typeof value === 'number' ? String(value).trim() : '';
}

/** @param {unknown} value */
export function number(value) {
  const read = Number(value ?? 0);
  return Number.isFinite(read) ? read : 0;
}

/**
 * "/var/spool/storage/SD_DISK/Vandrel_A1B2C3D4E5F6/20230531_08_27_40": on "SD card", recorded by
 * camera A1B2C3D4E5F6.
 * @param {string} path
 */
export function partsOfPath(path) {
  const [, name = '', serial = ''] = /^\/var\/spool\/storage\/([^/]+)\/Vandrel_([^/]*)\//.exec(path)
    ?? [];
  const storage = name || (path.startsWith('/usr/local/packages/') ? 'localdata' : '');
  const folder = path.slice(path.lastIndexOf('/') + 1);
  const stamp = /^(\d{4})(\d\d)(\d\d)_(\d\d)_(\d\d)_(\d\d)$/.exec(folder);
  return {
    serial,
    storage: STORAGES.find((known) => known.name === storage)?.title ?? storage,
    title: stamp ? `${stamp[1]}-${stamp[2]}-${stamp[3]} ${stamp[4]}:${stamp[5]}:${stamp[6]}` : folder,
  };
}

const MONTHS = ['Jan', 'Feb', 'Mar', 'Apr', 'May', 'Jun', 'Jul', 'Aug', 'Sep', 'Oct', 'Nov', 'Dec'];

/**
 * "Wed May 31 08:27:40 CEST 2023" as "2023-05-31 08:27:40 CEST"; any other text as it is.
 * @param {string} told
 */
export function deviceTime(told) {
  const [, name = '', day = '', clock, zone, year] =
    /^\w{3} (\w{3}) +(\d{1,2}) (\d\d:\d\d:\d\d) (\S+) (\d{4})$/.exec(told) ?? [];
  const month = MONTHS.indexOf(name) + 1;
  return month === 0 ? told
    : `${year}-${String(month).padStart(2, '0')}-${day.padStart(2, '0')} ${clock} ${zone}`;
}

/** As "3 days 2 h 5 min". @param {number} minutes */
export function duration(minutes) {
  const days = Math.floor(minutes / MINUTES_A_DAY);
  const hours = Math.floor(minutes / 60) % 24;
  return [
    days > 0 ? `${days} ${days === 1 ? 'day' : 'days'}` : '',
    hours > 0 ? `${hours} h` : '',
    minutes % 60 > 0 || minutes < 60 ? `${minutes % 60} min` : '',
  ].filter(Boolean).join(' ');
}

/** @param {unknown} value @param {boolean} lost @param {string} runningPath @returns {Session[]} */
function sessionOf(value, lost, runningPath) {
  const told = record(value);
  const path = text(told.Path);
  if (path === '') {
    return [];
  }
  return [{
    path,
    ...partsOfPath(path),
    start: deviceTime(text(told.StartTime)),
    end: deviceTime(text(told.EndTime)),
    bytes: number(told.size),
    // The first one is always there and means nothing.
    monitors: list(told.Monitoring).slice(1).map((monitor) => text(record(monitor).Monitor))
      .filter(Boolean),
    lost,
    zipped: told.zipping === 'no', // "yes" stands for: no archive yet
    running: path === runningPath,
  }];
}

/** @param {Record<string, unknown>} told @param {string} name @returns {Schedule} */
function scheduleOf(told, name) {
  const minutes = number(told[`${name}_interval`]) === 1 ? number(told[`${name}_timer`]) : 0;
  const times = text(told[`${name}_given_times`]);
  return {
    minutes,
    minutesLeft: Math.max(0, number(told[`${name}_starting`]) + minutes - number(told.current_tick)),
    times: times === 'None' ? '' : times,
  };
}

/**
 * The reply to list_data.
 * @param {unknown} value
 * @returns {Camera}
 */
export function cameraOf(value) {
  const told = record(value);
  const device = record(told.device);
  const miscellaneous = record(told.miscellaneous);
  const debug = record(miscellaneous.advanced_debug_mode);
  const server = text(miscellaneous.syslog_remote_server);
  const active = number(told.active) === 1;
  const directory = active ? text(told.current_storage) : '';
  const lost = number(told.connection_lost_count);
  const newestFirst = (/** @type {Session} */ a, /** @type {Session} */ b) =>
    Number(a.title < b.title) - Number(a.title > b.title);
  const startTime = deviceTime(text(told.monitor_start_time));
  const found = list(told.sessions).flatMap((one) => sessionOf(one, false, directory));
  if (active && found.every(({ running }) => !running)) {
    // The lists are collected every second minute.
    found.push({ path: directory, ...partsOfPath(directory), start: startTime, end: '', bytes: 0,
      monitors: [], lost: false, zipped: false, running: true });
  }
  return {
    active,
    directory,
    storage: partsOfPath(directory).storage,
    startTime,
    minutes: number(told.monitor_active_minutes_count),
    lostMinutes: active && (lost > 0 || text(told.space) === '0') ? lost : null,
    debug: {
      log: number(debug['status-log']) === 1,
      // After a restart only the minutes tell.
      interval: number(debug['status-interval']) === 1 || number(debug.crash_recurrence) > 0,
      minutes: number(debug.crash_recurrence),
    },
    maintenance: {
      restart: scheduleOf(miscellaneous, 'automatic_restart'),
      ptz: scheduleOf(miscellaneous, 'ptz_test'),
      server: server === 'None' ? '' : server,
    },
    triggers: list(told.systemlog_trigger_rules).length,
    device: {
      model: text(device.Model),
      firmware: text(device.FW),
      serial: text(device.SerialNumber),
      type: text(device.Prodtype),
      architecture: text(device.Architecture),
      ip: text(device.IP),
      mac: text(device.MAC),
      resolutions: text(device.Resolutions).replace(/,\s*/g, ', '),
      time: text(device.Time),
      logDaemon: [
        number(device['rsyslog-installed']) ? 'rsyslog' : '',
        number(device['syslog-ng-installed']) ? 'syslog-ng' : '',
      ].filter(Boolean).join(', ') || 'not known',
      images: number(device.libcapture) === 1,
    },
    sessions: [
      ...found.sort(newestFirst),
      ...list(told.broken_sessions).flatMap((one) => sessionOf(one, true, directory))
        .filter(({ running }) => !running).sort(newestFirst),
    ],
  };
}

/** Whether this camera recorded the session. @param {Session} session @param {string} serial */
export function isOwn(session, serial) {
  return session.serial === '' || serial === '' || session.serial === serial;
}

/** Whether another camera seems to record it just now. @param {Session} session @param {string} serial */
export function runsElsewhere(session, serial) {
  return !isOwn(session, serial) && session.end === 'Still active';
}

/**
 * The lines of a session's Session_Information.txt as pairs; a line without a colon, and the
 * indented ones of a list, go on with the value before.
 * @param {string} told
 */
export function informationOf(told) {
  /** @type {[string, string][]} */
  const pairs = [];
  for (const line of told.split(/\r?\n/)) {
    const [, key, value] = /^(\S[^:]*):\s*(.*?)\s*$/.exec(line) ?? [];
    const last = pairs.at(-1);
    if (key !== undefined && value !== undefined) {
      pairs.push([key, deviceTime(value)]);
    } else if (line.trim() !== '' && last) {
      last[1] += `${last[1] === '' ? '' : '\n'}${line.trim()}`;
    }
  }
  return pairs;
}

/** What the folders of a session hold, where their names do not say it. @type {Record<string, string>} */
const MONITORS = {
  koral: 'HTTP API', vela: 'packages', vela_configs: 'configurations of packages', vmstatus: 'memory of processes', topstatus: 'processor of processes',
  meminfo: 'memory', slabinfo: 'kernel objects', self: 'this package', onvif: 'ONVIF', basic: 'logs and reports', snapshots: 'images',
  environment: 'temperature and power', devicetest: 'device test', metadata: 'events', streams: 'video streams',
};

/** "monitoring_kernel" as "kernel". @param {string} name */
export function monitorTitle(name) {
  const short = name.replace(/^monitoring_/, '');
  return MONITORS[short] ?? short.replaceAll('_', ' ');
}
