// A real browser on the package's page.

import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';

import { chromium } from 'playwright-core';

const AXE = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

export const MARKUP = '<img src=x onerror=alert(1)>';

export function launchBrowser() {
  return chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
}

/**
 * A page of a user in a context of its own, and in `faults` whatever goes wrong in it.
 */
export async function openPage(browser, address, hash = '', options = {}) {
  const faults = [];
  const context = await browser.newContext({
    httpCredentials: { username: 'root', password: 'camera' }, ...options,
  });
  context.setDefaultTimeout(60000);
  const page = await context.newPage();
  page.on('pageerror', (error) => faults.push(error.message));
  page.on('dialog', (dialog) => faults.push(`dialog: ${dialog.message()}`));
  page.on('console', (message) => {
    if (/Content.Security.Policy|Trusted/i.test(message.text())) {
      faults.push(message.text());
    }
  });
  page.on('request', (request) => {
    if (!request.url().startsWith(`${address}/`) && !request.url().startsWith('blob:')) {
      faults.push(`request to ${request.url()}`);
    }
  });
  await page.goto(`${address}/local/Vandrel/${hash}`);
  return { page, context, faults };
}

/** What axe-core finds on the page as it is now. */
export async function violations(page) {
  await page.evaluate(AXE);
  const found = await page.evaluate(() => window.axe.run());
  return found.violations.map(({ id, nodes }) => [id, nodes.map(({ html }) => html)]);
}

/** Makes the page ask the daemon at once, as coming back to its tab does. */
export const comeBack = (page) =>
  page.evaluate(() => document.dispatchEvent(new Event('visibilitychange')));
