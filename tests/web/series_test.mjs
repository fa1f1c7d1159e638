// What the charts make of a session's files: rows, series, holes, rates, marks.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { markOfFile, markOfLine, marksOfEvents, sortedMarks, zoneOf } from '../../package/html/js/marks.js';
import {
  aligned, csvLine, hasCounters, holes, rateOf, remarksOf, seriesOf, tableReader, wallSeconds, wallText,
} from '../../package/html/js/series.js';

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
  ];
  for (const [text, columns, series] of cases) {
    for (const piece of [1, 5, 1000]) {
      const table = tableOf(text, piece);
      assert.deepEqual(table.columns, columns ?? table.columns, text);
      assert.deepEqual(seriesOf(table).map(({ name, values }) => [name, values]), series, text);
    }
  }
});

test('what is cut or damaged is left out and told', () => {
  const whole = 'Date,Time,A\n2026-11-21,08:46:00,41\n2026-11-21,08:48:00,42\n2026-11-21,08:50:00,43\n';
  for (let length = 0; length <= whole.length; length++) {
    const table = tableOf(whole.slice(0, length));
    const rows = Math.max(0, whole.slice(0, length).split('\n').length - 2);
    assert.deepEqual(table.rows, [['41'], ['42'], ['43']].slice(0, rows));
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
  const { rows, skipped } = endless.finish();
  assert.deepEqual([rows, skipped], [[['1']], 1]);
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
  assert.deepEqual([true, true, false, false], ['x/monitoring_kernel/pagefaults.csv', 'x/monitoring_network/eth0.csv',
    'x/monitoring_network/network.csv', 'x/monitoring_load/load.csv'].map(hasCounters));

  const back = seriesOf(tableOf('Date,Time,N\n2026-10-25,02:58:00,1\n2026-10-25,02:00:00,2\n'))[0];
  assert.deepEqual(back.values, [2, 1]);
  // Two files' rows fall on different times: neither breaks the other's line.
  const [, first, second] = aligned([
    { name: 'a', times: [0, 120], values: [1, 2], categories: null }, { name: 'b', times: [1, 121], values: [3, null], categories: null },
  ]);
  assert.deepEqual([first, second], [[1, undefined, 2, undefined], [undefined, 3, undefined, null]]);
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
    'Timestamp: 2026-11-21T07:46:40.1Z', topics('nfd_not_ip192o168o0o1p80'), 'Timestamp: odd', topics('systemlogs_3')];
  assert.deepEqual(marksOfEvents(events, 3600).map(({ time, text }) => [time, text]), [
    [at('08:45:40'), 'Log trigger 2 found its message'],
    [at('08:46:40'), 'The device test did not reach 192.168.0.1, port 80'], [NaN, 'Log trigger 3 found its message'],
  ]);
  assert.deepEqual(sortedMarks([mark, { ...mark }, { ...mark, time: 5 }, { ...mark, time: NaN }]).map(({ time }) => time), [5, mark.time]);
  assert.equal(csvLine(['a', 'b,"c"', null, 5]), 'a,"b,""c""",,5\r\n');
});
