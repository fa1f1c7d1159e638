// Monitoring sessions from the page, on a simulated camera whose time runs fast.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { afterEach, test } from 'node:test';

import { until } from '../camera/support/camera.mjs';
import { cameraAndBrowser, violationsInBoth } from './support/browser.mjs';

const PERIOD_MS = 60000;

const shared = cameraAndBrowser(['--speed', '60']);
const { camera } = shared;

async function open(hash = '#/sessions', options = {}) {
  const page = await shared.open(hash, options);
  await page.getByText(/^As of/).first().waitFor();
  return page;
}

const state = async () => JSON.parse((await camera.action('list_data')).body);
const button = (page, name) => page.getByRole('button', { name });
const badge = (page, text) => page.getByRole('region', { name: 'Session', exact: true }).getByText(text, { exact: true });
const says = (page, text) => page.getByRole('status').filter({ hasText: text }).waitFor();
const refresh = (page) => button(page, 'Refresh').click();
const rows = (page) => page.getByRole('table', { name: 'Sessions' }).getByRole('row');

async function stop(page) {
  await button(page, 'Stop session …').click();
  await page.getByRole('dialog').getByRole('button', { name: 'Stop session' }).click();
}

/** A session that is over, made and listed without the page. */
async function record() {
  await camera.action('activate_monitor_session', { storage: 'SD_DISK' });
  const { current_storage: path } = await state();
  await camera.action('deactivate_monitor_session');
  await camera.action('list_data', { special_request: 'reload' });
  await until(async () => (await camera.action('zip_monitor_data', { storage: path })).status === 200);
  return path;
}

const stampOf = (path) => path.slice(-17).replace(/(....)(..)(..)_(..)_(..)_(..)/, '$1-$2-$3 $4:$5:$6');

async function removeAll() {
  await camera.action('deactivate_monitor_session');
  await camera.action('list_data', { special_request: 'reload' });
  for (const { Path: path } of (await state()).sessions) {
    await until(async () => (await camera.action('remove', { path })).status === 200);
  }
}

afterEach(removeAll);

test('a session is started, watched, stopped, downloaded and deleted', async () => {
  const stale = await open();
  const page = await open();
  await page.getByRole('combobox', { name: 'Advanced debug mode' }).selectOption('Both');
  await page.getByLabel('A crash report every').fill('90');
  await page.getByRole('combobox', { name: 'Unit' }).selectOption('minutes');
  await page.getByLabel('Image interval').fill('60');
  await button(page, 'Start session').click();
  await says(page, 'Session started.');
  await badge(page, 'Running').waitFor();
  await page.getByText('crash reports every 1 h 30 min, crash reports on log messages').waitFor();
  const { current_storage: session, miscellaneous } = await state();
  assert.deepEqual(Object.values(miscellaneous.advanced_debug_mode).slice(0, 3), [1, 1, 90]);
  assert.match(await camera.shell('cat /usr/local/packages/Vandrel/localdata/current_*_session.txt'), /^CAPT:60$/m);
  assert.equal(await button(page, 'Start session').count(), 0);
  await camera.command('set', 'temperature', '0', '61.75');
  await until(async () => (await camera.exec('grep', '-rq', ',61.75', `${session}/system_monitoring/monitoring_environment`)).status === 0);
  await page.getByRole('link', { name: 'The camera’s condition' }).click();
  await page.getByRole('table', { name: 'Condition of the camera' })
    .getByRole('row', { name: /^Temperature, Main board 61\.75 °C 20/ }).waitFor();
  await page.goBack();

  await button(stale, 'Start session').click();
  await says(stale, 'Can not start new activity while another is running.');
  await badge(stale, 'Running').waitFor();

  const points = page.getByRole('definition').nth(2);
  await until(async () => {
    await refresh(page);
    return Number(await points.textContent()) >= 2;
  }, 'data points');
  await button(page, /^Delete session/).click();
  await button(page, 'Delete').last().click();
  await says(page, 'Can\'t delete the current active monitoring session.');

  await rows(page).getByRole('link').first().click();
  await page.getByRole('heading', { name: 'All files' }).click();
  await page.getByRole('link', { name: 'monitoring_load/load.csv' }).click();
  const shown = page.getByRole('region', { name: 'Content of the file' });
  await shown.getByText('Date,Time,Load average').waitFor();
  const content = (await shown.textContent()).split(/\r?\n/);
  const recorded = await camera.shell(`cat ${session}/system_monitoring/monitoring_load/load.csv`);
  assert.deepEqual(content.slice(0, -1), recorded.split(/\r?\n/).slice(0, content.length - 1));
  await page.getByRole('link', { name: 'Close' }).click();
  await page.getByText('Information', { exact: true }).click();
  await page.getByText('Collected Data Points').waitFor();
  await page.getByRole('link', { name: 'All sessions' }).click();

  await button(page, 'Stop session …').click();
  await page.keyboard.press('Escape');
  assert.equal((await state()).active, 1);
  await stop(page);
  await says(page, 'Session deactivated.');
  await badge(page, 'Not running').waitFor();
  assert.equal(await page.getByLabel('Image interval').inputValue(), '60');
  const download = button(page, `Download session ${stampOf(session)}`);
  await download.waitFor();
  const [file] = await Promise.all([page.waitForEvent('download'), download.click()]);
  assert.equal(file.suggestedFilename(), `TARVO_Q6318-11.4.63-${session.slice(-17)}.zip`);
  const archive = readFileSync(await file.path());
  assert.equal(archive.subarray(0, 4).toString('latin1'), 'PK\x03\x04');
  assert.equal(archive.length, Number(await camera.shell(`stat -c %s ${session}.zip`)));

  await camera.shell(`rm ${session}.zip`);
  await refresh(page);
  await button(page, `Zip session ${stampOf(session)}`).click();
  await page.getByText('Zipping …').waitFor();
  await says(page, 'the archive is ready for download');
  await button(page, /^Delete session/).click();
  await button(page, 'Keep').click();
  await button(page, /^Delete session/).click();
  await button(page, 'Delete').last().click();
  await says(page, 'Files deleted.');
  await page.getByText('No session has been recorded yet').waitFor();
  assert.equal((await camera.exec('test', '-e', session)).status, 1);
});

test('what is typed is checked, and what is refused is said in the daemon\'s words', async () => {
  const page = await open();
  await page.getByLabel('Image interval').fill('six');
  await button(page, 'Start session').click();
  await page.getByText('A whole number of seconds.').waitFor();
  assert.ok(await page.getByLabel('Image interval').evaluate((input) => input === document.activeElement));
  await page.getByLabel('Image interval').fill('');
  await page.getByRole('combobox', { name: 'Storage' }).selectOption('Another storage …');
  await page.getByLabel('Name of the storage').fill('USB"; reboot; "');
  await page.keyboard.press('Enter');
  await says(page, 'The given storage destination was not valid');
  assert.equal(await page.getByLabel('Name of the storage').inputValue(), 'USB"; reboot; "');

  assert.equal((await camera.command('fill', 'SD_DISK', '95')).status, 0);
  await page.getByRole('combobox', { name: 'Storage' }).selectOption('SD card');
  await button(page, 'Start session').click();
  await says(page, /“?Session started\.”? but no session runs/);
  assert.equal((await camera.command('fill', 'SD_DISK', '0')).status, 0);

});

test('a lost storage is told, with what to do, and its return', async () => {
  const earlier = await record();
  const page = await open();
  await button(page, 'Start session').click();
  await badge(page, 'Running').waitFor();
  assert.equal((await camera.command('eject', 'SD_DISK')).status, 0);
  await until(async () => (await state()).connection_lost_count > 1);
  await refresh(page);
  await page.getByRole('alert').filter({ hasText: /can’t be used .*Check that it is inserted/ }).waitFor();
  await badge(page, 'Running, storage lost').waitFor();
  await button(page, 'Look again').click();
  const row = rows(page).filter({ hasText: stampOf(earlier) });
  await row.getByText('Not reachable').waitFor();
  assert.equal((await camera.command('insert', 'SD_DISK')).status, 0);
  await until(async () => (await state()).connection_lost_count === 0);
  await button(page, 'Look again').click();
  await row.getByText('Archive ready').waitFor();
  await badge(page, 'Running').waitFor();
});

test('refreshing by itself loses nothing of what the user does', async () => {
  const first = await record();
  const page = await shared.open('#/overview');
  await page.clock.install();
  await page.goto(`${camera.address}/local/Vandrel/?again#/sessions`);
  await rows(page).filter({ hasText: stampOf(first) }).waitFor();
  const images = page.getByLabel('Image interval');
  await page.getByText(/kinds of data$/).click();
  await images.fill('1234');
  await images.evaluate((input) => input.setSelectionRange(1, 3));
  const second = await record();
  await page.clock.fastForward(PERIOD_MS + 1000);
  await rows(page).filter({ hasText: stampOf(second) }).waitFor();
  assert.deepEqual(await page.evaluate(() => {
    const { value, selectionStart, selectionEnd } = document.activeElement;
    return [value, selectionStart, selectionEnd];
  }), ['1234', 1, 3]);
  assert.equal(await page.locator('details[open]').count(), 1);

  await button(page, `Delete session ${stampOf(first)}`).click();
  await camera.action('remove', { path: second });
  await page.clock.fastForward(PERIOD_MS + 1000);
  await rows(page).filter({ hasText: stampOf(second) }).waitFor({ state: 'detached' });
  await page.getByRole('dialog', { name: `Delete session ${stampOf(first)}?` }).waitFor();
  assert.equal(await page.evaluate(() => document.activeElement?.textContent), 'Keep');
  await page.keyboard.press('Enter');
  assert.equal(await page.evaluate(() => document.activeElement?.ariaLabel), `Delete session ${stampOf(first)}`);

  // Nobody looks: nothing is asked.
  let asked = 0;
  page.on('request', (request) => { asked += Number(request.url().includes('list_data')); });
  await page.getByRole('link', { name: 'Log' }).click();
  await page.getByRole('heading', { name: 'Log' }).waitFor();
  for (let minute = 0; minute < 3; minute++) {
    const asksWhetherTheDaemonAnswers = page.waitForResponse(/access\.cgi$/);
    await page.clock.fastForward(PERIOD_MS);
    await asksWhetherTheDaemonAnswers;
  }
  assert.equal(asked, 0);
  await page.getByRole('link', { name: 'Sessions' }).click();
  await until(() => asked === 1);
});

test('a damaged reply is shown as far as it can be read', async () => {
  const session = await record();
  const page = await open('#/overview');
  let change = (text) => text;
  await page.route('**/access.cgi?action=list_data*', async (route) => {
    const { body } = await camera.action('list_data');
    await route.fulfill({ contentType: 'application/json', body: change(body) });
  });
  await page.getByRole('link', { name: 'Sessions' }).click();
  await page.getByRole('heading', { name: 'Sessions', level: 1 }).waitFor();
  change = (text) => text.slice(0, text.indexOf('"EndTime"'));
  await refresh(page);
  await page.getByText('The camera’s reply was damaged').last().waitFor();
  await rows(page).filter({ hasText: stampOf(session) }).waitFor();
});

test('no accessibility violation, light and dark', async () => {
  const session = await record();
  const page = await open('#/sessions');
  const check = async () => assert.deepEqual(await violationsInBoth(page), []);
  await page.getByRole('combobox', { name: 'Advanced debug mode' }).selectOption('Both');
  await page.getByLabel('A crash report every').fill('0');
  await page.getByText(/kinds of data$/).click();
  await check();
  await page.getByLabel('A crash report every').fill('1');
  await button(page, 'Start session').click();
  await badge(page, 'Running').waitFor();
  await check();
  await button(page, 'Stop session …').click();
  await check();
  await page.getByRole('dialog').getByRole('button', { name: 'Stop session' }).click();
  await says(page, 'Session deactivated.');
  await page.goto(`${camera.address}/local/Vandrel/#/session?path=${session}`);
  await page.getByRole('heading', { name: 'All files' }).click();
  await page.getByRole('link', { name: 'Session_Information.txt' }).waitFor();
  await check();
  await page.getByRole('link', { name: 'Session_Information.txt' }).click();
  await page.getByText('Edge storage location: SD_DISK').waitFor();
  await check();
});
