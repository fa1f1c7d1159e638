// Rules about the device's log.

import { LOG } from '../catalogue.js';
import { counted } from '../format.js';
import { LOG_STEP_S } from '../log_digest.js';
import { numberText } from '../units.js';
import { at, DAY, HOUR, lasting, mostOf, percent, times } from './words.js';

/** @type {import('../findings.js').Rule[]} */
export const LOG_RULES = [
  {
    name: 'log storm', subject: 'the log', reads: ['log'], limits: { lines: 1500, always: 12000, usual: 10, few: 600, far: 30, grave: 60000, boot: 900, atBoot: 6000 },
    why: 'Ten times as many lines in ten minutes as usual, and at least 1,500, or thirty times and 600, or twenty a second at any rate: what matters is lost among them, and they wear the storage. Some thousand lines are usual when a camera starts.',
    async find({ log, figure, restarts, within }, limits) {
      if (!log || log.all.count === 0) {
        return [];
      }
      figure('Log', `${counted(log.all.count, 'line')}, ${counted(log.errors.count, 'error')}`);
      const isBoot = (/** @type {number} */ step) => restarts.some((time) => time > step - limits.boot && time < step + LOG_STEP_S + limits.boot);
      const isStorm = (/** @type {number} */ count, /** @type {number} */ step) => (isBoot(step) ? count >= limits.atBoot && count >= limits.usual * log.usual
        : count >= limits.always || (count >= limits.lines && count >= limits.usual * log.usual) || (count >= limits.few && count >= limits.far * log.usual));
      const storms = [...log.steps].filter(([step, { count }]) => within(step) && isStorm(count, step))
        .sort(([a], [b]) => a - b);
      const fullest = mostOf(storms.map(([, { count }]) => count));
      const programs = storms.find(([, { count }]) => count === fullest)?.[1].programs ?? [];
      const [program, lines] = [...programs].reduce((/** @type {[string, number]} */ a, b) => (b[1] > a[1] ? b : a), ['', 0]);
      const [first, last] = [storms[0], storms.at(-1)];
      return !first || !last ? [] : [{
        severity: fullest >= limits.grave ? 'grave' : 'warning', from: first[0], to: last[0] + LOG_STEP_S, chart: 'log', path: LOG,
        text: `${numberText(storms.reduce((sum, [, { count }]) => sum + count, 0))} lines came in ${lasting(storms.length * LOG_STEP_S)} from ${at(first[0])}, at most ${
          numberText(fullest)} in ten minutes, usual are ${numberText(log.usual)}; ${percent(lines / fullest)} of them by ${program || 'no program'}.`,
      }];
    },
  },
  {
    name: 'errors in the log', subject: 'errors in the log', reads: ['log'], limits: { critical: 2, repeated: 20, hourly: 60, newHourly: 12, isNew: 3, first: DAY, part: 0.25, shown: 6 },
    why: 'Critical lines count at any rate, errors where they come once a minute while they come, or once in five minutes where the first day (the first quarter of a short session) had none of them. Others are told, as a firmware has its own.',
    async find({ log, span }, limits) {
      const known = span[0] + Math.min(limits.first, (span[1] - span[0]) * limits.part);
      const isNew = (/** @type {{first: number, count: number, known: number}} */ { known: before, first }) => before === 0 && first > known;
      const told = (log?.patterns ?? []).filter((one) => one.severity <= limits.critical || one.count >= limits.repeated || (isNew(one) && one.count >= limits.isNew))
        .map((one) => {
          const hourly = one.count / Math.max(1, (one.last - one.first) / HOUR);
          const isCritical = one.severity <= limits.critical;
          return {
            ...one, isCritical, isNew: isNew(one),
            isWarning: isCritical || (one.count >= limits.repeated && hourly >= (isNew(one) ? limits.newHourly : limits.hourly)),
          };
        });
      // What is new or comes most often before the rest.
      const rank = (/** @type {typeof told[number]} */ one) => (one.isCritical ? 4 : 0) + (one.isWarning ? 2 : 0) + Number(one.isNew);
      return told.sort((a, b) => rank(b) - rank(a) || b.count - a.count).slice(0, limits.shown).map((one) => ({
        severity: one.isWarning ? 'warning' : 'note', from: one.first, to: one.last, chart: 'log', path: LOG,
        text: `${one.isNew ? `New from ${at(one.first)} on: ` : ''}${one.program || (one.isNew ? 'the log' : 'The log')} said ${times(one.count)} between ${at(one.first)} and ${at(one.last)}${
          one.isCritical ? ', as critical' : ''}: “${one.example}”`,
      }));
    },
  },
];
