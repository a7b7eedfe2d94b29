// Checks every exchange the host tests recorded (tests/host/HostProcess.cpp, NYR_CONTRACT_RECORD_DIR)
// against the OpenAPI document: the request is matched to its operation (path template and method; a
// HEAD to its GET; a path or method the document does not have, or bytes that were not a request, to the
// replies any request can get, "x-unmatched-request-responses"), and then the reply's status must be
// documented for it, every header the document requires must be there and match its schema, the
// Content-Type must be one the reply documents, and the body must match that content's schema.
// Usage: node check-exchanges.mjs <openapi.json> <record folder>
// Exits 1 naming each exchange that disagrees and why; 77 (skipped) when the validator is not installed.
import { readFile, readdir } from 'node:fs/promises';
import { resolve, join } from 'node:path';
import { pathToFileURL } from 'node:url';
import { loadValidator, formatErrors, pointerGet, pointerEscape, METHODS } from './openapi-support.mjs';

const [documentPath, recordFolder] = process.argv.slice(2);
const { validate } = await loadValidator();
const documentUrl = pathToFileURL(resolve(documentPath)).href;
const document = JSON.parse(await readFile(resolve(documentPath), 'utf8'));

// Follows OpenAPI (not JSON Schema) references; returns the object and the pointer where it lives.
function deref(node, pointer) {
  while (node && typeof node.$ref === 'string') {
    pointer = node.$ref;
    node = pointerGet(document, pointer);
  }
  return { node, pointer };
}

function segmentsOf(path) {
  // As the router matches: empty segments dropped, each percent-decoded.
  return path.split('/').filter((s) => s !== '').map((s) => {
    try {
      return decodeURIComponent(s);
    } catch {
      return s;
    }
  });
}

// The documented path whose template matches, literal segments winning over variables.
const templates = Object.keys(document.paths).map((template) => ({ template, segments: segmentsOf(template) }));
function matchPath(path) {
  const segments = segmentsOf(path);
  let best = null;
  let bestLiterals = -1;
  for (const { template, segments: pattern } of templates) {
    if (pattern.length !== segments.length) continue;
    let literals = 0;
    const fits = pattern.every((p, i) => {
      if (/^\{.+\}$/.test(p)) return true;
      literals += 1;
      return p === segments[i];
    });
    if (fits && literals > bestLiterals) {
      best = template;
      bestLiterals = literals;
    }
  }
  // "/" has no segments: only the template "/" matches it, never a template made of variables.
  if (segments.length === 0) return path.startsWith('/') && document.paths['/'] ? '/' : null;
  return best;
}

function requestPath(target) {
  let path = target.split('?')[0];
  const absolute = /^[a-z][a-z0-9+.-]*:\/\/[^/]*(\/.*)?$/i.exec(path);
  if (absolute) path = absolute[1] ?? '/';
  return path.startsWith('/') ? path : null;
}

const validators = new Map();
async function validateAt(pointer, value) {
  if (!validators.has(pointer)) validators.set(pointer, await validate(`${documentUrl}${pointer}`));
  return validators.get(pointer)(value, 'BASIC');
}

// The validator's errors, with the members a "required" keyword missed named.
function describe(errors, instance) {
  return formatErrors(errors, (error) => {
    if (!error.keyword.endsWith('/required') || !error.absoluteKeywordLocation.startsWith(`${documentUrl}#`)) return '';
    const required = pointerGet(document, error.absoluteKeywordLocation.slice(documentUrl.length));
    const at = pointerGet(instance, error.instanceLocation);
    const missing = (required ?? []).filter((name) => !(at && typeof at === 'object' && name in at));
    return missing.map((name) => ` "${name}" is missing`).join(',');
  });
}

function header(exchange, name) {
  const found = exchange.headers.find(([key]) => key.toLowerCase() === name.toLowerCase());
  return found ? found[1] : undefined;
}

// The operation's documented reply for this status, with where it lives, or why there is none.
function replyFor(exchange) {
  const path = requestPath(exchange.target ?? '');
  const template = path === null ? null : matchPath(path);
  const method = (exchange.method === 'HEAD' ? 'get' : (exchange.method ?? '').toLowerCase());
  const operation = template && METHODS.includes(method) ? document.paths[template][method] : undefined;
  let responses;
  let responsesPointer;
  let name;
  if (operation) {
    name = `${method.toUpperCase()} ${template}`;
    responses = operation.responses;
    responsesPointer = `#/paths/${pointerEscape(template)}/${method}/responses`;
  } else {
    name = template ? `${exchange.method} ${template} (not documented)` : 'a request to no documented path';
    responses = document['x-unmatched-request-responses'];
    responsesPointer = '#/x-unmatched-request-responses';
  }
  const status = String(exchange.status);
  const key = status in responses ? status : `${status[0]}XX` in responses ? `${status[0]}XX` : 'default' in responses ? 'default' : null;
  if (key === null) return { name, problem: `status ${status} is not documented for ${name}` };
  const { node, pointer } = deref(responses[key], `${responsesPointer}/${key}`);
  return { name, reply: node, pointer };
}

// A stream as far as the test read it: every whole frame's event must be one the document names in
// "x-events", and its data must match that event's schema.
async function checkEvents(stream, media, mediaPointer) {
  const problems = [];
  const events = media['x-events'] ?? {};
  const frames = stream.split('\n\n');
  frames.pop();  // the last piece is a frame still arriving, or nothing
  // "x-retry": the stream opens with that reconnection hint; "x-event-id-pattern": every event has an id
  // of that form.
  if (media['x-retry'] !== undefined && frames.length > 0 && frames[0] !== `retry: ${media['x-retry']}`) {
    problems.push(`the stream does not open with "retry: ${media['x-retry']}" (${mediaPointer}/x-retry)`);
  }
  const idPattern = media['x-event-id-pattern'] ? new RegExp(media['x-event-id-pattern']) : null;
  for (const frame of frames) {
    const fields = {};
    for (const line of frame.split('\n')) {
      if (line === '' || line.startsWith(':')) continue;
      const colon = line.indexOf(':');
      const field = colon < 0 ? line : line.slice(0, colon);
      const value = colon < 0 ? '' : line.slice(colon + 1).replace(/^ /, '');
      fields[field] = field === 'data' && field in fields ? `${fields.data}\n${value}` : value;
    }
    if (!('data' in fields)) continue;
    const event = fields.event ?? 'message';
    if (idPattern && !idPattern.test(fields.id ?? '')) {
      problems.push(`the event ${event} has the id ${JSON.stringify(fields.id ?? null)}, not one of ${mediaPointer}/x-event-id-pattern`);
    }
    if (!(event in events)) {
      problems.push(`the event ${JSON.stringify(event)} is not among the events of ${mediaPointer}/x-events`);
      continue;
    }
    let data;
    try {
      data = JSON.parse(fields.data);
    } catch (e) {
      problems.push(`the data of an event ${event} is not JSON: ${e.message}`);
      continue;
    }
    const { pointer } = deref(events[event], `${mediaPointer}/x-events/${pointerEscape(event)}`);
    const result = await validateAt(pointer, data);
    if (!result.valid) problems.push(`the event ${event} ${fields.data} does not match ${pointer}\n${describe(result.errors, data)}`);
  }
  return problems;
}

async function check(exchange) {
  const problems = [];
  const { name, reply, pointer, problem } = replyFor(exchange);
  if (problem) return { name, problems: [problem] };
  for (const [headerName, declared] of Object.entries(reply.headers ?? {})) {
    const { node: documented, pointer: headerPointer } = deref(declared, `${pointer}/headers/${pointerEscape(headerName)}`);
    const value = header(exchange, headerName);
    if (value === undefined) {
      if (documented.required) problems.push(`the header ${headerName} that ${pointer} requires is missing`);
      continue;
    }
    if (documented.schema) {
      const { pointer: schemaPointer } = deref(documented.schema, `${headerPointer}/schema`);
      const result = await validateAt(schemaPointer ?? `${headerPointer}/schema`, value);
      if (!result.valid) problems.push(`the header ${headerName}: ${JSON.stringify(value)} does not match ${headerPointer}/schema\n${describe(result.errors, value)}`);
    }
  }
  const headOnly = exchange.method === 'HEAD' || exchange.status === 304 || exchange.status === 204;
  const content = reply.content;
  if (!content) {
    if (exchange.body !== '' && !headOnly) problems.push(`a body came, but ${pointer} documents none`);
    return { name, problems };
  }
  if (headOnly) return { name, problems };
  const mediaType = (header(exchange, 'Content-Type') ?? '').split(';')[0].trim().toLowerCase();
  const key = [mediaType, `${mediaType.split('/')[0]}/*`, '*/*'].find((k) => k in content);
  if (!key) {
    problems.push(`Content-Type ${JSON.stringify(mediaType)} is not among ${Object.keys(content).join(', ')} of ${pointer}`);
    return { name, problems };
  }
  if (key === 'text/event-stream') {
    problems.push(...(await checkEvents(exchange.body, content[key], `${pointer}/content/${pointerEscape(key)}`)));
    return { name, problems };
  }
  if (key !== 'application/json') return { name, problems };
  let body;
  try {
    body = JSON.parse(exchange.body);
  } catch (e) {
    problems.push(`the body is not JSON: ${e.message}`);
    return { name, problems };
  }
  const schemaPointer = `${pointer}/content/${pointerEscape(key)}/schema`;
  const result = await validateAt(schemaPointer, body);
  if (!result.valid) problems.push(`the body does not match ${schemaPointer}\n${describe(result.errors, body)}`);
  return { name, problems };
}

const files = (await readdir(recordFolder).catch(() => [])).filter((f) => f.endsWith('.jsonl')).sort();
let checked = 0;
const failures = [];
const operationsSeen = new Set();
for (const file of files) {
  const lines = (await readFile(join(recordFolder, file), 'utf8')).split('\n').filter((l) => l !== '');
  for (const [index, line] of lines.entries()) {
    const exchange = JSON.parse(line);
    const { name, problems } = await check(exchange);
    checked += 1;
    operationsSeen.add(name);
    if (problems.length > 0) {
      const body = exchange.body.length > 300 ? `${exchange.body.slice(0, 300)}...` : exchange.body;
      failures.push(`${file}:${index + 1} (${exchange.test}) ${exchange.method} ${JSON.stringify(exchange.target)} -> ${exchange.status}, ` +
        `matched to ${name}\n  body: ${body}\n  ${problems.join('\n  ')}`);
    }
  }
}
if (checked === 0) {
  console.error(`No exchanges recorded in ${recordFolder}: the host tests did not run with NYR_CONTRACT_RECORD_DIR, or recorded nothing.`);
  process.exit(1);
}
for (const failure of failures) console.error(failure);
// Not a failure: which documented operations no host test reached, so that a gap in the tests shows.
const unreached = Object.entries(document.paths).flatMap(([template, item]) =>
  METHODS.filter((m) => item[m] && !operationsSeen.has(`${m.toUpperCase()} ${template}`)).map((m) => `${m.toUpperCase()} ${template}`));
if (unreached.length > 0) console.log(`Operations no host test reached: ${unreached.join(', ')}`);
console.log(`${files.length} record files, ${operationsSeen.size} operations: ${checked - failures.length} passed, ${failures.length} failed`);
process.exit(failures.length > 0 ? 1 : 0);
