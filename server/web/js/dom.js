// The only way the dashboard builds markup. Whatever people wrote arrives as a child and becomes a
// text node; there is no path from data to HTML parsing.

const PROPERTIES = new Set([
  'alt', 'autocomplete', 'autofocus', 'checked', 'className', 'colSpan', 'scope', 'dateTime', 'disabled', 'hidden', 'href',
  'htmlFor', 'id', 'inputMode', 'loading', 'maxLength', 'name', 'placeholder', 'required', 'rows',
  'selected', 'spellcheck', 'src', 'tabIndex', 'title', 'type', 'value', 'decoding', 'enterKeyHint',
]);

export function h(tag, attributes, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (value === null || value === undefined || value === false) continue;
    if (name === 'class') {
      element.className = Array.isArray(value) ? value.filter(Boolean).join(' ') : value;
    } else if (name === 'on') {
      for (const [type, listener] of Object.entries(value)) element.addEventListener(type, listener);
    } else if (name === 'role' || name === 'for' || name.startsWith('aria-') || name.startsWith('data-')) {
      element.setAttribute(name, value === true ? 'true' : String(value));
    } else if (PROPERTIES.has(name)) {
      element[name] = value;
    } else {
      throw new Error(`h(): ${name} is not an attribute the dashboard sets`);
    }
  }
  append(element, children);
  return element;
}

export function append(element, children) {
  for (const child of children.flat(Infinity)) {
    if (child === null || child === undefined || child === false) continue;
    element.appendChild(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return element;
}

export function replaceChildren(element, ...children) {
  element.replaceChildren();
  return append(element, children);
}

let lastId = 0;
export function uniqueId(prefix) {
  lastId += 1;
  return `${prefix}-${lastId}`;
}

const dateFormat = new Intl.DateTimeFormat(undefined, { dateStyle: 'medium', timeStyle: 'short' });

// A <time> in the reader's locale and zone, with the exact instant for machines.
export function time(ms) {
  if (typeof ms !== 'number' || !Number.isFinite(ms)) return h('span', { class: 'muted' }, '—');
  const date = new Date(ms);
  return h('time', { dateTime: date.toISOString() }, dateFormat.format(date));
}

const thisYearFormat = new Intl.DateTimeFormat(undefined, { month: 'short', day: 'numeric', hour: 'numeric', minute: '2-digit' });

// A shorter <time> for lists: the year only when it is not this one.
export function shortTime(ms) {
  if (typeof ms !== 'number' || !Number.isFinite(ms)) return h('span', { class: 'muted' }, '—');
  const date = new Date(ms);
  const format = date.getFullYear() === new Date().getFullYear() ? thisYearFormat : dateFormat;
  return h('time', { dateTime: date.toISOString(), title: dateFormat.format(date) }, format.format(date));
}

const dayFormat = new Intl.DateTimeFormat(undefined, { dateStyle: 'medium' });

export function formatDay(ms) {
  return typeof ms === 'number' && Number.isFinite(ms) ? dayFormat.format(new Date(ms)) : '—';
}

export function plural(count, one, many) {
  return `${count} ${count === 1 ? one : many}`;
}

// A region for errors: role=alert is in the page before anything is put in it, so it is announced.
export function alertRegion() {
  const region = h('div', { role: 'alert', class: 'alert' });
  return {
    element: region,
    show(message) {
      replaceChildren(region, message ? h('p', null, message) : null);
      region.classList.toggle('has-message', Boolean(message));
    },
    clear() {
      this.show('');
    },
  };
}

export function statusRegion(className = 'status') {
  const region = h('p', { role: 'status', class: className });
  return {
    element: region,
    show(message) {
      region.textContent = message ?? '';
    },
  };
}

// A modal question with a destructive answer. Resolves true when the person confirms.
export function confirmDialog({ title, message, confirm, danger = true }) {
  return new Promise((resolve) => {
    const titleId = uniqueId('dialog-title');
    const messageId = uniqueId('dialog-message');
    let answered = false;
    const finish = (answer) => {
      if (answered) return;
      answered = true;
      dialog.close();
      dialog.remove();
      resolve(answer);
    };
    const cancel = h('button', { type: 'button', class: 'button', autofocus: true, on: { click: () => finish(false) } }, 'Cancel');
    const ok = h('button', { type: 'button', class: ['button', danger ? 'button-danger' : 'button-primary'], on: { click: () => finish(true) } }, confirm);
    const dialog = h(
      'dialog',
      { class: 'dialog', 'aria-labelledby': titleId, 'aria-describedby': messageId, on: { cancel: () => finish(false), close: () => finish(false) } },
      h('h2', { id: titleId }, title),
      h('p', { id: messageId }, message),
      h('div', { class: 'dialog-actions' }, cancel, ok),
    );
    document.body.appendChild(dialog);
    dialog.showModal();
    cancel.focus();
  });
}

export async function copyText(text, selectable, status) {
  try {
    await navigator.clipboard.writeText(text);
    status.show('Copied.');
  } catch {
    // Without clipboard access the text is selected, so the person can copy it themselves.
    const selection = window.getSelection();
    selection.selectAllChildren(selectable);
    status.show('Selected: press Ctrl+C (⌘C on a Mac) to copy.');
  }
}
