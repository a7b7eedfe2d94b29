// The REST client: JSON in and out, the bearer token when the service asks for one, and errors as
// exceptions carrying the server's status, message and causes.

const TOKEN_KEY = 'routineConsoleToken';

export class ApiError extends Error {
  constructor(httpStatus, body) {
    super(body?.message || `HTTP ${httpStatus}`);
    this.httpStatus = httpStatus;
    this.status = body?.status;
    this.causes = body?.causes || [];
  }
}

let askToken = async () => null;

export function onTokenNeeded(fx) { askToken = fx; }

export function authHeaders() {
  const token = sessionStorage.getItem(TOKEN_KEY);
  return token ? { Authorization: `Bearer ${token}` } : {};
}

export async function request(method, path, body) {
  for (let attempt = 0; attempt < 3; ++attempt) {
    const headers = { ...authHeaders() };
    if (body !== undefined) headers['Content-Type'] = 'application/json';
    const reply = await fetch(path, { method, headers, body: body === undefined ? undefined : JSON.stringify(body) });
    if (reply.status === 401) {
      const token = await askToken();
      if (!token) throw new ApiError(401, { message: 'A valid access token is required.' });
      sessionStorage.setItem(TOKEN_KEY, token);
      continue;
    }
    const text = await reply.text();
    const json = text ? JSON.parse(text) : null;
    if (!reply.ok) throw new ApiError(reply.status, json);
    return json;
  }
  throw new ApiError(401, { message: 'The access token was refused.' });
}

export const api = {
  types: () => request('GET', '/routineTypes'),
  list: () => request('GET', '/routines'),
  routine: (path) => request('GET', `${path}?schema=true`),
  create: (type) => request('POST', '/routines', { type }),
  update: (path, parameters) => request('PATCH', path, { parameters }),
  command: (path, name) => request('POST', `${path}/commands/${name}`),
  remove: (path) => request('DELETE', path),
  removeAll: () => request('DELETE', '/routines/*'),
};
