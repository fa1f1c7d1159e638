// What the files of a session tell: which charts can be drawn of them, what these measure, and which
// of them stand on which dashboard. Rules over paths and columns; pure, so that whatever computes over
// recordings, in the page, in a worker or in Node, finds the same quantities under the same names.

/**
 * Where a chart's series come from: the columns of one file.
 * @typedef {object} Part
 * @property {string} path
 * @property {RegExp} columns
 * @property {(column: string, group: string) => string} name of the series; the same name in several
 *     parts is one thing, whose parts are added up
 * @property {number} factor from what the file holds to the chart's unit
 * @property {Kind} kind
 */

/**
 * gauge: as recorded. counter: grows until the camera restarts, drawn as its growth in a second.
 * amount: counted anew in each row, drawn as so many in a second. state: texts, drawn as a band.
 * log: lines of a log, counted by their severity.
 * @typedef {'gauge' | 'counter' | 'amount' | 'state' | 'log'} Kind
 */

/**
 * @typedef {object} Chart
 * @property {string} id stable: it stands in links
 * @property {string} group
 * @property {string} title
 * @property {string} unit as units.js has them
 * @property {string} hint what to know of it
 * @property {boolean} stacked the series are parts of a whole
 * @property {number} rank of a chart of the dashboard of its group: the lower the earlier; 0 for others
 * @property {boolean} glance whether it is seen first
 * @property {Choice | null} choice of the series, where there may be very many
 * @property {Derived[]} derived
 * @property {boolean} counts of a file as it is: its numbers only grow, until the camera restarts
 * @property {Part[]} parts
 */

/**
 * @typedef {'last' | 'growth' | 'average'} Choice the ten series with the highest last value, the
 *     greatest growth, or the highest average
 */

/**
 * A series that is computed: one of the chart's less others of it, which it replaces.
 * @typedef {{name: string, of: string, less: string[]}} Derived
 */

const KB = 1024; // the kernel's

/** The dashboards, in their order. */
export const GROUPS = ['Processor', 'Memory', 'Processes', 'Network', 'Temperature and power', 'Storage',
  'Video', 'HTTP API', 'Logs', 'Other'];
export const GLANCE = 'At a glance';
export const MOST_CHOSEN = 10;

/** @param {string} name of a file or folder, as "Main_board" */
const plain = (name) => name.replaceAll('_', ' ').trim();

/**
 * One rule: the files that it knows, and of each the chart that it belongs to. The first "name" of a
 * path's match names the series or, with "own", the chart.
 * @typedef {object} Rule
 * @property {RegExp} path below system_monitoring
 * @property {string} id with "own", the name is added
 * @property {string} group
 * @property {string} title with NAME for the name
 * @property {string} [unit]
 * @property {Kind} [kind]
 * @property {RegExp} [columns] all without
 * @property {(match: string, column: string, group: string) => string} [name]
 * @property {number} [factor]
 * @property {number} [rank]
 * @property {boolean} [glance]
 * @property {boolean} [stacked]
 * @property {boolean} [own] a chart for each file
 * @property {Choice} [choice]
 * @property {Derived[]} [derived]
 * @property {string} [hint]
 */

const ENVIRONMENT = /^monitoring_environment\/([^/]+)\.csv$/;
const TRAFFIC = /^monitoring_network\/(?!network\.csv$)([^/]+)\.csv$/;
const VMSTATUS = /^monitoring_vmstatus\/([^/]+)\/[^/]+\/vmstatus\.csv$/;
const TOPSTATUS = /^monitoring_topstatus\/([^/]+)\/[^/]+\/topstatus\.csv$/;
const DEVICE_TEST = /^monitoring_devicetest\/(devicetest_snapshots)\.csv$/;
const PACKAGE = /^monitoring_vela\/([^/]+)\.csv$/;
const HTTP_USER = /^monitoring_koral\/others\/(?:.*@)?([^/]+)\.csv$/;
const DEVICE_POWER = /^monitoring_environment\/([^/]+)\/devicepower\.csv$/;
const HUGE = 'AnonHugePages|ShmemHugePages|ShmemPmdMapped|FileHugePages|FilePmdMapped|HugePages_\\w+|Hugepagesize|Hugetlb|DirectMap\\w+|Vmalloc\\w+|Percpu|HardwareCorrupted';

/** "receive: bytes" as "received", as the header's order tells. @param {string} column */
const direction = (column) => (/^transmit/i.test(column) ? 'sent' : 'received');
/** @param {string} column "Receive: errs" */
const ofTraffic = (column) => `${direction(column)}: ${column.replace(/^.*?: */, '').replace('errs', 'errors')}`;

const hostName = (/** @type {string} */ _, /** @type {string} */ __, /** @type {string} */ host) => host.replace(/ -1$/, ' ping'); // no port

/** @type {Rule[]} */
const RULES = [
  {
    path: /^monitoring_load\/(load)\.csv$/, id: 'load', group: 'Processor', title: 'Load average', rank: 1, glance: true,
    name: (_, column) => column.replace(/^Load average \((\d+) min\)$/, '$1 min'),
    hint: 'Processes that run or wait, on average of the last minutes.',
  },
  {
    path: TOPSTATUS, id: 'process-processor', group: 'Processes', title: 'Processor, processes with most', unit: '%',
    columns: /^%CPU$/, rank: 3, choice: 'average', hint: 'Share of the processor.',
  },
  {
    path: /^monitoring_self\/(Vandrel)_summary\.csv$/, id: 'self', group: 'Processor', title: 'This package’s own share', unit: '%',
    name: (_, column) => (/vsz/i.test(column) ? 'memory' : 'processor'), rank: 3,
  },
  {
    path: /^monitoring_meminfo\/(MemTotal|MemFree|Buffers|Cached)\.csv$/, id: 'memory', group: 'Memory', title: 'Memory', unit: 'B',
    factor: KB, rank: 1, glance: true, stacked: true,
    name: (name) => ({ MemTotal: 'total', MemFree: 'free', Buffers: 'buffers', Cached: 'cached files' })[name] ?? name,
    derived: [{ name: 'in use', of: 'total', less: ['free', 'buffers', 'cached files'] }],
    hint: 'All of it: what is in use, the kernel’s copies of files, which it gives back when they are needed, and what is free.',
  },
  {
    path: /^monitoring_meminfo\/(MemAvailable)\.csv$/, id: 'available', group: 'Memory', title: 'Available memory', unit: 'B', factor: KB,
    rank: 2, name: () => 'available', hint: 'What programs can still get without any being swapped out.',
  },
  {
    path: /^monitoring_meminfo\/(AnonPages|Slab|KernelStack|PageTables|Shmem|SUnreclaim)\.csv$/, id: 'memory-parts', group: 'Memory',
    title: 'What uses the memory', unit: 'B', factor: KB, rank: 3,
    name: (name) => ({
      AnonPages: 'programs', Slab: 'kernel objects', KernelStack: 'kernel stacks', PageTables: 'page tables',
      Shmem: 'shared memory', SUnreclaim: 'kernel objects that stay',
    })[name] ?? name,
  },
  {
    path: /^monitoring_meminfo\/(SwapTotal|SwapFree|SwapCached)\.csv$/, id: 'swap', group: 'Memory', title: 'Swap', unit: 'B', factor: KB,
    name: (name) => name.replace('Swap', '').toLowerCase(),
  },
  {
    path: /^monitoring_meminfo\/(Dirty|Writeback|WritebackTmp|NFS_Unstable|Bounce)\.csv$/, id: 'unwritten', group: 'Storage',
    title: 'Data that waits to be written', unit: 'B', factor: KB, rank: 1,
    name: (name) => ({ Dirty: 'waiting', Writeback: 'being written' })[name] ?? name,
  },
  {
    path: /^monitoring_meminfo\/(HugePages_\w+)\.csv$/, id: 'huge-pages', group: 'Memory', title: 'Huge pages', name: (name) => name.replace('HugePages_', '').toLowerCase(),
  },
  {
    path: new RegExp(`^monitoring_meminfo/(${HUGE})\\.csv$`), id: 'memory-map', group: 'Memory', title: 'Memory: maps and reserves', unit: 'B', factor: KB,
  },
  {
    path: /^monitoring_meminfo\/([^/]+)\.csv$/, id: 'memory-details', group: 'Memory', title: 'Memory: details', unit: 'B', factor: KB,
  },
  {
    path: /^monitoring_kernel\/(pagefaults)\.csv$/, id: 'minor-faults', group: 'Memory', title: 'Page faults served from memory', unit: '1/s',
    kind: 'counter', columns: /^MINOR/i, name: () => 'minor', rank: 5,
  },
  {
    path: /^monitoring_kernel\/(pagefaults)\.csv$/, id: 'major-faults', group: 'Memory', title: 'Page faults served from storage', unit: '1/s',
    kind: 'counter', columns: /^MAJOR/i, name: () => 'major', rank: 4, hint: 'Many of them mean that memory is short.',
  },
  {
    path: /^monitoring_kernel\/(buddyinfo)\.csv$/, id: 'free-blocks', group: 'Memory', title: 'Free blocks of memory', unit: 'blocks', rank: 6,
    name: (_, column, zone) => `${zone}: ${column}`, hint: 'Without large blocks memory is in pieces.',
  },
  {
    path: /^monitoring_slabinfo\/([^/]+)\.csv$/, id: 'slab', group: 'Memory', title: 'Kernel objects, caches with most', unit: 'objects',
    columns: /^Active objects$/, choice: 'last',
  },
  {
    path: VMSTATUS, id: 'process-memory', group: 'Processes', title: 'Memory, processes with most', unit: 'B', factor: KB,
    columns: /^VM_RSS$/, rank: 1, glance: true, choice: 'last', hint: 'What each has in memory, shared parts included; processes of one name together.',
  },
  {
    path: VMSTATUS, id: 'process-growth', group: 'Processes', title: 'Memory, processes that grew most', unit: 'B', factor: KB,
    columns: /^VM_RSS$/, rank: 2, choice: 'growth',
  },
  {
    path: VMSTATUS, id: 'process-threads', group: 'Processes', title: 'Threads, processes with most', unit: 'threads', columns: /^THREADS$/, choice: 'last', rank: 4,
  },
  {
    path: VMSTATUS, id: 'process-state', group: 'Processes', title: 'States of processes', kind: 'state', columns: /^STATE$/, choice: 'last',
    hint: 'R runs, S sleeps, D waits for a device, Z has ended, T is stopped.',
  },
  {
    path: PACKAGE, id: 'packages', group: 'Processes', title: 'Packages', kind: 'state', columns: /^STATUS$/, rank: 5,
  },
  {
    path: PACKAGE, id: 'package-processes', group: 'Processes', title: 'Processes of packages', unit: 'processes', columns: /^PROCESSES$/,
  },
  { path: PACKAGE, id: 'package-size', group: 'Storage', title: 'Size of packages', unit: 'B', factor: KB, columns: /^SIZE$/, rank: 2 },
  { path: PACKAGE, id: 'package-version', group: 'Processes', title: 'Versions of packages', kind: 'state', columns: /^VERSION$/ },
  {
    path: TRAFFIC, id: 'traffic', group: 'Network', title: 'Traffic of NAME', unit: 'B/s', kind: 'counter', own: true, columns: /: bytes$/,
    name: (_, column) => direction(column), rank: 1, glance: true,
  },
  {
    path: TRAFFIC, id: 'packets', group: 'Network', title: 'Packets of NAME', unit: '1/s', kind: 'counter', own: true, columns: /: (?:packets|multicast)$/,
    name: (_, column) => ofTraffic(column).replace(': packets', ''), rank: 2,
  },
  {
    path: TRAFFIC, id: 'errors', group: 'Network', title: 'Errors and lost packets of NAME', unit: '1/s', kind: 'counter', own: true,
    columns: /: (?:errs|drop|fifo|frame|colls|carrier)$/, name: (_, column) => ofTraffic(column), rank: 3,
  },
  {
    path: /^monitoring_network\/(network)\.csv$/, id: 'bandwidth', group: 'Network', title: 'Bandwidth in use', unit: 'Mbit/s', name: () => 'both directions',
    rank: 4, hint: 'Of eth0, sent and received together.',
  },
  {
    path: DEVICE_TEST, id: 'hosts', group: 'Network', title: 'Hosts of the device test', kind: 'state', columns: /^connected_status$/,
    name: hostName, rank: 5,
  },
  {
    path: DEVICE_TEST, id: 'host-fails', group: 'Network', title: 'Failed checks of the device test', unit: '1/s', kind: 'counter', columns: /^total_ping_fails$/,
    name: hostName,
  },
  {
    path: /^monitoring_environment\/((?:Heater|Fan)_\d+)\.csv$/, id: 'climate', group: 'Temperature and power', title: 'Heaters and fans', kind: 'state',
    name: (name) => plain(name), rank: 2,
  },
  {
    path: /^monitoring_environment\/(power)\.csv$/, id: 'power', group: 'Temperature and power', title: 'Power', unit: 'W', factor: 1e-3,
    columns: /^POWER_mW$/, name: () => 'in all', rank: 3,
  },
  {
    path: ENVIRONMENT, id: 'temperature', group: 'Temperature and power', title: 'Temperatures', unit: '°C', columns: /^Temperature/i,
    name: (name) => plain(name), rank: 1, glance: true,
  },
  ...[['power', 'Power', 'W', /^power.*_mW$/], ['voltage', 'Voltages', 'V', /^(?:in|voltage).*_mV$/], ['current', 'Currents', 'A', /^curr.*_mA$/]]
    .map(([id, title, unit, columns]) => /** @type {Rule} */ ({
      path: DEVICE_POWER, id: `device-${id}`, group: 'Temperature and power', title: `${title} of devices`, unit, factor: 1e-3, columns, rank: 4,
      name: (name, column) => `${plain(name)} ${column.replace(/_m[WVA]$/, '')}`,
    })),
  {
    path: /^monitoring_streams\/(stream)\.csv$/, id: 'streams', group: 'Video', title: 'Video streams', kind: 'state', rank: 1, name: () => 'streams',
  },
  {
    path: HTTP_USER, id: 'http-calls', group: 'HTTP API', title: 'Calls of the HTTP API', unit: '1/s', kind: 'amount', columns: /^Number of calls/i, rank: 1,
    name: (name) => (name === 'NULL' ? 'without a user' : name),
  },
  {
    path: HTTP_USER, id: 'http-time', group: 'HTTP API', title: 'Time that calls take', unit: 's', factor: 1e-6, columns: /^Average process time/i, rank: 2,
    name: (name) => (name === 'NULL' ? 'without a user' : name), hint: 'On average of all calls so far.',
  },
];

/** "system_monitoring/monitoring_load/load.csv" as "load/load". @param {string} path */
export const titleOf = (path) => path.replace(/^system_monitoring\/(?:monitoring_)?/, '').replace(/\.csv$/, '');

const FILE = 'file:';

/** The id of the chart of one whole file. @param {string} path */
export const idOfFile = (path) => FILE + path;

/** The group of a file, known or not. @param {string} path */
export const groupOf = (path) => rulesOf(path)[0]?.rule.group ?? 'Other';

/** @param {string} path */
function rulesOf(path) {
  const below = path.replace(/^system_monitoring\//, '');
  /** @type {{rule: Rule, name: string}[]} */
  const found = [];
  for (const rule of below === path ? [] : RULES) {
    const name = rule.path.exec(below)?.[1];
    // The first rule of a file decides; others go on about other columns of the same files.
    if (name !== undefined && (found.length === 0 || String(found[0]?.rule.path) === String(rule.path))) {
      found.push({ rule, name });
    }
  }
  return found;
}

/** @type {Pick<Chart, 'hint' | 'stacked' | 'rank' | 'glance' | 'choice' | 'derived' | 'counts'>} */
const PLAIN = { hint: '', stacked: false, rank: 0, glance: false, choice: null, derived: [], counts: false };

/** Where the device's log of a session stands. */
export const LOG = 'system_monitoring/monitoring_basic/Continuous_Syslog.txt';

/**
 * The charts of a recording, those of the catalogue in its order.
 * @param {{path: string, columns: string[]}[]} files the CSV files; their columns where they are known
 * @param {{path: string}[]} [others] files that are no CSV
 * @returns {Chart[]}
 */
export function chartsOf(files, others = []) {
  /** @type {Map<string, Chart>} */
  const charts = new Map();
  if (others.some(({ path }) => path === LOG)) {
    charts.set('log', {
      ...PLAIN, id: 'log', group: 'Logs', title: 'Errors and warnings in the log', unit: 'lines', rank: 1, glance: true,
      hint: 'Lines in each ten minutes.',
      parts: [{ path: LOG, columns: /./, name: (column) => column, factor: 1, kind: 'log' }],
    });
  }
  for (const { path, columns } of [...files].sort((a, b) => a.path.localeCompare(b.path, 'en'))) {
    for (const { rule, name } of rulesOf(path)) {
      const wanted = rule.columns ?? /./;
      if (columns.length > 0 && !columns.some((column) => wanted.test(column))
          && !columns.some((column) => /:/.test(column))) { // short in headers with titles: "Receive: bytes, drop"
        continue;
      }
      const id = rule.own ? `${rule.id}-${name}` : rule.id;
      const chart = charts.get(id) ?? {
        id, group: rule.group, title: rule.title.replace('NAME', name), unit: rule.unit ?? '', hint: rule.hint ?? '',
        stacked: rule.stacked ?? false, rank: rule.rank ?? 0, choice: rule.choice ?? null, derived: rule.derived ?? [], counts: false, parts: [],
        // The loopback interface tells little at a glance.
        glance: (rule.glance ?? false) && name !== 'lo',
      };
      charts.set(id, chart);
      chart.parts.push({
        path, columns: wanted, factor: rule.factor ?? 1, kind: rule.kind ?? 'gauge',
        name: (column, group) => rule.name?.(name, column, group) ?? name,
      });
    }
  }
  const order = RULES.map(({ id }) => id);
  const place = (/** @type {Chart} */ { id }) => order.findIndex((known) => id === known || id.startsWith(`${known}-`));
  return [...charts.values()].sort((a, b) => GROUPS.indexOf(a.group) - GROUPS.indexOf(b.group)
    || (a.rank || Infinity) - (b.rank || Infinity) || place(a) - place(b) || a.id.localeCompare(b.id, 'en'));
}

/**
 * One file as it is, with all its columns.
 * @param {string} path
 * @returns {Chart}
 */
export function chartOfFile(path) {
  const counts = /\/(?:pagefaults|monitoring_network\/(?!network\.csv)[^/]+)\.csv$/.test(path);
  return {
    id: idOfFile(path), group: groupOf(path), title: titleOf(path), unit: '', ...PLAIN, counts,
    parts: [{ path, columns: /./, name: (column, group) => (group ? `${group}: ${column}` : column), factor: 1, kind: 'gauge' }],
  };
}

/**
 * Several charts as one.
 * @param {Chart[]} many
 * @returns {Chart & {several: Chart[]}}
 */
export function combined(many) {
  const [first] = many;
  return {
    ...(first ?? chartOfFile('')), ...PLAIN, id: many.map(({ id }) => id).join('+'),
    title: many.map(({ title }) => title).join(' and '), several: many, parts: many.flatMap(({ parts }) => parts),
  };
}

/**
 * The chart of an id as links have it: one of the catalogue, a file's, or several joined by "+".
 * @param {Chart[]} charts
 * @param {string} id
 * @param {(path: string) => boolean} isFile
 * @returns {Chart | null}
 */
export function chartOfId(charts, id, isFile) {
  const one = (/** @type {string} */ part) => charts.find((chart) => chart.id === part)
    ?? (part.startsWith(FILE) && isFile(part.slice(FILE.length)) ? chartOfFile(part.slice(FILE.length)) : null);
  const whole = one(id);
  const parts = whole ? [whole] : id.split('+').flatMap((part) => one(part) ?? []);
  return parts.length > 1 ? combined(parts) : parts[0] ?? null;
}

/** The charts of a dashboard. @param {Chart[]} charts @param {string} board GLANCE or a group */
export function chartsOfBoard(charts, board) {
  return charts.filter(({ glance, group, rank }) => (board === GLANCE ? glance : group === board && rank > 0));
}
