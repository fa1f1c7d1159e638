// Log triggers and maintenance from the page, on a simulated camera.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { until } from '../camera/support/camera.mjs';
import { cameraAndBrowser, MARKUP, violationsInBoth } from './support/browser.mjs';

const { camera, open } = cameraAndBrowser();

const button = (page, name) => page.getByRole('button', { name, exact: true });
const card = (page, name) => page.getByRole('region', { name, exact: true });
const says = (page, text) => page.getByRole('status').filter({ hasText: text }).waitFor();
const rules = async () => JSON.parse((await camera.action('systemlog_trigger', { do: 'list' })).body
  .replaceAll('\\', '\\\\').replaceAll('\\\\"', '\\"')).systemlog_trigger_rules;
const set = async () => JSON.parse((await camera.action('list_data')).body).miscellaneous;

test('triggers are added, shown and removed', async () => {
  const page = await open('#/triggers');
  await page.getByText('No line of the log raises an event yet.').waitFor();
  for (const severity of ['Warning', 'Emergency']) {
    await button(page, severity).click();
    await says(page, `${severity}: New systemlog trigger added.`);
  }
  assert.ok(await button(page, 'Warning').isDisabled());

  const own = card(page, 'Own text');
  await button(own, 'Add trigger').click();
  await own.getByText('Can’t be empty.').first().waitFor();
  await own.getByLabel('Name').fill('x'.repeat(243));
  await own.getByLabel('Text to look for').fill('a');
  await button(own, 'Add trigger').click();
  await own.getByText('Too long: 243 bytes of at most 242.').waitFor();
  const odd = `${MARKUP} "a+b" \\ é`;
  await own.getByLabel('Name').fill(odd);
  await own.getByLabel('Text to look for').fill('C:\\dir "q" 1+1');
  await button(own, 'Add trigger').click();
  await says(page, 'New systemlog trigger added.');
  await page.getByRole('row').filter({ hasText: odd }).filter({ hasText: 'C:\\dir "q" 1+1' }).waitFor();

  const reports = card(page, 'Crash reports');
  await reports.getByLabel('Name').fill(odd);
  await reports.getByLabel('Message to look for').fill('segfault');
  await reports.getByLabel('At most').fill('0');
  await button(reports, 'Add crash-report trigger').click();
  await reports.getByText('There is a trigger of that name.').waitFor();
  await reports.getByText('A whole number above 0.').waitFor();
  await reports.getByLabel('Name').fill('crash');
  await reports.getByLabel('At most').fill('3');
  await button(reports, 'Add crash-report trigger').click();
  await page.getByRole('row').filter({ hasText: 'Crash report, at most 3, 1 h between two; waits for a session' })
    .waitFor();
  assert.deepEqual((await rules()).map(({ name, key_word: key, limit, cooldown }) => [name, key, limit, cooldown]), [
    ['Warning', '[ WARN', 0, '0'], ['Emergency', '[ EMERG', 0, '0'],
    [odd, 'C:\\dir "q" 1+1', 0, '0'], ['crash', 'segfault', 3, '3600'],
  ]);
  assert.deepEqual(await violationsInBoth(page), []);

  await button(page, `Remove trigger ${odd}`).click();
  await button(page, 'Keep').click();
  await button(page, `Remove trigger ${odd}`).click();
  await camera.action('systemlog_trigger', { do: 'remove', name: odd.replace('+', '\x1b') });
  await page.getByRole('dialog').getByRole('button', { name: 'Remove' }).click();
  await says(page, 'not removed (not found).');
  await until(async () => (await page.getByRole('row').count()) === 4, 'three triggers and the head');
});

test('restarts and PTZ tests are scheduled and stopped', async () => {
  const page = await open('#/maintenance');
  const restart = card(page, 'Scheduled restart');
  await restart.getByText('Not set').waitFor();
  await restart.getByLabel('Every').fill('2');
  await restart.getByLabel('Unit').selectOption('minutes');
  await button(restart, 'Set: Scheduled restart').click();
  await restart.getByText('at least 3 minutes').waitFor();
  await restart.getByLabel('Every').fill('90');
  await button(restart, 'Set: Scheduled restart').click();
  await says(page, 'Automatic restart rule has been set.');
  await restart.getByText(/^in 1 h (30|29) min$/).waitFor();

  await restart.getByLabel('When').selectOption('At times of day');
  for (const [typed, complaint] of [['', 'At least one time'], ['8:00', '“8:00” is no time'],
    ['08:00, 24:00', '“24:00” is no time']]) {
    await restart.getByLabel('At', { exact: true }).fill(typed);
    await button(restart, 'Set: Scheduled restart').click();
    await restart.getByText(complaint).waitFor();
  }
  await restart.getByLabel('At', { exact: true }).fill('20:30, 08:00');
  await button(restart, 'Set: Scheduled restart').click();
  await restart.getByText('08:00, 20:30', { exact: true }).waitFor();
  await restart.getByText('The times wait').waitFor();
  const told = await set();
  assert.deepEqual([told.automatic_restart_timer, told.automatic_restart_given_times], [90, '08:00,20:30']);
  assert.deepEqual(await violationsInBoth(page), []);

  await button(restart, 'Stop: Scheduled restart').click();
  await says(page, 'The times of day are still set');
  await restart.getByText(/^(08:00|20:30), in /).waitFor();
  await button(restart, 'Stop: Scheduled restart').click();
  await restart.getByText('Not set').waitFor();

  const ptz = card(page, 'PTZ test');
  await ptz.getByLabel('Every').fill('1');
  await button(ptz, 'Set: PTZ test').click();
  await says(page, 'Automatic PTZ test has been set.');
  await button(ptz, 'Stop: PTZ test').click();
  await ptz.getByText('Not set').waitFor();
});

test('the remote log server is set, tried and removed', async () => {
  const page = await open('#/maintenance');
  const server = card(page, 'Remote log server');
  await server.getByLabel('Server').fill('host;reboot');
  await button(server, 'Set server').click();
  await server.getByText('nothing else').waitFor();
  await server.getByLabel('Server').fill('127.0.0.1');
  await button(server, 'Set server').click();
  await says(page, 'Remote server changed');
  await server.getByText('127.0.0.1').waitFor();
  assert.match(await camera.shell('cat /etc/rsyslog.d/40-remote_log.conf'), /^\*\.\* @127\.0\.0\.1$/m);
  await button(server, 'Send test message').click();
  await says(page, 'Test message in the log sent.');
  await button(server, 'Remove server …').click();
  await button(page, 'Remove server').click();
  await says(page, 'Remote syslog server was removed.');
  await server.getByText('the camera names none').waitFor();
});
