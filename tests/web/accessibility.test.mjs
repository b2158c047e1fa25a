// axe-core on every page in both colour schemes, and the login done with the keyboard alone.

import assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { axeViolations, byRole, launchBrowser, login, newPage, startServer } from './harness.mjs';

const PASSWORD = 'four words make a password';

describe('accessibility', () => {
  let server;
  let browser;
  let threadId;
  let appId;

  before(async () => {
    server = await startServer();
    await server.addUser('ada', PASSWORD, { admin: true });
    await server.addUser('grace', PASSWORD);
    const key = await server.addApp('Shop');
    await server.feedback(['send', '--text', 'The total is cut off on small phones', '--image', 'docs/tour-markers.png', '--author', 'Ada'], { key, uid: 'device-a11y' });
    [{ key: threadId }] = await server.feedback(['list'], { key, uid: 'device-a11y' });
    await server.feedback(['comment', threadId, 'It happens in landscape too.'], { key, uid: 'device-a11y' });
    const { cookie, csrf } = await server.session('ada', PASSWORD);
    const reply = await server.request(`/dashboard/api/threads/${threadId}/comments`, {
      method: 'POST',
      headers: { Cookie: cookie, 'X-CSRF-Token': csrf, 'Content-Type': 'application/json' },
      body: { text: 'Thanks, we are on it.' },
    });
    assert.equal(reply.status, 201, reply.text);
    const { json } = await server.request('/dashboard/api/apps', { headers: { Cookie: cookie } });
    appId = json.apps[0].id;
    const { json: people } = await server.request('/dashboard/api/members', { headers: { Cookie: cookie } });
    const grace = people.members.find((member) => member.name === 'grace');
    const shared = await server.request(`/dashboard/api/apps/${appId}/members`, {
      method: 'PUT',
      headers: { Cookie: cookie, 'X-CSRF-Token': csrf, 'Content-Type': 'application/json' },
      body: { members: [grace.id] },
    });
    assert.equal(shared.status, 200, shared.text);
    browser = await launchBrowser();
  });

  after(async () => {
    await browser?.close();
    await server?.stop();
  });

  async function audit(page, what) {
    const violations = await axeViolations(page);
    assert.deepEqual(violations, [], `${what}:\n${JSON.stringify(violations, null, 2)}`);
    assert.equal(await page.$$eval('h1', (headings) => headings.length), 1, `${what}: one h1`);
  }

  for (const scheme of ['light', 'dark']) {
    it(`has no violations on any page in ${scheme}`, async () => {
      const page = await newPage(browser, { scheme });
      try {
        await page.goto(`${server.origin}/`);
        await page.waitForSelector(byRole('button', 'Log in'));
        await audit(page, `login (${scheme})`);

        await login(page, server.origin, 'ada', PASSWORD);
        await page.waitForSelector('main a[href^="#/threads/"] img');
        await audit(page, `inbox (${scheme})`);

        await page.goto(`${server.origin}/#/threads/${encodeURIComponent(threadId)}`);
        await page.waitForFunction(() => [...document.querySelectorAll('main img')].some((img) => img.complete && img.naturalWidth > 0));
        await page.waitForSelector('::-p-text(Thanks, we are on it.)');
        await audit(page, `thread (${scheme})`);

        await page.locator(byRole('button', 'Delete')).click();
        await page.waitForSelector('dialog[open]');
        await audit(page, `delete question (${scheme})`);
        await page.keyboard.press('Escape');
        await page.waitForSelector('dialog[open]', { hidden: true });

        await page.goto(`${server.origin}/#/apps`);
        await page.waitForSelector(`a[href="#/apps/${appId}"]`);
        await audit(page, `applications (${scheme})`);

        await page.goto(`${server.origin}/#/apps/${appId}`);
        await page.waitForSelector(byRole('button', 'Save members'));
        await audit(page, `application (${scheme})`);
      } finally {
        await page.closeContext();
      }
    });
  }

  it('logs in, opens a thread and replies with the keyboard alone, with focus always visible', async () => {
    const page = await newPage(browser);
    try {
      await page.goto(`${server.origin}/`);
      await page.waitForSelector(byRole('button', 'Log in'));
      const focused = () =>
        page.evaluate(() => {
          const element = document.activeElement;
          const style = getComputedStyle(element.matches('input[type=radio]') ? element.nextElementSibling : element);
          return { name: element.getAttribute('aria-label') || element.labels?.[0]?.textContent || element.textContent, outline: style.outlineStyle, width: parseFloat(style.outlineWidth) };
        });
      // The name field has focus when the form appears.
      await page.keyboard.type('grace');
      await page.keyboard.press('Tab');
      await page.keyboard.type(PASSWORD);
      await page.keyboard.press('Tab');
      const button = await focused();
      assert.equal(button.name, 'Log in');
      assert.ok(button.outline !== 'none' && button.width >= 2, `a visible focus ring: ${JSON.stringify(button)}`);
      await page.keyboard.press('Enter');
      await page.waitForSelector(byRole('button', 'Log out'));

      // Tab on until a control, each stop with a visible ring and a name.
      async function tabTo(selector) {
        for (let stops = 0; stops < 40; stops += 1) {
          await page.keyboard.press('Tab');
          const now = await focused();
          assert.ok(now.outline !== 'none', `focus is visible on ${now.name}`);
          assert.ok(now.name.trim(), 'every stop has a name');
          if (await page.evaluate((wanted) => document.activeElement.matches(wanted), selector)) return;
        }
        assert.fail(`${selector} is not reachable with Tab`);
      }
      await tabTo('a[href^="#/threads/"]');
      await page.keyboard.press('Enter');
      await page.waitForSelector(byRole('textbox', 'Reply'));
      await tabTo('textarea');
      await page.keyboard.type('Typed without a mouse');
      await page.keyboard.press('Tab');
      assert.equal((await focused()).name, 'Send reply');
      await page.keyboard.press('Enter');
      await page.waitForSelector('::-p-text(Typed without a mouse)');
    } finally {
      await page.closeContext();
    }
  });
});
