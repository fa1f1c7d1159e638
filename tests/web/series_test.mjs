// What the charts make of a session's files: rows, series, holes, rates, marks.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { chartOfId, chartsOf, chartsOfBoard, GLANCE, GROUPS } from '../../package/html/js/catalogue.js';
import {
  folded, gathered, logSeries, markOfFile, markOfLine, marksOfEvents, marksOfHoles, sortedMarks, triggerNames, zoneOf,
} from '../../package/html/js/marks.js';
import {
  aligned, amountRateOf, csvLine, holes, joined, rateOf, remarksOf, seriesOf, summaryOf, tableReader, wallSeconds, wallText,
} from '../../package/html/js/series.js';
import { scaleOf, valueText } from '../../package/html/js/units.js';

const at = (time) => wallSeconds('2026-11-21', time);
const encoder = new TextEncoder();

function tableOf(text, piece = 7) {
  const bytes = encoder.encode(text);
  const reader = tableReader('f.csv');
  for (let from = 0; from < bytes.length; from += piece) {
    reader.add(bytes.subarray(from, from + piece));
  }
  return reader.finish();
}

test('each form of file is read, in whatever pieces it comes', () => {
  const day = '2026-11-21';
  const cases = [
    ['Date,Time,A,B\n', ['A', 'B'], []],
    ['Date, Time, Temperature (Celsius)\r\n2026-11-21,08:46:11,53.5\r\n', ['Temperature (Celsius)'], [['Temperature (Celsius)', [53.5]]]],
    [`ZONE,DATE,TIME,4 kB\nDMA,${day},08:46:09,1\nTotal,${day},08:46:09,3\nDMA,${day},08:48:09,2\n`,
      ['ZONE', '4 kB'], [['DMA: 4 kB', [1, 2]], ['Total: 4 kB', [3]]]],
    [`Date, Time, Receive: bytes, drop, Transmit: bytes, drop, Failed\n${day},08:46:10,1,2,3,4,5\n`,
      ['Receive: bytes', 'Receive: drop', 'Transmit: bytes', 'Transmit: drop', 'Failed'],
      [['Receive: bytes', [1]], ['Receive: drop', [2]], ['Transmit: bytes', [3]], ['Transmit: drop', [4]], ['Failed', [5]]]],
    [`Date,Time,Rate\n${day},08:48:09,0.5 Mbit/s\n${day},08:50:09,\n`, ['Rate'], [['Rate', [0.5, null]]]],
    [`Date,Time,Fan\n${day},08:48:09,Stopped\n${day},08:50:09,Running\n`, ['Fan'], [['Fan', [1, 0]]]],
    [`Date,Time,S\n${day},08:48:09, a, b + c \n`, ['S'], [['S', [0]]]],
    [`time,quality\n${day} 09:12:04,93\n`, ['quality'], [['quality', [93]]]],
    [`${day},08:48:09,1,2\n${day},08:50:09,3,4\n`, ['Column 3', 'Column 4'], [['Column 3', [1, 3]], ['Column 4', [2, 4]]]],
    [`DATE,TIME,X,X\n${day},08:48:09,1,2\n`, ['X', 'X (2)'], [['X', [1]], ['X (2)', [2]]]],
    [`Date,Time,A,B\n${day},08:48:09,1\n`, ['A', 'B'], [['A', [1]]]],
    ['', [], []],
    ['\0\0\0\n<b>\n', null, []],
    [`Date,Time,V\n${day},08:48:09,007\n${day},08:50:09,1.50\n${day},08:52:09,-0\n${day},08:54:09,12345678901234567890\n`, ['V'],
      [['V', [7, 1.5, -0, 12345678901234567890]]]],
  ];
  // A column of texts that begins with what looks like numbers keeps how they were written.
  const [version] = seriesOf(tableOf(`Date,Time,V\n${day},08:48:09,1.50\n${day},08:50:09,2.0 beta 1\n${day},08:52:09,1.50\n`));
  assert.deepEqual([version.categories, version.values], [['1.50', '2.0 beta 1'], [0, 1, 0]]);
  for (const [text, columns, series] of cases) {
    for (const piece of [1, 5, 1000]) {
      const table = tableOf(text, piece);
      assert.deepEqual(table.columns.map(({ name }) => name), columns ?? table.columns.map(({ name }) => name), text);
      assert.deepEqual(seriesOf(table).map(({ name, values }) => [name, values]), series, text);
    }
  }
});

test('what is cut or damaged is left out and told', () => {
  const whole = 'Date,Time,A\n2026-11-21,08:46:00,41\n2026-11-21,08:48:00,42\n2026-11-21,08:50:00,43\n';
  for (let length = 0; length <= whole.length; length++) {
    const table = tableOf(whole.slice(0, length));
    const rows = Math.max(0, whole.slice(0, length).split('\n').length - 2);
    assert.deepEqual(table.columns.flatMap(({ values }) => values), [41, 42, 43].slice(0, rows));
    assert.equal(table.unfinished, length > 0 && whole[length - 1] !== '\n');
  }
  const odd = tableOf('Date,Time,A\n2026-11-21,08:46:00,1\nnoise\n2026-13-41,99:00:00,5\n2026-11-21,08:44:00,2');
  assert.deepEqual([odd.times, odd.skipped], [[at('08:46:00')], 2]);
  assert.match(remarksOf(odd, 10, 10), /^2 lines without a time .* not whole/);
  const endless = tableReader('f.csv');
  endless.add(encoder.encode('Date,Time,A\n'));
  for (let piece = 0; piece < 100; piece++) {
    endless.add(new Uint8Array(1e6).fill(0x37));
  }
  endless.add(encoder.encode('\n2026-11-21,08:46:00,1\n'));
  const { columns, skipped } = endless.finish();
  assert.deepEqual([columns[0].values, skipped], [[1], 1]);
  assert.match(remarksOf(odd, 1e8, 32e6), /first 32 of 100 MB/);
});

test('holes, a clock set back, and counters that begin anew', () => {
  const rows = [['08:00:00', 10], ['08:02:02', 130], ['08:03:59', 247], ['08:20:00', 300], ['08:22:00', 5], ['08:24:00', 125]];
  const table = tableOf(`Date,Time,N\n${rows.map(([time, value]) => `2026-11-21,${time},${value}\n`).join('')}`);
  const [series] = seriesOf(table);
  assert.deepEqual(holes(series.times).map((hole) => hole.map((time) => wallText(time).slice(11))), [['08:03:59', '08:20:00']]);
  const rate = rateOf(series);
  assert.deepEqual(rate.values.map((value) => value?.toFixed(3) ?? null), [null, '0.984', '1.000', '0.055', null, '1.000']);
  const [times, values] = aligned([series]);
  assert.equal(times.length, rows.length + 1);
  assert.deepEqual(values.filter((value) => value !== null), rows.map(([, value]) => value));
  assert.equal(values[3], null);
  const back = seriesOf(tableOf('Date,Time,N\n2026-10-25,02:58:00,1\n2026-10-25,02:00:00,2\n'))[0];
  assert.deepEqual(back.values, [2, 1]);
  const over = seriesOf(tableOf('Date,Time,N\n' + ['02:57:00,60', '02:59:00,180', '02:58:00,240', '03:00:00,360'].map((row) => `2026-10-25,${row}\n`).join('')))[0];
  assert.deepEqual(rateOf(over).values, [null, null, 1, 1]); // from the row written before, not the one of the time before
  // Two files' rows fall on different times: neither breaks the other's line.
  const of = (name, line, cells) => ({ name, times: line, values: cells, categories: null });
  assert.deepEqual(aligned([of('a', [0, 120], [1, 2]), of('b', [30, 150], [3, null])]),
    [[0, 30, 120, 150], [1, undefined, 2, undefined], [undefined, 3, undefined, null]]);
  // Those of one collection stand at one time; of one file each row keeps its own.
  assert.deepEqual(aligned([of('a', [0, 120, 121], [1, 2, 5]), of('b', [1, 122], [3, null])]), [[0, 120, 121], [1, 2, 5], [3, undefined, null]]);
  // A program that was started again, and one that is there twice.
  const both = joined([of('', [0, 120, 240], [5, 6, 7]), of('', [121, 241, 361], [10, 20, 30])], 'httpd');
  assert.deepEqual([both.times, both.values], [[0, 120, 240, 361], [5, 16, 27, 30]]);
  assert.deepEqual(amountRateOf(of('calls', [0, 120, 240], [7, 60, 0])).values, [null, 0.5, 0]);
  assert.deepEqual(summaryOf(of('a', [0, 10, 20, 30], [9, 1, null, 5]), 10, 30), { count: 2, min: 1, max: 5, average: 3, last: 5 });
  assert.equal(summaryOf(of('a', [0], [9]), 10), null);
  assert.deepEqual([['B', 5e6], ['B/s', 1234], ['s', 0.0052], ['°C', 41.5], ['B', 0]].map(([unit, value]) => valueText(value, unit)),
    ['5 MB', '1.234 kB/s', '5.2 ms', '41.5 °C', '0 B']);
  assert.equal(scaleOf('B', 12e9).text, 'GB');
});

test('the catalogue joins what belongs together, and leaves nothing out', () => {
  const of = (path, ...columns) => ({ path: `system_monitoring/monitoring_${path}.csv`, columns });
  const files = [
    of('load/load', 'Load average (1 min)'), ...['MemTotal', 'MemFree', 'Cached', 'Buffers', 'Odd'].map((name) => of(`meminfo/${name}`)),
    of('environment/CPU'), of('environment/Main_board'), of('environment/Fan_0'), of('environment/psu/devicepower', 'power_mW', 'voltage_mV'),
    of('network/eth0', 'Receive: bytes', 'packets'), of('network/lo', 'Receive: bytes'), of('network/network'),
    of('vmstatus/httpd/3/vmstatus'), of('vmstatus/httpd/9/vmstatus'), of('vela/Guard', 'VERSION', 'STATUS'), of('new/unknown', 'A'),
  ];
  const charts = chartsOf(files, [{ path: 'system_monitoring/monitoring_basic/Continuous_Syslog.txt' }]);
  const byId = new Map(charts.map((chart) => [chart.id, chart]));
  assert.deepEqual(['memory', 'temperature', 'process-memory', 'climate', 'memory-details'].map((id) => byId.get(id).parts.length), [4, 2, 2, 1, 1]);
  assert.deepEqual(chartsOfBoard(charts, GLANCE).map(({ id }) => id), ['load', 'memory', 'process-memory', 'traffic-eth0', 'temperature', 'log']);
  assert.deepEqual(['traffic-eth0', 'packets-eth0', 'device-power', 'packages'].map((id) => byId.get(id)?.unit), ['B/s', '1/s', 'W', '']);
  assert.deepEqual([byId.has('device-current'), byId.has('package-size')], [false, false]); // no such column
  assert.ok(charts.every(({ id, group }) => GROUPS.includes(group) && id !== ''));
  assert.equal(new Set(charts.map(({ id }) => id)).size, charts.length);
  const isFile = (path) => files.some((file) => file.path === path);
  for (const { path } of files) {
    assert.equal(chartOfId(charts, `file:${path}`, isFile).parts[0].path, path);
  }
  assert.deepEqual(['load+temperature', 'load+none', 'none'].map((id) => chartOfId(charts, id, isFile)?.id), ['load+temperature', 'load', undefined]);
});

test('marks are made of names and of the daemon’s own lines alone', () => {
  const line = (text, zone = '+01:00') => `2026-11-21T08:45:40.123${zone} camera [ INFO    ] ${text}`;
  const zones = ['+01:00', '-05:30', '+00:00'].map((zone) => zoneOf(line('x', zone)));
  assert.deepEqual([...zones, zoneOf('no log line')], [3600, -19800, 0, null]);
  const told = 'Continuing System Monitoring Session. Device was rebooted or lost power.';
  const [mark] = markOfLine(line(`Vandrel[45]: ${told}`));
  assert.deepEqual([mark.kind, mark.time], ['reboot', at('08:45:40')]);
  const lost = 'Connection to edge storage location re-established, connection was lost since 0 days 1 hours 5 minutes. Continuing system monitoring session.';
  assert.match(markOfLine(line(`Vandrel[45]: ${lost}`))[0].text, /after 0 days 1 hours 5 minutes$/);
  assert.deepEqual(markOfLine(line(`evil[45]: ${told}`)), []);
  assert.deepEqual(markOfLine(`Vandrel[1]: ${told}`), []);
  const files = [
    ['coredumps/core.my.prog.446.cam.local.1795250750', 'crash', 'my.prog crashed', 1795250750 + 3600],
    ['coredumps/core.!usr!bin!x.4.camera.1795250750', 'crash', '/usr/bin/x crashed', 1795250750 + 3600],
    ['coredumps/2026.elf.lzo', 'crash', 'Dump of the kernel: 2026.elf.lzo', 77],
    ['a/Server_Report_2026-11-21T084540UTC.txt', 'report', 'Server report', at('08:45:40')],
    ['a/Crash_Reports/Debug_2026-11-21T084540CEST.tgz', 'report', 'Crash report', at('08:45:40')],
  ];
  for (const [path, kind, text, time] of files) {
    assert.deepEqual(markOfFile(path, 3600, 77), [{ time, kind, text, path }]);
  }
  for (const path of ['coredumps/core.x.4.camera.1795250750_server-report.log', 'coredumps/x', 'a/.tmp_Debug_2026-11-21T084540UTC.tgz']) {
    assert.deepEqual(markOfFile(path, 0, 77), [], path);
  }
  const topics = (name, by = 'Vandrel') => `[tnstarvo:topic0 = 'VelaPlatform'] [tnstarvo:topic1 = '${by}'] [tnstarvo:topic2 = '${name}']`;
  const events = ['Timestamp: 2026-11-21T07:45:40.1Z', topics('systemlogs_2'), topics('systemlogs_2', 'Other'), '---',
    'Timestamp: 2026-11-21T07:46:40.1Z', topics('nfd_not_ip192o168o0o1p80'), topics('nfd_not_ip192o168o0o1p80'), topics('nfd_ip192o168o0o1p80'),
    topics('nfd_ipcam2p-1'), 'Timestamp: odd', topics('systemlogs_3')];
  const log = ['Creating systemlog trigger rule: a', 'Creating systemlog trigger rule with limit: 1, cooldown: 2 minutes', 'Creating systemlog trigger rule: a',
    'Creating systemlog trigger rule: door'].map((text) => line(`Vandrel[45]: ${text}`));
  // Of a host the changes count, not the checks.
  assert.deepEqual(marksOfEvents(events, 3600, triggerNames(log)).map(({ time, text }) => [time, text]), [
    [at('08:45:40'), 'Log trigger “door” found its message'],
    [at('08:46:40'), 'The device test did not reach 192.168.0.1, port 80'], [at('08:46:40'), 'The device test reached 192.168.0.1, port 80 again'],
    [NaN, 'Log trigger 3 found its message'],
  ]);
  const gaps = marksOfHoles([[0, 900], [5000, 9000], [20000, 30000]], [{ time: 890, kind: 'reboot' }, { time: 9010, kind: 'storage' }]);
  assert.deepEqual(gaps.map(({ text }) => text.split(': ')[1]),
    ['the camera was restarted or had no power', 'the storage could not be used', undefined]);
  const many = Array.from({ length: 30 }, (_, index) => ({ time: index, kind: index === 7 ? 'crash' : 'trigger', text: index === 7 ? 'x' : 't' }));
  assert.deepEqual(folded(many).map(({ kind, count, last }) => [kind, count, last]), [['trigger', 29, 29], ['crash', 1, 7]]);
  assert.deepEqual(gathered(many, 10).map(({ time, kind, marks }) => [time, kind, marks.length]), [[0, 'crash', 10], [10, 'trigger', 10], [20, 'trigger', 10]]);
  const counted = logSeries(['ERR    ', 'WARNING', 'INFO   ', 'ERR    '].map((level, index) => `2026-11-21T08:${index}1:00.1+00:00 camera [ ${level} ] x`));
  assert.deepEqual(counted.map(({ name, values }) => [name, values]), [['errors', [1, 0, 0, 1]], ['warnings', [0, 1, 0, 0]]]);
  assert.deepEqual(sortedMarks([mark, { ...mark }, { ...mark, time: 5 }, { ...mark, time: NaN }]).map(({ time }) => time), [5, mark.time]);
  assert.equal(csvLine(['a', 'b,"c"', null, 5]), 'a,"b,""c""",,5\r\n');
});
