// Browser test of the routine console: the real host with the sample plug-ins, driven in headless
// Chromium. Usage: node console.test.mjs <routine-host> <plugin dir> <web dir> <screenshot.png>
// Exits 77 (skipped) when Chromium or playwright-core is not installed.
import { spawn } from 'node:child_process';
import { existsSync } from 'node:fs';
import assert from 'node:assert/strict';

const [hostPath, pluginDir, webDir, screenshot] = process.argv.slice(2);
const chromiumPath = '/usr/bin/chromium';
let chromium;
try {
  ({ chromium } = await import('playwright-core'));
} catch {
  console.log('playwright-core is not installed: skipped');
  process.exit(77);
}
if (!existsSync(chromiumPath)) {
  console.log('chromium is not installed: skipped');
  process.exit(77);
}

const host = spawn(hostPath, ['--listen', '127.0.0.1:0', '--plugins', pluginDir, '--web', webDir, '--log-level', 'error'],
  { stdio: ['ignore', 'pipe', 'inherit'] });
const base = await new Promise((resolve, reject) => {
  let output = '';
  const timer = setTimeout(() => reject(new Error('the host did not start')), 30000);
  host.stdout.on('data', (chunk) => {
    output += chunk;
    const match = output.match(/listening on (http:\/\/[0-9.:]+)/);
    if (match) { clearTimeout(timer); resolve(match[1]); }
  });
});

const browser = await chromium.launch({
  executablePath: chromiumPath,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--no-first-run', '--disable-background-networking',
    '--disable-quic', '--disable-component-update', '--disable-sync'],
});
const timeout = 15000;
try {
  const page = await browser.newPage({ viewport: { width: 1200, height: 900 } });
  page.setDefaultTimeout(timeout);
  page.on('dialog', (dialog) => dialog.accept());
  await page.goto(base + '/');
  await page.getByText('live', { exact: true }).waitFor();

  // Calibration: it waits for its parameters; a refused value shows the server's message and stays typed.
  const calibrationType = page.locator('.types li', { hasText: 'Sensor calibration' });
  await calibrationType.getByRole('button', { name: 'Start' }).click();
  const routine = page.locator('article.routine', { hasText: 'Calibration-0' });
  await routine.getByText('Waiting for user feedback').waitFor();
  const samples = routine.getByLabel('samples');
  await samples.fill('5000');
  await routine.getByRole('button', { name: 'Save parameters' }).click();
  await routine.getByText('samples was set to be greater than its maximum.').waitFor();
  assert.equal(await samples.inputValue(), '5000');
  await samples.fill('400');
  await routine.getByLabel('mode').selectOption({ label: 'Precise' });
  await routine.getByLabel('label').fill('browser');
  await routine.getByRole('button', { name: 'Save parameters' }).click();
  await page.waitForFunction(() => !document.querySelector('article.routine .field .error')?.textContent);
  const saved = await (await fetch(`${base}/routines/Calibration-0`)).json();
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

  // SelfTest runs to completion by itself.
  await page.locator('.types li', { hasText: 'Self test' }).getByRole('button', { name: 'Start' }).click();
  const selfTest = page.locator('article.routine', { hasText: 'SelfTest-1' });
  await selfTest.getByText('Stopped due to completion').waitFor();
  await selfTest.locator('table.results').getByText('All checks passed.').waitFor();
  await selfTest.getByRole('button', { name: 'Delete' }).click();
  await page.getByText('No routine is running.').waitFor();

  // Abort one.
  await calibrationType.getByRole('button', { name: 'Start' }).click();
  const aborted = page.locator('article.routine', { hasText: 'Calibration-2' });
  await aborted.getByText('Waiting for user feedback').waitFor();
  await aborted.getByRole('button', { name: 'Abort' }).click();
  await aborted.getByText('Stopped due to abort').waitFor();
  await page.getByRole('button', { name: 'Delete all' }).click();
  await page.getByText('No routine is running.').waitFor();
  console.log('console test passed');
} finally {
  await browser.close();
  host.kill('SIGTERM');
}
