import { api } from './api.js';
import { alertRegion, h } from './dom.js';

export function renderLogin(main, { notice, onSignedIn }) {
  const name = h('input', { id: 'login-name', name: 'name', type: 'text', autocomplete: 'username', required: true, spellcheck: false });
  const password = h('input', { id: 'login-password', name: 'password', type: 'password', autocomplete: 'current-password', required: true });
  const button = h('button', { type: 'submit', class: 'button button-primary button-wide' }, 'Log in');
  const errors = alertRegion();

  const form = h(
    'form',
    { class: 'stack', 'aria-labelledby': 'login-title', on: { submit } },
    h('div', { class: 'field' }, h('label', { for: 'login-name' }, 'Name'), name),
    h('div', { class: 'field' }, h('label', { for: 'login-password' }, 'Password'), password),
    errors.element,
    button,
  );

  main.append(
    h('div', { class: 'card login-card' },
      h('p', { class: 'brand brand-large' }, h('span', { class: 'brand-mark', 'aria-hidden': 'true' }), 'Murmora'),
      h('h1', { id: 'login-title' }, 'Log in to the dashboard'),
      h('p', { class: 'muted' }, 'Read and answer the feedback your apps receive.'),
      notice ? h('p', { role: 'status', class: 'notice' }, notice) : null,
      form,
    ),
  );
  name.focus();

  async function submit(event) {
    event.preventDefault();
    if (!name.value.trim() || !password.value) {
      errors.show('Enter your name and password.');
      (name.value.trim() ? password : name).focus();
      return;
    }
    button.disabled = true;
    errors.clear();
    try {
      const session = await api('POST', '/session', { name: name.value.trim(), password: password.value }, { quiet: true });
      onSignedIn(session);
    } catch (error) {
      errors.show(error.message);
      password.value = '';
      password.focus();
      button.disabled = false;
    }
  }
}
