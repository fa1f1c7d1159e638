// Rules about what the camera has to do with others: hosts that it tests, callers of its web server,
// its traffic.

import { LOG } from '../catalogue.js';
import { LOG_STEP_S } from '../log_digest.js';
import { median, medians, quantile, smoothed, stretches } from '../robust.js';
import { wallText } from '../series.js';
import { counted } from '../format.js';
import { numberText, valueText } from '../units.js';
import { at, DAY, HOUR, lasting, lengthOf, MB, MINUTE, mostOf, often, percent, times } from './words.js';

export const HTTP_LOG = 'system_monitoring/monitoring_basic/HTTP_log.txt';

/** @typedef {import('../findings.js').Rule} Rule */
/** @typedef {import('../findings.js').Found} Found */

const valuesOf = (/** @type {import('../series.js').Series} */ { values }) => values.filter((value) => value !== null);

/** What a counter's growth adds up to, and in which hour most. @param {import('../series.js').Series} series a rate */
function amounts({ times: moments, values }) {
  /** @type {Map<number, number>} */
  const hours = new Map();
  let count = 0;
  for (const [row, rate] of values.entries()) {
    const grown = rate === null ? 0 : rate * ((moments[row] ?? 0) - (moments[row - 1] ?? moments[row] ?? 0));
    if (grown > 0) {
      const hour = Math.floor((moments[row] ?? 0) / HOUR) * HOUR;
      hours.set(hour, (hours.get(hour) ?? 0) + grown);
      count += grown;
    }
  }
  const [hour, most] = [...hours].reduce((a, b) => (b[1] > a[1] ? b : a), [0, 0]);
  return { count, most, hour };
}

/** @type {Rule[]} */
export const NETWORK_RULES = [
  {
    name: 'calls', subject: 'callers of the HTTP API', reads: ['http'], limits: { flood: 3000, always: 12000, many: 1000, usual: 10, own: 5, refused: 20 },
    why: 'Five calls a second for ten minutes keep a camera’s web server busy, where it is not what this caller does all the time; a thousand count where that is ten times what comes from all usually. Twenty a second count even where they come all the time. Twenty refused logins in ten minutes are no typing errors.',
    async find({ http, figure }, limits) {
      if (!http || http.all.count === 0) {
        return [];
      }
      figure('HTTP API, busiest callers', http.callers.slice(0, 3).map(({ address, calls }) => `${address} ${numberText(calls.count)}`).join(', '));
      return http.callers.flatMap(({ address, calls, refused, busiest, mostRefused, users, usual: own }) => {
        /** @type {Found[]} */
        const found = [];
        if (busiest.count >= limits.always || (busiest.count >= limits.flood && busiest.count >= limits.own * own) || (busiest.count >= limits.many && busiest.count >= limits.usual * http.usual)) {
          found.push({
            severity: 'warning', from: busiest.from, to: Math.max(busiest.from + LOG_STEP_S, calls.last), path: HTTP_LOG, chart: 'http-calls',
            text: `${address} called the web server ${times(calls.count)}, ${percent(calls.count / http.all.count)} of all calls, at most ${
              numberText(busiest.count)} in ten minutes, from ${at(busiest.from)}; usually ${numberText(http.usual)} come in all.`,
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
    name: 'more calls', subject: 'how often the HTTP API is called', reads: ['http-calls'], limits: { flood: 5, many: 1, some: 0.1, usual: 20, more: 5, points: 8, time: 10 * MINUTE, rows: 2 },
    why: 'By the counts of each user. Five calls a second for ten minutes, or one where it is twenty times the usual, are a flood. Five times as many in the last quarter as in the first, and one in ten seconds, became frequent: told, as a new client may do that.',
    async find({ series, http }, limits) {
      return (await series('http-calls')).flatMap(/** @returns {Found[]} */ (user) => {
        const usual = quantile(valuesOf(user.whole), 0.25);
        const flood = stretches(user, (value) => (value >= limits.flood && value >= limits.more * usual) || (value >= limits.many && value >= limits.usual * usual))
          .filter(({ from, to, rows }) => to - from >= limits.time && rows >= limits.rows);
        const [first, last] = [flood[0], flood.at(-1)];
        if (first && last) {
          return http ? [] : [{ // whose addresses are told
            severity: 'warning', from: first.from, to: last.to, chart: 'http-calls', path: user.name === 'without a user' ? 'NULL' : user.name,
            text: `The HTTP API was called up to ${valueText(mostOf(flood.map(({ most }) => most)), '1/s')} by ${user.name}, ${often(flood.map(({ from }) => from))}; usual are ${valueText(usual, '1/s')}.`,
          }];
        }
        const points = medians(user, HOUR);
        const quarter = points.length >> 2;
        const [before, after] = [points.slice(0, quarter), points.slice(-quarter)].map((some) => median(some.map(({ value }) => value)));
        return points.length < limits.points || before === undefined || after === undefined || after < limits.some || after < limits.more * before ? [] : [{
          severity: 'note', from: points.find(({ value }) => value > (before + after) / 2)?.time ?? 0, to: user.times.at(-1) ?? 0, chart: 'http-calls', path: user.name === 'without a user' ? 'NULL' : user.name,
          text: `Calls of the HTTP API by ${user.name} became frequent: ${valueText(before, '1/s')} at first, ${valueText(after, '1/s')} at the end.`,
        }];
      });
    },
  },
  {
    name: 'host', subject: 'hosts of the device test', reads: ['hosts'], limits: { outages: 3, time: 15 * MINUTE, night: 4 * HOUR },
    why: 'One or two outages of some minutes are restarts of the other side. When all begin in the same four hours of the day that is said.',
    async find({ series, figure }, limits) {
      const hosts = await series('hosts');
      return hosts.flatMap((host) => {
        const code = host.categories?.indexOf('not reachable') ?? -1;
        const outages = code < 0 ? [] : stretches(host, (value) => value === code);
        const [first, last] = [outages[0], outages.at(-1)];
        const down = lengthOf(outages);
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
    name: 'link', subject: 'the network’s link', reads: ['log'], limits: { down: 3, boot: 5 * MINUTE },
    why: 'A link goes down when somebody pulls the plug or restarts the switch, and when the camera restarts; three times without that is a wire, a plug or a port that fails.',
    find: async ({ log, restarts, idsOf }, limits) => [...log?.links ?? []].flatMap(/** @returns {Found[]} */ ([name, all]) => {
      const moments = all.filter((time) => !restarts.some((restart) => Math.abs(time - restart) < limits.boot)).sort((a, b) => a - b);
      return moments.length === 0 ? [] : [{
        severity: moments.length >= limits.down ? 'warning' : 'note', from: moments[0] ?? 0, to: moments.at(-1) ?? 0, path: LOG,
        chart: idsOf(`traffic-${name}`)[0] ?? 'log', text: `The link of ${name} went down ${often(moments)}.`,
      }];
    }),
  },
  {
    name: 'traffic', subject: 'traffic', reads: ['traffic-'], limits: { least: 5000, broken: 0.02, silent: 100, flood: 10, much: MB, time: 10 * MINUTE, rows: 2, rare: 0.1, still: 0.5 },
    why: 'Ten minutes in which nothing came in or went out, where usually something does, are a link that was down; less than 100 B/s are what a network tells everybody, with which somebody who watched has gone: where it is more than a tenth of the time it counts only if it was nothing at all, for less than half of it. Ten times the usual and a megabyte a second are a flood.',
    async find({ series, idsOf }, limits) {
      /** @type {Found[]} */
      const found = [];
      const lasted = (/** @type {{from: number, to: number, rows: number}} */ { from, to, rows }) => to - from >= limits.time && rows >= limits.rows;
      for (const id of idsOf('traffic-').filter((one) => one !== 'traffic-lo')) {
        const name = id.slice('traffic-'.length);
        const both = await series(id);
        const usual = new Map(both.map((one) => [one.name, median(valuesOf(one.whole))]));
        const [received, sent] = ['received', 'sent'].map((direction) => both.find((one) => one.name === direction));
        if (received && sent && received.times.length === sent.times.length) {
          const isOff = (/** @type {number | null | undefined} */ value, /** @type {string} */ direction) => (value ?? 0) <= Math.min(limits.silent, (usual.get(direction) ?? 0) * limits.broken);
          const off = stretches({ ...received, values: received.values.map((value, row) => (value === null ? null
            : Number(isOff(value, 'received') && isOff(sent.values[row], 'sent')))) }, (value) => value === 1).filter(lasted);
          const share = off.reduce((all, { rows }) => all + rows, 0) / received.whole.times.length;
          const isStill = share < limits.still && received.values.every((value, row) => (value ?? 0) === 0
            || !off.some(({ from, to }) => from <= (received.times[row] ?? 0) && (received.times[row] ?? 0) < to));
          const [first, last] = [off[0], off.at(-1)];
          if (first && last && (usual.get('sent') ?? 0) + (usual.get('received') ?? 0) >= limits.least && (share < limits.rare || isStill)) {
            found.push({
              severity: 'warning', from: first.from, to: last.to, chart: id, path: name,
              text: `Traffic of ${name} broke off ${often(off.map(({ from }) => from))}, for ${lasting(lengthOf(off))} in all; usually ${
                valueText(usual.get('sent'), 'B/s')} are sent.`,
            });
          }
        }
        if (received) {
          const limit = Math.max(limits.much, limits.flood * quantile(valuesOf(received.whole), 0.25));
          const flood = stretches(smoothed(received), (value) => value >= limit).filter(lasted);
          const [first, last] = [flood[0], flood.at(-1)];
          if (first && last) {
            found.push({
              severity: 'warning', from: first.from, to: last.to, chart: id, path: name, limit: { value: limit, text: valueText(limit, 'B/s') },
              text: `${name} was flooded ${often(flood.map(({ from }) => from))}: ${valueText(mostOf(flood.map(({ most }) => most)), 'B/s')} received, usual are ${valueText(usual.get('received'), 'B/s')}.`,
            });
          }
        }
      }
      return found;
    },
  },
  {
    name: 'bandwidth', subject: 'the bandwidth', reads: ['bandwidth'], limits: { more: 3, least: 2, time: HOUR, rows: 4, rare: 0.2, own: 20 },
    why: 'Three times, or a third of, what the camera usually sends with the same streams, for an hour: a scene or an encoder that has changed. By nights streams are small or large in their own way: where the same hour of another day had it too, it is usual. Without the list of streams it is a note, as somebody may just have watched.',
    async find({ series, figure, breathe }, limits) {
      const [bandwidth] = await series('bandwidth');
      const [streams] = await series('streams');
      if (!bandwidth) {
        return [];
      }
      figure('Bandwidth', `usually ${valueText(median(valuesOf(bandwidth.whole)), 'Mbit/s')}`);
      let row = 0;
      /** Which streams there were; asked in the order of times. @param {number} time */
      const streamsAt = (time) => {
        while (streams && row + 1 < streams.whole.times.length && (streams.whole.times[row + 1] ?? 0) <= time) {
          row++;
        }
        return streams?.whole.values[row] ?? -1;
      };
      /** @type {Map<string, number[]>} */
      const groups = new Map();
      const keys = bandwidth.whole.times.map((time, index) => {
        const key = String(streamsAt(time));
        const group = groups.get(key) ?? [];
        groups.set(key, group);
        group.push(bandwidth.whole.values[index] ?? NaN);
        return key;
      });
      const usual = new Map([...groups].map(([key, values]) => [key, values.length < limits.own ? NaN : median(values.filter((value) => !Number.isNaN(value)))]));
      const ofTime = new Map(bandwidth.whole.times.map((time, index) => [time, keys[index] ?? '']));
      await breathe();
      const smooth = smoothed(bandwidth);
      await breathe();
      const parts = smooth.values.map((value, index) => {
        const own = usual.get(ofTime.get(smooth.times[index] ?? 0) ?? '') ?? NaN;
        return value === null || Number.isNaN(own) || Math.max(own, value) < limits.least ? null : value / Math.max(own, 0.1);
      });
      return [true, false].flatMap((isMore) => {
        const odd = stretches({ ...smooth, values: parts }, (part) => (isMore ? part >= limits.more : part * limits.more <= 1))
          .filter(({ from, to, rows }) => to - from >= limits.time && rows >= limits.rows);
        const isDaily = odd.some((a) => odd.some((b) => b.from - a.from > DAY / 2 && Math.abs((b.from - a.from + DAY / 2) % DAY - DAY / 2) < 2 * HOUR));
        const [first, last] = [odd[0], odd.at(-1)];
        const values = odd.flatMap(({ from, to }) => smooth.values.filter((value, index) => value !== null && (smooth.times[index] ?? 0) >= from && (smooth.times[index] ?? 0) < to));
        return !first || !last || isDaily || lengthOf(odd) > limits.rare * ((bandwidth.whole.times.at(-1) ?? 0) - (bandwidth.whole.times[0] ?? 0)) ? [] : [{
          severity: streams ? 'warning' : 'note', from: first.from, to: last.to, chart: 'bandwidth', path: 'network.csv',
          text: `The bandwidth was out of line ${often(odd.map(({ from }) => from))}, for ${lasting(lengthOf(odd))} in all: ${valueText(median(/** @type {number[]} */ (values)), 'Mbit/s')}; ${
            streams ? 'with the same streams' : ''} ${valueText(usual.get(ofTime.get(first.from) ?? ''), 'Mbit/s')} are usual.`.replaceAll('  ', ' '),
        }];
      });
    },
  },
];
