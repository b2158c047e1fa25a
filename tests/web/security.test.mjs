// What the dashboard refuses, and what it never lets a sender's words do.

import assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { byRole, launchBrowser, login, newPage, startServer, until } from './harness.mjs';

const PASSWORD = 'a long and private passphrase';
const POLICY = "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
const HOSTILE_TEXT = '<img src=x onerror=alert(1)>';
const HOSTILE_AUTHOR = '<script>alert(2)</script>';

describe('the dashboard refuses and escapes', () => {
  let server;
  let browser;
  let key;
  let threadId;

  before(async () => {
    server = await startServer();
    await server.addUser('ada', PASSWORD, { admin: true });
    key = await server.addApp('Shop');
    await server.feedback(['send', '--text', 'A plain thread to aim at', '--image', 'docs/tour-markers.png'], { key, uid: 'device-plain' });
    [{ key: threadId }] = await server.feedback(['list'], { key, uid: 'device-plain' });
    browser = await launchBrowser();
  });

  after(async () => {
    await browser?.close();
    await server?.stop();
  });

  it('answers 401 to every JSON route without a session, and the page asks to log in', async () => {
    const routes = [
      '/dashboard/api/session',
      '/dashboard/api/apps',
      '/dashboard/api/members',
      '/dashboard/api/threads',
      '/dashboard/api/threads?state=all',
      `/dashboard/api/threads/${threadId}`,
      '/dashboard/api/apps/1/webhooks',
      '/dashboard/api/events',
    ];
    for (const route of routes) {
      const res = await server.request(route);
      assert.equal(res.status, 401, `GET ${route}: ${res.text}`);
      assert.equal(res.json?.code, 4011, `GET ${route}: ${res.text}`);
    }
    // Screenshots too, even by their unguessable id.
    const { cookie } = await server.session('ada', PASSWORD);
    const { json: listing } = await server.request('/dashboard/api/threads', { headers: { Cookie: cookie } });
    const imageId = listing.threads.find((thread) => thread.id === threadId)?.imageId;
    assert.ok(imageId, JSON.stringify(listing));
    assert.equal((await server.request(`/dashboard/api/images/${imageId}`, { headers: { Cookie: cookie } })).headers['content-type'], 'image/png');
    for (const route of [`/dashboard/api/images/${imageId}`, `/dashboard/api/images/${imageId}?thumb=1`]) {
      assert.equal((await server.request(route)).status, 401, route);
    }
    const forged = await server.request('/dashboard/api/apps', { headers: { Cookie: 'murmora_session=not-a-session' } });
    assert.equal(forged.status, 401, 'a made-up cookie is no session');

    const page = await newPage(browser);
    try {
      await page.goto(`${server.origin}/#/threads/${encodeURIComponent(threadId)}`);
      await page.waitForSelector(byRole('button', 'Log in'));
      assert.equal(await page.$('::-p-text(A plain thread to aim at)'), null, 'nothing of the thread shows');
    } finally {
      await page.closeContext();
    }
  });

  it('shows the login form when the session ends under an open page', async () => {
    const page = await newPage(browser);
    try {
      await login(page, server.origin, 'ada', PASSWORD);
      await page.waitForSelector('main a[href^="#/threads/"]');
      // Log this very session out behind the page's back.
      const cookie = (await page.cookies()).find((each) => each.name === 'murmora_session');
      assert.ok(cookie && cookie.httpOnly && cookie.secure && cookie.sameSite === 'Strict', JSON.stringify(cookie));
      assert.equal(await page.evaluate(() => document.cookie.includes('murmora_session')), false, 'scripts never see the session');
      const header = { Cookie: `murmora_session=${cookie.value}` };
      const { json: session } = await server.request('/dashboard/api/session', { headers: header });
      const out = await server.request('/dashboard/api/session', { method: 'DELETE', headers: { ...header, 'X-CSRF-Token': session.csrf, 'Content-Type': 'application/json' } });
      assert.equal(out.status, 200, out.text);

      await page.locator(byRole('radio', 'Resolved')).click();
      await page.waitForSelector(byRole('textbox', 'Name'));
      assert.equal(await page.$(byRole('button', 'Log out')), null);
    } finally {
      await page.closeContext();
    }
  });

  it('refuses changes without the CSRF token and takes them with it', async () => {
    const { cookie, csrf } = await server.session('ada', PASSWORD);
    const path = `/dashboard/api/threads/${threadId}`;
    const attempts = [
      ['POST', `${path}/comments`, { text: 'forged reply' }],
      ['PUT', `${path}/state`, { state: 'Resolved' }],
      ['DELETE', path, undefined],
      ['POST', '/dashboard/api/apps', { name: 'Forged' }],
    ];
    for (const token of [undefined, 'not-the-token']) {
      for (const [method, route, body] of attempts) {
        const headers = { Cookie: cookie, 'Content-Type': 'application/json' };
        if (token) headers['X-CSRF-Token'] = token;
        const res = await server.request(route, { method, headers, body });
        assert.equal(res.status, 403, `${method} ${route} with token ${token}: ${res.text}`);
        assert.equal(res.json?.code, 4031, res.text);
      }
    }
    const [item] = await server.feedback(['list'], { key, uid: 'device-plain' });
    assert.equal(item.state, 'Open', 'the state is unchanged');
    assert.deepEqual(await server.feedback(['comments', threadId], { key, uid: 'device-plain' }), [], 'no comment was added');

    // The same request with the token goes through, so the refusals above were the token's.
    const res = await server.request(`${path}/comments`, {
      method: 'POST',
      headers: { Cookie: cookie, 'Content-Type': 'application/json', 'X-CSRF-Token': csrf },
      body: { text: 'a real reply' },
    });
    assert.equal(res.status, 201, res.text);
  });

  it('shows what senders wrote as text, never as markup', async () => {
    await server.feedback(['send', '--text', HOSTILE_TEXT, '--author', HOSTILE_AUTHOR, '--image', 'docs/tour-markers.png'], { key, uid: 'device-hostile' });
    const [{ key: hostileId }] = await server.feedback(['list'], { key, uid: 'device-hostile' });
    const posted = await server.postThread(key, {
      Text: 'Parameters <b>bold</b>',
      Uid: 'device-params',
      Author: '<img src=y onerror=alert(3)>',
      SystemInfo: { Model: '<img src=z onerror=alert(4)>', OSVersion: '<script>alert(5)</script>', WidthInPixels: 1080, HeightInPixels: 2400 },
      plan: '<script>alert(6)</script>',
      '<i>cart</i>': { items: ['<svg onload=alert(7)>'] },
    });
    const paramsId = posted.Id;
    assert.ok(paramsId, JSON.stringify(posted));

    const page = await newPage(browser);
    const dialogs = [];
    page.on('dialog', async (dialog) => {
      dialogs.push(dialog.message());
      await dialog.dismiss();
    });
    // Every <img> must be one of the service's screenshots, and no element came from a sender.
    const markupCheck = () =>
      page.evaluate(() => ({
        foreignImages: [...document.images].map((img) => img.getAttribute('src')).filter((src) => !/^\/dashboard\/api\/images\/[^/]+$/.test(src.replace('?thumb=1', ''))),
        scripts: [...document.scripts].map((script) => script.getAttribute('src')),
        injected: document.querySelectorAll('main b, main i, main svg, main script').length,
      }));
    try {
      await login(page, server.origin, 'ada', PASSWORD);
      await page.locator(byRole('radio', 'All')).click();
      await page.waitForSelector(`a[href="#/threads/${encodeURIComponent(hostileId)}"]`);
      await page.waitForSelector(`a[href="#/threads/${encodeURIComponent(paramsId)}"]`);
      const rows = await page.$$eval('main li', (items) => items.map((li) => li.textContent).join('\n'));
      assert.ok(rows.includes(HOSTILE_TEXT), 'the text shows literally');
      assert.ok(rows.includes(HOSTILE_AUTHOR), 'the author shows literally');
      assert.ok(rows.includes('<img src=y onerror=alert(3)>'));
      assert.deepEqual(await markupCheck(), { foreignImages: [], scripts: ['/assets/js/main.js'], injected: 0 });

      await page.goto(`${server.origin}/#/threads/${encodeURIComponent(hostileId)}`);
      await page.waitForSelector(byRole('button', 'Send reply'));
      const thread = await page.$eval('main', (main) => main.textContent);
      assert.ok(thread.includes(HOSTILE_TEXT) && thread.includes(HOSTILE_AUTHOR), thread);
      assert.deepEqual(await markupCheck(), { foreignImages: [], scripts: ['/assets/js/main.js'], injected: 0 });

      await page.goto(`${server.origin}/#/threads/${encodeURIComponent(paramsId)}`);
      await page.waitForSelector(byRole('heading', 'Parameters'));
      const details = await page.$eval('main', (main) => main.textContent);
      for (const literal of ['<img src=z onerror=alert(4)>', '<script>alert(5)</script>', '<script>alert(6)</script>', '<i>cart</i>', '["<svg onload=alert(7)>"]', '1080 × 2400']) {
        assert.ok(details.includes(literal), `shows ${literal} literally`);
      }
      assert.deepEqual(await markupCheck(), { foreignImages: [], scripts: ['/assets/js/main.js'], injected: 0 });
      assert.deepEqual(dialogs, [], 'no script ran');
    } finally {
      await page.closeContext();
    }
  });

  it('sends the policy and safety headers with every dashboard answer', async () => {
    const answers = [
      ['/', 'text/html'],
      ['/assets/js/main.js', 'text/javascript'],
      ['/assets/style.css', 'text/css'],
      ['/dashboard/api/session', 'application/json'],
    ];
    for (const [route, type] of answers) {
      const res = await server.request(route);
      assert.equal(res.headers['content-security-policy'], POLICY, route);
      assert.equal(res.headers['x-content-type-options'], 'nosniff', route);
      assert.equal(res.headers['x-frame-options'], 'DENY', route);
      assert.equal(res.headers['referrer-policy'], 'no-referrer', route);
      assert.ok(res.headers['content-type']?.startsWith(type), `${route}: ${res.headers['content-type']}`);
    }
    const page = await newPage(browser);
    try {
      // The page itself obeys the policy: a violation would be reported here.
      const violations = [];
      page.on('console', (message) => {
        if (/Content Security Policy/i.test(message.text())) violations.push(message.text());
      });
      await login(page, server.origin, 'ada', PASSWORD);
      await page.waitForSelector('main a[href^="#/threads/"]');
      await page.goto(`${server.origin}/#/threads/${encodeURIComponent(threadId)}`);
      await page.waitForSelector(byRole('button', 'Send reply'));
      assert.deepEqual(violations, []);
    } finally {
      await page.closeContext();
    }
  });

  it('shows a wrong password to the person and slows down guessing', async () => {
    // A server of its own: the slowing may count per address, which would lock the other tests out.
    const guarded = await startServer();
    const page = await newPage(browser);
    try {
      await guarded.addUser('grace', PASSWORD);
      await page.goto(`${guarded.origin}/`);
      await page.locator(byRole('textbox', 'Name')).fill('grace');
      await page.locator(byRole('textbox', 'Password')).fill('not it');
      await page.locator(byRole('button', 'Log in')).click();
      const alert = await page.waitForFunction(() => document.querySelector('[role=alert]')?.textContent.trim() || false);
      assert.equal(await alert.jsonValue(), 'Wrong name or password.');

      const attempt = (password) =>
        guarded.request('/dashboard/api/session', { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: { name: 'grace', password } });
      let refused;
      for (let tries = 0; tries < 12 && !refused; tries += 1) {
        const res = await attempt(`guess ${tries}`);
        if (res.status === 429) refused = res;
        else assert.equal(res.status, 401, res.text);
      }
      assert.ok(refused, 'a dozen wrong passwords in a row are slowed down');
      assert.equal(refused.json?.code, 4290);
      assert.ok(Number(refused.headers['retry-after']) > 0, `Retry-After: ${refused.headers['retry-after']}`);

      const right = await attempt(PASSWORD);
      assert.equal(right.status, 429, 'even the right password waits');
      assert.ok(Number(right.headers['retry-after']) > 0);

      await page.locator(byRole('textbox', 'Password')).fill(PASSWORD);
      await page.locator(byRole('button', 'Log in')).click();
      await until(() => page.$eval('[role=alert]', (region) => /try again/i.test(region.textContent)), { what: 'the wait shown in the login form' });
      assert.equal(await page.$(byRole('button', 'Log out')), null);
    } finally {
      await page.closeContext();
      await guarded.stop();
    }
  });
});
