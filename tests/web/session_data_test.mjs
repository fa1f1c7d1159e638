// What the page makes of the daemon's replies, in whatever state they are.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { lastMeasure, tellsCondition } from '../../package/html/js/condition.js';
import { readLooseJson } from '../../package/html/js/loose_json.js';
import {
  cameraOf, deviceTime, duration, informationOf, partsOfPath, runsElsewhere,
} from '../../package/html/js/session_data.js';

const plain = (value) => JSON.parse(JSON.stringify(value));

test('JSON is read whatever its texts hold and wherever it ends', () => {
  const cases = [
    ['{"a":1,"b":[true,null,-2.5,"x"]}', { a: 1, b: [true, null, -2.5, 'x'] }, false],
    // Nothing is escaped by the daemon: quotes, backslashes and line ends stand for themselves.
    ['{ "a":"x"y", "b" : "c\\n","l":[{"P":"/a "q", b"},{"P":"z"}] }',
      { a: 'x"y', b: 'c\\n', l: [{ P: '/a "q", b' }, { P: 'z' }] }, false],
    ['{"a":"1\n2"}', { a: '1\n2' }, false],
    ['{"a":"{}","b":"}"}', { a: '{}', b: '}' }, false],
    ['{"a":"x", "s":[{"P":"/q","M":[{"M":"Just"}],"si', { a: 'x', s: [{ P: '/q', M: [{ M: 'Just' }], si: null }] }, true],
    ['{"a":,"b":2}', { a: null, b: 2 }, true],
    ['{"s":[,{"P":"x"},,{"P":"y"}]}', { s: [{ P: 'x' }, { P: 'y' }] }, true],
    ['{"a":1}}', { a: 1 }, true],
    ['', null, true],
    ['<html>', '<html>', true],
  ];
  for (const [text, value, damaged] of cases) {
    const read = readLooseJson(text);
    assert.deepEqual([plain(read.value), read.damaged], [value, damaged], text);
  }
  assert.ok(readLooseJson('['.repeat(100000)).damaged);
});

test('any cut of a reply gives what stands before the cut', () => {
  const reply = '{ "active":1,"space":1, "current_storage":"/a" , "device": { "IP": "10.0.0.1"}, '
    + '"sessions":[{"Path":"/s/1", "Monitoring": [{ "Monitor":"Just to start"},{"Monitor":"m"}]'
    + ',"zipping":"no","size":"5"},{"Path":"/s/2"}], "broken_sessions":[{"Path":"/b"}]}';
  for (let length = 0; length <= reply.length; length++) {
    const { value, damaged } = readLooseJson(reply.slice(0, length));
    const { sessions } = cameraOf(value);
    assert.equal(damaged, length < reply.length);
    assert.equal(sessions.some(({ path, zipped }) => path === '/s/1' && zipped),
      length >= reply.indexOf('"no"') + 3, reply.slice(0, length));
    assert.ok(length < reply.indexOf(', "broken') || sessions.length >= 2);
  }
});

test('values that are missing or odd leave a whole state', () => {
  for (const value of [null, 5, [], {}, { sessions: [null, 1, {}, { Path: 7 }], device: 'x' }]) {
    const { active, lostMinutes, sessions, device } = cameraOf(value);
    assert.deepEqual([active, lostMinutes, device.model], [false, null, '']);
    assert.ok(sessions.every(({ bytes, start }) => bytes === 0 && start === ''));
  }
  const lost = (space, count) =>
    cameraOf({ active: 1, space, connection_lost_count: count }).lostMinutes;
  assert.deepEqual([lost(1, 0), lost(0, 1), lost(1, 70)], [null, 1, 70]);
  // After a restart a schedule is told by its minutes alone.
  const debug = { 'status-interval': 0, crash_recurrence: 90 };
  assert.deepEqual(cameraOf({ miscellaneous: { advanced_debug_mode: debug } }).debug,
    { log: false, interval: true, minutes: 90 });
  const recording = (serial, end) => runsElsewhere({ serial, end }, 'A1B2');
  assert.deepEqual([recording('C3', 'Still active'), recording('A1B2', 'Still active'), recording('C3', 'then')],
    [true, false, false]);
});

test('paths, times and durations are shown for people', () => {
  const folder = 'Vandrel_A1B2/20230531_08_27_40';
  const title = '2023-05-31 08:27:40';
  assert.deepEqual(partsOfPath(`/var/spool/storage/SD_DISK/${folder}`),
    { title, storage: 'SD card', serial: 'A1B2' });
  assert.deepEqual(partsOfPath('/usr/local/packages/Vandrel/localdata/20230531_08_27_40'),
    { title, storage: 'Internal storage', serial: '' });
  assert.deepEqual(partsOfPath('/var/spool/storage/USB/Vandrel_/x'),
    { title: 'x', storage: 'USB', serial: '' });
  assert.equal(deviceTime('Thu Jun  1 08:27:40 CEST 2023'), '2023-06-01 08:27:40 CEST');
  for (const other of ['Still active', '', 'Thu Foo  1 08:27:40 CEST 2023']) {
    assert.equal(deviceTime(other), other);
  }
  assert.deepEqual([0, 59, 60, 1440, 4505].map(duration),
    ['0 min', '59 min', '1 h', '1 day', '3 days 3 h 5 min']);
  assert.deepEqual(
    informationOf('Model Name: Q\r\nLog messages:\r\n        a: b [limit: 3]\r\n        c\r\nDuration: x\nDuration: y\n'),
    [['Model Name', 'Q'], ['Log messages', 'a: b [limit: 3]\nc'], ['Duration', 'x'], ['Duration', 'y']]);
});

test('the last whole row tells the condition', () => {
  const time = '2026-11-21 04:05:06';
  const row = (values, end = '\n') => `2026-11-21,04:03:06,old\n2026-11-21,04:05:06,${values}${end}`;
  const cases = [
    ['e/Main_board.csv', 'Temperature (Celsius)', row('41.5'), { name: 'Temperature, Main board', value: '41.5 °C' }],
    ['e/Heater_0.csv', 'Heater status', row('Stopped'), { name: 'Heater 0', value: 'Stopped' }],
    ['s/stream.csv', 'Streams', row('No streams ', '\r\n'), { name: 'Video streams', value: 'none' }],
    ['s/stream.csv', 'Streams', row(' a, b + c ', '\r\n'), { name: 'Video streams', value: 'a, b; c' }],
    ['s/V.csv', '%Vsz', row('3,17'), { name: 'Daemon’s memory and processor share', value: '3 %, 17 %' }],
    ['e/power.csv', 'POWER_mW', row(''), { name: 'Power', value: 'not measured' }],
    ['e/Fan_0.csv', 'Fan status', `${row('Running')}2026-11-21,04:0`, { name: 'Fan 0', value: 'Running' }],
  ];
  for (const [path, column, end, measure] of cases) {
    assert.deepEqual(lastMeasure(path, [column], end), { ...measure, time });
  }
  for (const end of ['', 'Date, Time, Fan status\n', '2026-11-21,04:05:06,cut', '<b>\n']) {
    assert.equal(lastMeasure('e/Fan_0.csv', ['Fan status'], end), null, end);
  }
  assert.deepEqual([['Streams', 'x'], ['toString'], []].map(tellsCondition), [true, false, false]);
});
