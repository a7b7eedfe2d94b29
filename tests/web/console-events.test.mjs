// Browser test of the console's event stream and re-reads: a dropped stream resumes where it stopped
// (Last-Event-ID) and the change made meanwhile arrives without re-reading everything; a "reset" makes
// the page re-read everything; a re-read of an unchanged routine is answered 304.
// Usage: node console-events.test.mjs <routine-host> <plugin dir> <web dir>
import assert from 'node:assert/strict';
import { bounded, run, routineOf, startOf, timeout } from './harness.mjs';

const isList = (request) => request.method() === 'GET' && new URL(request.url()).pathname === '/routines';

await run({ relay: true }, async ({ page, relay, api }) => {
  const lists = [];
  page.on('request', (request) => { if (isList(request)) lists.push(request); });

  await startOf(page, 'Sensor calibration').click();
  const routine = routineOf(page, 'Calibration-0');
  await routine.getByText('Waiting for user feedback').waitFor();
  const label = routine.getByLabel('label');
  await page.waitForFunction(() => document.querySelector('#Calibration-0-param-label')?.value === 'default');

  // Drops the stream, and while the page is reconnecting (its new request held here) lets another
  // client change things. Returns the reconnecting request's headers and the ids of the events the
  // relay passed to the page before; `headers` replaces some of the request's headers.
  async function dropStream(changeMeanwhile, headers = {}) {
    const reconnected = new Promise((resolve, reject) => {
      page.route(/\/events$/, async (route) => {
        const sent = route.request().headers();
        const passed = relay.ids();
        try {
          await changeMeanwhile();
          resolve({ sent, passed });
        } catch (error) {
          reject(error);
        }
        await route.continue({ headers: { ...sent, ...headers } });
      });
    });
    relay.cut();
    await page.getByText('reconnecting…').waitFor();
    const result = await bounded(reconnected, 'the page did not reconnect');
    await page.unroute(/\/events$/);
    await page.getByText('live', { exact: true }).waitFor();
    return result;
  }

  // Resumed: the reconnection names an event the page received (the last one, unless the cut came
  // between the relay and the page), the service replays the write made meanwhile, and the page shows
  // it without reading the list of routines again.
  const listsBefore = lists.length;
  const { sent, passed } = await dropStream(async () => {
    const written = await api.call('PATCH', '/routines/Calibration-0', { parameters: { label: 'changed meanwhile' } });
    assert.equal(written.status, 204);
  });
  assert.ok(passed.length > 0 && passed.every((id) => /^[0-9a-f]{8}-\d+$/.test(id)), `event ids: ${passed}`);
  assert.ok(passed.includes(sent['last-event-id']), `resumed after ${sent['last-event-id']}, not one of ${passed}`);
  await page.waitForFunction(() => document.querySelector('#Calibration-0-param-label')?.value === 'changed meanwhile',
    null, { timeout });
  assert.equal(lists.length, listsBefore, 'a resumed stream re-read the list of routines');

  // A re-read of an unchanged document is conditional and answered 304: parameters written with the
  // values they have raise an update that changes nothing.
  const [reread] = await Promise.all([
    page.waitForResponse((r) => r.url().endsWith('/routines/Calibration-0?schema=true')),
    api.call('PATCH', '/routines/Calibration-0', { parameters: { label: 'changed meanwhile' } }),
  ]);
  assert.equal(reread.status(), 304);
  assert.match(reread.request().headers()['if-none-match'], /^"[0-9a-f]{16}"$/);
  assert.equal(await label.inputValue(), 'changed meanwhile');

  // Reset: the service cannot replay after the id it is given (here a malformed one), so the page
  // re-reads everything and learns of the routine deleted meanwhile.
  await dropStream(async () => {
    assert.equal((await api.call('DELETE', '/routines/Calibration-0')).status, 204);
  }, { 'last-event-id': 'not-an-id' });
  await page.getByText('No routine is running.').waitFor();
  assert.ok(lists.length > listsBefore, 'a reset did not re-read the list of routines');

  // A frame whose data is not JSON is skipped, and the frames after it still count: here a reset,
  // served once in place of the stream, after which the page re-reads the list.
  await page.route(/\/events$/, (route) => route.fulfill({
    status: 200, contentType: 'text/event-stream',
    // Without ids: a page that broke off at the bad frame would resume after its last real id and
    // find nothing to re-read.
    body: 'retry: 3000\n\nevent: updated\ndata: {not json\n\nevent: reset\ndata: {"type":"reset","reason":"test"}\n\n',
  }), { times: 1 });
  const listRead = page.waitForRequest(isList);
  relay.cut();
  await listRead;
  console.log('console events test passed');
});
