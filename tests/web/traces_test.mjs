// Network traces from the page, on a simulated camera that captures its own network.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { afterEach, test } from 'node:test';

import { until } from '../camera/support/camera.mjs';
import { cameraAndBrowser, violationsInBoth } from './support/browser.mjs';

let root;
const shared = cameraAndBrowser([], async (started) => {
  const { device } = JSON.parse((await started.action('list_data')).body);
  root = `/var/spool/storage/SD_DISK/Vandrel_${device.SerialNumber}`;
});
const { camera } = shared;

async function open() {
  const page = await shared.open('#/traces');
  await page.getByText(/^As of/).first().waitFor();
  return page;
}

const button = (page, name) => page.getByRole('button', { name });
const says = (page, text) => page.getByRole('status').filter({ hasText: text }).waitFor();
const badge = (page, text) =>
  page.getByRole('region', { name: 'Trace', exact: true }).getByRole('status').filter({ hasText: text }).waitFor();
const id = (page) => page.getByLabel('Recording id');
const destination = async () =>
  JSON.parse((await camera.action('view_wireshark_sessions')).body).current_destination;

async function start(page, name) {
  await id(page).fill(name);
  await button(page, 'Start trace').click();
}

async function stop(page) {
  await button(page, 'Stop trace …').click();
  await page.getByRole('dialog').getByRole('button', { name: 'Stop trace' }).click();
}

async function downloaded(page, name) {
  const [file] = await Promise.all([page.waitForEvent('download'),
    button(page, `Download trace ${name}`).click()]);
  assert.equal(file.suggestedFilename(), `${name}.zip`);
  return execFileSync('unzip', ['-Z1', await file.path()], { encoding: 'utf8' }).split('\n').filter(Boolean).sort();
}

afterEach(() => camera.action('stop_wireshark_session'));

test('a trace is started, watched, stopped, downloaded and deleted', async () => {
  const stale = await open();
  const page = await open();
  await page.getByText('No trace has been captured yet').waitFor();
  assert.match(await id(page).inputValue(), /^trace_\d{8}_\d{6}$/);
  for (const name of ['a b', '../x', '.hidden', '']) {
    await start(page, name);
    await page.getByText('One word of letters').waitFor();
    assert.equal(await destination(), 'None');
  }
  await start(page, 'door-1.a');
  await says(page, 'Wireshark session created.');
  await badge(page, 'Running');
  assert.equal(await destination(), `${root}/door-1.a`);
  const captured = page.getByRole('definition').filter({ hasText: /^[\d.]+ k?B$/ });
  await captured.waitFor();
  const first = await captured.textContent();
  await until(async () => (await captured.textContent()) !== first, 'the size to grow by itself');
  assert.equal(await button(page, /^Delete trace/).count(), 0);
  assert.ok((await downloaded(page, 'door-1.a')).includes('pcapdump.pcap'));

  await start(stale, 'mine');
  await says(stale, 'A session has already been activated.');
  await badge(stale, 'Running');

  await button(page, 'Stop trace …').click();
  await page.keyboard.press('Escape');
  assert.notEqual(await destination(), 'None');
  await stop(page);
  await says(page, 'Wireshark session deactivated.');
  await badge(page, 'Not running');
  await page.getByRole('table').getByText('Archive ready').waitFor();
  await stop(stale);
  await says(stale, 'Error: There is no active wireshark session to stop.');
  assert.equal(await id(stale).inputValue(), 'mine');

  const names = await downloaded(page, 'door-1.a');
  for (const name of ['trace.pcap', 'repair.log', 'note.txt']) {
    assert.ok(names.includes(name), names.join());
  }
  await button(page, 'Repair log of trace door-1.a').click();
  const repair = page.getByRole('region', { name: 'Repair', exact: true });
  await repair.getByText('Repair of trace door-1.a').waitFor();
  assert.equal(await repair.getByLabel('Repair log').textContent(), await camera.shell(`cat ${root}/door-1.a/repair.log`));
  await repair.getByText((await camera.shell(`cat ${root}/door-1.a/note.txt`)).trim().split('\n')[0]).waitFor();
  await camera.shell(`mv ${root}/door-1.a/note.txt /tmp`);
  await button(page, 'Repair log of trace door-1.a').click();
  await repair.getByText('There is no note on it.').waitFor();
  assert.notEqual(await repair.getByLabel('Repair log').textContent(), '');
  await camera.shell(`mv /tmp/note.txt ${root}/door-1.a`);
  for (const query of [{ file: 'pcapdump.pcap' }, { file: '../door-1.a/repair.log' }, {}]) {
    const reply = await camera.action('view_monitor_data', { storage: `${root}/door-1.a`, ...query });
    assert.equal(reply.status, 400, JSON.stringify(query));
  }
  await camera.shell(`ln -s ${root}/door-1.a ${root}/link; mkdir ${root}/other; cp ${root}/door-1.a/repair.log ${root}/other`);
  for (const name of ['link', 'other', 'door-1.a/../door-1.a', 'none']) {
    assert.equal((await camera.action('view_monitor_data', { storage: `${root}/${name}`, file: 'repair.log' })).status, 400, name);
  }
  await camera.shell(`rm -r ${root}/link ${root}/other`);
  await id(page).fill('door-1.a');
  await page.getByText('what it recorded is kept').waitFor();
  assert.deepEqual(await violationsInBoth(page), []);
  await button(page, 'Delete trace door-1.a').click();
  await button(page, 'Keep').click();
  await button(page, 'Delete trace door-1.a').click();
  await button(page, 'Delete').last().click();
  await says(page, 'Session deleted.');
  await page.getByText('No trace has been captured yet').waitFor();
  assert.equal((await camera.exec('test', '-e', `${root}/door-1.a`)).status, 1);
});

test('what is refused or comes to nothing is said', async () => {
  const page = await open();
  await page.getByRole('combobox', { name: 'Storage' }).selectOption('Another storage …');
  await start(page, 'x');
  await page.getByText('Type the storage’s name.').waitFor();
  await page.getByLabel('Name of the storage').fill('../etc');
  await button(page, 'Start trace').click();
  await says(page, 'Miss recording id or second storage name.');
  assert.equal(await id(page).inputValue(), 'x');

  await camera.shell(`mkdir -p ${root}/full ${root}/open &&
    printf 'Start:2026-11-21 05:50:48\\nEnd:2026-11-21 05:52:10\\n' > ${root}/full/wireshark_signature.txt &&
    printf 'Start:2026-11-21 05:50:48\\n' > ${root}/open/wireshark_signature.txt`);
  await page.getByLabel('Name of the storage').fill('NO_DISK');
  await button(page, 'Start trace').click();
  await badge(page, 'Running, nothing captured');
  await stop(page);
  await says(page, 'But there is no archive');
  await camera.action('remove_wireshark_session', { storage: `${root}/none` }); // lists anew
  await button(page, 'Refresh').click();
  await page.getByRole('row', { name: /full .*05:52:10 .*No archive/ }).waitFor();
  await page.getByRole('row', { name: /open .*Interrupted/ }).waitFor();

  await page.getByLabel('Seconds it ran').fill('3700');
  await button(page, 'Note in the log').click();
  await says(page, 'Noted.');
  await until(async () => (await camera.shell('cat /var/log/*.log')).includes('duration: 1 hours, 1 minutes, 3700 seconds'));

});
