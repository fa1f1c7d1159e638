// The device test and the network tools from the page, on a simulated camera with hosts to try.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { until } from '../camera/support/camera.mjs';
import { cameraAndBrowser, MARKUP, violations, violationsInBoth } from './support/browser.mjs';

const { camera, open } = cameraAndBrowser([], (started) => started.exec('systemctl', 'start', 'test-hosts'));

const button = (page, name) => page.getByRole('button', { name });
const says = (page, text) => page.getByRole('status').filter({ hasText: text }).waitFor();

test('hosts are added, watched and deleted', async () => {
  const page = await open('#/device_test');
  await page.getByText('No host is tested.').waitFor();
  await button(page, 'Add').click();
  await page.getByText('At most 47 bytes').waitFor();
  for (const [name, port] of [["it's 100% ok", '7001'], [MARKUP.replaceAll('"', ''), '7002']]) {
    await page.getByLabel('Name').fill(name);
    await page.getByRole('textbox', { name: 'Address' }).fill('203.0.113.1');
    await page.getByRole('spinbutton', { name: 'Port' }).fill(port);
    await page.getByLabel('Interval in seconds').fill('10');
    await button(page, 'Add').click();
    await says(page, 'is tested from now on.');
  }
  await page.getByRole('row', { name: /it's 100% ok .*port 7001 Alive/ }).waitFor();
  await page.getByRole('row', { name: /img src.*port 7002 Not reachable/ }).waitFor();
  assert.deepEqual(await violationsInBoth(page), []);
  const [file] = await Promise.all([page.waitForEvent('download'),
    button(page, "Log of it's 100% ok").click()]);
  assert.equal(file.suggestedFilename(), 'Network_Device_Test_Log.txt');
  await button(page, /^Delete rule it's/).click();
  await button(page, 'Delete rule').last().click();
  await says(page, 'is no longer tested.');
  assert.equal(JSON.parse((await camera.action('list_nc_rules')).body).Rules.length, 1);
});

test('a tool shows its output while it runs, and that it has ended', async () => {
  const page = await open('#/network_tools');
  await camera.shell(`cp /usr/bin/ping /usr/bin/ping.kept; mkfifo /tmp/go
    printf '#!/bin/sh\\necho "first ${MARKUP.replaceAll('"', '')}"; read line < /tmp/go; echo "$1 is alive"\\n' > /usr/bin/ping.new
    chmod +x /usr/bin/ping.new; mv /usr/bin/ping.new /usr/bin/ping`);
  await page.getByRole('textbox', { name: 'Address' }).fill('a b');
  await button(page, 'Run').click();
  await page.getByText('One address or name').waitFor();
  await page.getByRole('textbox', { name: 'Address' }).fill('203.0.113.1');
  await button(page, 'Run').click();
  await page.getByLabel('Output').filter({ hasText: 'first <img' }).waitFor();
  await says(page, 'Ping is running');
  assert.ok(await page.getByRole('progressbar').isVisible());
  await camera.shell('echo > /tmp/go; mv /usr/bin/ping.kept /usr/bin/ping');
  await says(page, 'Ping has ended: it replies.');
  assert.equal(await page.getByRole('progressbar').count(), 0);
  assert.match(await page.getByLabel('Output').textContent(), /is alive\n$/);
  await page.getByRole('combobox', { name: 'Tool' }).selectOption('Port check');
  await page.getByRole('spinbutton', { name: 'Port' }).fill('7002');
  await button(page, 'Run').click();
  await until(async () => (await page.getByLabel('Output').textContent()) === 'Port check failed');
  await says(page, 'the port does not answer');
  await page.getByRole('combobox', { name: 'Tool' }).selectOption('DNS lookup');
  await page.getByRole('textbox', { name: 'Address' }).fill('answering.example');
  await button(page, 'Run').click();
  await page.getByLabel('Output').filter({ hasText: 'IPv4 address: 203.0.113.1' }).waitFor();
  assert.deepEqual(await violations(page), []);
});

test('what tools and device test refuse is said', async () => {
  const page = await open('#/network_tools');
  const output = page.getByLabel('Output');
  const choose = (tool) => page.getByRole('combobox', { name: 'Tool' }).selectOption(tool);
  const gives = (text) => until(async () => (await output.textContent()).includes(text), text);

  await choose('Network share’s address');
  await button(page, 'Run').click();
  await gives('192.168.0.20');
  await choose('Ping');
  await page.getByRole('textbox', { name: 'Address' }).fill('203.0.113.99');
  await button(page, 'Run').click();
  await says(page, 'Ping has ended: no reply.');
  assert.doesNotMatch(await output.textContent(), /is alive/);

  await choose('Traceroute');
  await page.getByRole('textbox', { name: 'Address' }).fill('203.0.113.1');
  await camera.shell(`sed -i 's/\\(System.Architecture=\\).*/\\1toaster/' /etc/tvparameter/parameters.conf`);
  await button(page, 'Run').click();
  await says(page, 'Traceroute binary for architecture "toaster" not found');
  await camera.shell(`sed -i 's/\\(System.Architecture=\\).*/\\1aarch64/' /etc/tvparameter/parameters.conf`);
  await button(page, 'Run').click();
  await says(page, 'Traceroute has ended.');
  assert.match(await output.textContent(), /203\.0\.113\.1/);

  await page.goto(`${camera.address}/local/Vandrel/#/device_test`);
  await page.getByLabel('Name').fill('a "quoted" name');
  await page.getByRole('textbox', { name: 'Address' }).fill('203.0.113.1');
  await page.getByRole('spinbutton', { name: 'Port' }).fill('7004');
  await button(page, 'Add').click();
  await page.getByText('without quotes').waitFor();
  assert.ok(await page.getByLabel('Name').evaluate((input) => input === document.activeElement));
});
