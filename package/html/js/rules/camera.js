// Rules about the camera as a whole and its storage: crashes, restarts, the clock, images.

import { LOG } from '../catalogue.js';
import { byteSize, counted } from '../format.js';
import { LOG_STEP_S } from '../log_digest.js';
import { imagesOf } from '../recording_marks.js';
import { median } from '../robust.js';
import { usualInterval, wallText } from '../series.js';
import { numberText } from '../units.js';
import { at, DAY, groupedBy, lasting, MINUTE, often, times } from './words.js';

export const REGULAR = 'system_monitoring/monitoring_load/load.csv'; // has a row in every collection

/** @typedef {import('../findings.js').Rule} Rule */
/** @typedef {import('../findings.js').Found} Found */

/** @type {Rule[]} */
export const CAMERA_RULES = [
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
    why: 'A process that crashes three times does so again and again. Where no core was kept, the log tells of crashes; one that the kernel ended as memory was used up is one, too.',
    async find({ marks, log }, limits) {
      const cores = groupedBy(marks.filter(({ kind, text }) => kind === 'crash' && text.endsWith(' crashed')), ({ text }) => text.slice(0, -' crashed'.length));
      const told = log?.crashes ?? new Map();
      const names = [...new Set([...cores.keys(), ...told.keys()])];
      const found = names.map((name) => {
        const [kept, logged] = [cores.get(name) ?? [], told.get(name) ?? { times: [], forMemory: 0 }];
        const moments = kept.length >= logged.times.length ? kept.map(({ time }) => time) : logged.times;
        const why = logged.forMemory > 0 ? `; the kernel ended it ${times(logged.forMemory)} as memory was used up` : '';
        return { count: moments.length, finding: /** @type {Found} */ ({
          severity: moments.length >= limits.grave || name === 'Vandrel' ? 'grave' : 'warning',
          from: moments[0] ?? 0, to: moments.at(-1) ?? 0, path: kept[0]?.path ?? LOG, text: `${name} crashed ${often(moments)}${why}.`,
        }) };
      });
      return found.sort((a, b) => b.count - a.count).map(({ finding }) => finding);
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
    name: 'clock', subject: 'the clock', reads: ['rows', 'log'], limits: { back: MINUTE, silent: 15 * MINUTE, shown: 50, near: 900 },
    why: 'Rows follow each other: a time before the last one is a clock that was set back. A hole while neither a restart, nor the storage, nor one line of the log tells of it is a clock that was set forward, or a camera that stood still. Summer time is no fault: with it the times of the log have another zone.',
    async find({ rows, log, gaps, marks }, limits) {
      /** @type {Found[]} */
      const found = [];
      const isSummerTime = (/** @type {number} */ time, /** @type {number} */ by) => (log?.zoneSteps ?? [])
        .some((step) => Math.abs(step.time - time) < limits.near && Math.abs(step.by - by) < limits.near);
      const back = rows.flatMap((time, row) => {
        const before = rows[row - 1] ?? time;
        return time < before - limits.back && !isSummerTime(time, time - before) ? [{ before, time, row }] : [];
      });
      for (const { time, by } of log?.zoneSteps ?? []) {
        found.push({ severity: 'note', from: time, to: time, path: LOG,
          text: `The camera’s clock went ${by > 0 ? 'forward' : 'back'} by ${lasting(Math.abs(by))} at ${at(time)}, to another zone or summer time.` });
      }
      const [first] = back;
      if (first) {
        const by = first.before - first.time;
        // As a camera does that lost its power, until it hears of the time.
        const right = by < DAY ? -1 : rows.findIndex((time, row) => row > first.row && time - (rows[row - 1] ?? time) > by / 2);
        found.push({
          severity: 'warning', from: by < DAY ? first.time : first.before, to: rows[right] ?? first.before, path: REGULAR,
          text: `The clock was set back ${back.length === 1 ? '' : `${times(back.length)}, first `}by ${lasting(by)}, from ${
            wallText(first.before)} to ${wallText(first.time)}${right < 0 ? '' : `, and forward again, from ${wallText(rows[right - 1] ?? 0)} to ${wallText(rows[right] ?? 0)}`}.`,
        });
      }
      const writtenBefore = new Map(rows.map((time, row) => [time, rows[row - 1]]));
      for (const { from, to } of (log?.clockSteps ?? []).slice(0, 5)) {
        found.push({
          severity: 'warning', from: Math.min(from, to), to: Math.max(from, to), path: LOG,
          text: `The clock was set ${to > from ? 'forward' : 'back'} by ${lasting(Math.abs(to - from))} at ${at(to)}, as the log tells.`,
        });
      }
      const long = gaps.filter(([from, to]) => to - from >= limits.silent && writtenBefore.get(to) === from && !isSummerTime(to, to - from)).slice(0, limits.shown);
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
    name: 'images', subject: 'images', reads: ['images', 'rows'], limits: { images: 5, holes: 3, time: 10 * MINUTE, share: 0.02 },
    why: 'Images come at one interval. Where three or more of them are missing for ten minutes, while rows were recorded, they could not be taken; 2 % of the time is more than a busy camera loses.',
    async find({ files, sorted: rows, figure, within }, limits) {
      const images = imagesOf(files).filter(({ time }) => within(time));
      const [first, last] = [images[0], images.at(-1)];
      if (!first || !last || images.length < limits.images) {
        return [];
      }
      const moments = images.map(({ time }) => time);
      const steps = moments.slice(1).map((time, index) => time - (moments[index] ?? 0));
      const interval = median(steps);
      figure('Images', `${numberText(images.length)}, one in ${lasting(interval)}`);
      const least = Math.max(limits.time, limits.holes * interval);
      const row = usualInterval(rows);
      // What rows are missing for is told elsewhere.
      const missing = [...steps.map((_, index) => ({ from: moments[index] ?? 0, to: moments[index + 1] ?? 0 })), { from: last.time, to: rows.at(-1) ?? 0 }]
        .filter(({ from, to }) => to - from >= least)
        .map(({ from, to }) => ({ from, to, rows: rows.filter((time) => time > from && time < to).length }))
        .filter(({ rows: between }) => between * row >= least - row);
      const sum = missing.reduce((all, { rows: between }) => all + between * row, 0);
      /** @type {Found[]} */
      const found = [];
      const [hole] = missing;
      if (hole) {
        const ended = missing.at(-1)?.from === last.time;
        found.push({
          severity: sum >= limits.share * rows.length * row ? 'warning' : 'note', from: hole.from, to: missing.at(-1)?.to ?? hole.to, path: first.path,
          text: `Images are missing for ${lasting(sum)}, ${often(missing.map(({ from }) => from))}${
            ended ? '; after the last time none came' : ''}. Usually one comes in ${lasting(interval)}.`,
        });
      }
      const empty = images.filter(({ bytes }) => bytes === 0);
      if (empty.length > 0) {
        found.push({ severity: empty.length > images.length * limits.share ? 'warning' : 'note', from: empty[0]?.time ?? 0, to: empty.at(-1)?.time ?? 0, path: empty[0]?.path,
          text: `${numberText(empty.length)} of ${counted(images.length, 'image')} ${empty.length === 1 ? 'is' : 'are'} empty, from ${at(empty[0]?.time ?? 0)} on.` });
      }
      return found;
    },
  },
  {
    name: 'rows', subject: 'rows of each collection', reads: ['rows'], limits: { late: 1.25, share: 0.05 },
    why: 'A row that comes a quarter of the interval late shows a busy camera; one in twenty is told.',
    async find({ sorted: rows, gaps, figure }, limits) {
      const usual = usualInterval(rows);
      const steps = rows.slice(1).map((time, row) => time - (rows[row] ?? 0));
      const shortest = gaps.reduce((least, [from, to]) => Math.min(least, to - from), Infinity); // a hole is not late
      const late = steps.filter((step) => step > usual * limits.late && step < shortest).length;
      const missing = gaps.reduce((sum, [from, to]) => sum + Math.max(0, to - from - usual), 0);
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
