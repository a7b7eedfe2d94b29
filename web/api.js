// The REST client: JSON in and out, the bearer token when the service asks for one, and errors as
// exceptions carrying the server's status, message, causes and per-parameter messages.

const TOKEN_KEY = 'routineConsoleToken';

export class ApiError extends Error {
  constructor(httpStatus, body) {
    super(body?.message || `HTTP ${httpStatus}`);
    this.httpStatus = httpStatus;
    this.status = body?.status;
    this.causes = Array.isArray(body?.causes) ? body.causes : [];
    // Parameter path ("samples", "outer.inner", "list.2.name") -> its messages.
    this.fields = body?.fields && typeof body.fields === 'object' ? body.fields : {};
  }
}

let askToken = async () => null;

export function onTokenNeeded(fx) { askToken = fx; }

export function authHeaders() {
  const token = sessionStorage.getItem(TOKEN_KEY);
  return token ? { Authorization: `Bearer ${token}` } : {};
}

// A reply body that is not JSON (a proxy's error page, a cut connection) becomes an ApiError, so that
// callers see one kind of failure.
function parse(status, text) {
  if (!text) return null;
  try {
    return JSON.parse(text);
  } catch {
    throw new ApiError(status, { message: `The service answered HTTP ${status} with a body that is not JSON.` });
  }
}

// Sends one request and returns { status, headers, json }; 304 is returned, not thrown, for the
// conditional reads below.
async function send(method, path, { body, headers: extra = {} } = {}) {
  for (let attempt = 0; attempt < 3; ++attempt) {
    const headers = { ...authHeaders(), ...extra };
    if (body !== undefined) headers['Content-Type'] = 'application/json';
    const reply = await fetch(path, { method, headers, body: body === undefined ? undefined : JSON.stringify(body) });
    if (reply.status === 401) {
      const token = await askToken();
      if (!token) throw new ApiError(401, { message: 'A valid access token is required.' });
      sessionStorage.setItem(TOKEN_KEY, token);
      continue;
    }
    const json = parse(reply.status, await reply.text());
    if (!reply.ok && reply.status !== 304) throw new ApiError(reply.status, json);
    return { status: reply.status, headers: reply.headers, json };
  }
  throw new ApiError(401, { message: 'The access token was refused.' });
}

export async function request(method, path, body, headers) {
  return (await send(method, path, { body, headers })).json;
}

// Routine documents are re-read on every "updated" event; most of those reads find the document as it
// was (a coalesced progress report of another field, written parameters equal to the old ones). The
// last document and its entity tag are kept per path, so the service can answer 304 without a body.
// Bounded: an entry goes when its routine goes, and the oldest goes beyond MAX_CACHED.
const MAX_CACHED = 64;
const cached = new Map();  // path with query -> { etag, json }

async function conditionalGet(path) {
  const known = cached.get(path);
  const reply = await send('GET', path, { headers: known ? { 'If-None-Match': known.etag } : {} });
  if (reply.status === 304 && known) return known.json;
  const etag = reply.headers.get('ETag');
  cached.delete(path);
  if (etag && reply.status === 200) {
    cached.set(path, { etag, json: reply.json });
    if (cached.size > MAX_CACHED) cached.delete(cached.keys().next().value);
  }
  return reply.json;
}

export function forget(path) { cached.delete(`${path}?schema=true`); }

export const api = {
  types: () => request('GET', '/routineTypes'),
  system: () => request('GET', '/system'),
  list: () => request('GET', '/routines'),
  routine: (path) => conditionalGet(`${path}?schema=true`),
  // Answered as soon as the routine exists: the creation itself goes on waiting on the service for the
  // first continue, which may take minutes, and no request should be held that long.
  create: (type) => request('POST', '/routines', { type }, { Prefer: 'respond-async' }),
  // Strict: a routine that does not wait for parameters, or a key that names none, is refused instead of
  // silently ignored, so that what the user sees as saved was saved.
  update: (path, parameters) => request('PATCH', path, { parameters }, { Prefer: 'handling=strict' }),
  command: (path, name) => request('POST', `${path}/commands/${name}`),
  remove: (path) => request('DELETE', path),
  removeAll: () => request('DELETE', '/routines/*'),
};
