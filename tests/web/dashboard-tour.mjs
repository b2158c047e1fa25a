// The demo's look at the dashboard: logs in, opens the newest thread, replies, and writes a picture
// of each step. Run by ./dev.sh demo:
//   node tests/web/dashboard-tour.mjs --origin URL --name N --password P --out DIR --reply TEXT

import { mkdirSync } from 'node:fs';
import path from 'node:path';
import { parseArgs } from 'node:util';
import { byRole, launchBrowser, login, newPage } from './harness.mjs';

const { values } = parseArgs({
  options: {
    origin: { type: 'string' },
    name: { type: 'string' },
    password: { type: 'string' },
    out: { type: 'string' },
    reply: { type: 'string' },
  },
});
for (const option of ['origin', 'name', 'password', 'out', 'reply']) {
  if (!values[option]) {
    console.error(`dashboard-tour: --${option} is needed\nusage: node tests/web/dashboard-tour.mjs --origin URL --name N --password P --out DIR --reply TEXT`);
    process.exit(2);
  }
}

mkdirSync(values.out, { recursive: true });
const browser = await launchBrowser();
try {
  const page = await newPage(browser, { width: 1280, height: 800 });
  const picture = async (name) => {
    const file = path.join(values.out, name);
    // Scrolled, a full-page picture would draw the sticky header halfway down.
    await page.mouse.move(0, 0);
    await page.evaluate(() => window.scrollTo(0, 0));
    await page.screenshot({ path: file, fullPage: true });
    console.log(file);
  };

  await login(page, values.origin, values.name, values.password);
  await page.locator(byRole('radio', 'All')).click();
  // The list is rebuilt for the new filter; wait until that answer is in.
  await page.waitForFunction(
    () => document.querySelector('input[value=all]').checked && !document.querySelector('main ul[aria-busy]') && document.querySelector('main li a[href^="#/threads/"]'),
    { timeout: 15_000 },
  );
  await page.waitForFunction(() => [...document.querySelectorAll('main li img')].every((img) => img.complete));
  await picture('dashboard-inbox.png');

  await page.click('main li a[href^="#/threads/"]');
  await page.waitForSelector(byRole('textbox', 'Reply'));
  await page.waitForFunction(() => [...document.querySelectorAll('main img')].every((img) => img.complete && img.naturalWidth > 0));
  await picture('dashboard-thread.png');

  await page.locator(byRole('textbox', 'Reply')).fill(values.reply);
  await page.locator(byRole('button', 'Send reply')).click();
  await page.waitForFunction((words) => [...document.querySelectorAll('main li')].some((li) => li.textContent.includes(words)), {}, values.reply);
  await picture('dashboard-reply.png');
} catch (error) {
  console.error(`dashboard-tour: ${error.message}`);
  process.exitCode = 1;
} finally {
  await browser.close();
}
