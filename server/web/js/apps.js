import { api } from './api.js';
import { alertRegion, confirmDialog, copyText, formatDay, h, plural, replaceChildren, statusRegion, time, uniqueId } from './dom.js';

// A secret shown once, with a button that copies it.
function secretBox(label, value, copyLabel) {
  const status = statusRegion();
  const code = h('code', { class: 'secret' }, value);
  return h('div', { class: 'secret-box' },
    h('p', { class: 'secret-label' }, label),
    h('div', { class: 'secret-row' }, code, h('button', { type: 'button', class: 'button', on: { click: () => copyText(value, code, status) } }, copyLabel)),
    status.element,
  );
}

function adminOnly(context) {
  if (context.member.admin) return false;
  context.main.append(h('h1', { tabIndex: -1 }, 'Applications'), h('p', null, 'Only administrators can manage applications.'));
  return true;
}

export function renderApps(context) {
  const { main } = context;
  context.setTitle('Applications');
  if (adminOnly(context)) return null;
  const errors = alertRegion();
  const list = h('ul', { class: 'app-list', 'aria-labelledby': 'apps-title' });
  const summary = statusRegion('summary');

  const nameInput = h('input', { id: 'app-name', type: 'text', required: true, autocomplete: 'off', maxLength: 200 });
  const createButton = h('button', { type: 'submit', class: 'button button-primary' }, 'Create application');
  const createErrors = alertRegion();
  const created = h('div', { class: 'created' });
  const form = h(
    'form',
    { class: 'stack', on: { submit: create } },
    h('div', { class: 'row row-end' }, h('div', { class: 'field field-grow' }, h('label', { for: 'app-name' }, 'Application name'), nameInput), createButton),
    createErrors.element,
    created,
  );

  main.append(
    h('div', { class: 'page-head' }, h('h1', { id: 'apps-title', tabIndex: -1 }, 'Applications')),
    errors.element,
    summary.element,
    list,
    h('section', { class: 'card', 'aria-labelledby': 'new-app-title' },
      h('h2', { id: 'new-app-title' }, 'New application'),
      h('p', { class: 'muted' }, 'Each application gets its own key. Apps ship it to send feedback here.'),
      form,
    ),
  );
  load();

  async function load() {
    try {
      const { apps = [] } = await api('GET', '/apps');
      if (!context.alive()) return;
      const sorted = [...apps].sort((a, b) => a.name.localeCompare(b.name));
      replaceChildren(list, sorted.map((app) =>
        h('li', { class: 'app-card' },
          h('a', { class: 'app-name', href: `#/apps/${app.id}` }, app.name),
          h('span', { class: 'muted' }, `Created ${formatDay(app.createdAt)}`),
          Array.isArray(app.members) ? h('span', { class: 'muted' }, plural(app.members.length, 'member', 'members')) : null,
        ),
      ));
      summary.show(sorted.length ? '' : 'No applications yet. Create the first one below.');
    } catch (error) {
      if (context.alive()) errors.show(error.message);
    }
  }

  async function create(event) {
    event.preventDefault();
    const name = nameInput.value.trim();
    if (!name) {
      createErrors.show('Give the application a name.');
      nameInput.focus();
      return;
    }
    createButton.disabled = true;
    createErrors.clear();
    try {
      const { app } = await api('POST', '/apps', { name });
      if (!context.alive()) return;
      nameInput.value = '';
      replaceChildren(created, h('div', { class: 'notice', role: 'status' }, 'Created ', h('a', { href: `#/apps/${app.id}` }, app.name), '.'), secretBox('Its application key:', app.key, 'Copy key'));
      load();
    } catch (error) {
      if (context.alive()) createErrors.show(error.message);
    } finally {
      createButton.disabled = false;
    }
  }

  return null;
}

export function renderApp(context, id) {
  const { main } = context;
  context.setTitle('Application');
  if (adminOnly(context)) return null;
  const heading = h('h1', { tabIndex: -1 }, 'Application');
  const errors = alertRegion();
  const body = h('div', { class: 'stack-large', 'aria-busy': 'true' }, h('p', { class: 'muted' }, 'Loading…'));
  main.append(
    h('p', { class: 'back' }, h('a', { href: '#/apps' }, h('span', { 'aria-hidden': 'true' }, '← '), 'Applications')),
    heading,
    errors.element,
    body,
  );

  let deliveriesTimer = null;
  let view = null;
  load();

  async function load() {
    try {
      const [{ apps = [] }, { members = [] }, hooks] = await Promise.all([
        api('GET', '/apps'),
        api('GET', '/members'),
        api('GET', `/apps/${id}/webhooks`),
      ]);
      if (!context.alive()) return;
      const app = apps.find((each) => each.id === id);
      body.removeAttribute('aria-busy');
      if (!app) {
        heading.textContent = 'Application not found';
        replaceChildren(body, h('p', null, 'There is no such application. ', h('a', { href: '#/apps' }, 'See all applications'), '.'));
        return;
      }
      heading.textContent = app.name;
      context.setTitle(app.name);
      view = appView(context, app, members, hooks, { errors, schedule });
      replaceChildren(body, view.element);
    } catch (error) {
      if (!context.alive()) return;
      body.removeAttribute('aria-busy');
      replaceChildren(body);
      errors.show(error.message);
    }
  }

  // While a delivery waits for a retry the log follows it without a reload.
  function schedule(pending) {
    clearTimeout(deliveriesTimer);
    if (pending && context.alive()) deliveriesTimer = setTimeout(() => view && view.refreshDeliveries(), 2000);
  }

  return {
    onThreadEvent(event) {
      if (view && event.app === id) schedule(true);
    },
    dispose() {
      clearTimeout(deliveriesTimer);
    },
  };
}

function appView(context, initialApp, members, hooks, { errors, schedule }) {
  let app = initialApp;

  // Key
  const keyStatus = statusRegion();
  const keyCode = h('code', { class: 'secret' }, app.key ?? '');
  const rotateButton = h('button', { type: 'button', class: 'button button-danger-quiet', on: { click: rotate } }, 'Rotate key');
  const keySection = h('section', { class: 'card', 'aria-labelledby': 'key-title' },
    h('h2', { id: 'key-title' }, 'Application key'),
    h('p', { class: 'muted' }, 'Apps ship this key. It lets a device send feedback and read its own, nothing more.'),
    h('div', { class: 'secret-row' }, keyCode, h('button', { type: 'button', class: 'button', on: { click: () => copyText(app.key, keyCode, keyStatus) } }, 'Copy key'), rotateButton),
    keyStatus.element,
  );

  async function rotate() {
    const sure = await confirmDialog({
      title: 'Rotate the key?',
      message: `The current key of ${app.name} stops working at once: apps that ship it can no longer send feedback.`,
      confirm: 'Rotate key',
    });
    if (!sure) {
      rotateButton.focus();
      return;
    }
    rotateButton.disabled = true;
    errors.clear();
    try {
      const answer = await api('POST', `/apps/${app.id}/rotate`);
      app = answer.app;
      keyCode.textContent = app.key;
      keyStatus.show('The key was rotated. Ship the new key with your apps.');
    } catch (error) {
      errors.show(error.message);
    } finally {
      rotateButton.disabled = false;
      rotateButton.focus();
    }
  }

  // Members
  const memberStatus = statusRegion();
  const memberErrors = alertRegion();
  const chosen = new Set(app.members ?? []);
  const boxes = members.map((member) => {
    const boxId = uniqueId('member');
    const box = h('input', { type: 'checkbox', id: boxId, value: String(member.id), checked: chosen.has(member.id) || member.admin, disabled: member.admin });
    return { member, box, row: h('div', { class: 'check' }, box, h('label', { for: boxId }, member.name, member.admin ? h('span', { class: 'muted' }, ' (administrator, sees every application)') : null)) };
  });
  const saveButton = h('button', { type: 'submit', class: 'button button-primary' }, 'Save members');
  const membersSection = h('section', { class: 'card', 'aria-labelledby': 'members-title' },
    h('h2', { id: 'members-title' }, 'Members'),
    h('form', { class: 'stack', on: { submit: saveMembers } },
      h('fieldset', { class: 'checks' }, h('legend', null, 'Who reads this application’s feedback'), boxes.length ? boxes.map((each) => each.row) : h('p', { class: 'muted' }, 'No members yet. Add them with murmora-server users add.')),
      memberErrors.element,
      h('div', { class: 'row' }, saveButton, memberStatus.element),
    ),
  );

  async function saveMembers(event) {
    event.preventDefault();
    saveButton.disabled = true;
    memberErrors.clear();
    memberStatus.show('');
    try {
      const picked = boxes.filter(({ member, box }) => box.checked && !member.admin).map(({ member }) => member.id);
      const answer = await api('PUT', `/apps/${app.id}/members`, { members: picked });
      app = answer.app ?? app;
      memberStatus.show('Members saved.');
    } catch (error) {
      memberErrors.show(error.message);
    } finally {
      saveButton.disabled = false;
    }
  }

  // Webhooks
  const hookList = h('ul', { class: 'hook-list', 'aria-labelledby': 'webhooks-title' });
  const hookErrors = alertRegion();
  const hookStatus = statusRegion();
  const urlInput = h('input', { id: 'webhook-url', type: 'url', required: true, placeholder: 'https://hooks.example.com/…', autocomplete: 'off', spellcheck: false });
  const addButton = h('button', { type: 'submit', class: 'button button-primary' }, 'Add webhook');
  const secretSlot = h('div');
  const deliveries = h('tbody');
  const noDeliveries = h('p', { class: 'muted' }, 'Nothing sent yet.');
  // Scrolls sideways on a phone, so it takes focus for people who scroll with the keyboard.
  const tableBox = h('div', { class: 'table-scroll', tabIndex: 0, role: 'region', 'aria-labelledby': 'deliveries-title' },
    h('table', { class: 'deliveries' },
      h('thead', null, h('tr', null, ['Event', 'Status', 'Attempts', 'HTTP status', 'Error', 'Time'].map((label) => h('th', { scope: 'col' }, label)))),
      deliveries,
    ),
  );
  const refreshButton = h('button', { type: 'button', class: 'button button-quiet', on: { click: () => refreshDeliveries() } }, 'Refresh');

  function renderHooks(list) {
    replaceChildren(hookList, list.length ? list.map(hookRow) : h('li', { class: 'muted' }, 'No webhooks. Add one to hear of new feedback, comments and changes of state.'));
  }

  function hookRow(hook) {
    const urlId = uniqueId('hook-url');
    const removeButton = h('button', { type: 'button', class: 'button button-danger-quiet', 'aria-describedby': urlId, on: { click: () => removeHook(hook, removeButton) } }, 'Remove');
    return h('li', { class: 'hook' },
      h('span', { class: 'hook-main' }, h('span', { class: 'mono hook-url', id: urlId }, hook.url), h('span', { class: 'muted' }, 'Added ', time(hook.createdAt))),
      removeButton,
    );
  }

  function renderDeliveries(list) {
    tableBox.hidden = list.length === 0;
    noDeliveries.hidden = list.length > 0;
    replaceChildren(
      deliveries,
      list.map((delivery) =>
        h('tr', null,
          h('td', null, delivery.event),
          h('td', null, h('span', { class: ['badge', `delivery-${delivery.status}`] }, delivery.status)),
          h('td', { class: 'numeric' }, String(delivery.attempts ?? 0)),
          h('td', { class: 'numeric' }, delivery.responseStatus === null || delivery.responseStatus === undefined ? '—' : String(delivery.responseStatus)),
          h('td', { class: 'delivery-error' }, delivery.error ?? '—'),
          h('td', null, time(delivery.deliveredAt ?? delivery.createdAt)),
        ),
      ),
    );
    schedule(list.some((delivery) => delivery.status === 'pending'));
  }

  async function refreshDeliveries() {
    try {
      const answer = await api('GET', `/apps/${app.id}/webhooks`);
      if (!context.alive()) return;
      renderHooks(answer.webhooks ?? []);
      renderDeliveries(answer.deliveries ?? []);
    } catch (error) {
      if (context.alive()) hookErrors.show(error.message);
    }
  }

  async function addHook(event) {
    event.preventDefault();
    const url = urlInput.value.trim();
    if (!url) {
      hookErrors.show('Enter the address the service should post to.');
      urlInput.focus();
      return;
    }
    addButton.disabled = true;
    hookErrors.clear();
    try {
      const { webhook } = await api('POST', `/apps/${app.id}/webhooks`, { url });
      urlInput.value = '';
      replaceChildren(secretSlot, secretBox('Its signing secret, shown only now. Check X-Murmora-Signature with it:', webhook.secret, 'Copy secret'));
      await refreshDeliveries();
    } catch (error) {
      hookErrors.show(error.message);
    } finally {
      addButton.disabled = false;
    }
  }

  async function removeHook(hook, button) {
    button.disabled = true;
    hookErrors.clear();
    try {
      await api('DELETE', `/webhooks/${hook.id}`);
      hookStatus.show('The webhook was removed.');
      await refreshDeliveries();
      urlInput.focus();
    } catch (error) {
      hookErrors.show(error.message);
      button.disabled = false;
    }
  }

  const webhooksSection = h('section', { class: 'card', 'aria-labelledby': 'webhooks-title' },
    h('h2', { id: 'webhooks-title' }, 'Webhooks'),
    hookList,
    hookStatus.element,
    h('form', { class: 'stack', on: { submit: addHook } },
      h('div', { class: 'row row-end' }, h('div', { class: 'field field-grow' }, h('label', { for: 'webhook-url' }, 'Webhook URL'), urlInput), addButton),
      hookErrors.element,
      secretSlot,
    ),
    h('div', { class: 'section-head' }, h('h3', { id: 'deliveries-title' }, 'Deliveries'), refreshButton),
    noDeliveries,
    tableBox,
  );

  renderHooks(hooks.webhooks ?? []);
  renderDeliveries(hooks.deliveries ?? []);

  return {
    element: h('div', { class: 'stack-large' }, keySection, membersSection, webhooksSection),
    refreshDeliveries,
  };
}
