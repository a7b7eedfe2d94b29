// Browser test of starting routines: the creating request does not wait for the routine's continue,
// and Start is offered only while the routine limit leaves room (a refusal says why).
// Usage: node console-create.test.mjs <routine-host> <plugin dir> <web dir>
import assert from 'node:assert/strict';
import { run, routineOf, startOf, timeout } from './harness.mjs';

await run({ relay: true }, async ({ page, relay, idle, api }) => {
  const starts = page.locator('#types button.start');
  const allStarts = async (disabled) => page.waitForFunction(
    (expected) => [...document.querySelectorAll('#types button.start')].every((b) => b.disabled === expected), disabled, { timeout });

  // The creation answers while the routine still waits for its continue, with the new routine's id. A
  // double click asks once: the creation on its way holds the one slot.
  await allStarts(false);
  const isCreation = (request) => request.method() === 'POST' && new URL(request.url()).pathname === '/routines';
  const creations = [];
  page.on('request', (request) => { if (isCreation(request)) creations.push(request); });
  const [created] = await Promise.all([
    page.waitForResponse((r) => isCreation(r.request())),
    startOf(page, 'Sensor calibration').dblclick(),
  ]);
  assert.equal(created.status(), 202);
  assert.match(created.request().headers().prefer, /respond-async/);
  assert.equal(created.headers()['preference-applied'], 'respond-async');
  assert.deepEqual(await created.json(), { id: 'Calibration-0', path: '/routines/Calibration-0' });
  assert.equal((await api.routine('Calibration-0')).state, 2, 'the routine waits for its continue');
  await routineOf(page, 'Calibration-0').getByText('Waiting for user feedback').waitFor();
  assert.equal(creations.length, 1);

  // The one routine slot is taken: every Start is disabled and the page says why.
  await allStarts(true);
  assert.equal(await starts.count(), 2);
  await page.locator('#limit-note', { hasText: 'delete one to start another' }).waitFor();
  await routineOf(page, 'Calibration-0').getByRole('button', { name: 'Delete' }).click();
  await allStarts(false);
  assert.equal(await page.locator('#limit-note').textContent(), '');

  // Another client takes the slot while the page's events are held back: Start still looks possible,
  // the service refuses, and the page shows the service's own message and then counts right.
  await idle();
  relay.hold();
  const other = await api.create('Calibration');
  assert.equal(other.status, 202);
  const refusal = await api.create('Calibration');
  assert.equal(refusal.status, 409);
  await allStarts(false);
  await startOf(page, 'Sensor calibration').click();
  await page.locator('#create-message', { hasText: refusal.json.message }).waitFor();
  await allStarts(true);
  relay.release();
  await routineOf(page, 'Calibration-1').getByText('Waiting for user feedback').waitFor();
  await page.getByRole('button', { name: 'Delete all' }).click();
  await page.getByText('No routine is running.').waitFor();
  await allStarts(false);
  console.log('console creation test passed');
});
