// The package's page in a real browser, served by a simulated camera.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { cameraAndBrowser, comeBack, MARKUP, violations } from './support/browser.mjs';

const LINES = 100000;

const shared = cameraAndBrowser();
const { camera, faults, open } = shared;

async function openLog(options) {
  const page = await open('#/log', options);
  await page.getByRole('button', { name: 'Load log' }).click();
  await page.getByText(/^[\d,]+ lines$/).waitFor();
  return page;
}

const topRow = (page) => page.getByRole('region', { name: 'Log lines' }).evaluate((list) => {
  const { top } = list.getBoundingClientRect();
  return [...list.querySelectorAll('li')]
    .find((row) => row.getBoundingClientRect().bottom > top + 1)?.textContent;
});

test('the self-test logs each severity, and the log shows it', async () => {
  const page = await open();
  await page.getByRole('status').filter({ hasText: 'Daemon answers' }).waitFor();
  const replies = page.getByRole('log').getByRole('listitem');
  const severities = ['Warning', 'Error', 'Critical', 'Alert', 'Emergency'];
  for (const [index, title] of severities.entries()) {
    await page.getByRole('button', { name: title }).click();
    await page.getByRole('log').getByText('Check the logs now!').nth(index).waitFor();
    assert.match(await replies.first().textContent(), new RegExp(title));
  }
  await replies.filter({ hasText: 'Critical' }).getByRole('link').click();
  await page.getByText(/^1 of [\d,]+ lines match$/).waitFor();
  assert.equal(await page.getByLabel('Filter').inputValue(), 'A test critical message!');
  const row = page.getByRole('region', { name: 'Log lines' }).getByRole('listitem');
  assert.match(await row.textContent(), /\[ CRIT +\] Vandrel\[\d+\]: \(main:\d+, errno: None\) A test/);
  await page.getByLabel('Filter').fill('');
  await page.getByLabel('Severity').selectOption('Critical and above');
  await page.getByText(/^3 of [\d,]+ lines match$/).waitFor();
});

test('text from the device is shown as text', async () => {
  await camera.command('log', MARKUP);
  const page = await openLog();
  await page.getByLabel('Filter').fill('ONERROR=alert');
  const list = page.getByRole('region', { name: 'Log lines' });
  await list.getByRole('listitem').filter({ hasText: MARKUP }).first().waitFor();
  assert.equal(await list.locator('img').count(), 0);
  assert.equal(await list.locator('mark').first().textContent(), 'onerror=alert');
});

test('a large log stays usable, and loading it again loses nothing', async () => {
  let text = '';
  for (let i = 0; i < LINES; i++) {
    const time = new Date(Date.UTC(2020, 0, 1) + i * 1000).toISOString().slice(0, -1);
    text += `${time}+00:00 camera [ INFO    ] filler[1]: line ${i} ${'x'.repeat(i % 60)}\n`;
  }
  await camera.shell('cat > /var/log/large.log', text);
  const page = await openLog();
  const list = page.getByRole('region', { name: 'Log lines' });
  assert.ok(await list.getByRole('listitem').count() < 200);
  assert.ok(Number(await list.getByRole('listitem').last().getAttribute('aria-setsize')) > LINES);

  await page.getByLabel('Filter').fill('LINE 5');
  await page.getByText(/^11,111 of [\d,]+ lines match$/).waitFor();
  await list.evaluate((element) => { element.scrollTop = 50007; });
  await list.locator('[aria-posinset="2500"]').waitFor();
  const [top, scrollTop] = [await topRow(page), await list.evaluate((element) => element.scrollTop)];

  // Older lines come and push those in sight down; the view goes away and comes back.
  await camera.shell('for i in 1 2 3; do echo "1999 line 5"; done > /var/log/older.log');
  await page.getByLabel('Refresh').selectOption('Every 10 s');
  await page.getByText(/^11,114 of [\d,]+ lines match$/).waitFor();
  assert.equal(await topRow(page), top);
  assert.notEqual(await list.evaluate((element) => element.scrollTop), scrollTop);
  await page.getByRole('link', { name: 'Overview' }).click();
  await page.getByRole('link', { name: 'Log', exact: true }).click();
  assert.equal(await page.getByLabel('Filter').inputValue(), 'LINE 5');
  await list.getByRole('listitem').first().waitFor();
  assert.equal(await topRow(page), top);

  const [download] = await Promise.all([
    page.waitForEvent('download'), page.getByRole('link', { name: 'Download' }).click(),
  ]);
  assert.equal(download.suggestedFilename(), 'log_viewer.txt');
  assert.ok(readFileSync(await download.path(), 'utf8').includes(`line ${LINES - 1} `));
  await camera.shell('rm /var/log/large.log /var/log/older.log');
});

test('the page says what to do when the daemon does not answer', async () => {
  const html = { contentType: 'text/html', body: '<h1>page of something else</h1>' };
  const cases = [
    [(route) => route.fulfill({ status: 503, ...html }), /web server \(503\)/, /wait a minute/],
    [(route) => route.fulfill({ status: 200, ...html }), /Something else/, /proxy/],
    [(route) => route.fulfill({ status: 200, body: 'odd' }), /not understood/, /Reload/],
    [(route) => route.abort(), /cannot be reached/, /power/],
    [() => {}, /No reply within/, /busy/],
    [(route) => route.fulfill({ status: 403, ...html }), /may not use/, /administrator/],
    [(route) => route.fulfill({ status: 401, ...html }), /Not signed in/, /Reload/],
  ];
  for (const [answer, text, advice] of cases) {
    const page = await open('#/log');
    const status = page.locator('#daemon-state');
    await status.getByText('Daemon answers').waitFor();
    const pattern = '**/access.cgi*';
    await page.route(pattern, answer);
    await page.getByRole('button', { name: 'Load log' }).waitFor();
    // Coming back to the page asks at once.
    await comeBack(page);
    await status.getByText(text).waitFor();
    await page.getByRole('complementary').getByText(advice).waitFor();
    if (!/No reply/.test(text.source)) {
      await page.getByRole('button', { name: 'Load log' }).click();
      await page.getByRole('main').getByRole('status').filter({ hasText: /\w/ }).first().waitFor();
    }
    await page.unroute(pattern);
    await comeBack(page);
    await status.getByText('Daemon answers').waitFor();
    assert.equal(await page.getByRole('complementary').count(), 0);
    await page.context().close();
  }
});

test('the view last asked for is shown, however slowly another loads', async () => {
  const page = await open('#/log');
  const heading = page.getByRole('heading', { level: 1 });
  await heading.filter({ hasText: 'Log' }).waitFor();
  let letGo;
  await page.route('**/overview.js', async (route) => {
    await new Promise((resolve) => { letGo = resolve; });
    await route.continue();
  });
  const asked = page.waitForRequest('**/overview.js');
  await page.getByRole('link', { name: 'Overview' }).click();
  await asked;
  await page.getByRole('link', { name: 'Log', exact: true }).click();
  const loaded = page.waitForEvent('requestfinished', (request) => /overview/.test(request.url()));
  letGo();
  await loaded;
  await page.waitForFunction(async () => Boolean(await import('./js/views/overview.js')));
  assert.equal(await heading.textContent(), 'Log');
  await page.getByRole('link', { name: 'Overview' }).click();
  await heading.filter({ hasText: 'Overview' }).waitFor();
});

test('the page keeps its policy where the web server sends none', async () => {
  const page = await open();
  await page.route('**/local/Vandrel/', async (route) => {
    const response = await route.fetch();
    const headers = Object.entries(response.headers()).filter(([name]) => name !== 'content-security-policy');
    await route.fulfill({ response, headers: Object.fromEntries(headers) });
  });
  const [reply] = await Promise.all([page.waitForResponse('**/local/Vandrel/'), page.reload()]);
  assert.equal(reply.headers()['content-security-policy'], undefined);
  await page.getByRole('status').filter({ hasText: 'Daemon answers' }).waitFor();
  assert.deepEqual(faults, []);
  const blocked = await page.evaluate((markup) => {
    const script = document.createElement('script');
    script.append('window.ran = true');
    document.body.append(script);
    try {
      document.body.innerHTML = markup;
    } catch (error) {
      return error.name;
    }
    return '';
  }, MARKUP);
  assert.equal(blocked, 'TypeError');
  assert.equal(await page.evaluate(() => window.ran), undefined);
  faults.splice(0);
});

test('the keyboard reaches everything', async () => {
  const page = await open();
  await page.getByRole('heading', { name: 'Overview' }).waitFor();
  const focused = () => page.evaluate(() => document.activeElement?.id
    || document.activeElement?.textContent);
  await page.keyboard.press('Tab');
  assert.equal(await focused(), 'skip-link');
  await page.keyboard.press('Enter');
  assert.equal(await focused(), 'main');
  for (let presses = 0; presses < 10 && await focused() !== 'Warning'; presses++) {
    await page.keyboard.press('Tab');
  }
  assert.equal(await focused(), 'Warning');
  await page.keyboard.press('Space');
  await page.getByText('Check the logs now!').waitFor();
  assert.equal(await focused(), 'Warning');
  await page.getByRole('link', { name: 'Log', exact: true }).focus();
  await page.keyboard.press('Enter');
  await page.getByRole('heading', { name: 'Log' }).waitFor();
  await page.waitForFunction(() => document.activeElement?.id === 'main');
  assert.equal(await page.title(), 'Log – Vandrel');
});

test('every view fits a tablet, without an accessibility violation, and is kept as a picture', async () => {
  for (const colorScheme of ['light', 'dark']) {
    const page = await open('', { colorScheme, viewport: { width: 768, height: 1024 } });
    await page.getByText('Daemon answers').first().waitFor();
    for (const link of await page.getByRole('navigation').getByRole('link').all()) {
      const name = await link.textContent();
      await link.click();
      await page.waitForFunction((title) => document.title === `${title} – Vandrel`, name);
      await page.getByRole('heading', { level: 1, name: /./ }).first().waitFor();
      assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth), `${name} is too wide`);
      assert.deepEqual(await violations(page), [], name);
      await page.screenshot({ path: fileURLToPath(new URL(`screenshots/${name}-${colorScheme}.png`, import.meta.url)) });
    }
    await page.context().close();
  }
});
