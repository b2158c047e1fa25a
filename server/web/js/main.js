import { api, eventsUrl, onUnauthorized, setCsrf } from './api.js';
import { h, replaceChildren } from './dom.js';
import { renderLogin } from './login.js';
import { renderInbox } from './inbox.js';
import { renderThread } from './thread.js';
import { renderApps, renderApp } from './apps.js';

const root = document.getElementById('app');
let member = null;
let events = null;
let reconnectTimer = null;
let page = null; // what the current page exposes: onThreadEvent, dispose
let pageToken = 0;
let firstRoute = true;

const routes = [
  { pattern: /^\/?$/, nav: 'inbox', render: (context) => renderInbox(context) },
  { pattern: /^\/threads\/([^/]+)$/, nav: 'inbox', render: (context, id) => renderThread(context, decodeURIComponent(id)) },
  { pattern: /^\/apps$/, nav: 'apps', render: (context) => renderApps(context) },
  { pattern: /^\/apps\/(\d+)$/, nav: 'apps', render: (context, id) => renderApp(context, Number(id)) },
];

function currentPath() {
  return location.hash.replace(/^#/, '') || '/';
}

export function navigate(path) {
  if (currentPath() === path) route();
  else location.hash = `#${path}`;
}

function showLogin(notice) {
  closeEvents();
  disposePage();
  member = null;
  setCsrf(null);
  const main = h('main', { id: 'main', class: 'login-page', tabIndex: -1 });
  replaceChildren(root, main);
  renderLogin(main, { notice, onSignedIn: signedIn });
  document.title = 'Log in – Murmora';
}

function signedIn(session) {
  member = session.member;
  setCsrf(session.csrf);
  openEvents();
  firstRoute = true;
  route();
}

function shell(activeNav) {
  const link = (href, label, key) =>
    h('a', { href, class: 'nav-link', 'aria-current': activeNav === key ? 'page' : null }, label);
  const logout = h('button', { type: 'button', class: 'button button-quiet', on: { click: logOut } }, 'Log out');
  const header = h(
    'header',
    { class: 'topbar' },
    h('div', { class: 'topbar-inner' },
      h('a', { href: '#/', class: 'brand' }, h('span', { class: 'brand-mark', 'aria-hidden': 'true' }), 'Murmora'),
      h('nav', { class: 'nav', 'aria-label': 'Main' }, link('#/', 'Inbox', 'inbox'), member.admin ? link('#/apps', 'Applications', 'apps') : null),
      h('div', { class: 'who' }, h('span', { class: 'who-name', title: 'Logged in as' }, member.name), logout),
    ),
  );
  const main = h('main', { id: 'main', class: 'page', tabIndex: -1 });
  replaceChildren(root, header, main);
  return main;
}

function disposePage() {
  pageToken += 1;
  if (page && page.dispose) page.dispose();
  page = null;
}

function route() {
  if (!member) return;
  disposePage();
  const path = currentPath();
  let match = null;
  let chosen = null;
  for (const each of routes) {
    match = path.match(each.pattern);
    if (match) {
      chosen = each;
      break;
    }
  }
  const main = shell(chosen ? chosen.nav : null);
  const token = pageToken;
  const context = {
    main,
    member,
    navigate,
    alive: () => token === pageToken,
    setTitle: (title) => {
      document.title = `${title} – Murmora`;
    },
  };
  if (!chosen) {
    context.setTitle('Not found');
    main.append(h('h1', { tabIndex: -1 }, 'Nothing here'), h('p', null, 'This address is not a page of the dashboard. ', h('a', { href: '#/' }, 'Go to the inbox'), '.'));
  } else {
    page = chosen.render(context, ...match.slice(1)) ?? null;
  }
  // After a change of page, reading starts at its heading, as after a full page load.
  if (!firstRoute) {
    const heading = main.querySelector('h1');
    (heading ?? main).focus({ preventScroll: true });
    window.scrollTo(0, 0);
  }
  firstRoute = false;
}

async function logOut() {
  try {
    await api('DELETE', '/session', undefined, { quiet: true });
  } catch {
    // Leave all the same: an unreachable server's session runs out by itself.
  }
  showLogin('You are logged out.');
}

function closeEvents() {
  clearTimeout(reconnectTimer);
  if (events) events.close();
  events = null;
}

function openEvents() {
  closeEvents();
  const source = new EventSource(eventsUrl());
  events = source;
  source.addEventListener('thread', (event) => {
    let data;
    try {
      data = JSON.parse(event.data);
    } catch {
      return;
    }
    if (page && page.onThreadEvent) page.onThreadEvent(data);
  });
  source.addEventListener('error', () => {
    if (source.readyState !== EventSource.CLOSED || events !== source) return;
    // The browser gives up on an answer other than a stream (a 401, say): ask why, then come back.
    reconnectTimer = setTimeout(async () => {
      try {
        await api('GET', '/session');
        if (events === source) openEvents();
      } catch {
        // A 401 has shown the login form; anything else retries later.
        if (events === source) reconnectTimer = setTimeout(openEvents, 10_000);
      }
    }, 3000);
  });
}

onUnauthorized(() => {
  if (member) showLogin('Your session has ended. Please log in again.');
});

window.addEventListener('hashchange', route);

async function boot() {
  try {
    signedIn(await api('GET', '/session', undefined, { quiet: true }));
  } catch (error) {
    if (error.status === 401) {
      showLogin();
    } else {
      const main = h('main', { id: 'main', class: 'login-page' });
      replaceChildren(root, main);
      main.append(h('div', { class: 'card login-card' }, h('h1', null, 'Murmora'), h('div', { role: 'alert', class: 'alert has-message' }, h('p', null, error.message)), h('button', { type: 'button', class: 'button button-primary', on: { click: boot } }, 'Try again')));
    }
  }
}

boot();
