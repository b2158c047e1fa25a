import { api, imageUrl, query } from './api.js';
import { alertRegion, append, h, plural, replaceChildren, shortTime, statusRegion, uniqueId } from './dom.js';

// Kept while the dashboard is open, so coming back from a thread finds the inbox as it was left.
const filters = { state: 'open', app: '', device: '', q: '' };
let flash = '';

export function showInboxMessage(message) {
  flash = message;
}

const STATES = [
  ['open', 'Open'],
  ['resolved', 'Resolved'],
  ['all', 'All'],
];

export function renderInbox(context) {
  const { main } = context;
  context.setTitle('Inbox');
  const errors = alertRegion();
  const summary = statusRegion('summary');
  const list = h('ul', { class: 'thread-list', 'aria-labelledby': 'inbox-title' });
  const more = h('button', { type: 'button', class: 'button load-more', hidden: true, on: { click: loadMore } }, 'Load more');
  let next = null;
  let generation = 0;
  let typingTimer = null;
  let eventTimer = null;

  const stateGroup = h(
    'fieldset',
    { class: 'segmented' },
    h('legend', { class: 'filter-label' }, 'State'),
    h('div', { class: 'segmented-options' },
      STATES.map(([value, label]) => {
        const id = uniqueId('state');
        return h('span', { class: 'segment' },
          h('input', { type: 'radio', name: 'state', id, value, checked: filters.state === value, on: { change: () => setFilter('state', value) } }),
          h('label', { for: id }, label),
        );
      }),
    ),
  );

  const appSelect = h('select', { id: 'filter-app', on: { change: () => setFilter('app', appSelect.value) } }, h('option', { value: '' }, 'All applications'));
  const device = h('input', { id: 'filter-device', type: 'text', value: filters.device, spellcheck: false, autocomplete: 'off', on: { input: () => typed('device', device.value) } });
  const search = h('input', { id: 'filter-search', type: 'search', value: filters.q, enterKeyHint: 'search', on: { input: () => typed('q', search.value) } });

  const form = h(
    'form',
    { class: 'filters', role: 'search', 'aria-label': 'Filter feedback', on: { submit: (event) => { event.preventDefault(); clearTimeout(typingTimer); reload(); } } },
    stateGroup,
    h('div', { class: 'field' }, h('label', { for: 'filter-app', class: 'filter-label' }, 'Application'), appSelect),
    h('div', { class: 'field' }, h('label', { for: 'filter-device', class: 'filter-label' }, 'Device'), device),
    h('div', { class: 'field field-grow' }, h('label', { for: 'filter-search', class: 'filter-label' }, 'Search'), search),
  );

  const notice = flash ? h('p', { role: 'status', class: 'notice' }, flash) : null;
  flash = '';

  append(main, [
    h('div', { class: 'page-head' }, h('h1', { id: 'inbox-title', tabIndex: -1 }, 'Inbox')),
    notice,
    form,
    errors.element,
    summary.element,
    list,
    h('div', { class: 'more-row' }, more),
  ]);

  loadApps();
  reload();

  async function loadApps() {
    try {
      const { apps = [] } = await api('GET', '/apps');
      if (!context.alive()) return;
      const names = [...apps].sort((a, b) => a.name.localeCompare(b.name));
      for (const app of names) appSelect.append(h('option', { value: String(app.id) }, app.name));
      appSelect.value = names.some((app) => String(app.id) === filters.app) ? filters.app : '';
      if (appSelect.value !== filters.app) setFilter('app', '');
    } catch (error) {
      if (context.alive()) errors.show(error.message);
    }
  }

  function setFilter(name, value) {
    if (filters[name] === value) return;
    filters[name] = value;
    reload();
  }

  // Typing settles for a moment before the list follows, so every key does not cost a request.
  function typed(name, value) {
    filters[name] = value.trim();
    clearTimeout(typingTimer);
    typingTimer = setTimeout(reload, 300);
  }

  function parameters(after) {
    return query({ state: filters.state, app: filters.app, device: filters.device, q: filters.q, after });
  }

  async function reload() {
    const mine = ++generation;
    list.setAttribute('aria-busy', 'true');
    try {
      const answer = await api('GET', `/threads${parameters()}`);
      if (!context.alive() || mine !== generation) return;
      errors.clear();
      replaceChildren(list, answer.threads.map(item));
      setNext(answer.next);
      describe(answer.threads.length);
    } catch (error) {
      if (context.alive() && mine === generation) errors.show(error.message);
    } finally {
      if (mine === generation) list.removeAttribute('aria-busy');
    }
  }

  async function loadMore() {
    if (!next) return;
    const mine = generation;
    more.disabled = true;
    try {
      const answer = await api('GET', `/threads${parameters(next)}`);
      if (!context.alive() || mine !== generation) return;
      const first = list.children.length;
      list.append(...answer.threads.map(item));
      setNext(answer.next);
      describe(list.children.length);
      // Keyboard users carry on from the first of the new rows rather than from the button.
      const link = list.children[first]?.querySelector('a');
      if (link) link.focus();
    } catch (error) {
      if (context.alive()) errors.show(error.message);
    } finally {
      more.disabled = false;
    }
  }

  function setNext(cursor) {
    next = cursor ?? null;
    more.hidden = next === null;
  }

  function describe(count) {
    const filtered = filters.app || filters.device || filters.q;
    if (count === 0) {
      const empty = filtered
        ? 'Nothing matches these filters.'
        : { open: 'No open feedback. All caught up.', resolved: 'No resolved feedback yet.', all: 'No feedback yet.' }[filters.state];
      summary.show(empty);
    } else {
      summary.show(next ? `Showing the newest ${count}.` : plural(count, 'item', 'items'));
    }
  }

  return {
    onThreadEvent() {
      // A burst of events (a thread and its comments) costs one reload.
      clearTimeout(eventTimer);
      eventTimer = setTimeout(reload, 150);
    },
    dispose() {
      clearTimeout(typingTimer);
      clearTimeout(eventTimer);
    },
  };
}

function item(thread) {
  const thumbnail = thread.imageId
    ? h('img', { class: 'thumb', src: imageUrl(thread.imageId, { thumb: true }), alt: 'Screenshot', loading: 'lazy', decoding: 'async' })
    : h('span', { class: 'thumb thumb-empty', 'aria-hidden': 'true' });
  const text = thread.text && thread.text.trim() ? h('span', { class: 'thread-text' }, thread.text) : h('span', { class: 'thread-text muted' }, 'No text');
  return h(
    'li',
    { class: ['thread-item', thread.unread && 'is-unread'] },
    h(
      'a',
      { class: 'thread-card', href: `#/threads/${encodeURIComponent(thread.id)}` },
      thumbnail,
      h('span', { class: 'thread-main' },
        thread.unread ? h('span', { class: 'badge badge-unread' }, 'Unread') : null,
        text,
        h('span', { class: 'thread-meta' },
          h('span', { class: 'meta-group' },
            h('span', { class: 'thread-app' }, thread.app?.name ?? ''),
            h('span', { class: 'thread-author' }, thread.author || 'Anonymous'),
          ),
          h('span', { class: 'meta-group meta-when' },
            shortTime(thread.createdAt),
            h('span', { class: 'thread-comments' }, plural(thread.comments ?? 0, 'comment', 'comments')),
          ),
          thread.state && thread.state !== 'Open' ? h('span', { class: ['badge', 'badge-state', thread.state === 'Resolved' && 'is-resolved'] }, thread.state) : null,
        ),
      ),
    ),
  );
}
