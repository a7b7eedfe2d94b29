// The drift check attacked: replies recorded from the real host (fixtures/exchanges.jsonl) pass against
// the document, and each kind of drift made to a copy of the document is found and named with the
// exchange it breaks. Run with `node --test`; exits 77 (skipped) without the validator.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { mkdtempSync, readFileSync, writeFileSync, copyFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, dirname } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const documentPath = process.argv[2] ?? join(here, '../../host/api/openapi.json');
const original = JSON.parse(readFileSync(documentPath, 'utf8'));
try {
  await import('@hyperjump/json-schema/openapi-3-1');
} catch {
  console.log('@hyperjump/json-schema is not installed: skipped');
  process.exit(77);
}

// Runs the check of the fixture's exchanges against the document as `mutate` leaves it.
function checkWith(mutate) {
  const folder = mkdtempSync(join(tmpdir(), 'contract-'));
  try {
    const records = join(folder, 'records');
    spawnSync('mkdir', [records]);
    copyFileSync(join(here, 'fixtures/exchanges.jsonl'), join(records, 'exchanges-1.jsonl'));
    const document = structuredClone(original);
    mutate(document);
    // The validator knows an OpenAPI document by its name.
    const path = join(folder, 'api.openapi.json');
    writeFileSync(path, JSON.stringify(document));
    const run = spawnSync(process.execPath, [join(here, 'check-exchanges.mjs'), path, records], { encoding: 'utf8' });
    return { status: run.status, output: run.stdout + run.stderr };
  } finally {
    rmSync(folder, { recursive: true, force: true });
  }
}

const schemas = (document) => document.components.schemas;

test('the recorded replies agree with the document', () => {
  const { status, output } = checkWith(() => {});
  assert.equal(status, 0, output);
  assert.match(output, /13 passed, 0 failed/);
});

const drifts = [
  ['a member the routine document lacks becomes required', (d) => schemas(d).Routine.required.push('owner'),
    /GET "\/routines\/Calibration-0\?schema=true" -> 200[\s\S]*Routine\/required[^\n]*"owner" is missing/],
  ['a member the routine document has is dropped from its closed shape', (d) => delete schemas(d).Routine.properties.helpUrl,
    /GET "\/routines\/Calibration-0\?schema=true" -> 200[\s\S]*additionalProperties/],
  ['a status the creation answers is no longer documented', (d) => delete d.paths['/routines'].post.responses['201'],
    /POST "\/routines" -> 201[\s\S]*status 201 is not documented for POST \/routines/],
  ['the refusal of a creation changes its status', (d) => {
    const post = d.paths['/routines'].post.responses;
    post['410'] = post['409'];
    delete post['409'];
  }, /POST "\/routines" -> 409[\s\S]*status 409 is not documented/],
  ['a reply header becomes required that the host does not send', (d) => {
    d.components.responses.MethodNotAllowed.headers.Allow = { required: true, schema: { type: 'string' } };
    delete d.paths['/routines'].get.responses['401'];
  }, /status 401 is not documented for GET \/routines/],
  ['the token refusal promises another scheme', (d) => { d.components.headers.WWWAuthenticate.schema.const = 'Basic'; },
    /GET "\/routines" -> 401[\s\S]*WWW-Authenticate: "Bearer" does not match/],
  ['the slow-down loses its Retry-After', (d) => { d.components.headers.RetryAfter.schema.pattern = '^[a-z]+$'; },
    /-> 429[\s\S]*Retry-After/],
  ['the error shape gains a required member', (d) => schemas(d).Error.required.push('code'),
    /GET "\/nowhere" -> 404[\s\S]*Error\/required/],
  ['the error shape no longer has "causes"', (d) => {
    delete schemas(d).Error.properties.causes;
    schemas(d).Error.required = ['status', 'message'];
  }, /PATCH "\/routines\/Calibration-0" -> 400[\s\S]*additionalProperties/],
  ['the collection embeds its items under another name', (d) => {
    const embedded = schemas(d).RoutineCollection.oneOf[1].properties._embedded;
    embedded.properties.items = embedded.properties.item;
    delete embedded.properties.item;
    embedded.required = ['items'];
  }, /GET "\/routines" -> 200/],
  ['a transport refusal is no longer among the replies any request can get', (d) => delete d['x-unmatched-request-responses']['400'],
    /NOT "HTTP" -> 400[\s\S]*status 400 is not documented for a request to no documented path/],
  ['the preflight reply is documented with a header the policy does not send', (d) => {
    d.components.responses.Preflight.headers['Access-Control-Allow-Credentials'] = { required: true, schema: { type: 'string' } };
  }, /OPTIONS "\/routines\/\*" -> 204[\s\S]*Access-Control-Allow-Credentials/],
  ['the stream no longer documents an event it sends', (d) => {
    schemas(d).EventData.properties.type.enum = ['created', 'deleted'];
  }, /GET "\/events" -> 200[\s\S]*the event updated \{[^\n]*\} does not match #\/components\/schemas\/EventData/],
  ['the stream names its events otherwise', (d) => {
    const media = d.paths['/events'].get.responses['200'].content['text/event-stream'];
    media['x-events'] = { change: media['x-events'].updated };
  }, /GET "\/events" -> 200[\s\S]*the event "created" is not among the events/],
  ['the stream is documented to open with another reconnection hint', (d) => {
    d.paths['/events'].get.responses['200'].content['text/event-stream']['x-retry'] = 5000;
  }, /GET "\/events" -> 200[\s\S]*does not open with "retry: 5000"/],
  ['the stream is documented to number its events otherwise', (d) => {
    d.paths['/events'].get.responses['200'].content['text/event-stream']['x-event-id-pattern'] = '^[0-9]+$';
  }, /GET "\/events" -> 200[\s\S]*the event created has the id "[0-9a-f]{8}-[0-9]+", not one of/],
  ['reads are documented with another form of entity tag', (d) => {
    d.components.headers.ETag.schema.pattern = '^W/';
  }, /GET "\/routines" -> 200[\s\S]*the header ETag: "\\"[0-9a-f]{16}\\"" does not match/],
  ['the system document loses the routine limit', (d) => delete schemas(d).System.properties.routineLimit,
    /GET "\/system" -> 200[\s\S]*additionalProperties/],
];

for (const [name, mutate, expected] of drifts) {
  test(`drift is found: ${name}`, () => {
    const { status, output } = checkWith(mutate);
    assert.equal(status, 1, output);
    assert.match(output, expected);
  });
}
