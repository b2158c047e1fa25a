// An administrator sets up applications in the dashboard, and the library and the members feel it.

import assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { byRole, launchBrowser, login, newPage, startServer, until } from './harness.mjs';

const PASSWORD = 'the admin knows this one';

describe('applications', () => {
  let server;
  let browser;

  before(async () => {
    server = await startServer();
    await server.addUser('ada', PASSWORD, { admin: true });
    await server.addUser('grace', PASSWORD);
    browser = await launchBrowser();
  });

  after(async () => {
    await browser?.close();
    await server?.stop();
  });

  const keyOnPage = (page) => page.$eval('main code', (code) => code.textContent.trim());

  it('creates an application whose key the library sends with, and rotates it', async () => {
    const page = await newPage(browser);
    try {
      await login(page, server.origin, 'ada', PASSWORD);
      await page.locator(byRole('link', 'Applications')).click();
      await page.locator(byRole('textbox', 'Application name')).fill('Field notes');
      await page.locator(byRole('button', 'Create application')).click();
      await page.waitForSelector(byRole('button', 'Copy key'));
      const key = await keyOnPage(page);
      assert.ok(key.length >= 16, `a key is shown once created: ${key}`);
      await server.feedback(['send', '--text', 'Sent with the new key'], { key, uid: 'device-new' });
      assert.equal((await server.feedback(['list'], { key, uid: 'device-new' }))[0]?.text, 'Sent with the new key');

      await page.locator(byRole('button', 'Copy key')).click();
      await page.waitForFunction(() => /Copied|Selected/.test(document.querySelector('.secret-box [role=status]')?.textContent ?? ''));

      // A second application of the same name is refused, and the person is told.
      await page.locator(byRole('textbox', 'Application name')).fill('Field notes');
      await page.locator(byRole('button', 'Create application')).click();
      await page.waitForFunction(() => [...document.querySelectorAll('[role=alert]')].some((region) => region.textContent.trim()));

      await page.locator(byRole('link', 'Field notes')).click();
      await page.waitForSelector(byRole('button', 'Rotate key'));
      assert.equal(await keyOnPage(page), key, 'the application page shows the same key');
      await page.locator(byRole('button', 'Rotate key')).click();
      const question = await page.waitForSelector('dialog[open]');
      await (await question.waitForSelector(byRole('button', 'Rotate key'))).click();
      await until(async () => (await keyOnPage(page)) !== key, { what: 'a new key on the page' });
      const rotated = await keyOnPage(page);

      await assert.rejects(server.feedback(['list'], { key, uid: 'device-new' }), 'the old key stops working');
      assert.equal((await server.feedback(['list'], { key: rotated, uid: 'device-new' })).length, 1, 'the new key reads what was sent');
    } finally {
      await page.closeContext();
    }
  });

  it('lets a member read an application only once added to it', async () => {
    const key = await server.addApp('Shop');
    await server.feedback(['send', '--text', 'For members of Shop only'], { key, uid: 'device-shop' });
    const [{ key: threadId }] = await server.feedback(['list'], { key, uid: 'device-shop' });
    const thread = `a[href="#/threads/${encodeURIComponent(threadId)}"]`;

    const grace = await newPage(browser);
    const ada = await newPage(browser);
    try {
      await login(grace, server.origin, 'grace', PASSWORD);
      await grace.waitForFunction(() => document.querySelector('main [role=status]')?.textContent.trim());
      assert.equal(await grace.$(thread), null, 'not a member yet');
      assert.equal(await grace.$(byRole('link', 'Applications')), null, 'members do not manage applications');

      await login(ada, server.origin, 'ada', PASSWORD);
      await ada.locator(byRole('link', 'Applications')).click();
      await ada.locator(byRole('link', 'Shop')).click();
      await ada.locator(byRole('checkbox', 'grace')).click();
      await ada.locator(byRole('button', 'Save members')).click();
      await ada.waitForSelector('::-p-text(Members saved.)');

      await grace.reload();
      await grace.waitForSelector(thread);
      await ada.reload();
      await ada.waitForSelector(byRole('button', 'Save members'));
      assert.ok(await ada.$eval('input[type=checkbox]:not([disabled])', (box) => box.checked), 'the saved choice is shown again');
    } finally {
      await grace.closeContext();
      await ada.closeContext();
    }
  });

  it('adds a webhook showing its secret once, and removes it', async () => {
    const key = await server.addApp('Hooks');
    const page = await newPage(browser);
    try {
      await login(page, server.origin, 'ada', PASSWORD);
      await page.locator(byRole('link', 'Applications')).click();
      await page.locator(byRole('link', 'Hooks')).click();
      await page.locator(byRole('textbox', 'Webhook URL')).fill('https://127.0.0.1:9/hook');
      await page.locator(byRole('button', 'Add webhook')).click();
      await page.waitForSelector(byRole('button', 'Copy secret'));
      const secret = await page.$eval('.secret-box code', (code) => code.textContent);
      assert.match(secret, /^whsec_/);
      await page.waitForSelector('::-p-text(https://127.0.0.1:9/hook)');

      // Nothing listens there: the delivery log shows the failed attempt while the page stays open.
      await server.feedback(['send', '--text', 'Tell the hook'], { key, uid: 'device-hook' });
      const row = await page.waitForFunction(
        () => [...document.querySelectorAll('main table tbody tr')].map((tr) => [...tr.cells].map((cell) => cell.textContent)).find((cells) => cells[0] === 'thread.created'),
        { timeout: 15_000 },
      );
      const [, status, attempts, , error] = await row.jsonValue();
      assert.ok(['pending', 'failed'].includes(status), status);
      assert.ok(Number(attempts) >= 1, attempts);
      assert.notEqual(error, '—', 'the failure says why');

      await page.reload();
      await page.waitForSelector(byRole('button', 'Remove'));
      assert.ok(!(await page.$eval('main', (main, shown) => main.textContent.includes(shown), secret)), 'the secret is not shown again');

      await page.locator(byRole('button', 'Remove')).click();
      await page.waitForSelector(byRole('button', 'Remove'), { hidden: true });
      await page.reload();
      await page.waitForSelector(byRole('button', 'Add webhook'));
      assert.equal(await page.$(byRole('button', 'Remove')), null, 'removed for good');
    } finally {
      await page.closeContext();
    }
  });
});
