// What the long logs of a recording come down to, counted while they are read: nothing of them is kept
// but counts, so that logs of any length can be judged. Pure.

import { lineTime, zoneOf } from './marks.js';
import { quantile } from './robust.js';
import { wallSeconds } from './series.js';
import { SEVERITIES, severityOf } from './views/log_lines.js';

export const LOG_STEP_S = 600; // lines are counted in steps of this length
const MOST_PATTERNS = 2000;
const MOST_PROGRAMS = 30; // of one step
const MOST_CALLERS = 2000;
const MOST_COUNTS = 2000; // steps of a caller
const MOST_STEPS = 50000; // of a log whose times are odd
const MOST_RECENT = 20000; // lines among which one that was written twice is known
const SHOWN = 160; // characters of a line
const ERR = SEVERITIES.indexOf('err');
const FIRST_PART = 0.25; // of the steps with the fewest lines: what is usual

const PROGRAM = /\] +([^\s:[]{1,64})(?:\[\d+\])?: ?/;
const PLAIN_PROGRAM = /^\S+ \S+ +([^\s:[]{1,64})(?:\[\d+\])?: ?/;
// The device or the daemon ends in order.
const PLANNED = /\b(?:Vandrel-silent: Continuous log taken up to here|reboot: (?:Restarting|Power down)|System is (?:rebooting|going down)|Restarting system|systemd-shutdown|Reached target (?:System )?(?:Reboot|Shutdown|Power.?Off)|Automatic restart\b.* now|sysupgrade|(?:installing|upgrading|updating|flashing)\b.{0,20}\bfirmware|firmware\b.{0,20}\b(?:upgrade|update|installed))/i;
// What tells of crashes where no core is kept, each with the process's name and what marks a lack of memory.
const CRASHES = [
  /kernel:.*?[ \]]([\w.@-]{1,64})\[\d+\]: segfault at /,
  /systemd-coredump\[\d+\]: .*Process \d+ \(([^)]{1,64})\) of user \d+ dumped core/,
  /systemd\[1\]: ([\w.@-]{1,64})\.service: Main process exited, code=(?:dumped|killed), status=(?:4|6|7|8|11)\//,
];
const FOR_MEMORY = /kernel: .*(?:Out of memory: )?Killed process \d+ \(([^)]{1,64})\)/;
// "kernel: tvnet 1000.eth eth0: Link is Down", "systemd-networkd[80]: eth0: Lost carrier"
const LINK_DOWN = /\b((?:eth|en|wlan|wl|br)[\w.]{1,13}): (?:.*\b)?(?:link (?:is )?down|lost carrier)\b/i;
const OF_SELF_TEST = /^A test \w+ message!/; // of the page, to try out triggers
const MAYBE_PLANNED = /eboot|estart|hutdown|ower|irmware|taken up|going down|sysupgrade/;
const START_S = 120; // that a session takes to start
const SAME_CRASH_S = 5;
const SAME_LINK_S = 2; // the kernel and the network's service each tell of it
const CLOCK_S = 60; // by which a clock is set at least to be told
const PROCESSORS = /\bBrought up \d+ nodes?, (\d{1,3}) CPUs?\b|\bTotal of (\d{1,3}) processors activated/;
const CLOCK_SET = /\b(?:chronyd|ntpd|ntpdate|sntp|systemd-timesyncd)\b.*\b(?:stepped|step|reset|set|jump\w*)\b.*?([-+]?\d+(?:\.\d+)?) ?s(?:ec|\b)/i;

/**
 * @typedef {{count: number, first: number, last: number}} Count
 * @typedef {Count & {pattern: string, program: string, severity: number, known: number, example: string}} Pattern known: outside of what is judged
 */

/** A message without what differs each time: numbers, addresses. @param {string} text */
export function patternOf(text) {
  return text.slice(0, SHOWN).replace(/\b0x[\da-f]+\b|\b(?=[\da-f]*\d)[\da-f]{8,}\b/gi, '#').replace(/\d+(?:[.:]\d+)*/g, '#');
}

/** @param {Count} count @param {number} time */
function add(count, time) {
  count.count++;
  count.first = Math.min(count.first, time);
  count.last = Math.max(count.last, time);
}
const none = () => ({ count: 0, first: Infinity, last: -Infinity });

/** The lines of a text that comes in pieces of bytes. @param {(line: string) => void} take */
export function lineReader(take) {
  const decoder = new TextDecoder();
  let rest = '';
  return {
    /** @param {Uint8Array} piece */
    add(piece) {
      const lines = (rest + decoder.decode(piece, { stream: true })).split('\n');
      rest = (lines.pop() ?? '').slice(0, 65536);
      lines.forEach(take);
    },
    finish() {
      if (rest !== '') {
        take(rest);
      }
    },
  };
}

/** The count of a usual step: of the fewer ones, as a storm may go on for most of a session. @param {number[]} counts */
export const usualCount = (counts) => quantile(counts, FIRST_PART) || 0;

/**
 * Counts the lines of the device's log.
 * @param {(time: number) => boolean} [within] lines that are judged; of others it is counted how many come
 *     usually, and which errors are known
 */
export function logDigest(within = () => true) {
  /** @type {Map<string, Pattern>} */
  const patterns = new Map();
  /** @type {Map<number, {count: number, programs: Map<string, number>}>} lines of each step */
  const steps = new Map();
  /** @type {{from: number, to: number}[]} */
  const clockSteps = [];
  /** @type {number[]} */
  const planned = [];
  /** @type {number[]} */
  const starts = [];
  /** @type {Map<string, {times: number[], forMemory: number}>} */
  const crashes = new Map();
  /** @type {Map<string, number[]>} when the link of each interface went down */
  const links = new Map();
  /** @type {{time: number, by: number}[]} */
  const zoneSteps = [];
  let zone = NaN;
  let zoneText = '';
  /** A camera that was restarted brings lines again, also ones from before. @type {[Set<string>, Set<string>]} */
  const recent = [new Set(), new Set()];
  const all = none();
  const errors = none();
  let processors = 0;

  /** @param {string} line @param {number} time */
  function zoneAt(line, time) {
    const end = line.indexOf(' ', 19);
    const text = line.slice(end - 6, end); // "+02:00"
    if (text === zoneText) {
      return;
    }
    zoneText = text;
    const ahead = zoneOf(line) ?? zone;
    if (ahead !== zone && !Number.isNaN(zone) && zoneSteps.length < MOST_PROGRAMS && within(time)) {
      zoneSteps.push({ time, by: ahead - zone });
    }
    zone = ahead;
  }

  /** @param {string} line @param {string} program @param {number} time */
  function crashAt(line, program, time) {
    if (program !== 'kernel' && !program.startsWith('systemd')) {
      return;
    }
    const forMemory = FOR_MEMORY.exec(line)?.[1];
    const name = forMemory ?? CRASHES.reduce((/** @type {string | undefined} */ found, pattern) => found ?? pattern.exec(line)?.[1], undefined);
    if (name && (crashes.has(name) || crashes.size < MOST_PROGRAMS)) {
      const crash = crashes.get(name) ?? { times: [], forMemory: 0 };
      crashes.set(name, crash);
      if (crash.times.length === 0 || Math.abs(time - (crash.times.at(-1) ?? 0)) > SAME_CRASH_S) { // the kernel and the service manager each tell of it
        crash.times.push(time);
        crash.forMemory += Number(forMemory !== undefined);
      }
    }
  }

  /** @param {string} line @param {number} time */
  function linkAt(line, time) {
    const name = LINK_DOWN.exec(line)?.[1];
    const known = name === undefined ? undefined : links.get(name) ?? (links.size < MOST_PROGRAMS ? [] : undefined);
    if (name !== undefined && known && known.length < MOST_STEPS && !(Math.abs(time - (known.at(-1) ?? -Infinity)) <= SAME_LINK_S)) {
      known.push(time);
      links.set(name, known);
    }
  }

  return {
    /** @param {string} line */
    add(line) {
      const time = lineTime(line);
      if (Number.isNaN(time)) {
        return;
      }
      if (line[19] === '.') { // to the millisecond, as one of the two forms of the log has no more
        const key = line.slice(8, 23) + line.slice(-48); // without the host's name, that differs
        if (recent[0].has(key) || recent[1].has(key)) {
          return;
        }
        recent[0].add(key);
        if (recent[0].size >= MOST_RECENT) {
          recent[1] = recent[0];
          recent[0] = new Set();
        }
      }
      const told = PROGRAM.exec(line) ?? PLAIN_PROGRAM.exec(line);
      const program = told?.[1] ?? '';
      const begin = Math.floor(time / LOG_STEP_S) * LOG_STEP_S;
      const step = steps.get(begin) ?? { count: 0, programs: new Map() };
      if (steps.size < MOST_STEPS) {
        steps.set(begin, step);
      }
      step.count++;
      if (step.programs.size < MOST_PROGRAMS || step.programs.has(program)) {
        step.programs.set(program, (step.programs.get(program) ?? 0) + 1);
      }
      const isJudged = within(time);
      const severity = severityOf(line);
      if (isJudged) {
        add(all, time);
      }
      if (severity >= 0 && severity <= ERR) {
        if (isJudged) {
          add(errors, time);
        }
        const text = told ? line.slice(told.index + told[0].length) : line.slice(27);
        const pattern = patternOf(text);
        const key = `${severity} ${program} ${pattern}`;
        const known = patterns.get(key) ?? { ...none(), pattern, program, severity, known: 0, example: text.slice(0, SHOWN).trimEnd() };
        if ((patterns.has(key) || patterns.size < MOST_PATTERNS) && !(program === 'Vandrel' && OF_SELF_TEST.test(text))) {
          patterns.set(key, known);
          if (isJudged) {
            add(known, time);
          } else {
            known.known++;
          }
        }
      }
      zoneAt(line, time);
      if (!isJudged) {
        return;
      }
      crashAt(line, program, time);
      if (program === 'kernel' || program.startsWith('systemd-n')) {
        linkAt(line, time);
      }
      if (MAYBE_PLANNED.test(line) && PLANNED.test(line)) {
        planned.push(time);
      } else if (line.includes(': Monitoring session started (')) {
        starts.push(time); // the log is taken then too
      }
      const [, brought, total] = processors === 0 && line.includes('kernel:') ? PROCESSORS.exec(line) ?? [] : [];
      processors ||= Number(brought ?? total ?? 0);
      const set = line.includes('d[') || line.includes('ntp') ? CLOCK_SET.exec(line) : null;
      if (set && Math.abs(Number(set[1])) > CLOCK_S) {
        clockSteps.push({ from: time - Number(set[1]), to: time });
      }
    },
    finish() {
      return {
        all, errors, steps, clockSteps, zoneSteps, crashes, links, processors,
        patterns: [...patterns.values()].filter(({ count }) => count > 0).sort((a, b) => a.severity - b.severity || b.count - a.count),
        usual: usualCount([...steps.values()].map(({ count }) => count)),
        planned: planned.filter((time) => !starts.some((start) => start >= time && start < time + START_S)),
      };
    },
  };
}

/**
 * @typedef {object} Caller
 * @property {string} address
 * @property {Count} calls
 * @property {Count} refused calls with a name whose password was wrong, or that may not
 * @property {{from: number, count: number}} busiest step
 * @property {{from: number, count: number}} mostRefused step
 * @property {Set<string>} users
 * @property {number} usual calls of a step
 */

const HTTP_LINE = /^\[(\d\d)\/(\w{3})\/(\d{4}):(\d\d:\d\d:\d\d)[^\]]*\] IPAddress:(\S+) User:(\S*).* HTTP Status:(\d{3})/;
const MONTHS = ['Jan', 'Feb', 'Mar', 'Apr', 'May', 'Jun', 'Jul', 'Aug', 'Sep', 'Oct', 'Nov', 'Dec'];

/** With the steps in which nothing came. @param {number[]} counts @param {number} steps */
const withZeros = (counts, steps) => [...counts, ...new Array(Math.max(0, steps - counts.length)).fill(0)];

/**
 * Counts the lines of the web server's log by the addresses that called.
 * @param {(time: number) => boolean} [within] calls that are judged; of others it is counted how many come usually
 */
export function httpDigest(within = () => true) {
  /** @type {Map<string, Caller & {steps: [number, number, number], counts: number[]}>} */
  const callers = new Map();
  /** @type {Map<number, number>} calls of each step */
  const perStep = new Map();
  const all = none();
  return {
    /** @param {string} line */
    add(line) {
      const [, day = '', month = '', year = '', clock = '', address = '', user = '', status] = HTTP_LINE.exec(line) ?? [];
      const time = wallSeconds(`${year}-${String(MONTHS.indexOf(month) + 1).padStart(2, '0')}-${day}`, clock);
      if (Number.isNaN(time)) {
        return;
      }
      const isJudged = within(time);
      const from = Math.floor(time / LOG_STEP_S) * LOG_STEP_S;
      if (perStep.size < MOST_STEPS) {
        perStep.set(from, (perStep.get(from) ?? 0) + 1);
      }
      const caller = callers.get(address) ?? {
        address, calls: none(), refused: none(), busiest: { from: 0, count: 0 }, mostRefused: { from: 0, count: 0 }, users: new Set(),
        steps: /** @type {[number, number, number]} */ ([0, 0, 0]), counts: [], usual: 0,
      };
      if (callers.size >= MOST_CALLERS && !callers.has(address)) {
        return;
      }
      callers.set(address, caller);
      if (caller.steps[0] !== from) {
        if (caller.counts.length < MOST_COUNTS && caller.steps[1] > 0) {
          caller.counts.push(caller.steps[1]);
        }
        caller.steps = [from, 0, 0];
      }
      caller.steps[1]++;
      if (!isJudged) {
        return;
      }
      add(all, time);
      add(caller.calls, time);
      if (caller.steps[1] > caller.busiest.count) {
        caller.busiest = { from, count: caller.steps[1] };
      }
      // Every browser is asked for a name at first: without one it is no refused login.
      if ((status === '401' || status === '403') && user !== '-' && user !== '') {
        add(caller.refused, time);
        if (caller.users.size < 20) {
          caller.users.add(user);
        }
        if (++caller.steps[2] > caller.mostRefused.count) {
          caller.mostRefused = { from, count: caller.steps[2] };
        }
      }
    },
    /** @param {number} [steps] in which there was a recording, also without a call */
    finish: (steps = 0) => ({
      all, usual: usualCount(withZeros([...perStep.values()], Math.min(steps, MOST_STEPS))),
      callers: [...callers.values()].filter(({ calls }) => calls.count > 0).sort((a, b) => b.calls.count - a.calls.count)
        .map((caller) => ({ ...caller, usual: usualCount(withZeros(caller.counts, Math.min(steps, MOST_COUNTS))) })),
    }),
  };
}
