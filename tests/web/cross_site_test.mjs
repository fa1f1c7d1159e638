// A page of another origin, in the browser that knows the camera's password.
import assert from 'node:assert/strict';
import http from 'node:http';
import { test } from 'node:test';

import { until } from '../camera/support/camera.mjs';
import { cameraAndBrowser } from './support/browser.mjs';

const { camera, open, faults } = cameraAndBrowser();

test('pages of other origins can neither act on the camera nor be told of it', async () => {
  const page = await open();
  const act = (what) => `${camera.address}/local/Vandrel/access.cgi?action=systemlog_trigger&do=add&name=${what}&key=x`;
  const server = http.createServer((request, response) => {
    response.setHeader('Content-Type', 'text/html').end(`<img src="${act('image')}"><form id="f" `
      + `action="${camera.address}/local/Vandrel/access.cgi"><input name="action" value="test"></form>`
      + `<iframe src="${act('frame')}"></iframe><script src="${act('script')}"></script>`);
  });
  await new Promise((ready) => server.listen(0, '127.0.0.1', ready));
  const refused = [];
  const foreign = await page.context().newPage();
  foreign.on('response', (response) => refused.push(response.status()));
  // "localhost" is another site than 127.0.0.1, the same machine is only another origin.
  for (const host of ['localhost', '127.0.0.1']) {
    await foreign.goto(`http://${host}:${server.address().port}/`);
  }
  // Of images and scripts the browser does not tell what became of them; frames show it.
  await until(() => refused.filter((status) => status === 403).length >= 2);
  await Promise.all([foreign.waitForNavigation(), foreign.evaluate(() => document.getElementById('f').submit())]);
  assert.match(await foreign.content(), /Forbidden/);
  server.close();
  assert.deepEqual(JSON.parse((await camera.action('systemlog_trigger', { do: 'list' })).body)
    .systemlog_trigger_rules, []);

  // The own page acts, with the same browser.
  assert.equal(await page.evaluate(async () => (await fetch('access.cgi?action=test&type=info')).status), 200);
  faults.length = 0; // the foreign page's requests, which the browser reports
});
