// Browser test of the routine console: the real host with the sample plug-ins, driven in headless
// Chromium, under the page's Content-Security-Policy (any violation fails the test).
// Usage: node console.test.mjs <routine-host> <plugin dir> <web dir> <screenshot.png> [--tls]
// With --tls the host serves HTTPS with a certificate made here (openssl), and the test checks that the
// page loads, lists the types and receives events over it.
// Exits 77 (skipped) when Chromium, playwright-core or (with --tls) openssl is not installed.
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import assert from 'node:assert/strict';

const [hostPath, pluginDir, webDir, screenshot, mode] = process.argv.slice(2);
const tls = mode === '--tls';
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

const hostArguments = ['--listen', '127.0.0.1:0', '--plugins', pluginDir, '--web', webDir, '--log-level', 'error'];
let certificateFolder;
if (tls) {
  certificateFolder = mkdtempSync(join(tmpdir(), 'console-tls-'));
  const made = spawnSync('openssl', ['req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-days', '1', '-subj', '/CN=localhost',
    '-addext', 'subjectAltName=DNS:localhost,IP:127.0.0.1', '-keyout', join(certificateFolder, 'key.pem'),
    '-out', join(certificateFolder, 'cert.pem')]);
  if (made.error || made.status !== 0) {
    console.log('openssl is not available: skipped');
    process.exit(77);
  }
  hostArguments.push('--tls-cert', join(certificateFolder, 'cert.pem'), '--tls-key', join(certificateFolder, 'key.pem'));
}
const host = spawn(hostPath, hostArguments, { stdio: ['ignore', 'pipe', 'inherit'] });
const base = await new Promise((resolve, reject) => {
  let output = '';
  const timer = setTimeout(() => reject(new Error('the host did not start')), 30000);
  host.stdout.on('data', (chunk) => {
    output += chunk;
    const match = output.match(/listening on (https?:\/\/[0-9.:]+)/);
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
  // The certificate is the test's own; the browser is told to take it rather than taught to trust it.
  const context = await browser.newContext({ viewport: { width: 1200, height: 900 }, ignoreHTTPSErrors: tls });
  const page = await context.newPage();
  page.setDefaultTimeout(timeout);
  page.on('dialog', (dialog) => dialog.accept());
  const violations = [];
  page.on('console', (message) => {
    if (/Content.Security.Policy/i.test(message.text())) violations.push(message.text());
  });
  const response = await page.goto(base + '/');
  assert.equal(response.headers()['content-security-policy'], "default-src 'self'; frame-ancestors 'none'");
  await page.getByText('live', { exact: true }).waitFor();
  await page.locator('.types li', { hasText: 'Self test' }).waitFor();

  if (tls) {
    // Over HTTPS: the types are listed and the events arrive (the routine's completion is an event).
    await page.locator('.types li', { hasText: 'Self test' }).getByRole('button', { name: 'Start' }).click();
    const selfTest = page.locator('article.routine', { hasText: 'SelfTest-0' });
    await selfTest.getByText('Stopped due to completion').waitFor();
    assert.deepEqual(violations, []);
    console.log('console test over HTTPS passed');
  } else {

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

    // SelfTest runs to completion by itself. Its document is given help HTML on the way, to show that
    // the sandboxed help frame still renders under the page's policy.
    await page.route(/\/routines\/SelfTest-1\?schema=true$/, async (route) => {
      const original = await route.fetch();
      const doc = await original.json();
      await route.fulfill({ response: original, json: { ...doc, helpHtml: '<p>Self test help</p>' } });
    });
    await page.locator('.types li', { hasText: 'Self test' }).getByRole('button', { name: 'Start' }).click();
    const selfTest = page.locator('article.routine', { hasText: 'SelfTest-1' });
    await selfTest.getByText('Stopped due to completion').waitFor();
    await selfTest.locator('table.results').getByText('All checks passed.').waitFor();
    await selfTest.frameLocator('iframe.help').getByText('Self test help').waitFor();
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
    assert.deepEqual(violations, []);
    console.log('console test passed');
  }
} finally {
  await browser.close();
  host.kill('SIGTERM');
  if (certificateFolder) rmSync(certificateFolder, { recursive: true, force: true });
}
