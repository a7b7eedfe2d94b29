// Browser test of a routine's parameters and prompts: strict writes with each refusal next to its input,
// inputs disabled whenever the routine does not take parameters, no prompt once it stopped, and the
// help frame sized to its content.
// Usage: node console-params.test.mjs <routine-host> <plugin dir> <web dir>
import assert from 'node:assert/strict';
import { run, routineOf, startOf, timeout, waitForDescription } from './harness.mjs';

const PROMPT = 'Set the calibration parameters, then continue.';

// Whether every input and button of the routine's parameter form is disabled (true) or enabled (false).
// The form is looked up on each try: the page replaces it when the routine stops taking parameters.
async function waitForForm(routine, disabled) {
  await routine.page().waitForFunction(([article, expected]) => {
    const controls = [...(article.querySelector('form.params')?.querySelectorAll('input, select, button') || [])];
    return controls.length === 4 && controls.every((control) => control.disabled === expected);
  }, [await routine.elementHandle(), disabled], { timeout });
}

async function startCalibration(page, id) {
  await startOf(page, 'Sensor calibration').click();
  const routine = routineOf(page, id);
  await routine.getByText('Waiting for user feedback').waitFor();
  await routine.getByText(PROMPT).waitFor();
  await waitForForm(routine, false);
  return routine;
}

async function deleteAll(page) {
  await page.getByRole('button', { name: 'Delete all' }).click();
  await page.getByText('No routine is running.').waitFor();
}

await run({ relay: true }, async ({ page, relay, idle, api }) => {
  // Strict writes: a refused value is shown next to its input and stays typed; nothing is applied.
  let routine = await startCalibration(page, 'Calibration-0');
  const samples = routine.getByLabel('samples');
  await samples.fill('5000');
  const [write] = await Promise.all([
    page.waitForRequest((r) => r.method() === 'PATCH'),
    routine.getByRole('button', { name: 'Save parameters' }).click(),
  ]);
  assert.match(write.headers().prefer, /handling=strict/);
  await waitForDescription(samples, 'samples was set to be greater than its maximum.');
  assert.equal(await samples.getAttribute('aria-invalid'), 'true');
  assert.equal(await samples.inputValue(), '5000');
  assert.equal((await api.routine('Calibration-0')).parameters.samples, 10);

  // A key the form sends but the routine does not know (a form built from an older schema) belongs to
  // no input: the service's message is shown for the form as a whole.
  await page.route(/\/routines\/Calibration-0$/, async (route) => {
    const request = route.request();
    if (request.method() !== 'PATCH') return route.continue();
    const body = JSON.parse(request.postData());
    await route.continue({ postData: JSON.stringify({ parameters: { ...body.parameters, volum: 20 } }) });
  });
  await samples.fill('400');
  await routine.getByRole('button', { name: 'Save parameters' }).click();
  await routine.locator('.message', { hasText: 'Unknown parameter "volum".' }).waitFor();
  assert.equal(await routine.locator('form.params').getAttribute('aria-describedby'),
    await routine.locator('.message').getAttribute('id'));
  assert.equal(await routine.locator('#Calibration-0-param-samples-error').textContent(), '');
  assert.equal((await api.routine('Calibration-0')).parameters.samples, 10);
  await page.unroute(/\/routines\/Calibration-0$/);

  // A reply that is not JSON (a proxy's error page) is shown as a message; the page goes on working.
  await page.route(/\/routines\/Calibration-0$/, (route) => (route.request().method() === 'PATCH'
    ? route.fulfill({ status: 502, contentType: 'text/html', body: '<html><body>Bad gateway</body></html>' })
    : route.continue()));
  await routine.getByRole('button', { name: 'Save parameters' }).click();
  await routine.locator('.message', { hasText: 'HTTP 502' }).waitFor();
  await page.unroute(/\/routines\/Calibration-0$/);

  // Accepted: every message goes.
  await routine.getByLabel('label').fill('browser');
  await routine.getByRole('button', { name: 'Save parameters' }).click();
  await page.waitForFunction(async () => (await (await fetch('/routines/Calibration-0')).json()).parameters.label === 'browser');
  await routine.locator('.message').waitFor({ state: 'hidden' });
  assert.equal(await routine.locator('.field .error').allTextContents().then((t) => t.join('')), '');

  // Continued by another client before the page heard of it (its events and reads held back, after
  // the reads of the last write came back): the write is refused with the service's reason, nothing is
  // applied, and the form then shows the routine closed.
  // A read that an event sent before the hold started must come back before the continue, or it would
  // show the continued routine: reads pass (and are awaited) until the continue, and are held after it.
  let releaseReads;
  const readsHeld = new Promise((resolve) => { releaseReads = resolve; });
  let holdReads = false;
  const passing = new Set();
  await page.route(/\/routines\/Calibration-0\?schema=true$/, async (route) => {
    if (holdReads) { await readsHeld; return route.continue(); }
    const passed = route.fetch().then((response) => route.fulfill({ response }));
    passing.add(passed);
    await passed.finally(() => passing.delete(passed));
  });
  relay.hold();
  await idle();
  holdReads = true;
  await Promise.allSettled([...passing]);
  assert.equal((await api.call('POST', '/routines/Calibration-0/commands/continue')).status, 200);
  await routine.getByLabel('label').fill('too late');
  await routine.getByRole('button', { name: 'Save parameters' }).click();
  await routine.locator('.message', { hasText: 'The routine does not wait for parameters; nothing was applied.' }).waitFor();
  releaseReads();
  await waitForForm(routine, true);
  await page.unroute(/\/routines\/Calibration-0\?schema=true$/);
  relay.release();
  assert.equal((await api.routine('Calibration-0')).parameters.label, 'browser');
  await deleteAll(page);

  // Inputs follow the routine: disabled after a continue, after an abort and at the end; a stopped
  // routine asks for nothing (no step prompt, no help for the step).
  const cases = [
    { name: 'continue', id: 'Calibration-1', samples: '1000', mode: 'Precise', action: 'Continue', shows: 'Step 2 of 2' },
    { name: 'abort', id: 'Calibration-2', action: 'Abort', shows: 'Stopped due to abort' },
    { name: 'end', id: 'Calibration-3', samples: '1', action: 'Continue', shows: 'Stopped due to completion' },
  ];
  for (const { name, id, samples: count, mode, action, shows } of cases) {
    routine = await startCalibration(page, id);
    if (count) await routine.getByLabel('samples').fill(count);
    if (mode) await routine.getByLabel('mode').selectOption({ label: mode });
    if (count || mode) {
      await routine.getByRole('button', { name: 'Save parameters' }).click();
      await page.waitForFunction(async ([path, expected]) => (await (await fetch(path)).json()).parameters.samples === expected,
        [`/routines/${id}`, Number(count)]);
    }
    await routine.getByRole('button', { name: action }).click();
    await routine.getByText(shows).waitFor();
    await waitForForm(routine, true);
    if (name !== 'continue') {
      assert.equal(await routine.getByText(PROMPT).count(), 0, `${name}: the stopped routine still prompts`);
      assert.equal(await routine.locator('iframe.help').count(), 0, `${name}: the stopped routine still shows step help`);
    }
    await deleteAll(page);
  }

  // The help frame is as high as its content; long help is bounded and scrolls inside. Script in the
  // help runs nowhere, even though the page may measure the frame's content.
  let helpHtml = null;
  await page.route(/\/routines\/Calibration-\d+\?schema=true$/, async (route) => {
    const original = await route.fetch();
    if (original.status() !== 200 || helpHtml === null) return route.fulfill({ response: original });
    await route.fulfill({ response: original, json: { ...(await original.json()), helpHtml } });
  });
  const frameFits = async (routineLocator) => routineLocator.locator('iframe.help').evaluate((frame) => {
    const root = frame.contentDocument.documentElement;
    return { frame: frame.clientHeight, content: root.getBoundingClientRect().height, scroll: root.scrollHeight };
  });
  routine = await startCalibration(page, 'Calibration-4');
  await routine.frameLocator('iframe.help').getByText('samples').first().waitFor();
  await page.waitForFunction(() => {
    const frame = document.querySelector('iframe.help');
    const height = frame?.contentDocument?.documentElement.getBoundingClientRect().height;
    return height > 0 && Math.abs(frame.clientHeight - height) <= 1;
  }, null, { timeout });
  const short = await frameFits(routine);
  assert.ok(short.scroll <= short.frame + 1, `the short help scrolls: ${JSON.stringify(short)}`);
  await deleteAll(page);

  helpHtml = '<p>Long help.</p>'.repeat(80)
    + '<script>parent.document.title = "script ran"</script>'
    + '<img src="/nothing.png" alt="" onerror="parent.document.title = \'handler ran\'">';
  routine = await startCalibration(page, 'Calibration-5');
  await routine.frameLocator('iframe.help').getByText('Long help.').first().waitFor();
  await page.waitForFunction(() => {
    const frame = document.querySelector('iframe.help');
    return frame && frame.getBoundingClientRect().height >= 200 && frame.style.height !== '';
  }, null, { timeout });
  const long = await frameFits(routine);
  const maximum = await page.evaluate(() => parseFloat(getComputedStyle(document.querySelector('iframe.help')).maxHeight));
  assert.ok(long.frame < long.scroll && long.frame <= maximum, `the long help is not bounded: ${JSON.stringify(long)}`);
  // The image's failed load is when its handler would have run.
  await page.waitForFunction(() => document.querySelector('iframe.help').contentDocument.querySelector('img')?.complete,
    null, { timeout });
  assert.equal(await page.title(), 'Routine console');
  await deleteAll(page);
  console.log('console parameters test passed');
});
