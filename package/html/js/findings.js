// What was wrong while a recording was made: a table of rules over its charts, its marks and its logs.
// What a rule says has its figures, its time and the file it comes from; what was not recorded is said
// to be not judged. Needs no page, and gives way to it while it computes.

import { chartsOf, LOG } from './catalogue.js';
import { byteSize, counted } from './format.js';
import { httpDigest, lineReader, logDigest, LOG_STEP_S } from './log_digest.js';
import { median, medians, stretches, trend } from './robust.js';
import { holes, usualInterval, wallText } from './series.js';
import { duration } from './session_data.js';
import { numberText, valueText } from './units.js';

const HTTP_LOG = 'system_monitoring/monitoring_basic/HTTP_log.txt';
const REGULAR = 'system_monitoring/monitoring_load/load.csv'; // has a row in every collection
const MOST_LOG_BYTES = 64 * 1024 * 1024; // of each log, its end
const MOST_CHART_BYTES = 64 * 1024 * 1024; // of a chart of processes; of a larger one those with most
const AT_ONCE = 4; // of the things of a chart
const SLICE_MS = 10;
const MINUTE = 60;
const HOUR = 3600;
const DAY = 86400;
const MB = 1e6;

/** The gravest first. */
export const SEVERITIES = /** @type {const} */ (['grave', 'warning', 'note']);
/** @typedef {typeof SEVERITIES[number]} Severity */
/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./marks.js').Mark} Mark */
/** @typedef {import('./robust.js').Point} Point */

/**
 * @typedef {object} Finding
 * @property {string} rule its name
 * @property {Severity} severity
 * @property {string} text one sentence, with figures
 * @property {number} from
 * @property {number} to
 * @property {string} chart the id of the chart that shows it; "" for none
 * @property {string} path of the file that it was read from
 */
/** @typedef {Omit<Finding, 'rule' | 'chart' | 'path'> & {chart?: string, path?: string}} Found */

/**
 * @typedef {object} Rule
 * @property {string} name
 * @property {string} subject as a gap in what was judged is told
 * @property {string[]} reads charts of the catalogue, all of an interface by "-"; "log", "http", "rows" or "marks"
 * @property {string} why what its limits are, and why these
 * @property {Record<string, number>} limits
 * @property {(known: Known, limits: Record<string, any>) => Promise<Found[]>} find
 */

/** @typedef {Awaited<ReturnType<typeof createKnown>>} Known */

// --- Words

/** "3 days 2 h", "5 min", "40 s". @param {number} seconds */
const lasting = (seconds) => (seconds < 90 ? `${Math.round(seconds)} s`
  : duration(seconds < 2 * DAY ? Math.round(seconds / MINUTE) : Math.round(seconds / HOUR) * 60));
/** "2026-11-21 08:46". @param {number} time */
const at = (time) => wallText(time).slice(0, 16);
/** "2 times" @param {number} count */
const times = (count) => (count === 1 ? 'once' : count === 2 ? 'twice' : `${numberText(count)} times`);
/** @param {number} part */
const percent = (part) => `${numberText(Math.round(part * 1000) / 10)}%`;

/** The most of many, more than a call could take. @param {number[]} values */
const mostOf = (values) => values.reduce((a, b) => Math.max(a, b), -Infinity);

/** How often something happened, by the usual time between. @param {number[]} moments ascending */
function often(moments) {
  const [first = 0, last = 0] = [moments[0], moments.at(-1)];
  const gaps = moments.slice(1).map((time, index) => time - (moments[index] ?? 0));
  return moments.length === 1 ? `once, at ${at(first)}`
    : `${times(moments.length)} between ${at(first)} and ${at(last)}${moments.length > 2 ? `, mostly ${lasting(median(gaps))} apart` : ''}`;
}

/** @template Item @param {Item[]} items @param {(item: Item) => string} keyOf @returns {Map<string, Item[]>} */
function groupedBy(items, keyOf) {
  /** @type {Map<string, Item[]>} */
  const groups = new Map();
  for (const item of items) {
    const group = groups.get(keyOf(item));
    if (group) {
      group.push(item);
    } else {
      groups.set(keyOf(item), [item]);
    }
  }
  return groups;
}

/** The longest part of a line of points that does not fall off at once, as when a process begins anew.
 * @param {Point[]} points */
function unbroken(points) {
  let [best, begin] = [/** @type {Point[]} */ ([]), 0];
  for (let end = 1; end <= points.length; end++) {
    const [before, value] = [points[end - 1]?.value ?? 0, points[end]?.value ?? -Infinity];
    if (value < before * 0.7) {
      best = end - begin > best.length ? points.slice(begin, end) : best;
      begin = end;
    }
  }
  return best;
}

/**
 * Growth that is clear: nearly all pairs of points rise, the later half goes on as the whole did, and the
 * sum is far above what the points differ from it.
 * @param {Point[]} all @param {Record<string, number>} limits
 */
function clearGrowth(all, limits) {
  const points = unbroken(all);
  const [first, last] = [points[0], points.at(-1)];
  if (!first || !last || points.length < (limits.points ?? 0) || last.time - first.time < (limits.span ?? 0)) {
    return null;
  }
  const { slope, rising } = trend(points);
  const growth = slope * (last.time - first.time);
  const level = median(points.map(({ time, value }) => value - slope * (time - first.time)));
  const spread = median(points.map(({ time, value }) => Math.abs(value - slope * (time - first.time) - level)));
  const later = trend(points.slice(points.length >> 1)).slope;
  return rising < (limits.rising ?? 1) || later < slope * (limits.later ?? 1) || growth < spread * (limits.spreads ?? 0) ? null
    : { slope, growth, level, from: first.time, to: last.time };
}

// --- The rules, in the order in which findings of one severity stand

/** @type {Rule[]} */
export const RULES = [
  {
    name: 'kernel dump', subject: 'dumps of the kernel', reads: ['marks'], limits: {},
    why: 'Each is a crash of the whole camera.',
    find: async ({ marks }) => marks.filter(({ kind, text }) => kind === 'crash' && text.startsWith('Dump of the kernel'))
      .map(({ time, text, path }) => ({
        severity: 'grave', from: time, to: time, path, text: `The kernel crashed at ${at(time)}. ${text}.`,
      })),
  },
  {
    name: 'full storage', subject: 'the end of the session', reads: ['marks'], limits: {},
    why: 'A session that ends by itself is missing what happened afterwards.',
    find: async ({ marks, files }) => marks.filter(({ kind, text }) => kind === 'storage' && text.startsWith('The storage was full')).slice(-1)
      .map(({ time }) => ({
        severity: 'grave', from: time, to: time, path: LOG,
        text: `The storage was full at ${at(time)} and the session was ended by it, with ${byteSize(files.reduce((sum, { bytes }) => sum + bytes, 0))} recorded.`,
      })),
  },
  {
    name: 'storage lost', subject: 'the storage', reads: ['marks'], limits: { grave: 2 },
    why: 'Once may be somebody who took the card out; more than once it is loose or failing.',
    async find({ marks, gaps }, limits) {
      const lost = marks.filter(({ kind, text }) => kind === 'storage' && text.startsWith('The storage was lost')).map(({ time }) => time);
      const back = marks.filter(({ kind, text }) => kind === 'storage' && text.startsWith('The storage was back'));
      const count = Math.max(lost.length, back.length);
      if (count === 0) {
        return [];
      }
      const moments = lost.length >= back.length ? lost : back.map(({ time }) => time);
      const [from = 0, last = 0] = [moments[0], moments.at(-1)];
      const to = Math.max(last, back.at(-1)?.time ?? 0);
      const without = gaps.filter(([begin, end]) => begin > from - DAY && moments.some((time) => time > begin - 600 && time < end + 600))
        .reduce((sum, [begin, end]) => sum + end - begin, 0);
      return [{
        severity: count >= limits.grave ? 'grave' : 'warning', from, to, path: LOG,
        text: `The storage was lost ${often(moments)}${without > 0 ? `; nothing was recorded for ${lasting(without)} in all` : ''}${
          lost.length > back.length ? '. After the last time it did not come back' : ''}.`,
      }];
    },
  },
  {
    name: 'crash', subject: 'crashes', reads: ['marks'], limits: { grave: 3 },
    why: 'A process that crashes three times does so again and again.',
    async find({ marks }, limits) {
      const crashes = marks.filter(({ kind, text }) => kind === 'crash' && text.endsWith(' crashed'));
      return [...groupedBy(crashes, ({ text }) => text)].sort(([, a], [, b]) => b.length - a.length).map(([text, all]) => ({
        severity: all.length >= limits.grave || text === 'Vandrel crashed' ? 'grave' : 'warning',
        from: all[0]?.time ?? 0, to: all.at(-1)?.time ?? 0, path: all[0]?.path,
        text: `${text} ${often(all.map(({ time }) => time))}.`,
      }));
    },
  },
  {
    name: 'restart', subject: 'restarts', reads: ['marks'], limits: { grave: 3, before: 900, aDay: 2 },
    why: 'Before the camera or the daemon ends in order the log tells so. Where it does not, power was lost or it crashed; three times is no chance.',
    async find({ marks, log, span }, limits) {
      const restarts = marks.filter(({ kind }) => kind === 'reboot').map(({ time }) => time);
      const sudden = restarts.filter((time) => !log?.planned.some((one) => one <= time && one > time - limits.before));
      const inOrder = restarts.filter((time) => !sudden.includes(time));
      const days = Math.max(1, (span[1] - span[0]) / DAY);
      /** @type {Found[]} */
      const found = sudden.length === 0 ? [] : [{
        severity: sudden.length >= limits.grave ? 'grave' : 'warning', from: sudden[0] ?? 0, to: sudden.at(-1) ?? 0, path: LOG,
        text: `The camera or the daemon went down without having been ended, as by lost power or a crash, and came back ${often(sudden)}.`,
      }];
      return inOrder.length === 0 ? found : [...found, {
        severity: inOrder.length > Math.max(limits.grave, limits.aDay * days) ? 'warning' : 'note', from: inOrder[0] ?? 0, to: inOrder.at(-1) ?? 0, path: LOG,
        text: `The camera or the daemon was restarted in order ${often(inOrder)}.`,
      }];
    },
  },
  {
    name: 'temperature', subject: 'temperatures', reads: ['temperature'], limits: { high: 75, above: 10, spreads: 6, always: 85, grave: 90, rows: 5 },
    why: 'High is what processors of cameras throttle near; a sensor counts that is also far above its own usual, or above 85 °C at any rate. Five rows are ten minutes.',
    async find({ series, figure }, limits) {
      const all = await series('temperature');
      return all.flatMap((sensor) => {
        const values = sensor.values.filter((value) => value !== null);
        const usual = median(values);
        const spread = median(values.map((value) => Math.abs(value - usual)));
        const most = mostOf(values);
        if (Number.isFinite(most)) {
          figure(`Temperature, ${sensor.name}`, `${valueText(usual, '°C')}, at most ${valueText(most, '°C')}`);
        }
        const limit = Math.min(limits.always, Math.max(limits.high, usual + Math.max(limits.above, limits.spreads * spread)));
        const hot = stretches(sensor, (value) => value >= limit).filter(({ rows }) => rows >= limits.rows);
        const [first, last] = [hot[0], hot.at(-1)];
        const sum = hot.reduce((all, { from, to }) => all + to - from, 0);
        return !first || !last ? [] : [{
          severity: most >= limits.grave ? 'grave' : 'warning', from: first.from, to: last.to, chart: 'temperature', path: sensor.name.replaceAll(' ', '_'),
          text: `Temperature of ${sensor.name} reached ${valueText(most, '°C')}, usual are ${valueText(usual, '°C')}: ${
            valueText(limit, '°C')} or more for ${lasting(sum)}, first at ${at(first.from)}.`,
        }];
      });
    },
  },
  {
    name: 'fan', subject: 'heaters and fans', reads: ['climate'], limits: { running: 0.9, rows: 15, longer: 5 },
    why: 'One that ran nearly always and then stands still far longer than ever before has stopped. One that goes by a thermostat stops often and is left alone.',
    async find({ series }, limits) {
      return (await series('climate')).flatMap((device) => {
        const stopped = device.categories?.findIndex((text) => /stop|off/i.test(text)) ?? -1;
        const still = stretches(device, (value) => value === stopped).sort((a, b) => b.rows - a.rows);
        const [longest, second] = still;
        if (stopped < 0 || !longest || longest.rows < limits.rows * Math.max(1, 120 / usualInterval(device.times)) || longest.rows < limits.longer * (second?.rows ?? 0)) {
          return [];
        }
        const before = device.values.filter((value, row) => value !== null && (device.times[row] ?? 0) < longest.from);
        const ran = before.filter((value) => value !== stopped).length;
        return before.length < limits.rows || ran < before.length * limits.running ? [] : [{
          severity: 'warning', from: longest.from, to: longest.to, chart: 'climate', path: device.name.replaceAll(' ', '_'),
          text: `${device.name} stopped at ${at(longest.from)} and stood still for ${lasting(longest.to - longest.from)}; before it had run for ${percent(ran / before.length)} of the time.`,
        }];
      });
    },
  },
  {
    name: 'memory low', subject: 'available memory', reads: ['available'], limits: { grave: 0.05, low: 0.1, rows: 3 },
    why: 'Below a tenth the kernel gives back files all the time, below a twentieth it ends processes. Three rows, as one may be a moment.',
    async find({ series, figure }, limits) {
      const [available] = await series('available');
      const { total } = await memoryOf(series);
      if (!available || total === 0) {
        return [];
      }
      const least = available.values.reduce((/** @type {number} */ a, b) => Math.min(a, b ?? Infinity), Infinity);
      figure('Available memory', `at least ${valueText(least, 'B')} of ${valueText(total, 'B')}`);
      for (const severity of /** @type {const} */ (['grave', 'warning'])) {
        const limit = total * (severity === 'grave' ? limits.grave : limits.low);
        const low = stretches(available, (value) => value < limit).filter(({ rows }) => rows >= limits.rows);
        const [first, last] = [low[0], low.at(-1)];
        if (first && last) {
          return [{
            severity, from: first.from, to: last.to, chart: 'available', path: 'MemAvailable',
            text: `Memory was low: down to ${valueText(least, 'B')} of ${valueText(total, 'B')}, below ${percent(limit / total)} for ${
              lasting(low.reduce((sum, { from, to }) => sum + to - from, 0))}, first at ${at(first.from)}.`,
          }];
        }
      }
      return [];
    },
  },
  {
    name: 'memory of a process', subject: 'memory of processes', reads: ['process-growth'],
    limits: { points: 10, span: 5 * HOUR, rising: 0.85, later: 0.4, spreads: 5, least: 4 * MB, share: 0.2, ofAll: 0.01, soon: 14 * DAY, ahead: 20 },
    why: 'The median slope of all pairs of hours. Said only when 85 % of the pairs rise, the second half rises on (a start that levels off is none), the sum is five times the spread, a fifth of the level, a hundredth of all memory and 4 MB. What is to come is told for at most twenty times as long as was seen.',
    async find({ series, breathe }, limits) {
      const memory = await memoryOf(series);
      /** @type {(Found & {growth: number})[]} */
      const found = [];
      for (const process of await series('process-growth')) {
        await breathe();
        const growth = clearGrowth(medians(process, growthStep(process)), limits);
        if (growth && growth.growth > Math.max(limits.least, growth.level * limits.share, memory.total * limits.ofAll)) {
          found.push({ growth: growth.growth, ...grownText(`Memory of ${process.name}`, growth, memory, limits), chart: 'process-growth', path: `/${process.name}/` });
        }
      }
      return found.sort((a, b) => b.growth - a.growth);
    },
  },
  {
    name: 'memory of the system', subject: 'memory of the kernel', reads: ['memory-parts'],
    limits: { points: 10, span: 5 * HOUR, rising: 0.85, later: 0.4, spreads: 5, least: 8 * MB, share: 0.2, ofAll: 0.03, soon: 14 * DAY, ahead: 20 },
    why: 'As for processes, from 3 % of all memory on. Objects of the kernel that stay are no files it gives back.',
    async find({ series, breathe }, limits) {
      const memory = await memoryOf(series);
      /** @type {Found[]} */
      const found = [];
      for (const part of (await series('memory-parts')).filter(({ name }) => name !== 'kernel objects')) {
        await breathe();
        const growth = clearGrowth(medians(part, growthStep(part)), limits);
        if (growth && growth.growth > Math.max(limits.least, growth.level * limits.share, memory.total * limits.ofAll)) {
          found.push({ ...grownText(`Memory for ${part.name}`, growth, memory, limits), chart: 'memory-parts', path: MEMORY_FILES[part.name] ?? '' });
        }
      }
      return found;
    },
  },
  {
    name: 'process takes a core', subject: 'the processor of processes', reads: ['process-processor'],
    limits: { most: 80, some: 45, usual: 0.5, time: 30 * MINUTE, rows: 5 },
    why: 'Of two cores one is 50 %. From 80 % on, half an hour of it counts at any rate; from 45 % on where it is twice what is usual for the process.',
    async find({ series, figure }, limits) {
      const all = await series('process-processor');
      const averages = all.map(({ name, values }) => ({ name, usual: median(values.filter((value) => value !== null)) })).sort((a, b) => b.usual - a.usual);
      if (averages[0]) {
        figure('Processor, most', `${averages[0].name}, usually ${valueText(averages[0].usual, '%')}`);
      }
      return all.flatMap((process) => {
        const usual = averages.find(({ name }) => name === process.name)?.usual ?? 0;
        const limit = usual < limits.some * limits.usual ? limits.some : limits.most;
        const busy = stretches(process, (value) => value >= limit)
          .filter(({ from, to, rows }) => to - from >= limits.time && rows >= limits.rows).sort((a, b) => b.to - b.from - a.to + a.from);
        const [longest] = busy;
        return !longest ? [] : [{
          severity: 'warning', from: longest.from, to: longest.to, chart: 'process-processor', path: `/${process.name}/`,
          text: `${process.name} took ${valueText(limit, '%')} of the processor or more, at most ${valueText(longest.most, '%')}, for ${
            lasting(longest.to - longest.from)} from ${at(longest.from)}${usual < limit ? `; usual are ${valueText(usual, '%')}` : ''}.`,
        }];
      });
    },
  },
  {
    name: 'load', subject: 'the load', reads: ['load'], limits: { cores: 4, time: HOUR, rows: 10, usual: 2 },
    why: 'More runs or waits than there are cores, for an hour. Where the log does not tell how many these are, four are taken, as most cameras have at most; then it counts only where it is twice the usual.',
    async find({ series, log, figure }, limits) {
      const load = (await series('load')).find(({ name }) => name === '15 min');
      if (!load) {
        return [];
      }
      const cores = log?.processors || limits.cores;
      const usual = median(load.values.filter((value) => value !== null));
      figure('Load of 15 minutes', `usually ${numberText(usual)}`);
      const high = stretches(load, (value) => value > cores).filter(({ from, to, rows }) => to - from >= limits.time && rows >= limits.rows);
      const [first, last] = [high[0], high.at(-1)];
      const most = mostOf(high.map((one) => one.most));
      return !first || !last ? [] : [{
        severity: log?.processors || most >= limits.usual * usual ? 'warning' : 'note', from: first.from, to: last.to, chart: 'load', path: 'load',
        text: `The load was above ${cores}, ${log?.processors ? 'the number of cores' : 'as the number of cores is not known'}, for ${
          lasting(high.reduce((sum, { from, to }) => sum + to - from, 0))}, at most ${numberText(most)}; usual are ${numberText(usual)}.`,
      }];
    },
  },
  {
    name: 'clock', subject: 'the clock', reads: ['rows', 'log'], limits: { back: MINUTE, silent: 30 * MINUTE, shown: 50 },
    why: 'Rows follow each other: a time before the last one is a clock that was set back. A hole while neither a restart, nor the storage, nor one line of the log tells of it is a clock that was set forward, or a camera that stood still.',
    async find({ rows, log, gaps, marks }, limits) {
      /** @type {Found[]} */
      const found = [];
      const back = rows.flatMap((time, row) => {
        const before = rows[row - 1] ?? time;
        return time < before - limits.back ? [{ before, time }] : [];
      });
      const [first] = back;
      if (first) {
        found.push({
          severity: 'warning', from: first.time, to: first.before, path: REGULAR,
          text: `The clock was set back ${back.length === 1 ? '' : `${times(back.length)}, first `}by ${lasting(first.before - first.time)}, from ${
            wallText(first.before)} to ${wallText(first.time)}.`,
        });
      }
      for (const { from, to } of (log?.clockSteps ?? []).slice(0, 5)) {
        found.push({
          severity: 'warning', from: Math.min(from, to), to: Math.max(from, to), path: LOG,
          text: `The clock was set ${to > from ? 'forward' : 'back'} by ${lasting(Math.abs(to - from))} at ${at(to)}, as the log tells.`,
        });
      }
      const long = gaps.filter(([from, to]) => to - from >= limits.silent).slice(0, limits.shown);
      for (const [from, to] of log ? long : []) {
        const told = marks.some(({ time, kind }) => kind !== 'gap' && kind !== 'report' && kind !== 'trigger' && time > from - 600 && time < to + 600);
        const lines = [...log?.steps ?? []].reduce((sum, [step, { count }]) => sum + (step > from && step + LOG_STEP_S < to ? count : 0), 0);
        if (!told) {
          found.push(lines === 0 ? {
            severity: 'warning', from, to, path: REGULAR,
            text: `The times jump by ${lasting(to - from)}, from ${wallText(from)} to ${wallText(to)}, without a restart, a lost storage or a line of the log between: the clock was set forward, or the camera stood still.`,
          } : {
            severity: 'warning', from, to, path: REGULAR,
            text: `Nothing was recorded for ${lasting(to - from)} from ${at(from)}, though the log went on with ${counted(lines, 'line')}.`,
          });
        }
      }
      return found;
    },
  },
  {
    name: 'host', subject: 'hosts of the device test', reads: ['hosts'], limits: { outages: 2, time: 10 * MINUTE, night: 4 * HOUR },
    why: 'One outage of some minutes is a restart of the other side. When all begin in the same four hours of the day that is said.',
    async find({ series, figure }, limits) {
      const hosts = await series('hosts');
      return hosts.flatMap((host) => {
        const code = host.categories?.indexOf('not reachable') ?? -1;
        const outages = code < 0 ? [] : stretches(host, (value) => value === code);
        const [first, last] = [outages[0], outages.at(-1)];
        const down = outages.reduce((sum, { from, to }) => sum + to - from, 0);
        if (!first || !last) {
          figure(`Host ${host.name}`, 'always reached');
          return [];
        }
        if (outages.length === 1 && host.values.every((value) => value === null || value === code)) {
          return [{ severity: 'warning', from: first.from, to: last.to, chart: 'hosts', path: 'devicetest',
            text: `${host.name} was never reached, in ${counted(first.rows, 'row')} from ${at(first.from)} on.` }];
        }
        const clock = outages.map(({ from }) => from % DAY).sort((a, b) => a - b);
        // The widest part of the day in which none began.
        const spaces = clock.map((time, index) => ({ time, space: (index === 0 ? time + DAY - (clock.at(-1) ?? 0) : time - (clock[index - 1] ?? 0)) }));
        const widest = spaces.reduce((a, b) => (b.space > a.space ? b : a));
        const begin = widest.time;
        const end = (begin + DAY - widest.space) % DAY;
        const hour = (/** @type {number} */ time) => wallText(time).slice(11, 16);
        const daily = outages.length > 2 && DAY - widest.space <= limits.night ? `, always ${begin === end ? `at ${hour(begin)}` : `between ${hour(begin)} and ${hour(end)}`} o’clock` : '';
        return [{
          severity: outages.length >= limits.outages || down >= limits.time ? 'warning' : 'note', from: first.from, to: last.to, chart: 'hosts', path: 'devicetest',
          text: `${host.name} was not reached ${often(outages.map(({ from }) => from))}${daily}, for ${lasting(down)} in all.`,
        }];
      });
    },
  },
  {
    name: 'log storm', subject: 'the log', reads: ['log'], limits: { lines: 1500, usual: 10, grave: 60000 },
    why: 'Ten times as many lines in ten minutes as usual, and at least 1,500: what matters is lost among them, and they wear the storage.',
    async find({ log, figure }, limits) {
      if (!log || log.all.count === 0) {
        return [];
      }
      const usual = median([...log.steps.values()].map(({ count }) => count));
      figure('Log', `${counted(log.all.count, 'line')}, ${counted(log.errors.count, 'error')}`);
      const storms = [...log.steps].filter(([, { count }]) => count >= limits.lines && count >= limits.usual * usual).sort(([a], [b]) => a - b);
      const fullest = mostOf(storms.map(([, { count }]) => count));
      const programs = storms.find(([, { count }]) => count === fullest)?.[1].programs ?? [];
      const [program, lines] = [...programs].reduce((/** @type {[string, number]} */ a, b) => (b[1] > a[1] ? b : a), ['', 0]);
      const [first, last] = [storms[0], storms.at(-1)];
      return !first || !last ? [] : [{
        severity: fullest >= limits.grave ? 'grave' : 'warning', from: first[0], to: last[0] + LOG_STEP_S, chart: 'log', path: LOG,
        text: `${numberText(storms.reduce((sum, [, { count }]) => sum + count, 0))} lines came in ${lasting(storms.length * LOG_STEP_S)} from ${at(first[0])}, at most ${
          numberText(fullest)} in ten minutes, usual are ${numberText(usual)}; ${percent(lines / fullest)} of them by ${program || 'no program'}.`,
      }];
    },
  },
  {
    name: 'calls', subject: 'callers of the HTTP API', reads: ['http'], limits: { flood: 3000, many: 600, usual: 20, refused: 20 },
    why: 'Five calls a second for ten minutes keep a camera’s web server busy; one a second counts where it is twenty times what comes from all usually. Twenty refused logins in ten minutes are no typing errors.',
    async find({ http, span, figure }, limits) {
      if (!http || http.all.count === 0) {
        return [];
      }
      const steps = Math.max(http.steps.size, Math.round((span[1] - span[0]) / LOG_STEP_S)); // also those without a call
      const usual = http.steps.size * 2 < steps ? 0 : median([...http.steps.values()]);
      figure('HTTP API, busiest callers', http.callers.slice(0, 3).map(({ address, calls }) => `${address} ${numberText(calls.count)}`).join(', '));
      return http.callers.flatMap(({ address, calls, refused, busiest, mostRefused, users }) => {
        /** @type {Found[]} */
        const found = [];
        if (busiest.count >= limits.flood || (busiest.count >= limits.many && busiest.count >= limits.usual * usual)) {
          found.push({
            severity: 'warning', from: busiest.from, to: Math.max(busiest.from + LOG_STEP_S, calls.last), path: HTTP_LOG, chart: 'http-calls',
            text: `${address} called the web server ${times(calls.count)}, ${percent(calls.count / http.all.count)} of all calls, at most ${
              numberText(busiest.count)} in ten minutes, from ${at(busiest.from)}; usually ${numberText(usual)} come in all.`,
          });
        }
        if (refused.count > 0) {
          found.push({
            severity: mostRefused.count >= limits.refused ? 'warning' : 'note', from: refused.first, to: refused.last, path: HTTP_LOG,
            text: `Logins from ${address} were refused ${times(refused.count)} between ${at(refused.first)} and ${at(refused.last)}, with the names ${[...users].slice(0, 5).join(', ')}.`,
          });
        }
        return found;
      });
    },
  },
  {
    name: 'network errors', subject: 'network errors', reads: ['errors-'], limits: { errors: 60, drops: 600 },
    why: 'In an hour. A wire or a plug gives errors by the minute; packets are dropped now and then where a network has many broadcasts.',
    async find({ series, idsOf, figure, breathe }, limits) {
      /** @type {Found[]} */
      const found = [];
      for (const id of idsOf('errors-')) {
        let all = 0;
        for (const counter of await series(id)) {
          await breathe();
          const { count, most, hour } = amounts(counter);
          all += count;
          const limit = /drop$/.test(counter.name) ? limits.drops : limits.errors;
          if (most >= (/drop$/.test(counter.name) ? limits.drops / 10 : 1)) {
            found.push({
              severity: most >= limit ? 'warning' : 'note', from: hour, to: hour + HOUR, chart: id, path: id.slice('errors-'.length),
              text: `${id.slice('errors-'.length)} counted ${numberText(Math.round(count))} of “${counter.name}”, at most ${numberText(Math.round(most))} in an hour, from ${at(hour)}.`,
            });
          }
        }
        figure(`Errors of ${id.slice('errors-'.length)}`, numberText(Math.round(all)));
      }
      return found;
    },
  },
  {
    name: 'traffic', subject: 'traffic', reads: ['traffic-'], limits: { least: 5000, broken: 0.02, flood: 10, much: MB, rows: 5, rare: 0.1 },
    why: 'Ten minutes in which nearly nothing came in or went out, where usually something does, are a link that was down; ten times the usual and a megabyte a second are a flood.',
    async find({ series, idsOf }, limits) {
      /** @type {Found[]} */
      const found = [];
      for (const id of idsOf('traffic-').filter((one) => one !== 'traffic-lo')) {
        const name = id.slice('traffic-'.length);
        const both = await series(id);
        const usual = new Map(both.map((one) => [one.name, median(one.values.filter((value) => value !== null))]));
        const [received, sent] = ['received', 'sent'].map((direction) => both.find((one) => one.name === direction));
        if (received && sent && received.times.length === sent.times.length) {
          const limitOf = (/** @type {string} */ direction) => (usual.get(direction) ?? 0) * limits.broken;
          const off = stretches({ ...received, values: received.values.map((value, row) => (value === null ? null
            : Number(value <= limitOf('received') && (sent.values[row] ?? 0) <= limitOf('sent')))) }, (value) => value === 1)
            .filter(({ rows }) => rows >= limits.rows);
          const sum = off.reduce((all, { rows }) => all + rows, 0);
          const [first, last] = [off[0], off.at(-1)];
          if (first && last && (usual.get('sent') ?? 0) + (usual.get('received') ?? 0) >= limits.least && sum < received.times.length * limits.rare) {
            found.push({
              severity: 'warning', from: first.from, to: last.to, chart: id, path: name,
              text: `Traffic of ${name} broke off ${often(off.map(({ from }) => from))}, for ${lasting(off.reduce((all, { from, to }) => all + to - from, 0))} in all; usually ${
                valueText(usual.get('sent'), 'B/s')} are sent.`,
            });
          }
        }
        if (received) {
          const limit = Math.max(limits.much, limits.flood * (usual.get('received') ?? 0));
          const flood = stretches(received, (value) => value >= limit).filter(({ rows }) => rows >= limits.rows);
          const [first, last] = [flood[0], flood.at(-1)];
          if (first && last) {
            found.push({
              severity: 'warning', from: first.from, to: last.to, chart: id, path: name,
              text: `${name} was flooded ${often(flood.map(({ from }) => from))}: ${valueText(mostOf(flood.map(({ most }) => most)), 'B/s')} received, usual are ${valueText(usual.get('received'), 'B/s')}.`,
            });
          }
        }
      }
      return found;
    },
  },
  {
    name: 'errors in the log', subject: 'errors in the log', reads: ['log'], limits: { critical: 2, repeated: 20, hourly: 30, shown: 5 },
    why: 'Critical lines count at any rate, errors where they come more than thirty times an hour while they come. Others are told, as a firmware has its own.',
    async find({ log }, limits) {
      return (log?.patterns ?? []).filter(({ severity, count }) => severity <= limits.critical || count >= limits.repeated)
        .slice(0, limits.shown).map(({ severity, count, first, last, example, program }) => ({
          severity: severity <= limits.critical || count / Math.max(1, (last - first) / HOUR) >= limits.hourly ? 'warning' : 'note',
          from: first, to: last, chart: 'log', path: LOG,
          text: `${program || 'The log'} said ${times(count)} between ${at(first)} and ${at(last)}${severity <= limits.critical ? ', as critical' : ''}: “${example}”`,
        }));
    },
  },
  {
    name: 'page faults', subject: 'page faults', reads: ['major-faults'], limits: { rate: 100, usual: 10, time: 10 * MINUTE },
    why: 'A hundred pages a second from the storage, and ten times the usual: memory is so short that programs are read again and again.',
    async find({ series }, limits) {
      const [faults] = await series('major-faults');
      const usual = median(faults?.values.filter((value) => value !== null) ?? []);
      const storms = faults ? stretches(faults, (value) => value >= Math.max(limits.rate, limits.usual * usual)).filter(({ from, to }) => to - from >= limits.time) : [];
      const [first, last] = [storms[0], storms.at(-1)];
      return !first || !last ? [] : [{
        severity: 'warning', from: first.from, to: last.to, chart: 'major-faults', path: 'pagefaults',
        text: `Up to ${valueText(mostOf(storms.map(({ most }) => most)), '1/s')} page faults were served from the storage, ${often(storms.map(({ from }) => from))}.`,
      }];
    },
  },
  {
    name: 'rows', subject: 'rows of each collection', reads: ['rows'], limits: { late: 1.25, share: 0.05 },
    why: 'A row that comes a quarter of the interval late shows a busy camera; one in twenty is told.',
    async find({ rows, gaps, figure }, limits) {
      const usual = usualInterval(rows);
      const steps = rows.slice(1).map((time, row) => time - (rows[row] ?? 0));
      const late = steps.filter((step) => step > usual * limits.late && !gaps.some(([from, to]) => to - from === step)).length;
      const missing = gaps.reduce((sum, [from, to]) => sum + to - from - usual, 0);
      const [first = 0, last = 0] = [rows[0], rows.at(-1)];
      figure('Rows', `${numberText(rows.length)}, one in ${lasting(usual)}; missing for ${missing > 0 ? lasting(missing) : 'no time'}`);
      /** @type {Found[]} */
      const found = [];
      if (late > rows.length * limits.share) {
        found.push({ severity: 'note', from: first, to: last, path: REGULAR,
          text: `${numberText(late)} of ${counted(rows.length, 'row')} came late, more than ${lasting(usual * limits.late)} after the one before.` });
      }
      if (gaps.length > 0) {
        found.push({ severity: 'note', from: gaps[0]?.[0] ?? first, to: gaps.at(-1)?.[1] ?? last, path: REGULAR,
          text: `Rows are missing for ${lasting(missing)}, in ${counted(gaps.length, 'hole')} of the recording.` });
      }
      return found;
    },
  },
  {
    name: 'triggers', subject: 'log triggers', reads: ['marks'], limits: {},
    why: 'Somebody set them up to be told.',
    async find({ marks }) {
      const fired = groupedBy(marks.filter(({ kind, text }) => kind === 'trigger' && text.startsWith('Log trigger')), ({ text }) => text);
      return [...fired].slice(0, 5).map(([text, all]) => ({
        severity: 'note', from: all[0]?.time ?? 0, to: all.at(-1)?.time ?? 0, path: 'system_monitoring/monitoring_metadata/eventlistener.txt',
        text: `${text} ${often(all.map(({ time }) => time))}.`,
      }));
    },
  },
];

const MEMORY_FILES = /** @type {Record<string, string>} */ ({
  programs: 'AnonPages', 'kernel objects that stay': 'SUnreclaim', 'kernel stacks': 'KernelStack', 'page tables': 'PageTables', 'shared memory': 'Shmem',
});

/** Hours, or shorter where the whole is. @param {Series} series */
const growthStep = ({ times }) => Math.min(HOUR, Math.max(600, ((times.at(-1) ?? 0) - (times[0] ?? 0)) / 48));

/** All memory, and what of it is available at the end. @param {Known['series']} series */
const memoryOf = async (series) => ({
  total: (await series('memory-total'))[0]?.values.find((value) => value !== null) ?? 0,
  available: (await series('available'))[0]?.values.at(-1) ?? Infinity,
});

/**
 * @param {string} name @param {NonNullable<ReturnType<typeof clearGrowth>>} growth
 * @param {Awaited<ReturnType<typeof memoryOf>>} memory @param {Record<string, any>} limits
 * @returns {Found}
 */
function grownText(name, { slope, growth, level, from, to }, { total, available }, limits) {
  const left = available / slope < (to - from) * limits.ahead ? available / slope : Infinity;
  return {
    severity: left < limits.soon || (growth > 3 * level && growth > total / 10) ? 'grave' : 'warning', from, to,
    text: `${name} grew from ${valueText(level, 'B')} to ${valueText(level + growth, 'B')} in ${lasting(to - from)}, about ${valueText(slope * DAY, 'B')} a day${
      left < 365 * DAY ? `; at that rate memory is used up in ${lasting(left)}` : ''}.`,
  };
}

/** What a counter's growth adds up to, and in which hour most. @param {Series} series a rate */
function amounts({ times, values }) {
  /** @type {Map<number, number>} */
  const hours = new Map();
  let count = 0;
  for (const [row, rate] of values.entries()) {
    const grown = rate === null ? 0 : rate * ((times[row] ?? 0) - (times[row - 1] ?? times[row] ?? 0));
    if (grown > 0) {
      const hour = Math.floor((times[row] ?? 0) / HOUR) * HOUR;
      hours.set(hour, (hours.get(hour) ?? 0) + grown);
      count += grown;
    }
  }
  const [hour, most] = [...hours].reduce((a, b) => (b[1] > a[1] ? b : a), [0, 0]);
  return { count, most, hour };
}

// --- Reading

/**
 * What the rules read, each thing once and only when it is asked for.
 * @param {Input} input @param {() => Promise<void>} breathe
 */
async function createKnown({ recording, source, contents, marks, signal }, breathe) {
  const files = [...contents.csv, ...contents.files];
  const bytesOf = (/** @type {string} */ path) => files.find((file) => file.path === path)?.bytes ?? 0;
  const charts = chartsOf(contents.csv, contents.files);
  /** @type {Map<string, Promise<Series[]>>} */
  const known = new Map();
  /** @type {[string, string][]} */
  const figures = [];
  /** @type {string[]} */
  const remarks = [];

  /** @template Digest @param {string} path @param {{add: (line: string) => void, finish: () => Digest}} digest */
  async function digestOf(path, digest) {
    const bytes = bytesOf(path);
    if (bytes === 0) {
      return null;
    }
    const reader = lineReader(digest.add);
    await recording.read(path, (piece) => reader.add(piece), { from: Math.max(0, bytes - MOST_LOG_BYTES), most: MOST_LOG_BYTES, signal });
    reader.finish();
    if (bytes > MOST_LOG_BYTES) {
      remarks.push(`of ${path} all but the last ${byteSize(MOST_LOG_BYTES)}`);
    }
    return digest.finish();
  }
  const log = await digestOf(LOG, logDigest());
  await breathe();
  const http = await digestOf(HTTP_LOG, httpDigest());
  await breathe();
  const rows = contents.csv.some(({ path }) => path === REGULAR) ? (await source.table(REGULAR, /./, { signal })).times : [];
  const ascending = [...rows].sort((a, b) => a - b);
  const span = /** @type {[number, number]} */ (ascending.length > 0 ? [ascending[0], ascending.at(-1)]
    : log && log.all.count > 0 ? [log.all.first, log.all.last] : [0, 0]);

  return {
    files, marks, log, http, rows, span, figures, remarks, breathe,
    gaps: holes(ascending),
    /** @param {string} beginning of ids */
    idsOf: (beginning) => charts.map(({ id }) => id).filter((id) => id.startsWith(beginning)),
    /** @param {string} name @param {string} value */
    figure: (name, value) => { figures.push([name, value]); },
    /** The series of a chart; none where it was not recorded. @param {string} id @returns {Promise<Series[]>} */
    series(id) {
      const chart = charts.find((one) => one.id === (id === 'memory-total' ? 'memory' : id));
      const reading = known.get(id) ?? (async () => {
        if (!chart) {
          return [];
        }
        const all = chart.parts.reduce((sum, { path }) => sum + bytesOf(path), 0) <= MOST_CHART_BYTES;
        const reads = id === 'memory-total' ? [{ ...chart, derived: [], parts: chart.parts.filter(({ path }) => path.endsWith('/MemTotal.csv')) }]
          // Of many things each by itself: they are put together in one go.
          : chart.choice === null || !all ? [chart]
            : [...groupedBy(chart.parts, ({ name }) => name('', '')).values()].map((parts) => ({ ...chart, parts }));
        /** @type {Series[]} */
        const series = [];
        for (let next = 0; next < reads.length; next += AT_ONCE) {
          for (const read of await Promise.all(reads.slice(next, next + AT_ONCE).map((one) => source.read(one, { signal })))) {
            series.push(...read.series);
          }
          await breathe();
        }
        return series;
      })();
      known.set(id, reading);
      return reading;
    },
    /** A file of a chart by a part of its path. @param {string} id @param {string} part */
    fileOf: (id, part) => {
      const paths = charts.find((one) => one.id === id)?.parts.map(({ path }) => path) ?? [];
      return paths.find((path) => path.includes(part)) ?? paths[0];
    },
    /** @param {string} what of a rule's "reads" */
    isRecorded: (what) => (what === 'marks' || (what === 'rows' ? rows.length > 1 : what === 'log' ? log !== null : what === 'http' ? http !== null
      : charts.some(({ id }) => (what.endsWith('-') ? id.startsWith(what) : id === what)))),
  };
}

/**
 * @typedef {object} Input
 * @property {import('./recording.js').Recording} recording
 * @property {ReturnType<typeof import('./session_series.js').createSource>} source
 * @property {import('./recording.js').Contents} contents
 * @property {Mark[]} marks
 * @property {AbortSignal} [signal]
 * @property {(done: number) => void} [onProgress] from 0 to 1
 */

/** How much the rules read of a recording. @param {import('./recording.js').Contents} contents */
export function bytesToRead({ csv, files }) {
  const wanted = RULES.flatMap(({ reads }) => reads);
  const paths = new Set(chartsOf(csv, files).filter(({ id }) => wanted.some((one) => id === one || (one.endsWith('-') && id.startsWith(one))))
    .flatMap(({ parts }) => parts.map(({ path }) => path)).concat(LOG, HTTP_LOG, REGULAR));
  return [...csv, ...files].reduce((sum, { path, bytes }) => sum + (paths.has(path) ? bytes : 0), 0);
}

/**
 * Applies all rules. Throws when it is aborted, and what reading throws.
 * @param {Input} input
 * @returns {Promise<{findings: Finding[], figures: [string, string][], unjudged: string[], span: [number, number]}>} the gravest
 *     findings first; what figures there are; what was not recorded or not whole
 */
export async function findingsOf(input) {
  const { signal, onProgress } = input;
  let since = performance.now();
  /** Lets the page go on. */
  async function breathe() {
    signal?.throwIfAborted();
    if (performance.now() - since > SLICE_MS) {
      await new Promise((resolve) => { setTimeout(resolve, 0); });
      since = performance.now();
    }
  }
  const known = await createKnown(input, breathe);
  /** @type {Finding[]} */
  const findings = [];
  const unjudged = [...known.remarks];
  for (const [index, rule] of RULES.entries()) {
    onProgress?.((index + 1) / (RULES.length + 1));
    await breathe();
    if (!rule.reads.every(known.isRecorded)) {
      unjudged.push(rule.subject);
      continue;
    }
    for (const { severity, text, from, to, chart = '', path = '' } of await rule.find(known, rule.limits)) {
      findings.push({ rule: rule.name, severity, text, from, to, chart, path: (chart && !path.includes('_monitoring/') ? known.fileOf(chart, path) : path) ?? '' });
    }
  }
  findings.sort((a, b) => SEVERITIES.indexOf(a.severity) - SEVERITIES.indexOf(b.severity));
  return { findings, figures: known.figures, unjudged, span: known.span };
}
