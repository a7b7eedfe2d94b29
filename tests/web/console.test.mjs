// Browser test of the console's main flows: a calibration from start to results, a self test, Delete
// all, an abort. With --tls the host serves HTTPS with a certificate made here (openssl), and the test
// checks that the page loads, lists the types and receives events over it.
// Usage: node console.test.mjs <routine-host> <plugin dir> <web dir> <screenshot.png> [--tls]
import assert from 'node:assert/strict';
import { run, routineOf, startOf } from './harness.mjs';

const tls = process.argv[6] === '--tls';

await run({ tls }, async ({ page, screenshot }) => {
  if (tls) {
    // Over HTTPS: the types are listed and the events arrive (the routine's completion is an event).
    await startOf(page, 'Self test').click();
    await routineOf(page, 'SelfTest-0').getByText('Stopped due to completion').waitFor();
    console.log('console test over HTTPS passed');
    return;
  }

  // Calibration: it waits for its parameters; the saved values are what the routine measures with.
  await startOf(page, 'Sensor calibration').click();
  const routine = routineOf(page, 'Calibration-0');
  await routine.getByText('Waiting for user feedback').waitFor();
  await routine.getByLabel('samples').fill('400');
  await routine.getByLabel('mode').selectOption({ label: 'Precise' });
  await routine.getByLabel('label').fill('browser');
  await routine.getByRole('button', { name: 'Save parameters' }).click();
  await page.waitForFunction(async () => (await (await fetch('/routines/Calibration-0')).json()).parameters.label === 'browser');
  const saved = await page.evaluate(async () => (await fetch('/routines/Calibration-0')).json());
  assert.deepEqual(saved.parameters, { samples: 400, mode: 1, label: 'browser' });

  await routine.getByRole('button', { name: 'Continue' }).click();
  await routine.getByText('Step 2 of 2').waitFor();
  await page.waitForFunction(() => Number(document.querySelector('article.routine progress')?.value) > 0);
  await page.screenshot({ path: screenshot, fullPage: true });
  await routine.getByText('Stopped due to completion').waitFor();
  await routine.locator('table.results').getByText('browser').waitFor();
  await routine.locator('table.results').getByText('Offset').waitFor();

  // Delete all, with its confirmation.
  await page.getByRole('button', { name: 'Delete all' }).click();
  await page.getByText('No routine is running.').waitFor();

  // SelfTest runs to completion by itself, and its Delete removes it.
  await startOf(page, 'Self test').click();
  const selfTest = routineOf(page, 'SelfTest-1');
  await selfTest.getByText('Stopped due to completion').waitFor();
  await selfTest.locator('table.results').getByText('All checks passed.').waitFor();
  await selfTest.getByRole('button', { name: 'Delete' }).click();
  await page.getByText('No routine is running.').waitFor();

  // Abort one.
  await startOf(page, 'Sensor calibration').click();
  const aborted = routineOf(page, 'Calibration-2');
  await aborted.getByText('Waiting for user feedback').waitFor();
  await aborted.getByRole('button', { name: 'Abort' }).click();
  await aborted.getByText('Stopped due to abort').waitFor();
  await page.getByRole('button', { name: 'Delete all' }).click();
  await page.getByText('No routine is running.').waitFor();
  console.log('console test passed');
});
