// A real browser on the package's page.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { after, afterEach, before } from 'node:test';
import { fileURLToPath, pathToFileURL } from 'node:url';

import { chromium } from 'playwright-core';

import { Camera } from '../../camera/support/camera.mjs';

const AXE = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

const examined = new WeakSet(); // axe-core makes style elements of its own

export const VIEWER = fileURLToPath(new URL('../../../package/html/viewer.html', import.meta.url));
export const MARKUP = '<img src=x onerror=alert(1)>';

export function launchBrowser() {
  return chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
}

/**
 * A camera, started with these words and prepared, and a browser for all tests of the file. `open` gives
 * a page of a user in a context of its own, closed when the test ends; `faults` has what has gone wrong
 * in the test's pages, which fails the test.
 */
export function cameraAndBrowser(words = [], prepare = () => {}) {
  const camera = new Camera();
  const faults = [];
  const contexts = [];
  const shared = { camera, faults };

  shared.open = async (hash = '', options = {}) => {
    const context = await shared.browser.newContext({
      httpCredentials: { username: 'root', password: 'camera' }, ...options,
    });
    contexts.push(context);
    context.setDefaultTimeout(60000);
    const page = await context.newPage();
    page.on('pageerror', (error) => faults.push(error.message));
    page.on('dialog', (dialog) => faults.push(`dialog: ${dialog.message()}`));
    page.on('console', (message) => {
      if (!examined.has(page) && /Content.Security.Policy|Trusted/i.test(message.text())) {
        faults.push(message.text());
      }
    });
    page.on('request', (request) => {
      if (!request.url().startsWith(`${camera.address}/`) && !request.url().startsWith('blob:')) {
        faults.push(`request to ${request.url()}`);
      }
    });
    await page.goto(`${camera.address}/local/Vandrel/${hash}`);
    return page;
  };

  before(async () => {
    await camera.start(...words);
    await prepare(camera);
    shared.browser = await launchBrowser();
  });
  after(async () => {
    await shared.browser?.close();
    await camera.remove();
  });
  afterEach(async () => {
    await Promise.all(contexts.splice(0).map((context) => context.close()));
    assert.deepEqual(faults.splice(0), []);
  });
  return shared;
}

/** The viewer, or another file, as it is opened without a camera; `faults` has what has gone wrong. */
export async function openViewer(browser, options = {}, hash = '', file = VIEWER) {
  const context = await browser.newContext(options);
  context.setDefaultTimeout(60000);
  const page = await context.newPage();
  const faults = [];
  page.on('pageerror', (error) => faults.push(error.message));
  page.on('dialog', (dialog) => faults.push(`dialog: ${dialog.message()}`));
  page.on('console', (message) => {
    if (!examined.has(page)) {
      faults.push(message.text());
    }
  });
  page.on('request', (request) => {
    if (!/^(?:file|data|blob):/.test(request.url())) {
      faults.push(request.url());
    }
  });
  await page.goto(pathToFileURL(file).href + hash);
  return { page, faults, context };
}

/** What axe-core finds on the page as it is now. */
export async function violations(page) {
  examined.add(page);
  await page.evaluate(AXE);
  const found = await page.evaluate(() => window.axe.run());
  examined.delete(page);
  return found.violations.map(({ id, nodes }) => [id, nodes.map(({ html }) => html)]);
}

/** Makes the page ask the daemon at once, as coming back to its tab does. */
export const comeBack = (page) =>
  page.evaluate(() => document.dispatchEvent(new Event('visibilitychange')));

/** What axe-core finds on the page as it is now, in light and dark. */
export async function violationsInBoth(page) {
  const found = [];
  for (const colorScheme of ['light', 'dark']) {
    await page.emulateMedia({ colorScheme });
    found.push(...await violations(page));
  }
  return found;
}
