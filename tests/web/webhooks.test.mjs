// Webhooks end to end: the library's client changes feedback, murmora-server POSTs signed
// deliveries to receivers on 127.0.0.1, and the dashboard's routes show the delivery log.

import assert from 'node:assert/strict';
import { createHmac } from 'node:crypto';
import http from 'node:http';
import { after, before, test } from 'node:test';

import { startServer, until } from './harness.mjs';

const RETRY_MS = 200;
const ATTEMPTS = 8; // the server's default
const ISO_UTC = /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z$/;

// Records every request; `answer(n)` gives the status of the n-th (1-based).
async function startReceiver(answer = () => 204) {
  const received = [];
  const server = http.createServer((req, res) => {
    const chunks = [];
    req.on('data', (chunk) => chunks.push(chunk));
    req.on('end', () => {
      received.push({ at: Date.now(), method: req.method, path: req.url, headers: req.headers, raw: Buffer.concat(chunks) });
      res.statusCode = answer(received.length);
      res.end('ignored');
    });
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return {
    url: `http://127.0.0.1:${server.address().port}/hook?team=1`,
    received,
    close: () => new Promise((resolve) => server.close(resolve)),
  };
}

async function closedPort() {
  const server = http.createServer();
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const { port } = server.address();
  await new Promise((resolve) => server.close(resolve));
  return port;
}

function verify(delivery, secret, event) {
  assert.equal(delivery.method, 'POST');
  assert.equal(delivery.path, '/hook?team=1');
  assert.equal(delivery.headers['x-murmora-event'], event);
  assert.match(delivery.headers['x-murmora-delivery'], /^\d+$/);
  assert.equal(delivery.headers['content-type'], 'application/json');
  assert.equal(delivery.headers['user-agent'], 'murmora-server');
  const expected = 'sha256=' + createHmac('sha256', Buffer.from(secret, 'utf8')).update(delivery.raw).digest('hex');
  assert.equal(delivery.headers['x-murmora-signature'], expected);
  const body = JSON.parse(delivery.raw.toString('utf8'));
  assert.equal(body.event, event);
  assert.equal(typeof body.text, 'string');
  assert.ok(!body.text.includes('\n'), body.text);
  return body;
}

let server;
let admin;
const secrets = [];
const receivers = [];

async function api(pathname, { method = 'GET', body } = {}) {
  const headers = { Cookie: admin.cookie };
  if (method !== 'GET') headers['X-CSRF-Token'] = admin.csrf;
  if (body !== undefined) headers['Content-Type'] = 'application/json';
  return server.request(`/dashboard/api${pathname}`, { method, headers, body });
}

async function newApp(name) {
  const key = await server.addApp(name);
  const apps = (await api('/apps')).json.apps;
  return { key, id: apps.find((app) => app.name === name).id };
}

async function addWebhook(appId, url) {
  const res = await api(`/apps/${appId}/webhooks`, { method: 'POST', body: { url } });
  assert.equal(res.status, 201, res.text);
  const { webhook } = res.json;
  assert.match(webhook.secret, /^whsec_[0-9a-f]{64}$/);
  assert.equal(webhook.url, url);
  secrets.push(webhook.secret);
  return webhook;
}

async function deliveryLog(appId) {
  const res = await api(`/apps/${appId}/webhooks`);
  assert.equal(res.status, 200, res.text);
  for (const secret of secrets) assert.ok(!res.text.includes(secret), 'the list gives a secret out again');
  return res.json;
}

before(async () => {
  server = await startServer({ webhookRetryMs: RETRY_MS });
  await server.addUser('ada', 'correct horse battery', { admin: true });
  admin = await server.session('ada', 'correct horse battery');
});

after(async () => {
  await Promise.all(receivers.map((receiver) => receiver.close()));
  if (server) {
    const log = server.log;
    await server.stop();
    for (const secret of secrets) assert.ok(!log.includes(secret), 'a secret reached the log');
  }
});

test('a new item, a device comment and a change of state are each delivered once, signed', async () => {
  const demo = await newApp('demo');
  const receiver = await startReceiver();
  receivers.push(receiver);
  const hook = await addWebhook(demo.id, receiver.url);
  const device = { key: demo.key, uid: 'device-1' };

  const long = `The save button does nothing <!channel> & ${'x'.repeat(200)}`;
  await server.feedback(['send', '--text', long, '--author', 'Ada'], device);
  await until(() => receiver.received.length >= 1, { what: 'thread.created' });
  const created = verify(receiver.received[0], hook.secret, 'thread.created');
  const [item] = await server.feedback(['list'], device);
  assert.deepEqual(created.app, { id: demo.id, name: 'demo' });
  assert.equal(created.thread.id, item.key);
  assert.equal(created.thread.uid, 'device-1');
  assert.equal(created.thread.text, long);
  assert.equal(created.thread.author, 'Ada');
  assert.equal(created.thread.state, 'Open');
  assert.match(created.thread.createdAt, ISO_UTC);
  assert.equal(created.comment, undefined);
  // One line for chat tools: who, where, a cut excerpt, and nothing a chat reads as a mention.
  assert.match(created.text, /^New feedback in demo from Ada: "The save button does nothing &lt;!channel&gt; &amp; x+…"$/);
  assert.ok(created.text.length < 200, created.text);

  await server.feedback(['comment', item.key, 'Still broken today'], device);
  await until(() => receiver.received.length >= 2, { what: 'comment.created' });
  const comment = verify(receiver.received[1], hook.secret, 'comment.created');
  assert.equal(comment.thread.id, item.key);
  assert.equal(comment.comment.text, 'Still broken today');
  assert.equal(comment.comment.author, null);
  assert.match(comment.comment.id, /\S/);
  assert.match(comment.comment.createdAt, ISO_UTC);
  assert.match(comment.text, /^Anonymous commented on feedback in demo: "Still broken today"$/);

  // A member's reply sends nothing: deliveries go out in the order they were queued, so the
  // change of state coming next proves no reply went before it.
  const reply = await api(`/threads/${item.key}/comments`, { method: 'POST', body: { text: 'We are on it' } });
  assert.equal(reply.status, 201, reply.text);
  await server.feedback(['edit', item.key, 'Resolved'], device);
  await until(() => receiver.received.length >= 3, { what: 'thread.state' });
  const state = verify(receiver.received[2], hook.secret, 'thread.state');
  assert.equal(state.thread.id, item.key);
  assert.equal(state.thread.state, 'Resolved');
  assert.match(state.text, /^Feedback in demo is now Resolved: "/);

  const ids = receiver.received.map((delivery) => Number(delivery.headers['x-murmora-delivery']));
  assert.equal(new Set(ids).size, 3);
  const { webhooks, deliveries } = await deliveryLog(demo.id);
  assert.deepEqual(webhooks, [{ id: hook.id, url: receiver.url, createdAt: hook.createdAt }]);
  assert.deepEqual(
    deliveries.map((d) => [d.id, d.webhookId, d.url, d.event, d.status, d.attempts, d.responseStatus, d.error, d.nextAttemptAt]),
    [
      [ids[2], hook.id, receiver.url, 'thread.state', 'delivered', 1, 204, null, null],
      [ids[1], hook.id, receiver.url, 'comment.created', 'delivered', 1, 204, null, null],
      [ids[0], hook.id, receiver.url, 'thread.created', 'delivered', 1, 204, null, null],
    ],
  );
  for (const d of deliveries) assert.ok(d.deliveredAt >= d.createdAt, JSON.stringify(d));
  assert.equal(receiver.received.length, 3);

  // Removed, a webhook takes its log with it and gets nothing more.
  const removed = await api(`/webhooks/${hook.id}`, { method: 'DELETE' });
  assert.equal(removed.status, 200, removed.text);
  assert.deepEqual(removed.json, { id: hook.id });
  assert.deepEqual(await deliveryLog(demo.id), { webhooks: [], deliveries: [] });
  assert.equal((await api(`/webhooks/${hook.id}`, { method: 'DELETE' })).status, 404);
});

test('an address that is not http(s) is refused', async () => {
  const { id } = await newApp('refusals');
  for (const url of ['ftp://example.com/hook', 'https://', 'example.com/hook', 'javascript:alert(1)']) {
    const res = await api(`/apps/${id}/webhooks`, { method: 'POST', body: { url } });
    assert.equal(res.status, 400, `${url}: ${res.text}`);
    assert.match(res.json.message, /https:\/\//);
  }
  assert.deepEqual((await deliveryLog(id)).webhooks, []);
});

test('failed deliveries are retried with back-off until they succeed or run out of attempts', async () => {
  const failing = await newApp('failing');
  const recovering = await newApp('recovering');
  const down = await startReceiver(() => 500);
  const flaky = await startReceiver((n) => (n <= 2 ? 503 : 200));
  receivers.push(down, flaky);
  const downHook = await addWebhook(failing.id, down.url);
  const refusedUrl = `http://127.0.0.1:${await closedPort()}/hook?team=1`;
  const refusedHook = await addWebhook(failing.id, refusedUrl);
  const flakyHook = await addWebhook(recovering.id, flaky.url);

  await server.feedback(['send', '--text', 'Crash on start'], { key: failing.key, uid: 'device-2' });
  await server.feedback(['send', '--text', 'Slow list'], { key: recovering.key, uid: 'device-3' });

  await until(async () => (await deliveryLog(recovering.id)).deliveries[0]?.status === 'delivered', {
    what: 'the flaky receiver to get it',
  });
  assert.equal(flaky.received.length, 3);
  assert.equal(new Set(flaky.received.map((d) => d.headers['x-murmora-delivery'])).size, 1);
  for (const delivery of flaky.received) verify(delivery, flakyHook.secret, 'thread.created');
  const [recovered] = (await deliveryLog(recovering.id)).deliveries;
  assert.equal(recovered.attempts, 3);
  assert.equal(recovered.responseStatus, 200);
  assert.equal(recovered.error, null);

  // 200 + 400 + … + 12800 ms of back-off in all.
  const log = await until(
    async () => {
      const { deliveries } = await deliveryLog(failing.id);
      return deliveries.length === 2 && deliveries.every((d) => d.status === 'failed') && deliveries;
    },
    { timeout: 90_000, interval: 250, what: 'both failing deliveries to give up' },
  );
  const byHook = Object.fromEntries(log.map((d) => [d.webhookId, d]));
  assert.equal(byHook[downHook.id].attempts, ATTEMPTS);
  assert.equal(byHook[downHook.id].responseStatus, 500);
  assert.equal(byHook[downHook.id].nextAttemptAt, null);
  assert.equal(byHook[downHook.id].deliveredAt, null);
  assert.equal(byHook[refusedHook.id].attempts, ATTEMPTS);
  assert.equal(byHook[refusedHook.id].responseStatus, null);
  assert.match(byHook[refusedHook.id].error, /\S/);
  assert.equal(byHook[refusedHook.id].url, refusedUrl);

  assert.equal(down.received.length, ATTEMPTS);
  assert.equal(new Set(down.received.map((d) => d.raw.toString('utf8'))).size, 1);
  for (const delivery of down.received) verify(delivery, downHook.secret, 'thread.created');
  // Each wait doubles the one before it.
  for (let n = 1; n < ATTEMPTS; ++n) {
    const gap = down.received[n].at - down.received[n - 1].at;
    assert.ok(gap >= RETRY_MS * 2 ** (n - 1) - 20, `retry ${n} came after ${gap} ms`);
  }
});
