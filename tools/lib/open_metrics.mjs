// The rows of sessions as OpenMetrics samples with time stamps, under the names and labels that the
// daemon's action "metrics" has. The samples of a family stand together, as the format wants it, so a
// file is read once for each family that it has something of; no more than one is in memory, or, of
// processes, those of one name.

import { joined, tableReader } from '../../package/html/js/series.js';

const KIB = 1024;
const WRITTEN_AT_ONCE = 1 << 18; // characters

/**
 * One thing's samples.
 * @typedef {object} Samples
 * @property {Record<string, string>} labels
 * @property {number[]} times as the camera's clock showed them
 * @property {(number | null)[]} values
 */

/** @typedef {import('../../package/html/js/series.js').Table} Table */
/** @typedef {import('./recordings.mjs').Session} Session */

/**
 * @typedef {object} Family
 * @property {string} name without "_total" and "_info"
 * @property {'gauge' | 'counter' | 'info' | 'unknown'} type
 * @property {string} help
 * @property {string} [unit]
 * @property {RegExp} path of its files, below system_monitoring
 * @property {RegExp} [columns] that are read
 * @property {(table: Table, match: RegExpExecArray, session: Session) => Samples[]} samples
 * @property {boolean} [added] the files of one first match are of one thing, and added up
 */

/** @param {Table} table @param {string | RegExp} name @returns {(number | null)[]} */
function numbersOf(table, name) {
  const column = table.columns.find((one) => (typeof name === 'string' ? one.name === name : name.test(one.name)));
  return column && !column.texts ? column.values : [];
}
/** A row's cell as text. @param {Table} table @param {string} name @param {number} row */
function cellOf(table, name, row) {
  const column = table.columns.find((one) => one.name.toLowerCase() === name);
  const value = column?.values[row] ?? null;
  return value === null ? '' : column?.texts ? column.texts[value] ?? '' : String(value);
}

/** A family of one column. @param {string | RegExp} column @param {(match: RegExpExecArray) => Record<string, string>} labels @param {number} [factor] */
const ofColumn = (column, labels, factor = 1) => (/** @type {Table} */ table, /** @type {RegExpExecArray} */ match) => [{
  labels: labels(match), times: table.times, values: numbersOf(table, column).map((value) => (value === null ? null : value * factor)),
}];

/**
 * The rows by what they tell of.
 * @param {Table} table
 * @param {(row: number) => Record<string, string> | null} labelsOf
 * @param {(row: number) => number | null} valueOf
 */
function byLabels(table, labelsOf, valueOf) {
  /** @type {Map<string, Samples>} */
  const things = new Map();
  for (const [row, time] of table.times.entries()) {
    const labels = labelsOf(row);
    if (labels) {
      const key = JSON.stringify(labels);
      const thing = things.get(key) ?? { labels, times: [], values: [] };
      things.set(key, thing);
      thing.times.push(time);
      thing.values.push(valueOf(row));
    }
  }
  return [...things.values()];
}

const NETWORK = /^monitoring_network\/(?!network\.csv$)([^/]+)\.csv$/;
const PROCESS = /^monitoring_vmstatus\/([^/]+)\/[^/]+\/vmstatus\.csv$/;
const HOSTS = /^monitoring_devicetest\/devicetest_snapshots\.csv$/;
const RECEIVED = ['bytes', 'packets', 'errs', 'drop', 'fifo', 'frame', 'compressed', 'multicast'];
const SENT = ['bytes', 'packets', 'errs', 'drop', 'fifo', 'colls', 'carrier', 'compressed'];

/** @param {string} word @param {string} title @param {string[]} fields @returns {Family[]} */
const networkFamilies = (word, title, fields) => fields.map((field) => ({
  name: `node_network_${word}_${field}`, type: 'counter', help: `Network device statistic ${word}_${field}.`,
  unit: field === 'bytes' ? 'bytes' : undefined, path: NETWORK, columns: new RegExp(`^${title}: ${field}$`),
  samples: ofColumn(`${title}: ${field}`, ([, device = '']) => ({ device })),
}));

/** @param {string} name @param {'gauge' | 'counter'} type @param {string} help @param {string} column @returns {Family} */
const hostFamily = (name, type, help, column) => ({
  name: `vandrel_device_test_${name}`, type, help, path: HOSTS,
  samples: (table) => {
    const values = numbersOf(table, column);
    return byLabels(table, (row) => {
      const port = cellOf(table, 'port', row);
      return { host: cellOf(table, 'address', row), port: port === '-1' ? 'icmp' : port, name: cellOf(table, 'name', row) };
    }, (row) => values[row] ?? null);
  },
});

/** What a heater or fan does, 1 for each. @param {string} word @param {RegExp} path @returns {Family} */
const statusFamily = (word, path) => ({
  name: `vandrel_${word}_status`, type: 'gauge', help: `1 for what the ${word} does.`, path,
  samples: (table, [, number = '']) => byLabels(table, (row) => {
    const status = cellOf(table, `${word} status`, row);
    return status === '' ? null : { [word]: number, status };
  }, () => 1),
});

/** @param {string} name @param {string} help @param {string} column @param {string} [unit] @param {number} [factor] @returns {Family} */
const processFamily = (name, help, column, unit, factor) => ({
  name: `vandrel_process${name}`, type: 'gauge', help, unit, path: PROCESS, added: true,
  samples: column === '' ? (table, [, process = '']) => [{ labels: { process }, times: table.times, values: table.times.map(() => 1) }]
    : ofColumn(column, ([, process = '']) => ({ process }), factor),
});

/** The memory's fields have a family each. @param {Session[]} sessions @returns {Family[]} */
function memoryFamilies(sessions) {
  const path = /^system_monitoring\/monitoring_meminfo\/([^/]+)\.csv$/;
  const fields = new Set(sessions.flatMap(({ paths }) => paths.flatMap((one) => path.exec(one)?.[1] ?? [])));
  return [...fields].filter((field) => /^[A-Za-z][\w()]*$/.test(field)).sort().map((field) => {
    const inBytes = !field.startsWith('HugePages_');
    const name = field.replaceAll('(', '_').replaceAll(')', '') + (inBytes ? '_bytes' : '');
    return {
      name: `node_memory_${name}`, type: 'gauge', help: `Memory information field ${name}.`, unit: inBytes ? 'bytes' : undefined,
      path: new RegExp(`^monitoring_meminfo/${field.replace(/[()]/g, '\\$&')}\\.csv$`),
      samples: ofColumn(/^Memory /, () => ({}), inBytes ? KIB : 1),
    };
  });
}

/** @param {Session[]} sessions @returns {Family[]} */
function familiesOf(sessions) {
  const load = /^monitoring_load\/load\.csv$/;
  const faults = /^monitoring_kernel\/pagefaults\.csv$/;
  return [
    {
      name: 'vandrel_device', type: 'info', help: 'The device; what it does not tell is empty.', path: load,
      samples: (table, _, { serial, model, firmware }) => [{ labels: { serial, model, firmware, architecture: '' }, times: table.times, values: table.times.map(() => 1) }],
    },
    {
      name: 'vandrel_session', type: 'info', help: 'The running monitoring session.', path: load,
      samples: (table, _, { storage, folder }) => [{ labels: { folder, storage }, times: table.times, values: table.times.map(() => 1) }],
    },
    ...[1, 5, 15].map((minutes) => /** @type {Family} */ ({
      name: `node_load${minutes}`, type: 'gauge', help: `${minutes}m load average.`, path: load,
      samples: ofColumn(`Load average (${minutes} min)`, () => ({})),
    })),
    ...memoryFamilies(sessions),
    { name: 'node_vmstat_pgfault', type: 'unknown', help: '/proc/vmstat information field pgfault.', path: faults, samples: ofColumn('MINOR_FAULTS', () => ({})) },
    { name: 'node_vmstat_pgmajfault', type: 'unknown', help: '/proc/vmstat information field pgmajfault.', path: faults, samples: ofColumn('MAJOR_FAULTS', () => ({})) },
    {
      name: 'node_buddyinfo_blocks', type: 'gauge', help: 'Count of free blocks according to size.', path: /^monitoring_kernel\/buddyinfo\.csv$/,
      samples: (table) => table.columns.flatMap(({ name, values, texts }) => {
        const size = Math.log2(parseInt(name, 10) / 4);
        return texts || !Number.isInteger(size) ? [] : byLabels(table, (row) => {
          const zone = cellOf(table, 'zone', row);
          return zone === 'Total' ? null : { node: '0', zone, size: String(size) };
        }, (row) => values[row] ?? null);
      }),
    },
    ...networkFamilies('receive', 'Receive', RECEIVED),
    ...networkFamilies('transmit', 'Transmit', SENT),
    {
      name: 'vandrel_temperature_celsius', type: 'gauge', help: 'Temperature at a sensor.', unit: 'celsius', path: /^monitoring_environment\/([^/]+)\.csv$/,
      columns: /^Temperature/i, samples: ofColumn(/^Temperature/i, ([, sensor = '']) => ({ sensor })),
    },
    statusFamily('heater', /^monitoring_environment\/Heater_(\d+)\.csv$/),
    statusFamily('fan', /^monitoring_environment\/Fan_(\d+)\.csv$/),
    processFamily('es', 'Processes of a name.', ''),
    processFamily('_threads', 'Threads of the processes of a name.', 'THREADS'),
    processFamily('_resident_memory_bytes', 'Resident memory of the processes of a name, shared parts counted in each.', 'VM_RSS', 'bytes', KIB),
    hostFamily('checks', 'counter', 'Checks of a host.', 'total_pings'),
    hostFamily('failures', 'counter', 'Checks of a host that failed.', 'total_ping_fails'),
    hostFamily('consecutive_failures', 'gauge', 'Failed checks in a row.', 'consecutive_fails'),
    hostFamily('connected', 'gauge', '1 when the last check of a host found it; none before the first.', 'connected_status'),
  ];
}

/** Each number of each file. @type {Family} */
const EVERYTHING = {
  name: 'vandrel_recorded', type: 'unknown', help: 'What a session’s file holds.', path: /^(.*)\.csv$/,
  samples: (table, [, file = '']) => table.columns.filter(({ texts }) => !texts).flatMap(({ name, values }) => byLabels(table,
    (row) => ({ file, column: name, group: ['zone', 'name', 'address', 'port'].map((one) => cellOf(table, one, row)).filter(Boolean).join(' ') }),
    (row) => values[row] ?? null)),
};

/** @param {string} value */
const quoted = (value) => `"${value.replace(/[\\"\n]/g, (ch) => (ch === '\n' ? '\\n' : `\\${ch}`))}"`;

const SUFFIX = { counter: '_total', info: '_info', gauge: '', unknown: '' };

/**
 * Writes all samples.
 * @param {Session[]} sessions
 * @param {object} options
 * @param {[string, string][]} options.labels
 * @param {boolean} options.all
 * @param {NodeJS.WritableStream} options.out
 * @param {(words: string) => void} options.complain
 * @param {(words: string) => void} options.progress
 * @returns {Promise<number>} of samples
 */
export async function writeMetrics(sessions, { labels: given, all, out, complain, progress }) {
  let written = 0;
  let text = '';
  const flush = async () => {
    const ready = out.write(text);
    text = '';
    if (!ready) {
      await new Promise((resolve) => { out.once('drain', resolve); });
    }
  };
  /** Files whose faults were told of. @type {Set<string>} */
  const told = new Set();
  /** @param {Session} session @param {string} path @param {string} words */
  const tellOnce = (session, path, words) => {
    const where = `${session.name}: ${path}`;
    if (words !== '' && !told.has(where)) {
      told.add(where);
      complain(`${where}: ${words}`);
    }
  };

  /** @param {Session} session @param {string} path @param {Family} family */
  async function tableOf(session, path, family) {
    const reader = tableReader(path, family.columns);
    try {
      await session.recording.read(path, (piece) => reader.add(piece));
    } catch (error) {
      tellOnce(session, path, /** @type {Error} */ (error).message);
    }
    const table = reader.finish();
    tellOnce(session, path, [
      table.skipped > 0 ? `${table.skipped} lines are no rows` : '', table.unfinished ? 'the last line is not whole' : '',
    ].filter(Boolean).join(', '));
    return table;
  }

  /** @param {Family} family @param {Session} session @param {Samples} samples @param {Map<string, number>} last */
  async function writeSamples(family, session, { labels, times, values }, last) {
    const all = [...Object.entries({ instance: session.serial, job: 'vandrel' }).filter(([name]) => !given.some(([own]) => own === name)),
      ...given, ...Object.entries(labels)];
    const head = `${family.name}${SUFFIX[family.type]}{${all.map(([name, value]) => `${name}=${quoted(value)}`).join(',')}} `;
    let before = last.get(head) ?? -Infinity;
    for (const [row, time] of times.entries()) {
      const value = values[row] ?? null;
      const utc = session.utcOf(time);
      if (value === null || !(utc > before) || (family.type === 'counter' && value < 0)) {
        continue; // a clock that was set back: each series goes forward only. No count is negative
      }
      before = utc;
      text += `${head}${value} ${utc}\n`;
      written++;
      if (text.length > WRITTEN_AT_ONCE) {
        await flush();
      }
    }
    last.set(head, before);
  }

  const families = [...familiesOf(sessions), ...(all ? [EVERYTHING] : [])];
  const inOrder = [...sessions].sort((a, b) => (a.folder < b.folder ? -1 : 1));
  for (const [index, family] of families.entries()) {
    progress(`${Math.round(index * 100 / families.length)} % ${family.name}`);
    /** @type {Map<string, number>} */
    const last = new Map();
    let head = `# HELP ${family.name} ${family.help}\n# TYPE ${family.name} ${family.type}\n${family.unit ? `# UNIT ${family.name} ${family.unit}\n` : ''}`;
    const begin = () => {
      text += head;
      head = '';
    };
    for (const session of inOrder) {
      const matches = session.paths.flatMap((path) => {
        const match = path.startsWith('system_monitoring/') ? family.path.exec(path.slice('system_monitoring/'.length)) : null;
        return match ? [{ path, match }] : [];
      });
      /** @type {Map<string, {path: string, match: RegExpExecArray}[]>} */
      const groups = new Map();
      for (const one of matches) {
        const key = family.added ? one.match[1] ?? '' : one.path;
        groups.set(key, [...groups.get(key) ?? [], one]);
      }
      for (const group of groups.values()) {
        /** @type {Samples[]} */
        const found = [];
        for (const { path, match } of group) {
          found.push(...family.samples(await tableOf(session, path, family), match, session));
        }
        const [first] = found;
        const samples = family.added && found.length > 1 && first
          ? [{ ...first, ...joined(found.map(({ times, values }) => ({ name: '', times, values, categories: null })), '') }] : found;
        for (const one of samples) {
          if (one.values.some((value) => value !== null)) {
            begin();
            await writeSamples(family, session, one, last);
          }
        }
      }
    }
  }
  text += '# EOF\n';
  await flush();
  return written;
}
