import { api, imageUrl } from './api.js';
import { alertRegion, confirmDialog, h, replaceChildren, statusRegion, time } from './dom.js';
import { showInboxMessage } from './inbox.js';

const DEVICE_FIELDS = [
  ['Model', 'Model'],
  ['OSVersion', 'OS version'],
  ['AppId', 'App'],
  ['AppVersion', 'Version'],
];

export function renderThread(context, id) {
  const { main } = context;
  context.setTitle('Feedback');
  const path = `/threads/${encodeURIComponent(id)}`;
  const errors = alertRegion();
  const heading = h('h1', { tabIndex: -1 }, 'Feedback');
  const body = h('div', { class: 'thread-page', 'aria-busy': 'true' }, h('p', { class: 'muted' }, 'Loading…'));
  main.append(
    h('p', { class: 'back' }, h('a', { href: '#/' }, h('span', { 'aria-hidden': 'true' }, '← '), 'Inbox')),
    heading,
    errors.element,
    body,
  );

  let view = null;
  load();

  async function load() {
    try {
      const answer = await api('GET', path);
      if (!context.alive()) return;
      view = build(context, answer, { heading, errors, path });
      replaceChildren(body, view.element);
      body.removeAttribute('aria-busy');
    } catch (error) {
      if (!context.alive()) return;
      body.removeAttribute('aria-busy');
      if (error.status === 404) {
        heading.textContent = 'Feedback not found';
        context.setTitle('Feedback not found');
        replaceChildren(body, h('p', null, error.message, ' ', h('a', { href: '#/' }, 'Back to the inbox'), '.'));
      } else {
        replaceChildren(body);
        errors.show(error.message);
      }
    }
  }

  async function refresh() {
    try {
      const answer = await api('GET', path);
      if (context.alive() && view) view.update(answer);
    } catch (error) {
      if (context.alive() && error.status !== 404) errors.show(error.message);
    }
  }

  return {
    onThreadEvent(event) {
      if (event.thread !== id || !view) return;
      if (event.kind === 'deleted') view.gone();
      else refresh();
    },
    dispose() {
      if (view) view.dispose();
    },
  };
}

function build(context, answer, { heading, errors, path }) {
  let thread = answer.thread;
  let deleting = false;
  const status = statusRegion();

  const author = () => thread.author || 'Anonymous';
  const setHeading = () => {
    heading.textContent = `Feedback from ${author()}`;
    context.setTitle(`Feedback from ${author()}`);
  };
  setHeading();

  // Facts and state
  const stateBadge = h('span', { class: 'badge badge-state' });
  const facts = h('dl', { class: 'facts' });
  const stateButton = h('button', { type: 'button', class: 'button', on: { click: toggleState } });
  const deleteButton = h('button', { type: 'button', class: 'button button-danger-quiet', on: { click: remove } }, 'Delete');

  function renderFacts() {
    stateBadge.textContent = thread.state || 'Open';
    stateBadge.classList.toggle('is-resolved', thread.state === 'Resolved');
    stateButton.textContent = thread.state === 'Resolved' ? 'Reopen' : 'Resolve';
    replaceChildren(
      facts,
      fact('State', stateBadge),
      fact('Application', thread.app?.name ?? '—'),
      fact('Author', author()),
      fact('Device ID', h('span', { class: 'mono' }, thread.uid ?? '—')),
      fact('Created', time(thread.createdAt)),
      fact('Modified', time(thread.modifiedAt)),
    );
  }

  // Screenshot with zoom
  const screenshot = thread.imageId ? viewer(thread.imageId) : null;

  // Comments and reply
  const commentsTitle = h('h2', { id: 'comments-title' });
  const comments = h('ol', { class: 'comments', 'aria-labelledby': 'comments-title' });
  const replyErrors = alertRegion();
  const reply = h('textarea', { id: 'reply-text', name: 'reply', rows: 3, required: true });
  const send = h('button', { type: 'submit', class: 'button button-primary' }, 'Send reply');
  const replyForm = h(
    'form',
    { class: 'reply stack', on: { submit: sendReply } },
    h('div', { class: 'field' }, h('label', { for: 'reply-text' }, 'Reply'), reply),
    replyErrors.element,
    h('div', { class: 'row' }, send, h('span', { class: 'muted hint' }, 'The person who sent this sees your reply in the app.')),
  );

  function renderComments(list) {
    commentsTitle.textContent = list.length ? `Comments (${list.length})` : 'Comments';
    replaceChildren(comments, list.length ? list.map(comment) : h('li', { class: 'comment comment-empty muted' }, 'No comments yet.'));
  }

  const text = thread.text && thread.text.trim() ? thread.text : null;
  const element = h(
    'div',
    { class: ['thread-layout', !screenshot && 'no-screenshot'] },
    screenshot ? screenshot.element : null,
    h(
      'div',
      { class: 'thread-detail' },
      h('section', { class: 'card', 'aria-label': 'Feedback' },
        text ? h('p', { class: 'thread-body' }, text) : h('p', { class: 'thread-body muted' }, 'No text was sent.'),
        facts,
        h('div', { class: 'row actions' }, stateButton, deleteButton),
        status.element,
      ),
      screenshot ? null : h('p', { class: 'card muted' }, 'No screenshot was sent with this feedback.'),
      deviceSection(thread.systemInfo),
      parametersSection(thread.parameters),
      h('section', { class: 'card', 'aria-labelledby': 'comments-title' }, commentsTitle, comments, replyForm),
    ),
  );
  renderFacts();
  renderComments(answer.comments ?? []);

  async function toggleState() {
    const wanted = thread.state === 'Resolved' ? 'Open' : 'Resolved';
    stateButton.disabled = true;
    errors.clear();
    try {
      const result = await api('PUT', `${path}/state`, { state: wanted });
      thread = { ...thread, ...(result.thread ?? { state: wanted }) };
      renderFacts();
      status.show(wanted === 'Resolved' ? 'Marked as resolved.' : 'Reopened.');
    } catch (error) {
      errors.show(error.message);
    } finally {
      stateButton.disabled = false;
    }
  }

  async function remove() {
    const sure = await confirmDialog({
      title: 'Delete this feedback?',
      message: 'Its screenshot and comments are deleted with it, also from the app that sent it. This cannot be undone.',
      confirm: 'Delete',
    });
    if (!sure) {
      deleteButton.focus();
      return;
    }
    deleting = true;
    try {
      await api('DELETE', path);
      showInboxMessage('The feedback was deleted.');
      context.navigate('/');
    } catch (error) {
      deleting = false;
      errors.show(error.message);
      deleteButton.focus();
    }
  }

  async function sendReply(event) {
    event.preventDefault();
    const words = reply.value.trim();
    if (!words) {
      replyErrors.show('Write a reply first.');
      reply.focus();
      return;
    }
    send.disabled = true;
    replyErrors.clear();
    try {
      await api('POST', `${path}/comments`, { text: words });
      reply.value = '';
      const answer = await api('GET', path);
      if (!context.alive()) return;
      update(answer);
      status.show('Reply sent.');
    } catch (error) {
      if (context.alive()) replyErrors.show(error.message);
    } finally {
      send.disabled = false;
    }
  }

  function update(next) {
    thread = next.thread;
    setHeading();
    renderFacts();
    renderComments(next.comments ?? []);
  }

  return {
    element,
    update,
    gone() {
      if (deleting) return;
      errors.show('This feedback was deleted.');
      for (const control of element.querySelectorAll('button, textarea')) control.disabled = true;
    },
    dispose() {
      if (screenshot) screenshot.dispose();
    },
  };
}

function fact(term, value) {
  return [h('dt', null, term), h('dd', null, value)];
}

function isPresent(value) {
  return value !== undefined && value !== null && value !== '';
}

function deviceSection(info) {
  const rows = [];
  if (info && typeof info === 'object') {
    for (const [key, label] of DEVICE_FIELDS) {
      if (isPresent(info[key])) rows.push(fact(label, display(info[key])));
    }
    const width = Number(info.WidthInPixels);
    const height = Number(info.HeightInPixels);
    if (width > 0 && height > 0) rows.push(fact('Screen size', `${width} × ${height} px`));
  }
  return h('section', { class: 'card', 'aria-labelledby': 'device-title' },
    h('h2', { id: 'device-title' }, 'Device'),
    rows.length ? h('dl', { class: 'facts' }, rows) : h('p', { class: 'muted' }, 'The app sent no details about the device.'),
  );
}

function parametersSection(parameters) {
  if (!parameters || typeof parameters !== 'object' || Object.keys(parameters).length === 0) return null;
  return h('section', { class: 'card', 'aria-labelledby': 'parameters-title' },
    h('h2', { id: 'parameters-title' }, 'Parameters'),
    h('dl', { class: 'facts parameters' },
      Object.entries(parameters).map(([name, value]) => [h('dt', { class: 'mono' }, name), h('dd', { class: typeof value === 'string' ? null : 'mono' }, display(value))]),
    ),
  );
}

function display(value) {
  return typeof value === 'string' ? value : JSON.stringify(value);
}

function comment(item) {
  return h(
    'li',
    { class: ['comment', item.team && 'is-team'] },
    h('p', { class: 'comment-head' },
      h('span', { class: 'comment-author' }, item.author || 'Anonymous'),
      item.team ? h('span', { class: 'badge badge-team' }, 'Team') : null,
      time(item.createdAt),
    ),
    h('p', { class: 'comment-text' }, item.text ?? ''),
  );
}

const ZOOM_STEP = 1.25;
const ZOOM_MIN = 0.1;
const ZOOM_MAX = 8;

function viewer(imageId) {
  let scale = null; // null: fit the panel
  const image = h('img', { class: 'shot is-fit', src: imageUrl(imageId), alt: 'Screenshot sent with the feedback', decoding: 'async' });
  const level = h('output', { class: 'zoom-level', 'aria-live': 'polite' });
  const zoomOut = h('button', { type: 'button', class: 'button button-icon', 'aria-label': 'Zoom out', title: 'Zoom out', on: { click: () => zoom(1 / ZOOM_STEP) } }, h('span', { 'aria-hidden': 'true' }, '−'));
  const zoomIn = h('button', { type: 'button', class: 'button button-icon', 'aria-label': 'Zoom in', title: 'Zoom in', on: { click: () => zoom(ZOOM_STEP) } }, h('span', { 'aria-hidden': 'true' }, '+'));
  const fit = h('button', { type: 'button', class: 'button', 'aria-pressed': 'true', on: { click: () => setScale(null) } }, 'Fit');
  const viewport = h('div', { class: 'shot-viewport', tabIndex: 0, role: 'region', 'aria-label': 'Zoomable screenshot' }, image);

  function rendered() {
    return image.naturalWidth ? image.getBoundingClientRect().width / image.naturalWidth : 1;
  }

  function zoom(factor) {
    const from = scale ?? rendered();
    setScale(Math.min(ZOOM_MAX, Math.max(ZOOM_MIN, from * factor)));
  }

  function setScale(next) {
    scale = next;
    image.classList.toggle('is-fit', scale === null);
    // Sizes are set through the CSSOM: the policy forbids style attributes in markup, not this.
    image.style.width = scale === null ? '' : `${Math.round(image.naturalWidth * scale)}px`;
    image.style.maxWidth = scale === null ? '' : 'none';
    fit.setAttribute('aria-pressed', String(scale === null));
    showLevel();
  }

  function showLevel() {
    const current = scale ?? rendered();
    level.textContent = `${Math.round(current * 100)}%`;
    zoomIn.disabled = current >= ZOOM_MAX - 1e-9;
    zoomOut.disabled = current <= ZOOM_MIN + 1e-9;
  }

  image.addEventListener('load', showLevel);
  image.addEventListener('error', () => {
    viewport.replaceChildren(h('p', { class: 'muted shot-missing' }, 'The screenshot could not be loaded.'));
  });
  const resized = () => {
    if (scale === null) showLevel();
  };
  window.addEventListener('resize', resized);

  const element = h(
    'section',
    { class: 'card shot-panel', 'aria-labelledby': 'shot-title' },
    h('div', { class: 'shot-head' },
      h('h2', { id: 'shot-title' }, 'Screenshot'),
      h('div', { class: 'zoom', role: 'group', 'aria-label': 'Zoom' }, zoomOut, level, zoomIn, fit),
    ),
    viewport,
  );
  return {
    element,
    dispose() {
      window.removeEventListener('resize', resized);
    },
  };
}
