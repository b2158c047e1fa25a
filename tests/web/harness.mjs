// What the dashboard's browser tests share: a murmora-server of their own on 127.0.0.1 with a fresh
// data directory, the library's command-line client, plain HTTPS requests, and a headless chromium.

import { spawn } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import https from 'node:https';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

export const repoRoot = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');

const STARTUP_MS = 30_000;
const STOP_MS = 15_000;

function required(name) {
  const value = process.env[name];
  if (!value) throw new Error(`${name} is not set: point it at the built executable`);
  return value;
}

// Runs a program to its end; rejects with its standard error when it fails.
export function run(program, args, { input, cwd = repoRoot, env } = {}) {
  return new Promise((resolve, reject) => {
    const child = spawn(program, args, {
      cwd,
      env: { ...process.env, QT_QPA_PLATFORM: 'offscreen', ...env },
      stdio: ['pipe', 'pipe', 'pipe'],
    });
    let stdout = '';
    let stderr = '';
    child.stdout.setEncoding('utf8').on('data', (chunk) => (stdout += chunk));
    child.stderr.setEncoding('utf8').on('data', (chunk) => (stderr += chunk));
    child.on('error', reject);
    child.on('close', (code, signal) => {
      if (code === 0) resolve({ stdout, stderr });
      else reject(new Error(`${path.basename(program)} ${args.join(' ')} ended with ${signal ?? code}: ${stderr.trim()}`));
    });
    child.stdin.end(input ?? '');
  });
}

/**
 * Starts murmora-server on a free port with a fresh data directory. Resolves once it prints that it
 * listens. stop() ends it with SIGTERM and removes the directory.
 */
export async function startServer({ webhookRetryMs } = {}) {
  const serverPath = required('MURMORA_SERVER');
  const dataDir = mkdtempSync(path.join(os.tmpdir(), 'murmora-web-'));
  const args = ['--data', dataDir, '--listen', '127.0.0.1:0'];
  if (webhookRetryMs !== undefined) args.push('--webhook-retry-ms', String(webhookRetryMs));

  const child = spawn(serverPath, args, { stdio: ['ignore', 'pipe', 'pipe'] });
  let log = '';
  // The server logs every request; reading it keeps the pipe from filling up.
  child.stderr.setEncoding('utf8').on('data', (chunk) => {
    log = (log + chunk).slice(-20_000);
  });
  const exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve(signal ?? code)));

  const baseUrl = await new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => fail(new Error(`murmora-server did not report listening within ${STARTUP_MS} ms`)), STARTUP_MS);
    function fail(error) {
      clearTimeout(timer);
      child.kill('SIGKILL');
      rmSync(dataDir, { recursive: true, force: true });
      reject(new Error(`${error.message}\n${out}${log}`));
    }
    child.on('error', fail);
    exited.then((how) => fail(new Error(`murmora-server ended with ${how} before listening`)));
    child.stdout.setEncoding('utf8').on('data', (chunk) => {
      out += chunk;
      const line = out.split('\n').find((each) => each.startsWith('Murmora service listening on '));
      if (line) {
        clearTimeout(timer);
        resolve(line.slice('Murmora service listening on '.length).trim());
      }
    });
  });

  const origin = new URL(baseUrl).origin;
  const caFile = path.join(dataDir, 'tls', 'ca.pem');
  const ca = readFileSync(caFile);
  const feedbackPath = () => required('MURMORA_FEEDBACK');
  let stopped = false;

  const server = {
    origin,
    baseUrl,
    dataDir,
    caFile,
    get log() {
      return log;
    },

    async addUser(name, password, { admin = false } = {}) {
      const argv = ['users', 'add', name, ...(admin ? ['--admin'] : []), '--data', dataDir];
      await run(serverPath, argv, { input: `${password}\n` });
    },

    async addApp(name) {
      const { stdout } = await run(serverPath, ['apps', 'add', name, '--data', dataDir]);
      const lines = stdout.trim().split('\n');
      return lines[lines.length - 1].trim();
    },

    // The library's own client (murmora-feedback) against this server; its JSON answer, parsed.
    async feedback(argv, { key, uid }) {
      const { stdout } = await run(feedbackPath(), ['--service', baseUrl, '--key', key, '--uid', uid, '--ca', caFile, ...argv]);
      return JSON.parse(stdout);
    },

    // A plain HTTPS request to this server, trusting its CA. Resolves whatever the status.
    request(pathname, { method = 'GET', headers = {}, body } = {}) {
      const payload = body === undefined ? undefined : typeof body === 'string' ? body : JSON.stringify(body);
      return new Promise((resolve, reject) => {
        const req = https.request(new URL(pathname, origin), { method, headers, ca }, (res) => {
          const chunks = [];
          res.on('data', (chunk) => chunks.push(chunk));
          res.on('end', () => {
            const text = Buffer.concat(chunks).toString('utf8');
            let json;
            try {
              json = JSON.parse(text);
            } catch {
              json = undefined;
            }
            resolve({ status: res.statusCode, headers: res.headers, text, json });
          });
          res.on('error', reject);
        });
        req.on('error', reject);
        if (payload !== undefined) req.write(payload);
        req.end();
      });
    },

    // Logs in over the JSON routes: {cookie, csrf, member}, for requests made without a browser.
    async session(name, password) {
      const res = await server.request('/dashboard/api/session', {
        method: 'POST',
        headers: { 'Content-Type': 'application/json' },
        body: { name, password },
      });
      if (res.status !== 200) throw new Error(`login as ${name} answered ${res.status}: ${res.text}`);
      const setCookie = [].concat(res.headers['set-cookie'] ?? []);
      const cookie = setCookie.map((each) => each.split(';')[0]).find((each) => each.startsWith('murmora_session='));
      if (!cookie) throw new Error(`login as ${name} set no murmora_session cookie: ${setCookie.join(' | ')}`);
      return { cookie, csrf: res.json.csrf, member: res.json.member };
    },

    // A new item through the protocol itself, for what murmora-feedback cannot send (host parameters).
    async postThread(key, body) {
      const res = await server.request(`/feedback/api/v1/${encodeURIComponent(key)}/threads`, {
        method: 'POST',
        headers: { 'Content-Type': 'application/json' },
        body,
      });
      if (res.status !== 201) throw new Error(`POST threads answered ${res.status}: ${res.text}`);
      return res.json;
    },

    async stop() {
      if (stopped) return;
      stopped = true;
      if (child.exitCode === null && child.signalCode === null) {
        child.kill('SIGTERM');
        const timer = setTimeout(() => child.kill('SIGKILL'), STOP_MS);
        await exited;
        clearTimeout(timer);
      }
      rmSync(dataDir, { recursive: true, force: true });
    },
  };
  return server;
}

export async function launchBrowser() {
  const { default: puppeteer } = await import('puppeteer-core');
  return puppeteer.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    acceptInsecureCerts: true,
    args: ['--no-sandbox', '--disable-dev-shm-usage', '--font-render-hinting=none'],
  });
}

// A page in a context of its own, so no cookie is shared with another page. close() ends the context.
export async function newPage(browser, { width = 1280, height = 800, deviceScaleFactor = 1, scheme = 'light' } = {}) {
  const context = await browser.createBrowserContext();
  const page = await context.newPage();
  await page.setViewport({ width, height, deviceScaleFactor });
  await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: scheme }]);
  page.closeContext = () => context.close();
  return page;
}

// The first element whose role and accessible name match exactly, as a person using a screen reader finds it.
export function byRole(role, name) {
  const quoted = name.replaceAll('\\', '\\\\').replaceAll('"', '\\"');
  return `::-p-aria([name="${quoted}"][role="${role}"])`;
}

export async function login(page, origin, name, password) {
  await page.goto(`${origin}/`);
  await page.locator(byRole('textbox', 'Name')).fill(name);
  await page.locator(byRole('textbox', 'Password')).fill(password);
  await page.locator(byRole('button', 'Log in')).click();
  await page.waitForSelector(byRole('button', 'Log out'));
}

export async function shot(page, name) {
  const dir = process.env.MURMORA_WEB_SHOTS || path.join(repoRoot, 'build', 'dev', 'web-shots');
  mkdirSync(dir, { recursive: true });
  const file = path.join(dir, `${name}.png`);
  // A pointer left over a card would show its hover colours, and a scrolled page draws its sticky
  // header halfway down a full-page picture.
  await page.mouse.move(0, 0);
  await page.evaluate(() => window.scrollTo(0, 0));
  await page.screenshot({ path: file, fullPage: true });
  return file;
}

let axeSource;

// axe-core's violations on the page as it is. Its source is evaluated over the DevTools protocol,
// which the page's Content-Security-Policy does not govern.
export async function axeViolations(page) {
  axeSource ??= readFileSync(path.join(path.dirname(fileURLToPath(import.meta.url)), 'node_modules', 'axe-core', 'axe.min.js'), 'utf8');
  if (!(await page.evaluate(() => typeof window.axe === 'object'))) await page.evaluate(axeSource);
  return page.evaluate(async () => {
    const result = await window.axe.run(document, { resultTypes: ['violations'] });
    return result.violations.map((violation) => ({
      id: violation.id,
      help: violation.help,
      nodes: violation.nodes.map((node) => `${node.target.join(' ')}: ${node.failureSummary.replaceAll('\n', ' ')}`),
    }));
  });
}

// Width and height from a PNG's header.
export function pngSize(file) {
  const bytes = readFileSync(path.isAbsolute(file) ? file : path.join(repoRoot, file));
  return { width: bytes.readUInt32BE(16), height: bytes.readUInt32BE(20) };
}

// Polls an async condition until it holds or the deadline passes; the last value or error explains a failure.
export async function until(condition, { timeout = 10_000, interval = 100, what = 'condition' } = {}) {
  const deadline = Date.now() + timeout;
  let last;
  for (;;) {
    try {
      last = await condition();
      if (last) return last;
    } catch (error) {
      last = error;
    }
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}; last: ${last instanceof Error ? last.message : JSON.stringify(last)}`);
    await new Promise((resolve) => setTimeout(resolve, interval));
  }
}
