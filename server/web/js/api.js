// The dashboard's JSON routes. Every change carries the session's CSRF token; a 401 anywhere sends
// the person back to the login form.

const BASE = '/dashboard/api';
let csrf = null;
let unauthorized = () => {};

export class ApiError extends Error {
  constructor(status, code, message) {
    super(message);
    this.status = status;
    this.code = code;
  }
}

export function setCsrf(token) {
  csrf = token;
}

export function onUnauthorized(handler) {
  unauthorized = handler;
}

const fallbackMessages = {
  400: 'The service could not read this request.',
  403: 'You may not do this.',
  404: 'This is no longer there.',
  429: 'Too many attempts. Please wait a little and try again.',
};

export async function api(method, path, body, { quiet = false } = {}) {
  const headers = { Accept: 'application/json' };
  const changes = method !== 'GET' && method !== 'HEAD';
  if (changes) {
    headers['Content-Type'] = 'application/json';
    if (csrf) headers['X-CSRF-Token'] = csrf;
  }
  let response;
  try {
    response = await fetch(BASE + path, {
      method,
      headers,
      body: body === undefined ? (changes && method !== 'DELETE' ? '{}' : undefined) : JSON.stringify(body),
      credentials: 'same-origin',
      cache: 'no-store',
    });
  } catch {
    throw new ApiError(0, 0, 'The service cannot be reached. Check your connection and try again.');
  }
  let data = null;
  try {
    data = await response.json();
  } catch {
    data = null;
  }
  if (!response.ok) {
    const message = (data && typeof data.message === 'string' && data.message) || fallbackMessages[response.status] || `The service answered ${response.status}.`;
    const error = new ApiError(response.status, data && data.code, message);
    error.retryAfter = response.headers.get('Retry-After');
    if (response.status === 401 && !quiet) unauthorized(error);
    throw error;
  }
  return data ?? {};
}

export function query(parameters) {
  const search = new URLSearchParams();
  for (const [name, value] of Object.entries(parameters)) {
    if (value !== undefined && value !== null && value !== '') search.set(name, String(value));
  }
  const text = search.toString();
  return text ? `?${text}` : '';
}

export function imageUrl(imageId, { thumb = false } = {}) {
  return `${BASE}/images/${encodeURIComponent(imageId)}${thumb ? '?thumb=1' : ''}`;
}

export function eventsUrl() {
  return `${BASE}/events`;
}
