// The report on the HTTP API's calls in the view of a session, over real traffic.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { readReport } from '../../package/html/js/http_report.js';
import { until } from '../camera/support/camera.mjs';
import { cameraAndBrowser, violationsInBoth } from './support/browser.mjs';

const { camera, open } = cameraAndBrowser(['--speed', '60']);

test('calls are shown with their users, counts, frequencies and times', async () => {
  await camera.action('activate_monitor_session', { storage: 'SD_DISK' });
  const session = JSON.parse((await camera.action('list_data')).body).current_storage;
  const folder = `${session}/system_monitoring/monitoring_koral`;
  const report = () => camera.shell(`cat ${folder}/koral_status.txt 2>/dev/null || true`);
  await until(async () => { // the web server's log begins some seconds after the start
    await camera.get('/tarvo-cgi/com/ptz.cgi?query=position');
    return (await camera.shell(`cat ${folder}/KORAL_Tester.txt 2>/dev/null || true`)).includes('ptz.cgi');
  });
  for (let i = 0; i < 3; i++) {
    await camera.get(`/tarvo-cgi/param.cgi?action=list&timestamp=${i}`, { user: 'operator' });
  }
  await camera.get('/tarvo-cgi/<b>x</b>.cgi', { user: 'nobody', password: 'no' });
  const text = await until(async () => {
    const now = await report();
    return /User:nobody/.test(now) && /Called 3 times/.test(now) && now;
  }, 'the report');
  await camera.action('deactivate_monitor_session');

  const page = await open(`#/session?path=${encodeURIComponent(session)}`);
  const card = page.getByRole('region', { name: 'HTTP API', exact: true });
  const row = card.getByRole('row').filter({ hasText: 'operator' });
  await row.waitFor();
  assert.deepEqual((await row.locator('th, td').allTextContents()).slice(0, 3),
    ['/tarvo-cgi/param.cgi?action=list', 'operator', '3']);
  assert.match((await row.locator('td').allTextContents()).slice(2).join('|'),
    /^[\d.,]+\|[\d.,]+\|[\d,]+\|(20\d\d-\d\d-\d\d [\d:]{8} UTC\|?){2}$/);
  assert.match(await card.locator('dl').textContent(), /Time20\d\d-.* to 20\d\d-.*Calls\d+.*By operator3/);
  assert.ok((await card.textContent()).includes('x%3C/b%3E.cgi') || (await card.textContent()).includes('<b>x</b>'));
  assert.deepEqual(await violationsInBoth(page), []);

  // Most frequent first, and nothing made up wherever the report ends.
  const { calls } = readReport(text);
  assert.deepEqual(calls.map(({ count }) => count), calls.map(({ count }) => count).sort((a, b) => b - a));
  for (let length = 0; length <= text.length; length += 7) {
    for (const call of readReport(text.slice(0, length)).calls) {
      assert.ok(calls.some(({ url, user, count }) =>
        url === call.url && user === call.user && count === call.count));
    }
  }
});
