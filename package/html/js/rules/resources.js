// Rules about what a camera has little of: memory, processor, and the heat that it bears.

import { median, medians, quantile, smoothed, stretches, trend } from '../robust.js';
import { isConstant } from '../series.js';
import { numberText, valueText } from '../units.js';
import { at, DAY, foundInEach, HOUR, lasting, lengthOf, MB, MINUTE, mostOf, often, percent } from './words.js';

/** @typedef {import('../findings.js').Rule} Rule */
/** @typedef {import('../findings.js').Found} Found */
/** @typedef {import('../findings.js').Known} Known */
/** @typedef {import('../findings.js').Judged} Judged */
/** @typedef {import('../robust.js').Point} Point */

const MEMORY_FILES = /** @type {Record<string, string>} */ ({
  programs: 'AnonPages', 'kernel objects that stay': 'SUnreclaim', 'kernel stacks': 'KernelStack', 'page tables': 'PageTables', 'shared memory': 'Shmem',
});
// Copies of what lies on storages: the kernel gives them back.
const RECLAIMABLE = /^(?:dentry|buffer_head|radix_tree_node|.*inode.*)$/;

const valuesOf = (/** @type {import('../series.js').Series} */ { values }) => values.filter((value) => value !== null);
/** Whether something lasted, be there a row in two minutes or in ten. @param {number} time @param {number} rows */
const lasted = (time, rows) => (/** @type {{from: number, to: number, rows: number}} */ one) => one.to - one.from >= time && one.rows >= rows;

// --- Growth

/** Growth is told at these limits in all rules of memory: what each of them adds is the amount from which on. */
const GROWTH = { points: 10, span: 5 * HOUR, shortSpan: 2 * HOUR, rising: 0.85, shortRising: 0.97, later: 0.5, spreads: 5, soon: 14 * DAY, ahead: 20 };
const WHY_GROWTH = 'The median slope of all pairs of hours. Said only when 85 % of the pairs rise (97 % where less than five hours were seen), the last half rises on (a start that levels off is none), '
  + 'and the sum is five times the spread. What is to come is told for at most twenty times as long as was seen.';

const [FALL, FALL_AT_RESTART] = [0.7, 0.95]; // to that part of what there was before

/**
 * The longest part of a line of points that does not fall off at once, as when a process begins anew, or at a restart
 * of the camera by less.
 * @param {Point[]} points @param {number[]} restarts
 */
function unbroken(points, restarts) {
  let [best, begin] = [/** @type {Point[]} */ ([]), 0];
  for (let end = 1; end <= points.length; end++) {
    const [before, next] = [points[end - 1], points[end]];
    if (!before || !next || next.value < before.value * FALL
      || (next.value < before.value * FALL_AT_RESTART && restarts.some((time) => time > before.time && time <= next.time))) {
      best = end - begin > best.length ? points.slice(begin, end) : best;
      begin = end;
    }
  }
  return best;
}

/**
 * Growth that is clear: nearly all pairs of points rise, the later half goes on as the whole did, and the
 * sum is far above what the points differ from it.
 * @param {Judged} series @param {number[]} restarts
 */
function clearGrowth(series, restarts) {
  const step = Math.min(HOUR, Math.max(600, ((series.times.at(-1) ?? 0) - (series.times[0] ?? 0)) / 48));
  const points = unbroken(medians(series, step), restarts);
  const [first, last] = [points[0], points.at(-1)];
  if (!first || !last || points.length < GROWTH.points || last.time - first.time < GROWTH.shortSpan) {
    return null;
  }
  const { slope, rising } = trend(points);
  const growth = slope * (last.time - first.time);
  const level = median(points.map(({ time, value }) => value - slope * (time - first.time)));
  const spread = median(points.map(({ time, value }) => Math.abs(value - slope * (time - first.time) - level)));
  const later = trend(points.slice(points.length >> 1)).slope;
  const least = last.time - first.time < GROWTH.span ? GROWTH.shortRising : GROWTH.rising;
  return rising < least || later < slope * GROWTH.later || growth < spread * GROWTH.spreads ? null
    : { slope, growth, level, from: first.time, to: last.time };
}

/** All memory, and what of it is available at the end. @param {Known['series']} series */
const memoryOf = async (series) => ({
  total: (await series('memory-total'))[0]?.whole.values.find((value) => value !== null) ?? 0,
  available: (await series('available'))[0]?.values.at(-1) ?? Infinity,
});

/**
 * The series that grew by more than is usual, those that grew most first.
 * @param {Known} known @param {(Judged & {title: string, path: string})[]} all
 * @param {{least: number, share: number, ofAll: number}} limits bytes, part of what there was, part of all memory
 * @returns {Promise<Found[]>}
 */
async function grown({ series, restarts, breathe }, all, limits) {
  const { total, available } = await memoryOf(series);
  /** @type {(Found & {growth: number})[]} */
  const found = [];
  for (const one of all) {
    await breathe();
    const clear = clearGrowth(one, restarts);
    if (!clear || clear.growth <= Math.max(limits.least, clear.level * limits.share, total * limits.ofAll)) {
      continue;
    }
    const { slope, growth, level, from, to } = clear;
    const left = available / slope < (to - from) * GROWTH.ahead ? available / slope : Infinity;
    found.push({
      growth, from, to, path: one.path,
      severity: left < GROWTH.soon || (growth > 3 * level && growth > total / 10) ? 'grave' : 'warning',
      text: `${one.title} grew from ${valueText(Math.max(0, level), 'B')} to ${valueText(level + growth, 'B')} in ${lasting(to - from)}, about ${valueText(slope * DAY, 'B')} a day${
        left < 365 * DAY ? `; at that rate memory is used up in ${lasting(left)}` : ''}.`,
    });
  }
  return found.sort((a, b) => b.growth - a.growth).map(({ growth: _, ...one }) => one);
}

/** @type {Rule[]} */
export const RESOURCE_RULES = [
  {
    name: 'memory of a process', subject: 'memory of processes', reads: ['process-growth'], limits: { least: 4 * MB, share: 0.2, ofAll: 0.01 },
    why: `${WHY_GROWTH} A fifth of what the process had, a hundredth of all memory and 4 MB are more than buffers come and go with.`,
    async find(known, limits) {
      const all = (await known.series('process-growth')).map((one) => ({ ...one, title: `Memory of ${one.name}`, path: `/${one.name}/` }));
      return (await grown(known, all, /** @type {any} */ (limits))).map((one) => ({ ...one, chart: 'process-growth' }));
    },
  },
  {
    name: 'memory of the system', subject: 'memory of the kernel', reads: ['memory-parts'], limits: { least: 8 * MB, share: 0.2, ofAll: 0.03 },
    why: `${WHY_GROWTH} From 3 % of all memory on. The kernel’s objects as a whole are left out, as files that it gives back are among them.`,
    async find(known, limits) {
      const all = (await known.series('memory-parts')).filter(({ name }) => name !== 'kernel objects')
        .map((one) => ({ ...one, title: `Memory for ${one.name}`, path: MEMORY_FILES[one.name] ?? '' }));
      return (await grown(known, all, /** @type {any} */ (limits))).map((one) => ({ ...one, chart: 'memory-parts' }));
    },
  },
  {
    name: 'slab caches', subject: 'objects of the kernel', reads: ['slab'], limits: { least: 4 * MB, share: 0.5, ofAll: 0.01 },
    why: `${WHY_GROWTH} Caches of files are left out, as the kernel gives them back. Only those are read whole whose ends are that far apart.`,
    async find(known, limits) {
      const { total } = await memoryOf(known.series);
      const all = [];
      const least = Math.max(limits.least, total * limits.ofAll);
      const kept = (await known.series('memory-parts')).find(({ name }) => name === 'kernel objects that stay');
      if (kept && mostOf(valuesOf(kept)) - valuesOf(kept).reduce((a, b) => Math.min(a, b), Infinity) < least / 2) {
        return []; // what all of them have did not grow: there are hundreds of files
      }
      for (const cache of await known.slabCaches(({ name, first, last }) => !RECLAIMABLE.test(name)
        && last - first > Math.max(least, first * limits.share) / 2)) {
        all.push({ ...cache, title: `The kernel’s objects of ${cache.name}`, path: `/${cache.name}.csv` });
      }
      return (await grown(known, all, /** @type {any} */ (limits))).map((one) => ({ ...one, chart: 'slab' }));
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
      const least = valuesOf(available).reduce((a, b) => Math.min(a, b), Infinity);
      figure('Available memory', `at least ${valueText(least, 'B')} of ${valueText(total, 'B')}`);
      for (const severity of /** @type {const} */ (['grave', 'warning'])) {
        const limit = total * (severity === 'grave' ? limits.grave : limits.low);
        const low = stretches(available, (value) => value < limit).filter(({ rows }) => rows >= limits.rows);
        const [first, last] = [low[0], low.at(-1)];
        if (first && last) {
          return [{
            severity, from: first.from, to: last.to, chart: 'available', path: 'MemAvailable', limit: { value: limit, text: `${percent(limit / total)} of all` },
            text: `Memory was low: down to ${valueText(least, 'B')} of ${valueText(total, 'B')}, below ${percent(limit / total)} for ${
              lasting(lengthOf(low))}, first at ${at(first.from)}.`,
          }];
        }
      }
      return [];
    },
  },
  {
    name: 'page faults', subject: 'page faults', reads: ['major-faults'], limits: { rate: 100, usual: 10, time: 10 * MINUTE, low: 0.15, page: 4096 },
    why: 'A hundred pages a second from the storage, and ten times the usual. Where less than 15 % of memory is available, or more was read than there is memory, programs are read again and again; else much was read for the first time, which is told.',
    async find({ series }, limits) {
      const [faults] = await series('major-faults');
      const usual = faults ? quantile(valuesOf(faults.whole), 0.25) : 0;
      const storms = faults ? stretches(faults, (value) => value >= Math.max(limits.rate, limits.usual * usual)).filter(({ from, to }) => to - from >= limits.time) : [];
      const [first, last] = [storms[0], storms.at(-1)];
      const [[available], { total }] = [await series('available'), await memoryOf(series)];
      const isPlenty = available && total > 0 && storms.every(({ from, to }) => available.values.every((value, row) => value === null || value >= limits.low * total
        || (available.times[row] ?? 0) < from || (available.times[row] ?? 0) > to))
        && storms.every(({ from, to, most }) => most / 2 * (to - from) * limits.page < total);
      return !first || !last ? [] : [{
        severity: isPlenty ? 'note' : 'warning', from: first.from, to: last.to, chart: 'major-faults', path: 'pagefaults',
        text: `Up to ${valueText(mostOf(storms.map(({ most }) => most)), '1/s')} page faults were served from the storage, ${often(storms.map(({ from }) => from))}.`,
      }];
    },
  },
  {
    name: 'process takes a core', subject: 'the processor of processes', reads: ['process-processor'],
    limits: { core: 0.85, always: 80, unknown: 22, usual: 2, time: 30 * MINUTE, rows: 3 },
    why: 'Of four cores one is 25 %. Half an hour of 85 % of a core counts where it is twice what the process takes otherwise, 80 % of all cores at any rate. Where it is not known how many cores there are, four are taken, as most cameras have at most.',
    async find({ series, figure, cores, breathe }, limits) {
      const all = await series('process-processor');
      const usually = all.map((process) => ({ name: process.name, usual: median(valuesOf(process.whole)) })).sort((a, b) => b.usual - a.usual);
      if (usually[0]) {
        figure('Processor, most', `${usually[0].name}, usually ${valueText(usually[0].usual, '%')}`);
      }
      const count = await cores();
      const core = count > 0 ? limits.core * 100 / count : limits.unknown;
      return foundInEach(all, breathe, /** @returns {Found[]} */ (process) => {
        // What it takes at its quieter times: what it does for most of a session may be the fault itself.
        const quiet = quantile(valuesOf(process.whole), 0.25);
        const limit = Math.min(limits.always, Math.max(core, limits.usual * quiet));
        const [longest] = stretches(smoothed(process), (value) => value >= limit).filter(lasted(limits.time, limits.rows)).sort((a, b) => b.to - b.from - a.to + a.from);
        if (!longest) {
          return [];
        }
        const [own, others] = [/** @type {number[]} */ ([]), /** @type {number[]} */ ([])];
        process.whole.values.forEach((value, row) => {
          const time = process.whole.times[row] ?? 0;
          const isOwn = time >= longest.from && time < longest.to;
          if (value !== null && (isOwn || value < limit)) {
            (isOwn ? own : others).push(value);
          }
        });
        return [{
          severity: 'warning', from: longest.from, to: longest.to, chart: 'process-processor', path: `/${process.name}/`, limit: { value: limit, text: valueText(limit, '%') },
          text: `${process.name} took ${valueText(median(own), '%')} of the processor${count > 1 ? ` (a core is ${valueText(100 / count, '%')})` : ''}, at most ${valueText(longest.most, '%')}, for ${
            lasting(longest.to - longest.from)} from ${at(longest.from)}${others.length > 0 ? `; usual are ${valueText(median(others), '%')}` : ''}.`,
        }];
      });
    },
  },
  {
    name: 'fan', subject: 'heaters and fans', reads: ['climate'], limits: { running: 0.9, time: 30 * MINUTE, rows: 5, longer: 5, times: 3, known: 2 * DAY, soon: 3 * HOUR, cycles: 5, rise: 1, warmer: 5, hot: 75 },
    why: 'One that ran nearly always, or came and went by the clock, or whose stop made a sensor warmer by 5 °C, and then stands still far longer than ever before has stopped; of one that was seen for less than two days it is a note where nothing became warmer. One that goes by a thermostat stops often, and when it is cool; it is left alone. That a heater came on is told. A state that names a fault is one.',
    async find({ series }, limits) {
      const sensors = await series('temperature');
      /** By how much the sensor that rose most did, from as long before as it lasted. @param {number} from @param {number} to */
      const warming = (from, to) => sensors.map(({ name, whole: { times, values } }) => {
        const parts = [/** @type {number[]} */ ([]), /** @type {number[]} */ ([])];
        let before = -Infinity; // the most at any time before
        values.forEach((value, row) => {
          const time = times[row] ?? 0;
          if (value !== null && time < to && time >= from - (to - from)) {
            parts[time < from ? 0 : 1]?.push(value);
          }
          before = time < from ? Math.max(before, value ?? -Infinity) : before;
        });
        return { name, by: median(parts[1] ?? []) - median(parts[0] ?? []), most: mostOf(parts[1] ?? []), before };
      }).filter(({ by }) => !Number.isNaN(by)).sort((a, b) => b.by - a.by)[0];
      return (await series('climate')).flatMap((device) => {
        const { whole } = device;
        const found = /** @type {Found[]} */ ([]);
        const place = { chart: 'climate', path: device.name.replaceAll(' ', '_') };
        const bad = stretches(device, (value) => /fail|fault|error|block|defect|stuck/i.test(device.categories?.[value] ?? ''));
        if (bad[0]) {
          found.push({ ...place, severity: 'warning', from: bad[0].from, to: bad.at(-1)?.to ?? bad[0].to,
            text: `${device.name} was told to be “${device.categories?.[bad[0].most] ?? ''}” ${often(bad.map(({ from }) => from))}.` });
        }
        const stopped = device.categories?.findIndex((text) => /stop|off|idle|inactive/i.test(text)) ?? -1;
        const still = stretches(device, (value) => value === stopped).sort((a, b) => b.rows - a.rows);
        const runs = stretches(device, (value) => value !== stopped);
        const [run] = runs;
        if (stopped >= 0 && run && /^Heater/.test(device.name) && run.from > (whole.times[0] ?? 0) && whole.values.includes(stopped)) {
          found.push({ ...place, severity: 'note', from: run.from, to: runs.at(-1)?.to ?? run.to,
            text: `${device.name} came on ${often(runs.map(({ from }) => from))}, for ${lasting(lengthOf(runs))} in all.` });
        }
        const [longest] = still;
        const long = still.filter(({ rows }) => rows * limits.longer > (longest?.rows ?? 0)).sort((a, b) => a.from - b.from);
        const [first] = long;
        if (stopped < 0 || !longest || !first || !lasted(limits.time, limits.rows)(longest) || /^Heater/.test(device.name)) {
          return found;
        }
        const before = whole.values.filter((value, row) => value !== null && (whole.times[row] ?? 0) < first.from);
        const ran = before.filter((value) => value !== stopped).length;
        const isKnown = first.from - (whole.times[0] ?? 0) > limits.known; // a thermostat would have stopped it by night
        // What happens at once is by the stop; what comes later may be the night, the sun or another fault.
        const warmer = warming(longest.from, Math.min(longest.to, longest.from + limits.soon));
        const isWarm = warmer !== undefined && warmer.by >= limits.warmer;
        const whileStill = warming(longest.from, longest.to);
        const most = whileStill?.most ?? 0;
        const isHotter = whileStill !== undefined && most >= limits.hot && most > whileStill.before + limits.warmer;
        const isCool = warmer !== undefined && warmer.by < -1 && !isKnown;
        const isRegular = still.length - long.length >= limits.cycles; // it came and went, and then not any more
        if (long.length > (isKnown ? limits.times : 1) || before.length < limits.rows || isCool || ran === 0 || (ran < before.length * limits.running && !isWarm && !isRegular)) {
          return found;
        }
        return [...found, {
          ...place, severity: isHotter || (isWarm && most >= limits.hot) ? 'grave' : isKnown || isRegular || (warmer?.by ?? 0) >= limits.rise ? 'warning' : 'note', from: first.from, to: long.at(-1)?.to ?? first.to,
          text: `${device.name} stopped ${long.length === 1 ? `at ${at(first.from)}` : often(long.map(({ from }) => from))} and stood still for ${lasting(lengthOf(long))}; before it had run for ${
            percent(ran / before.length)} of the time${isWarm ? `. ${warmer.name} became warmer by ${valueText(Math.round(warmer.by), '°C')}, up to ${valueText(most, '°C')}` : ''}.`,
        }];
      });
    },
  },
  {
    name: 'temperature', subject: 'temperatures', reads: ['temperature'],
    limits: { high: 75, above: 12, warm: 60, far: 20, always: 85, grave: 90, time: 10 * MINUTE, rows: 3, days: 3, swing: 10 },
    why: 'High is what processors of cameras throttle near; a sensor counts that is also 12 °C above its own usual, or above 85 °C at any rate, and a warm one that is 20 °C above it. The usual is what most days reach, as temperatures follow the day; of less than three days 10 °C more than the cooler hours have.',
    async find({ series, figure, breathe }, limits) {
      return foundInEach(await series('temperature'), breathe, /** @returns {Found[]} */ (sensor) => {
        const values = valuesOf(sensor.whole);
        const most = mostOf(valuesOf(sensor));
        if (!Number.isFinite(most) || isConstant(sensor.whole) && most < limits.always) {
          return [];
        }
        figure(`Temperature, ${sensor.name}`, `${valueText(median(values), '°C')}, at most ${valueText(most, '°C')}`);
        const begin = sensor.whole.times[0] ?? 0;
        const days = /** @type {number[]} */ ([]);
        sensor.whole.values.forEach((value, row) => {
          const day = Math.floor(((sensor.whole.times[row] ?? 0) - begin) / DAY);
          days[day] = Math.max(days[day] ?? -Infinity, value ?? -Infinity);
        });
        const usual = days.length <= limits.days ? quantile(values, 0.25) + limits.swing : quantile(days.slice(0, -1).filter(Number.isFinite), 0.25);
        const limit = Math.round(Math.min(limits.always, Math.max(limits.high, usual + limits.above), Math.max(limits.warm, usual + limits.far)));
        const hot = stretches(smoothed(sensor), (value) => value >= limit).filter(lasted(limits.time, limits.rows));
        const [first, last] = [hot[0], hot.at(-1)];
        const cooler = median(values.filter((value) => value < limit));
        return !first || !last ? [] : [{
          severity: most >= limits.grave ? 'grave' : 'warning', from: first.from, to: last.to, chart: 'temperature', path: sensor.name.replaceAll(' ', '_'),
          limit: { value: limit, text: valueText(limit, '°C') },
          text: `Temperature of ${sensor.name} reached ${valueText(most, '°C')}${Number.isNaN(cooler) ? '' : `, usual are ${valueText(cooler, '°C')}`}: ${
            valueText(limit, '°C')} or more for ${lasting(lengthOf(hot))}, first at ${at(first.from)}.`,
        }];
      });
    },
  },
  {
    name: 'load', subject: 'the load', reads: ['load'], limits: { cores: 4, time: HOUR, rows: 5, usual: 1.5, much: 2, waits: 50 },
    why: 'More runs or waits than there are cores, for an hour. It is a warning where it is also twice that number and half as much again as usual: the drivers of many cameras count as load though they only wait. Where all processes together took less than half of the processor, they waited, for a storage or for others, which is told. Where it is not known how many cores there are, four are taken.',
    async find({ series, cores: coresOf, figure }, limits) {
      const load = (await series('load')).find(({ name }) => name === '15 min');
      if (!load) {
        return [];
      }
      const known = await coresOf();
      const cores = known || limits.cores;
      const usual = quantile(valuesOf(load.whole), 0.25);
      figure('Load of 15 minutes', `usually ${numberText(median(valuesOf(load.whole)))}${known ? `, of ${known} cores` : ''}`);
      const high = stretches(load, (value) => value > cores).filter(lasted(limits.time, limits.rows));
      const [first, last] = [high[0], high.at(-1)];
      const most = mostOf(high.map((one) => one.most));
      let [busy, rows] = [0, 0];
      for (const { times, values } of high.length > 0 ? await series('process-processor') : []) {
        const own = values.filter((value, row) => value !== null && high.some(({ from, to }) => (times[row] ?? 0) >= from && (times[row] ?? 0) <= to));
        busy += own.reduce((/** @type {number} */ sum, value) => sum + (value ?? 0), 0);
        rows = Math.max(rows, own.length);
      }
      const waits = rows > 0 && busy / rows < limits.waits;
      const isFar = most >= limits.much * cores && most >= limits.usual * usual;
      return !first || !last ? [] : [{
        severity: isFar && !waits ? 'warning' : 'note', from: first.from, to: last.to, chart: 'load', path: 'load',
        limit: { value: cores, text: `${cores} cores` },
        text: `The load was above ${cores}, ${known ? 'the number of cores' : 'as the number of cores is not known'}, for ${
          lasting(lengthOf(high))}, at most ${numberText(most)}; usual are ${numberText(median(valuesOf(load.whole)))}${waits ? `. Its processes took ${valueText(Math.round(busy / rows), '%')} of the processor meanwhile: most only waited` : ''}.`,
      }];
    },
  },
];

