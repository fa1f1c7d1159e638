import assert from 'node:assert/strict';
import { test } from 'node:test';

import { visible } from '../../package/html/js/dom.js';
import {
  cutAtMatches, findAgain, lineCollector, matching, SEVERITIES, severityOf,
} from '../../package/html/js/views/log_lines.js';

test('what would reorder or hide text is shown', () => {
  assert.equal(visible('a\x1b[31m\u202eb\tc\n\x7f'), 'a␛[31m⟨202e⟩b\tc\n␡');
});

test('lines are collected from any pieces, the last ones kept', () => {
  const cases = [
    [['a\nb\n'], 5, ['a', 'b'], 0],
    [['a', '\n', '', 'b\nc'], 5, ['a', 'b', 'c'], 0],
    [['\n\nx'], 5, ['', '', 'x'], 0],
    [[], 5, [], 0],
    [['1\n2\n3\n4\n5\n6\n', '7\n8'], 2, ['7', '8'], 6],
  ];
  for (const [pieces, most, lines, dropped] of cases) {
    const collector = lineCollector(most);
    pieces.forEach((piece) => collector.add(piece));
    assert.deepEqual(collector.finish(), { lines, dropped });
  }
});

test('the severity is the one before what a program wrote', () => {
  const cases = {
    '2024-05-17T09:30:00.123+00:00 camera [ WARNING ] program[12]: text': 'warning',
    '2024-05-17T09:30:00.123+00:00 camera [ ERR     ] program: [ INFO    ]': 'err',
    'May 17 09:30:00 camera [ERROR] program': 'err',
    'May 17 09:30:00 camera program: error': undefined,
    '[ NONSENSE ] x': undefined,
    [`${' '.repeat(200)}[ ERR ]`]: undefined,
    '': undefined,
  };
  for (const [line, name] of Object.entries(cases)) {
    assert.equal(SEVERITIES[severityOf(line)], name, line);
  }
});

test('matches hold the text in any case and are severe enough', () => {
  const lines = ['[ ERR ] Disk', '[ INFO ] disk', 'disk', '[ DEBUG ] other (.*'];
  const severities = Int8Array.from(lines, severityOf);
  assert.deepEqual(matching(lines, severities, '', -1), [0, 1, 2, 3]);
  assert.deepEqual(matching(lines, severities, 'DISK', -1), [0, 1, 2]);
  assert.deepEqual(matching(lines, severities, 'disk', 6), [0, 1]);
  assert.deepEqual(matching(lines, severities, '', 3), [0]);
  assert.deepEqual(matching(lines, severities, '(.*', -1), [3]);
});

test('a line is cut at its matches', () => {
  const cases = [
    ['one two One', 'one', ['', 'one', ' two ', 'One', '']],
    ['aaa', 'aa', ['', 'aa', 'a']],
    ['abc', '', ['abc']],
    ['abc', 'x', ['abc']],
    ['İ abc', 'abc', ['İ abc']],
  ];
  for (const [line, text, parts] of cases) {
    assert.deepEqual(cutAtMatches(line, text), parts);
  }
});

test('a line is found again nearest to where it was', () => {
  assert.equal(findAgain(['x', 'a', 'b', 'x'], 'x', 2), 3);
  assert.equal(findAgain(['b', 'c'], 'b', 1), 0);
  assert.equal(findAgain(['b', 'c'], 'gone', 7), 1);
});
