// A picture of every page in light and dark, on a phone and on a desktop, for a person to look at.
// Each page must also fit its width: nothing may scroll sideways but the deliveries table.

import assert from 'node:assert/strict';
import { statSync } from 'node:fs';
import { after, before, describe, it } from 'node:test';
import { byRole, launchBrowser, login, newPage, shot, startServer } from './harness.mjs';

const PASSWORD = 'pictures need a password too';
const SIZES = {
  phone: { width: 390, height: 844, deviceScaleFactor: 2 },
  desktop: { width: 1280, height: 800, deviceScaleFactor: 1 },
};

describe('pictures', () => {
  let server;
  let browser;
  let threadId;
  let appId;

  before(async () => {
    server = await startServer();
    await server.addUser('ada', PASSWORD, { admin: true });
    await server.addUser('grace', PASSWORD);
    const key = await server.addApp('Shop');
    await server.addApp('Notes');
    const sent = [
      ['Search finds nothing when I type an accent, such as café.', 'device-1', 'Marta'],
      ['The dark theme makes the labels in Settings very hard to read: grey on grey. The notifications switch also forgets its state after a restart.', 'device-2', null],
      ['The checkout button hides behind the keyboard on my phone', 'device-3', 'Ada'],
    ];
    for (const [text, uid, author] of sent) {
      await server.feedback(['send', '--text', text, '--image', 'docs/tour-markers.png', ...(author ? ['--author', author] : [])], { key, uid });
    }
    [{ key: threadId }] = await server.feedback(['list'], { key, uid: 'device-3' });
    await server.feedback(['comment', threadId, 'It happens on the payment step too.'], { key, uid: 'device-3' });
    const { cookie, csrf } = await server.session('ada', PASSWORD);
    const headers = { Cookie: cookie, 'X-CSRF-Token': csrf, 'Content-Type': 'application/json' };
    await server.request(`/dashboard/api/threads/${threadId}/comments`, { method: 'POST', headers, body: { text: 'Thanks! Which phone is it?' } });
    const { json } = await server.request('/dashboard/api/apps', { headers: { Cookie: cookie } });
    appId = json.apps.find((app) => app.name === 'Shop').id;
    browser = await launchBrowser();
  });

  after(async () => {
    await browser?.close();
    await server?.stop();
  });

  async function picture(page, name) {
    const overflow = await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);
    assert.ok(overflow <= 0, `${name} scrolls sideways by ${overflow} px`);
    const file = await shot(page, name);
    assert.ok(statSync(file).size > 1000, `${file} holds a picture`);
  }

  for (const scheme of ['light', 'dark']) {
    for (const [size, viewport] of Object.entries(SIZES)) {
      it(`every page in ${scheme} on a ${size}`, async () => {
        const page = await newPage(browser, { ...viewport, scheme });
        try {
          await page.goto(`${server.origin}/`);
          await page.waitForSelector(byRole('button', 'Log in'));
          await picture(page, `login-${scheme}-${size}`);

          await login(page, server.origin, 'ada', PASSWORD);
          await page.waitForFunction(() => {
            const thumbs = [...document.querySelectorAll('main li img')];
            return thumbs.length === 3 && thumbs.every((img) => img.complete && img.naturalWidth > 0);
          });
          await picture(page, `inbox-${scheme}-${size}`);

          await page.goto(`${server.origin}/#/threads/${encodeURIComponent(threadId)}`);
          await page.waitForFunction(() => [...document.querySelectorAll('main img')].some((img) => img.complete && img.naturalWidth > 0));
          await page.waitForSelector('::-p-text(Thanks! Which phone is it?)');
          await picture(page, `thread-${scheme}-${size}`);

          await page.goto(`${server.origin}/#/apps`);
          await page.waitForSelector(`a[href="#/apps/${appId}"]`);
          await picture(page, `apps-${scheme}-${size}`);

          await page.goto(`${server.origin}/#/apps/${appId}`);
          await page.waitForSelector(byRole('button', 'Save members'));
          await picture(page, `app-${scheme}-${size}`);
        } finally {
          await page.closeContext();
        }
      });
    }
  }
});
