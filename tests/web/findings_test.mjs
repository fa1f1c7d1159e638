// Recordings with one fault built in each: it is the first that the findings tell. Healthy ones have
// nothing graver than a note.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { findingsOf } from '../../package/html/js/findings.js';
import { readMarks } from '../../package/html/js/recording_marks.js';
import { wallText } from '../../package/html/js/series.js';
import { createSource } from '../../package/html/js/session_series.js';

const START = Date.UTC(2026, 9, 20, 6) / 1000;
const [HOUR, DAY] = [3600, 86400];
const REBOOTED = 'Continuing System Monitoring Session. Device was rebooted or lost power.';

/** Numbers that look like chance and are the same each time. */
function chance(seed) {
  let state = seed;
  return () => {
    state = (state * 1664525 + 1013904223) % 2 ** 32;
    return state / 2 ** 32 - 0.5;
  };
}

/**
 * A recording of some days. What is healthy in it comes from `seed`; `fault` replaces quantities, by
 * functions of the time since the start and the healthy value, and adds lines and files.
 */
function recordingOf({ days = 7, seed = 1, quiet = false, fault = {} }) {
  const random = chance(seed);
  const all = Array.from({ length: days * 720 }, (_, row) => row * 120);
  const times = all.filter((time) => !(fault.missing ?? []).some(([from, to]) => time >= from && time < to));
  const files = new Map();
  const wall = (time) => START + (fault.clock?.(time) ?? time);
  const csv = (path, header, values) => files.set(`system_monitoring/${path}.csv`,
    `${header}\r\n${times.map((time) => `${wallText(wall(time)).replace(' ', ',')},${values(time)}\r\n`).join('')}`);
  const value = (name, healthy) => (time) => fault[name]?.(time, healthy(time)) ?? healthy(time);
  const day = (time) => Math.sin(time / DAY * 2 * Math.PI);
  csv('monitoring_load/load', 'Date,Time,Load average (1 min),Load average (5 min),Load average (15 min)',
    value('load', (time) => [1, 2, 3].map(() => (1.1 + 0.4 * day(time) + 0.3 * random()).toFixed(2))));
  for (const [name, amount, noise] of [['MemTotal', 512000, 0], ['MemAvailable', 210000, 16000], ['AnonPages', 140000, 9000], ['SUnreclaim', 21000, 300]]) {
    csv(`monitoring_meminfo/${name}`, `Date,Time,${name} (kB)`, value(name, (time) => Math.round(amount + noise * (day(time) + random()))));
  }
  for (const [name, level] of [['streamd', 41000], ['httpd', 9000], ['analytics', 52000]]) {
    csv(`monitoring_vmstatus/${name}/300/vmstatus`, 'DATE,TIME,STATE,THREADS,VM_RSS',
      // A start that levels off is no leak.
      (time) => `S,4,${value(`${name} memory`, (now) => Math.round(level * (1.2 - 0.2 * Math.exp(-now / 9000)) + 900 * (day(now) + random())))(time)}`);
    csv(`monitoring_topstatus/${name}/300/topstatus`, 'DATE,TIME,STATE,VSZ,%VSZ,%CPU',
      (time) => `S,90000,4,${value(`${name} processor`, () => Math.round(8 + 5 * random()))(time)}`);
  }
  csv('monitoring_slabinfo/kmalloc-64', 'Date, Time, Name, Active objects, Number of objects, Object size', (time) => `kmalloc-64,${value('cache', () => 9000)(time)},90000,64`);
  csv('monitoring_environment/Main_board', 'Date, Time, Temperature (Celsius)', value('temperature', (time) => (48 + 6 * day(time) + 2 * random()).toFixed(2)));
  csv('monitoring_environment/Fan_0', 'Date, Time, Fan status', value('fan', (time) => (day(time) > 0.5 ? 'Running' : 'Stopped')));
  let [received, sent, dropped] = [0, 0, 0];
  const link = value('link', () => 1);
  csv('monitoring_network/eth0', 'Date, Time, Receive: bytes, drop, errs, packets, Transmit: bytes, drop, errs, packets', (time) => {
    const streams = quiet || day(time) > -0.3 ? 1 : 0.1; // viewers come and go
    [received, sent, dropped] = [received + Math.round(1.2e5 * link(time) * (3 + random())), sent + Math.round(1e7 * link(time) * streams * (3 + random())), dropped + Number(random() > 0.49)];
    return `${received},${dropped},${Math.round(value('errors', () => 0)(time))},${received >> 8},${sent},0,0,${sent >> 9}`;
  });
  csv('monitoring_devicetest/devicetest_snapshots',
    'date,time,name,address,port,interval,total_pings,total_ping_fails,consecutive_fails,fail_threshold,connected_status',
    (time) => `switch,192.168.0.1,80,60,${time / 60},0,0,1,${value('host', () => 1)(time)}`);

  const lines = times.flatMap((time, row) => [
    [time + 1, 'INFO', `streamd[331]: frame ${row} sent in ${row % 17} ms`],
    ...(row % 360 === 0 ? [[time + 2, 'ERR', `analytics[340]: model ${row} not read`]] : []),
  ]).concat(fault.log ?? []).sort(([a], [b]) => a - b);
  files.set('system_monitoring/monitoring_basic/Continuous_Syslog.txt', lines.map(([time, level, words], row) =>
    `${wallText(wall(time)).replace(' ', 'T')}.${String(row % 1e6).padStart(6, '0')}+00:00 camera [ ${level.padEnd(7)} ] ${words}\n`).join(''));
  const calls = [...times.filter((_, row) => row % 5 === 0).map((time) => [time, '192.168.0.9', 'root', 200]), ...fault.http ?? []].sort(([a], [b]) => a - b);
  files.set('system_monitoring/monitoring_basic/HTTP_log.txt', calls.map(([time, address, user, status]) => {
    const [, date, month, year] = new Date(wall(time) * 1000).toUTCString().split(' ');
    return `[${date}/${month}/${year}:${wallText(wall(time)).slice(11)} +0000] IPAddress:${address} User:${user}  "GET /tarvo-cgi/param.cgi HTTP/1.1" `
      + `Process Time:9ms HTTP Status:${status}\n`;
  }).join(''));
  files.set('system_monitoring/monitoring_interrupts/20261020_060000_interrupts.txt', '            CPU0       CPU1       \n 27: 1 2\n');
  for (const time of times.filter((one) => fault.images?.(one))) {
    files.set(`system_monitoring/monitoring_snapshots/${wallText(wall(time)).replaceAll(/[-:]/g, '').replace(' ', 'T')}.jpg`, 'x');
  }
  for (const path of fault.files ?? []) files.set(path, 'x');
  for (const path of [...files.keys()].filter((one) => fault.without?.test(one))) files.delete(path);
  return files;
}

/** What is found, and how the page went on meanwhile. */
async function found(files, signal, range) {
  const bytes = new Map([...files].map(([path, text]) => [path, new TextEncoder().encode(text)]));
  const listing = [...bytes].map(([path, { length }]) => ({ path, bytes: length, columns: [], time: '', utc: null }));
  const contents = { csv: listing.filter(({ path }) => path.endsWith('.csv')), files: listing.filter(({ path }) => !path.endsWith('.csv')), complete: true };
  const recording = { async read(path, take, { from = 0, most = Infinity } = {}) {
    for (let at = from; at < Math.min(from + most, bytes.get(path).length); at += 65536) {
      take(bytes.get(path).subarray(at, Math.min(at + 65536, from + most)));
    }
  } };
  const source = createSource(recording, (path) => listing.find((file) => file.path === path));
  return findingsOf({ recording, source, contents, marks: await readMarks(source, contents, []), signal, range });
}

const evenly = (count, from, to) => Array.from({ length: count }, (_, index) => Math.round(from + (to - from) * index / Math.max(1, count - 1)));
const core = (name, time) => `coredumps/core.${name}.41.camera.${START + time}`;
const daemon = (words) => (time) => [time, 'INFO', `Vandrel[401]: ${words}`];
const away = evenly(4, DAY, 5 * DAY).map((time) => [time, time + 2 * HOUR]);

/** Name, recording, rule and severity of the first finding, what it says, where it is shown. */
const FAULTS = [
  ['a leak', { days: 9, fault: { 'streamd memory': (time, usual) => Math.round(usual + 146000 * time / (9 * DAY)),
    MemAvailable: (time, usual) => Math.round(usual - 146000 * time / (9 * DAY)) } },
  'memory of a process', 'grave', /^Memory of streamd grew from 5\d(?:\.\d+)? MB to 19\d(?:\.\d+)? MB in 8 days 23 h, about 16\.\d+ MB a day; at that rate memory is used up in \d days/, 'process-growth'],
  ['a crash loop', { fault: { files: evenly(9, DAY, 2 * DAY).map((time) => core('streamd', time)) } },
    'crash', 'grave', /^streamd crashed 9 times between 2026-10-21 06:00 and 2026-10-22 06:00, mostly 3 h apart\.$/, ''],
  ['a card that comes loose', { fault: { missing: away, log: away.flatMap(([from, to]) => [
    [from, 'ERR', 'Vandrel[401]: Lost connection to edge storage location, no data can be saved.'],
    [to, 'INFO', 'Vandrel[401]: Connection to edge storage location re-established, connection was lost since 0 days 2 hours 0 minutes. Continuing system monitoring session.']]) } },
  'storage lost', 'grave', /^The storage was lost 4 times .*; nothing was recorded for 8 h/, ''],
  ['overheating', { fault: { temperature: (time, usual) => (time > 3 * DAY && time < 3 * DAY + 5 * HOUR ? 91 : usual) } },
    'temperature', 'grave', /^Temperature of Main board reached 91 °C, usual are 4\d(?:\.\d+)? °C: .* for 4 h 58 min, first at 2026-10-23 06:02/, 'temperature'],
  ['a fan that stopped', { fault: { fan: (time) => (time > 4 * DAY ? 'Stopped' : 'Running'), temperature: (time, usual) => Number(usual) + (time > 4 * DAY ? 9 : 0) } },
    'fan', 'warning', /^Fan 0 stopped at 2026-10-24 06:02 and stood still for 3 days; before/, 'climate'],
  ['a clock that was set back', { fault: { clock: (time) => (time > 3 * DAY ? time - 2 * HOUR : time) } },
    'clock', 'warning', /^The clock was set back by 1 h 58 min, from 2026-10-23 06:00:00 to 2026-10-23 04:02:00/, ''],
  ['a clock that was set forward', { fault: { clock: (time) => (time > 3 * DAY ? time + 5 * HOUR : time) } },
    'clock', 'warning', /^The times jump by 5 h 2 min, .* the clock was set forward, or the camera stood still/, ''],
  ['a log storm', { fault: { log: evenly(30000, 2 * DAY, 2 * DAY + HOUR).map((time, row) => [time, 'WARNING', `ptzd[80]: position ${row} missed`]) } },
    'log storm', 'warning', /lines came in 1 h.*; 9\d(?:\.\d)?% of them by ptzd\.$/, 'log'],
  ['a flood of calls from one address', { fault: { http: evenly(40000, DAY, DAY + HOUR).map((time) => [time, '192.168.0.66', 'viewer', 200]) } },
    'calls', 'warning', /^192\.168\.0\.66 called the web server 40,000 times, 97\.\d% of all calls/, ''],
  ['refused logins', { fault: { http: evenly(500, DAY, DAY + HOUR).map((time) => [time, '192.168.0.66', 'admin', 401]) } },
    'calls', 'warning', /^Logins from 192\.168\.0\.66 were refused 500 times .* with the names admin\.$/, ''],
  ['a host that fails at night', { fault: { host: (time) => Number((time + 6 * HOUR) % DAY < 2 * HOUR || (time + 6 * HOUR) % DAY > 2.5 * HOUR) } },
    'host', 'warning', /^switch 192\.168\.0\.1 80 was not reached 7 times .*, always at 02:00 o’clock, for 3 h/, 'hosts'],
  ['a card that is full', { fault: { log: [[6 * DAY, 'WARNING', 'Vandrel[401]: Secondary storage is running out of free space. Deactivating monitoring session.'], daemon('Monitoring session stopped.')(6 * DAY + 1)] } },
    'full storage', 'grave', /^The storage was full at 2026-10-26 06:00 and the session was ended by it, with \d/, ''],
  ['a process that takes a core', { fault: { 'analytics processor': (time, usual) => (time > 2 * DAY && time < 2.5 * DAY ? 51 : usual) } },
    'process takes a core', 'warning', /^analytics took 51% of the processor \(a core is 50%\), at most 51%, for 11 h 58 min from 2026-10-22 06:02; usual are \d+%/, 'process-processor'],
  ['a cache of the kernel that grows', { fault: { cache: (time) => 9000 + Math.round(time * 2), SUnreclaim: (time, usual) => usual + Math.round(time / 8) } },
    'slab caches', 'grave', /^The kernel’s objects of kmalloc-64 grew from \d+(?:\.\d+)? kB to 7\d(?:\.\d+)? MB in 6 days 23 h/, 'slab'],
  ['images that stop', { fault: { images: (time) => time < 2 * DAY || (time > 3 * DAY && time < 6 * DAY) } },
    'images', 'warning', /^Images are missing for 2 days, twice between .*; after the last time none came\. Usually one comes in 2 min\.$/, ''],
  ['an error that is new', { fault: { log: evenly(60, 3 * DAY, 3 * DAY + 4 * HOUR).map((time, row) => [time, 'ERR', `ptzd[80]: motor ${row} stalled`]) } },
    'errors in the log', 'warning', /^New from 2026-10-23 06:00 on: ptzd said 60 times .*: “motor 0 stalled”$/, 'log'],
  ['crashes that only the log tells of', { fault: { log: evenly(4, DAY, 5 * DAY).map((time) => [time, 'INFO', 'kernel: streamd[331]: segfault at 0 ip 0 sp 0 error 4']) } },
    'crash', 'grave', /^streamd crashed 4 times /, ''],
  ['power cuts', { fault: { missing: away.map(([from]) => [from, from + 900]), log: [...away.map(([from]) => daemon(REBOOTED)(from + 890)),
    // The log is taken when a session starts, which is no end of the daemon.
    [DAY + 10, 'INFO', 'Vandrel-silent: Continuous log taken up to here (77.1795295208).'], daemon('Monitoring session started (SD_DISK)')(DAY + 20)] } },
    'restart', 'grave', /^The camera or the daemon went down without having been ended, .* 4 times/, ''],
  ['a plug with errors', { fault: { errors: (time) => Math.max(0, time - 2 * DAY) / 30 } },
    'network errors', 'warning', /^eth0 counted 14,\d+ of “received: errors”, at most 120 in an hour, from /, 'errors-eth0'],
  ['a plug that is loose', { fault: { log: evenly(12, 2 * DAY, 3 * DAY).map((time) => [time, 'INFO', 'kernel: tvnet 1000.eth eth0: Link is Down']) } },
    'link', 'warning', /^The link of eth0 went down 12 times between 2026-10-22 06:00 and 2026-10-23 06:00, mostly 2 h 11 min apart\.$/, 'traffic-eth0'],
  ['a link that was down', { fault: { errors: () => 0, link: (time) => time < 2 * DAY || time > 2 * DAY + 3 * HOUR } },
    'traffic', 'warning', /^Traffic of eth0 broke off once, at 2026-10-22 06:0., for (?:2 h 58|3 h)/, 'traffic-eth0'],
];

/** What the recordings here do without. */
const NOT_MADE = ['how often the HTTP API is called', 'page faults', 'the bandwidth', 'images'];

test('the fault of each recording is the first finding', async () => {
  for (const [name, recording, rule, severity, words, chart] of FAULTS) {
    const { findings, unjudged } = await found(recordingOf(recording));
    const told = findings.map((one) => `${one.severity} ${one.rule}: ${one.text}`).join('\n');
    const [first] = findings;
    assert.deepEqual([first?.rule, first?.severity], [rule, severity], `${name}\n${told}`);
    assert.match(first.text, words, name);
    assert.ok(first.from <= first.to && first.from >= START - DAY, name);
    assert.equal(first.chart, chart === '' ? first.chart : chart, name);
    assert.ok(recordingOf(recording).has(first.path), `${name}: ${first.path}`);
    assert.ok(!unjudged.includes('temperatures'), name);
  }
});

test('healthy recordings have nothing above a note, and the figures that show it', async () => {
  const inOrder = (time) => [[time - 60, 'INFO', 'Vandrel-silent: Continuous log taken up to here (77.1795295208).'], daemon(REBOOTED)(time)];
  for (const recording of [
    { days: 14, seed: 2 }, { days: 1, seed: 3, quiet: true, fault: { fan: () => 'Stopped' } },
    { days: 5, seed: 4, fault: { log: inOrder(2 * DAY), missing: [[2 * DAY - 300, 2 * DAY]], host: (time) => Number(time !== 3 * DAY),
      temperature: (time, usual) => Number(usual) + 14 } },
  ]) {
    const { findings, figures, unjudged } = await found(recordingOf(recording));
    assert.deepEqual(findings.filter(({ severity }) => severity !== 'note').map(({ text }) => text), []);
    for (const name of ['Temperature, Main board', 'Available memory', 'Load of 15 minutes', 'Rows', 'Log']) {
      assert.ok(figures.some(([figure, value]) => figure === name && /\d/.test(value)), name);
    }
    assert.deepEqual(unjudged, NOT_MADE);
  }
});

test('what was not recorded is told, hostile lines are text, a selected time has its own, an abort ends it', async () => {
  const files = recordingOf({ days: 1, fault: { without: /environment|HTTP_log|topstatus|load/, log: [[HOUR, 'CRIT', '<b>x\0: '.repeat(3000)]] } });
  const { findings, unjudged } = await found(files);
  assert.deepEqual(unjudged.sort(), [...NOT_MADE, 'callers of the HTTP API', 'heaters and fans', 'rows of each collection', 'temperatures', 'the clock', 'the load',
    'the processor of processes'].sort());
  assert.match(findings[0].text, /as critical: “.{1,200}”$/s);
  assert.deepEqual((await found(new Map())).findings, []);
  const broken = recordingOf({ days: 1, fault: { temperature: (time, usual) => (time === HOUR ? 'x' : usual) } });
  assert.deepEqual((await found(broken)).unjudged, [...NOT_MADE, 'Temperatures: no rows that can be used']);
  // What is usual of a selected time is known from all of it; what was before or after is not told.
  const hot = recordingOf({ fault: { ...FAULTS.find(([name]) => name === 'overheating')[1].fault, log: [[5 * DAY, 'CRIT', 'ptzd[80]: motor lost']] } });
  const only = async (from, to) => (await found(hot, undefined, [START + from, START + to])).findings.filter(({ severity }) => severity !== 'note').map(({ rule }) => rule);
  assert.deepEqual([await only(3.05 * DAY, 3.1 * DAY), await only(5 * DAY - HOUR, 5 * DAY + HOUR), await only(DAY, 2 * DAY)], [['temperature'], ['errors in the log'], []]);
  const controller = new AbortController();
  controller.abort();
  await assert.rejects(found(files, controller.signal), { name: 'AbortError' });
});
