// Charts of a session on a simulated camera, and its archive opened without one.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';

import { until } from '../camera/support/camera.mjs';
import { cameraAndBrowser, comeBack, openViewer, VIEWER, violations, violationsInBoth } from './support/browser.mjs';

const LOAD = 'system_monitoring/monitoring_load/load.csv';
const CRASHING = '<img>x';

const shared = cameraAndBrowser(['--speed', '60']);
const { camera, open } = shared;
const folder = mkdtempSync(join(tmpdir(), 'charts_test-'));
let session;
let archive;
let link; // to a part of the time

/** The rows of a CSV file whose columns behind the time are numbers. */
const rowsOf = (csv) => csv.trimEnd().split(/\r?\n/).slice(1).map((row) => {
  const [day, time, ...values] = row.split(',');
  return [Date.parse(`${day}T${time}Z`) / 1000, ...values.map(Number)];
});

/** Waits until a file of the session holds what is looked for. */
async function recorded(file, found) {
  while (!found((await camera.action('view_monitor_data', { storage: session, file })).body)) {
    await new Promise((resolve) => { setTimeout(resolve, 500); });
  }
}

/** The chart of this name, drawn. */
async function chart(page, name) {
  const place = page.getByRole('img', { name: `Chart of ${name}.` });
  await until(() => place.evaluate(({ plot }) => Boolean(plot)));
  return place;
}

/** What a chart really draws, its holes left out. */
const plotted = async (page, name) => (await chart(page, name))
  .evaluate(({ plot }) => plot.data[0].map((_, index) => plot.data.map((column) => column[index]))
    .filter((row) => row.slice(1).every((value) => typeof value === 'number')));

/** Chooses a chart by a part of its name, as it is typed. */
async function choose(page, words, title) {
  await page.getByLabel('Search the charts and files').fill(words);
  await page.keyboard.press('Enter');
  await page.getByRole('heading', { name: title, exact: true }).waitFor();
}

/** What of the chart is in sight. */
const inSight = async (page, name) => (await chart(page, name))
  .evaluate(({ plot }) => [plot.scales.x.min, plot.scales.x.max].map(Math.round));

after(() => rmSync(folder, { recursive: true, force: true }));

test('what is drawn are the rows of the session’s file, marks tell what happened', async () => {
  await camera.action('activate_monitor_session', { storage: 'SD_DISK', save_image_interval: '60' });
  session = JSON.parse((await camera.action('list_data')).body).current_storage;
  await camera.action('systemlog_trigger', { do: 'add', name: 'needle', key: 'a needle' });
  await camera.command('crash', '--name', CRASHING);
  const page = await open();
  const query = `path=${encodeURIComponent(session)}`;
  await recorded(LOAD, (text) => text.split('\n').length > 4);
  await camera.command('log', '-p', 'user.err', 'a needle');
  await recorded('system_monitoring/monitoring_metadata/eventlistener.txt', (text) => text.includes('systemlogs_'));
  await page.goto(`${camera.address}/local/Vandrel/#/session?${query}`);
  for (const title of ['Load average', 'Memory', 'Traffic of eth0', 'Temperatures']) {
    await page.getByRole('img', { name: `Chart of ${title}.` }).waitFor();
  }
  await page.getByRole('button', { name: 'Choose charts' }).click();
  await page.getByLabel('Search the charts and files').fill('cpu nothing');
  await page.keyboard.press('Enter');
  await page.getByText('Nothing recorded is called “cpu nothing”.').waitFor();
  await page.getByLabel('Search the charts and files').fill('degrees');
  await page.getByText(/^\d+ match$/).waitFor();
  await page.goto(`${camera.address}/local/Vandrel/#/session?${query}&charts=${encodeURIComponent(`file:${LOAD}`)}`);
  await page.getByRole('heading', { name: 'load/load' }).waitFor();
  await page.getByRole('button', { name: /^core\./ }).first().waitFor();

  // It goes on being recorded: what was drawn is a beginning of what is there now.
  const points = await plotted(page, 'load/load');
  const { body } = await camera.action('view_monitor_data', { storage: session, file: LOAD });
  assert.ok(points.length >= 3);
  assert.deepEqual(points, rowsOf(body).slice(0, points.length));
  for (const box of await page.locator('.legend').getByRole('checkbox').all()) {
    await box.check(); // those that never changed are not drawn at first
  }
  await page.getByRole('button', { name: 'Table of load/load' }).click();
  const rows = page.getByRole('region', { name: 'Rows of load/load' }).getByRole('row');
  assert.equal(await rows.count(), points.length + 1);
  const [download] = await Promise.all([
    page.waitForEvent('download'), page.getByRole('button', { name: 'CSV of load/load' }).click(),
  ]);
  assert.deepEqual(rowsOf(readFileSync(await download.path(), 'utf8')), points);
  await page.getByRole('button', { name: 'Zoom in' }).click();
  await page.waitForFunction((all) => document.querySelectorAll('.chart-table tbody tr').length < all, points.length);
  await page.waitForURL(/from=.*to=/);
  link = new URL(page.url()).hash;
  const span = await inSight(page, 'load/load');
  const other = await open(link);
  await other.getByRole('heading', { name: 'load/load' }).waitFor();
  assert.deepEqual((await inSight(other, 'load/load')).map((time, index) => Math.abs(time - span[index]) <= 1), [true, true]);
  await other.context().close();
  await page.goBack();
  await page.waitForURL((url) => !url.hash.includes('from='));

  await choose(page, 'network/eth0', 'network/eth0');
  await page.getByLabel('Values of network/eth0').selectOption('As recorded');
  const traffic = await plotted(page, 'network/eth0');
  const eth0 = await camera.action('view_monitor_data',
    { storage: session, file: 'system_monitoring/monitoring_network/eth0.csv' });
  assert.deepEqual(traffic, rowsOf(eth0.body).slice(0, traffic.length));
  const [picture] = await Promise.all([
    page.waitForEvent('download'), page.getByRole('button', { name: 'Picture of load/load' }).click(),
  ]);
  assert.match(readFileSync(await picture.path(), 'latin1'), /^\x89PNG/);

  // One cursor over both charts, moved by the keyboard.
  await page.getByRole('img', { name: /^Chart of load/ }).focus();
  await page.keyboard.press('ArrowRight');
  await page.waitForFunction(() => {
    const [first, second] = [...document.querySelectorAll('.plot')].flatMap(({ plot }) => (plot ? [plot] : []))
      .map((plot) => (plot.cursor.left >= 0 ? plot.posToVal(plot.cursor.left, 'x') : NaN));
    return Math.abs(first - second) < 5;
  });
  assert.match(await page.locator('.reading').textContent(), /\d{4}-\d\d-\d\d \d\d:\d\d:\d\d/);
  await page.getByRole('row', { name: /Log trigger .* found its message/ }).waitFor();
  const crash = page.getByRole('table', { name: 'What happened' }).getByRole('row', { name: /crashed/ });
  assert.match(await crash.textContent(), /<img>x crashed/);
  assert.equal(await crash.locator('img').count(), 0);
  await page.getByRole('region', { name: 'Findings' }).getByText(/^(?:\d+ findings? in|Nothing wrong was found in) /).waitFor();
  assert.deepEqual(await violationsInBoth(page), []);

  // The storage goes and comes, then the camera: the page goes on by itself, and marks will tell of both.
  const lost = async () => JSON.parse((await camera.action('list_data')).body).connection_lost_count;
  await camera.command('eject', 'SD_DISK');
  await until(async () => await lost() > 1);
  await camera.command('insert', 'SD_DISK');
  await until(async () => await lost() === 0);
  const restarted = camera.command('reboot');
  const daemon = page.locator('#daemon-state');
  await until(async () => {
    await comeBack(page);
    return /cannot be reached|does not answer/.test(await daemon.textContent());
  });
  assert.equal((await restarted).status, 0);
  await daemon.getByText('Daemon answers').waitFor();

  await camera.action('deactivate_monitor_session');
  for (let status = 0; status !== 200;) {
    await new Promise((resolve) => { setTimeout(resolve, 500); });
    ({ status } = await camera.action('zip_monitor_data', { storage: session }));
  }
  await page.getByRole('button', { name: 'Read again' }).click();
  for (const [said, told] of [['re-established', 'The storage was back after'], ['Device was rebooted', 'The camera was restarted or lost']]) {
    const line = await camera.shell(`grep '${said}' ${session}/system_monitoring/monitoring_basic/Continuous_Syslog.txt`);
    await page.getByRole('row').filter({ hasText: told }).filter({ hasText: line.slice(0, 19).replace('T', ' ') }).waitFor();
  }
  await page.goto(`${camera.address}/local/Vandrel/#/session?${query}`);
  const [zip] = await Promise.all([
    page.waitForEvent('download'), page.getByRole('button', { name: 'Download archive' }).click(),
  ]);
  archive = join(folder, 'session.zip');
  await zip.saveAs(archive);

  // The same in the camera's page, which also hands out the viewer.
  await page.getByRole('link', { name: 'Archive', exact: true }).click();
  await page.getByLabel('Archive', { exact: true }).setInputFiles(archive);
  await page.getByRole('img', { name: /^Image of / }).waitFor();
  const [viewer] = await Promise.all([
    page.waitForEvent('download'), page.getByRole('link', { name: /^Download this viewer/ }).click(),
  ]);
  assert.deepEqual(readFileSync(await viewer.path()), readFileSync(VIEWER));
  assert.deepEqual(await violations(page), []);
});

test('the archive is opened without a camera', async () => {
  const { page, context, faults } = await openViewer(shared.browser, { viewport: { width: 800, height: 1000 } }, link);
  await page.getByLabel('Archive', { exact: true }).setInputFiles(archive);
  await page.getByRole('button', { name: /^core\./ }).first().waitFor();
  execFileSync('unzip', ['-q', archive, '-d', join(folder, 'unpacked')]);
  const [path] = execFileSync('find', [join(folder, 'unpacked'), '-name', 'load.csv'], { encoding: 'utf8' }).split('\n');
  assert.deepEqual(await plotted(page, 'load/load'), rowsOf(readFileSync(path, 'utf8')));
  const [from, to] = ['from', 'to'].map((name) => Date.parse(`${new URLSearchParams(link.split('?')[1]).get(name)}Z`) / 1000);
  assert.deepEqual(await inSight(page, 'load/load'), [from, to]);

  // What was wrong stands first; a finding leads to its chart and its time.
  assert.deepEqual((await page.getByRole('region').evaluateAll((all) => all.map((one) => one.ariaLabel))).slice(0, 2), ['Open an archive', 'Findings']);
  const findings = page.getByRole('region', { name: 'Findings' });
  const log = 'Errors and warnings in the log';
  await findings.getByText(/note$/).or(findings.getByText(/notes$/)).first().click();
  for (const [words, happened] of [[/^<img>x crashed once, at /, /crashed/], [/^The storage was lost once, at /, /The storage was back/],
    [/^The camera or the daemon was restarted in order once, at /, /was restarted/]]) {
    await findings.getByRole('button', { name: words }).focus();
    await page.keyboard.press('Enter');
    await page.getByRole('heading', { name: log }).waitFor();
    const told = await page.getByRole('table', { name: 'What happened' }).getByRole('row', { name: happened }).first().textContent();
    const time = Date.parse(`${/\d{4}-\d\d-\d\d \d\d:\d\d:\d\d/.exec(told)[0].replace(' ', 'T')}Z`) / 1000;
    await until(async () => {
      const [begin, end] = await inSight(page, log);
      return begin <= time && time <= end;
    }, told);
  }
  // The line of time: a narrower one by the keyboard has findings of its own; a mark leads to its charts.
  await page.getByRole('group', { name: /^Line of time/ }).focus();
  for (const key of ['Home', 'ArrowRight', '+']) await page.keyboard.press(key);
  await findings.getByRole('button', { name: /^Only / }).click();
  await findings.getByText(/(?:findings?|was found) from .* to /).waitFor();
  await findings.getByRole('button', { name: 'Findings of all' }).click();
  await findings.getByText(/ in .*, up to /).waitFor();
  await page.getByRole('group', { name: /^Line of time/ }).press('Home');
  const timeline = page.getByRole('region', { name: 'Timeline' });
  await timeline.getByRole('img', { name: /^Storage: away once, / }).waitFor();
  await timeline.getByRole('button', { name: /<img>x crashed/ }).first().click();
  for (const [name, place] of [['Log', 'Logs and texts'], ['Charts', 'Charts']]) {
    await timeline.getByRole('button', { name, exact: true }).first().click();
    await page.waitForFunction((label) => document.activeElement?.ariaLabel === label, place);
  }
  await page.getByRole('button', { name: 'At a glance' }).click();
  await page.getByRole('img', { name: 'Chart of Memory.' }).waitFor();
  await page.getByRole('table', { name: 'Condition of the camera' }).getByRole('row', { name: /^Temperature/ }).first().waitFor();
  await page.getByText('Information', { exact: true }).click();
  await page.getByRole('region', { name: 'Information' }).getByText('Serial Number').waitFor();
  await page.getByRole('img', { name: /^Image of / }).waitFor();
  const images = page.getByRole('region', { name: 'Images' });
  await images.getByRole('slider').fill('0');
  await images.getByRole('button', { name: 'Next' }).click();
  await images.getByText(/, 2 of \d/).waitFor();
  await page.getByRole('region', { name: 'Logs and texts' }).getByRole('combobox').selectOption('Session_Information.txt');
  await page.getByLabel('Search', { exact: true }).fill('serial');
  await page.getByText(/^1 of \d+ lines match$/).waitFor();
  const [core] = await Promise.all([
    page.waitForEvent('download'), page.getByRole('button', { name: /^core\.[^_]*$/ }).first().click(),
  ]);
  assert.match(readFileSync(await core.path(), 'latin1'), /^\x7fELF/);
  assert.deepEqual(await violations(page), []);
  assert.deepEqual(faults, []);
  await context.close();
});

test('archives that can’t be used are refused in words', async () => {
  const make = (name, ...words) => {
    const path = join(folder, name);
    execFileSync('zip', ['-q', ...words.slice(0, -1), path, words.at(-1)], { cwd: join(folder, 'bad/inner') });
    return path;
  };
  mkdirSync(join(folder, 'bad/inner'), { recursive: true });
  writeFileSync(join(folder, 'bad/outside.txt'), 'x');
  writeFileSync(join(folder, 'bad/inner/Session_Information.txt'), 'Serial Number: 1\n');
  const whole = readFileSync(archive);
  const damaged = Buffer.from(whole);
  damaged.fill(0, 0, whole.readUInt32LE(whole.length - 6)); // all but the directory
  const cases = [
    ['text.zip', Buffer.from('no zip at all'), /no zip archive/],
    ['empty.zip', Buffer.alloc(0), /no zip archive/],
    ['cut.zip', whole.subarray(0, whole.length - 100), /not whole/],
    ['damaged.zip', damaged, /archive is damaged there/],
    ['locked.zip', readFileSync(make('locked_made.zip', '-P', 'secret', 'Session_Information.txt')), /encrypted/],
    ['climbing.zip', readFileSync(make('climbing_made.zip', '../outside.txt')), /nothing in this archive/],
    ['other.zip', readFileSync(make('other_made.zip', '-j', '../outside.txt')), /may be no archive of a session/],
  ];
  const { page, context, faults } = await openViewer(shared.browser);
  for (const [name, buffer, words] of cases) {
    await page.getByLabel('Archive', { exact: true }).setInputFiles({ name, mimeType: 'application/zip', buffer });
    await page.getByText(words).first().waitFor();
  }
  assert.deepEqual(faults, []);
  await context.close();
});
