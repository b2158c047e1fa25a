// A team reads feedback the library sent, answers it and resolves it, and the library sees both.

import assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { byRole, launchBrowser, login, newPage, pngSize, shot, startServer, until } from './harness.mjs';

const PASSWORD = 'correct horse battery staple';
const SCREENSHOT = 'docs/tour-markers.png';

describe('the dashboard with the library', () => {
  let server;
  let browser;
  let key;

  before(async () => {
    server = await startServer();
    await server.addUser('ada', PASSWORD, { admin: true });
    key = await server.addApp('Shop');
    browser = await launchBrowser();
  });

  after(async () => {
    await browser?.close();
    await server?.stop();
  });

  async function send(text, uid, extra = []) {
    await server.feedback(['send', '--text', text, ...extra], { key, uid });
    const items = await server.feedback(['list'], { key, uid });
    const item = items.find((each) => each.text === text);
    assert.ok(item, `the library lists what it sent: ${text}`);
    return item.key;
  }

  // The inbox row of a thread, found by the link the contract's routes give it.
  const rowSelector = (id) => `main li:has(a[href="#/threads/${encodeURIComponent(id)}"])`;

  it('shows a sent thread, takes a reply and a resolve, and the library reads both', async () => {
    const text = 'The checkout button hides behind the keyboard';
    const reply = 'Thanks! Fixed in 2.4.2, which ships on Monday.';
    const id = await send(text, 'device-flow', ['--image', SCREENSHOT, '--author', 'Ada']);
    const page = await newPage(browser);
    try {
      await login(page, server.origin, 'ada', PASSWORD);
      const row = await page.waitForSelector(rowSelector(id));
      const listed = await row.evaluate(async (li) => {
        const img = li.querySelector('img');
        if (img && !img.complete) await new Promise((resolve) => img.addEventListener('load', resolve, { once: true }));
        return {
          text: li.textContent,
          src: img?.getAttribute('src'),
          alt: img?.alt,
          width: img?.naturalWidth,
          unreadShown: [...li.querySelectorAll('*')].some((each) => each.textContent === 'Unread' && each.checkVisibility()),
        };
      });
      assert.ok(listed.text.includes(text), listed.text);
      assert.ok(listed.text.includes('Ada'), 'the author');
      assert.ok(listed.text.includes('Shop'), 'the application');
      assert.match(listed.src, /^\/dashboard\/api\/images\/[^/?]+\?thumb=1$/);
      assert.ok(listed.alt, 'the thumbnail has alt text');
      assert.ok(listed.width > 0 && listed.width <= 160, `a thumbnail at most 160 px wide, not ${listed.width}`);
      assert.ok(listed.unreadShown, 'a new thread is marked unread in words');

      await row.$eval('a', (link) => link.click());
      await page.waitForFunction((expected) => location.hash === expected, {}, `#/threads/${encodeURIComponent(id)}`);
      const full = await page.waitForFunction(() => {
        const img = [...document.querySelectorAll('main img')].find((each) => /^\/dashboard\/api\/images\/[^?]+$/.test(each.getAttribute('src')));
        return img && img.complete && img.naturalWidth > 0 && img;
      });
      const original = pngSize(SCREENSHOT);
      assert.deepEqual(await full.evaluate((img) => ({ width: img.naturalWidth, height: img.naturalHeight })), original);
      assert.ok(await page.$(`::-p-text(${text})`), 'the thread shows its text');

      const renderedWidth = () => full.evaluate((img) => img.getBoundingClientRect().width);
      const fitted = await renderedWidth();
      await page.locator(byRole('button', 'Zoom in')).click();
      await until(async () => (await renderedWidth()) > fitted * 1.2, { what: 'a larger screenshot after Zoom in' });
      await page.locator(byRole('button', 'Fit')).click();
      await until(async () => Math.abs((await renderedWidth()) - fitted) < 1, { what: 'the fitted screenshot again' });

      await page.locator(byRole('textbox', 'Reply')).fill(reply);
      await page.locator(byRole('button', 'Send reply')).click();
      await page.waitForFunction((words) => [...document.querySelectorAll('main li')].some((li) => li.textContent.includes(words) && li.textContent.includes('Team')), {}, reply);
      assert.equal(await page.$eval('textarea', (area) => area.value), '', 'the reply box is emptied once sent');

      await page.locator(byRole('button', 'Resolve')).click();
      await page.waitForSelector(byRole('button', 'Reopen'));
      await shot(page, 'flow-thread-resolved');

      const comments = await server.feedback(['comments', id], { key, uid: 'device-flow' });
      const answer = comments.find((comment) => comment.text === reply);
      assert.ok(answer, `the library reads the reply: ${JSON.stringify(comments)}`);
      assert.equal(answer.author, 'ada');
      const resolved = await server.feedback(['list', '--state', 'Resolved'], { key, uid: 'device-flow' });
      assert.ok(resolved.some((item) => item.key === id && item.state === 'Resolved'), JSON.stringify(resolved));
      const open = await server.feedback(['list', '--state', 'Open'], { key, uid: 'device-flow' });
      assert.ok(!open.some((item) => item.key === id), 'no longer open');

      // Read now: back in the inbox, among resolved threads, it has no unread mark.
      await page.locator('main a[href="#/"]').click();
      await page.locator(byRole('radio', 'Resolved')).click();
      const again = await page.waitForSelector(rowSelector(id));
      assert.ok(!(await again.evaluate((li) => li.textContent.includes('Unread'))), 'opened threads are read');
    } finally {
      await page.closeContext();
    }
  });

  it('deletes only after the question is answered with Delete', async () => {
    const id = await send('Delete me when you have read me', 'device-delete');
    const page = await newPage(browser);
    try {
      await login(page, server.origin, 'ada', PASSWORD);
      await page.goto(`${server.origin}/#/threads/${encodeURIComponent(id)}`);
      await page.waitForSelector(byRole('button', 'Resolve'));

      await page.locator(byRole('button', 'Delete')).click();
      const dialog = await page.waitForSelector('dialog[open]');
      await (await dialog.waitForSelector(byRole('button', 'Cancel'))).click();
      await page.waitForSelector('dialog[open]', { hidden: true });
      assert.equal((await server.feedback(['list'], { key, uid: 'device-delete' })).length, 1, 'Cancel keeps it');

      await page.locator(byRole('button', 'Delete')).click();
      const confirm = await page.waitForSelector('dialog[open]');
      await (await confirm.waitForSelector(byRole('button', 'Delete'))).click();
      await page.waitForFunction(() => location.hash === '#/' || location.hash === '');
      await page.waitForSelector(byRole('heading', 'Inbox'));
      assert.equal(await page.$(`a[href="#/threads/${encodeURIComponent(id)}"]`), null);
      assert.deepEqual(await server.feedback(['list'], { key, uid: 'device-delete' }), []);
    } finally {
      await page.closeContext();
    }
  });

  it('pages with Load more, newest first, and filters by device', async () => {
    const page = await newPage(browser);
    try {
      for (let n = 1; n <= 27; n += 1) {
        await server.postThread(key, { Text: `Paging ${n}`, Uid: n % 9 === 0 ? 'device-paging-b' : 'device-paging-a' });
      }
      await login(page, server.origin, 'ada', PASSWORD);
      const searched = page.waitForResponse((response) => new URL(response.url()).searchParams.get('q') === 'Paging');
      await page.locator(byRole('searchbox', 'Search')).fill('Paging');
      await searched;
      const rows = () =>
        page.$$eval('main li', (items) => items.map((li) => ({ href: li.querySelector('a')?.getAttribute('href'), at: li.querySelector('time')?.dateTime, text: li.textContent })));
      await until(async () => {
        const shown = await rows();
        return shown.length === 25 && shown.every((row) => row.text.includes('Paging'));
      }, { what: 'a first page of 25 found by the search' });
      await page.locator(byRole('button', 'Load more')).click();
      await until(async () => (await rows()).length === 27, { what: 'all 27 after Load more' });
      await page.waitForSelector(byRole('button', 'Load more'), { hidden: true });
      const all = await rows();
      assert.equal(new Set(all.map((row) => row.href)).size, 27, 'no thread twice');
      const times = all.map((row) => Date.parse(row.at));
      assert.deepEqual(times, [...times].sort((a, b) => b - a), 'newest first');

      await page.locator(byRole('textbox', 'Device')).fill('device-paging-b');
      await until(async () => (await rows()).length === 3, { what: 'the three threads of one device' });
      assert.deepEqual(
        (await page.$$eval('main li', (items) => items.map((li) => li.textContent.match(/Paging \d+/)[0]))).sort(),
        ['Paging 18', 'Paging 27', 'Paging 9'],
      );
    } finally {
      await page.closeContext();
    }
  });

  it('shows a new thread in the open inbox without a reload, within its filters', async () => {
    const page = await newPage(browser);
    try {
      await login(page, server.origin, 'ada', PASSWORD);
      await page.locator(byRole('radio', 'All')).click();
      await page.locator(byRole('searchbox', 'Search')).fill('lighthouse');
      await page.waitForFunction(() => document.querySelector('main [role=status]')?.textContent.includes('Nothing matches'));
      // A full load would drop this mark.
      await page.evaluate(() => {
        window.stillTheSamePage = true;
      });

      await send('Another thread, about nothing in particular', 'device-live');
      const id = await send('The lighthouse screen freezes when rotated', 'device-live', ['--author', 'Grace']);

      await page.waitForSelector(rowSelector(id), { timeout: 10_000 });
      const shown = await page.$$eval('main li a[href^="#/threads/"]', (links) => links.map((link) => link.textContent));
      assert.equal(shown.length, 1, `only what matches the search: ${shown.join(' | ')}`);
      assert.ok(await page.evaluate(() => window.stillTheSamePage === true), 'the page was not reloaded');
      assert.equal(await page.$eval('input[type=search]', (input) => input.value), 'lighthouse', 'the filter is kept');
      assert.ok(await page.$eval('input[type=radio][value=all]', (radio) => radio.checked), 'the state filter is kept');
    } finally {
      await page.closeContext();
    }
  });
});
