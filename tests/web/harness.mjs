// What every browser test of the console shares: the real host with the sample plug-ins, headless
// Chromium through playwright-core, the page under its Content-Security-Policy (any violation fails the
// test), and a TCP relay between the two that can hold back or cut the event stream as a network would.
// Usage of a test file: node <file> <routine-host> <plugin dir> <web dir> [<screenshot.png>] [--tls]
// Exits 77 (skipped) when Chromium, playwright-core or (with --tls) openssl is not installed.
import { spawn, spawnSync } from 'node:child_process';
import { mkdtempSync, rmSync, existsSync } from 'node:fs';
import { createServer, connect } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import assert from 'node:assert/strict';

// Every wait of the tests is bounded by this; none is the assertion itself.
export const timeout = 15000;

const chromiumPath = '/usr/bin/chromium';

function skip(why) {
  console.log(`${why}: skipped`);
  process.exit(77);
}

async function startHost(hostPath, pluginDir, webDir, tls, extraArguments) {
  const hostArguments = ['--listen', '127.0.0.1:0', '--plugins', pluginDir, '--web', webDir, '--log-level', 'error',
    ...extraArguments];
  let certificateFolder;
  if (tls) {
    certificateFolder = mkdtempSync(join(tmpdir(), 'console-tls-'));
    const made = spawnSync('openssl', ['req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-days', '1', '-subj', '/CN=localhost',
      '-addext', 'subjectAltName=DNS:localhost,IP:127.0.0.1', '-keyout', join(certificateFolder, 'key.pem'),
      '-out', join(certificateFolder, 'cert.pem')]);
    if (made.error || made.status !== 0) {
      rmSync(certificateFolder, { recursive: true, force: true });
      skip('openssl is not available');
    }
    hostArguments.push('--tls-cert', join(certificateFolder, 'cert.pem'), '--tls-key', join(certificateFolder, 'key.pem'));
  }
  const host = spawn(hostPath, hostArguments, { stdio: ['ignore', 'pipe', 'inherit'] });
  // The host shares this test's stderr: left running after a crash of the test, it would keep the test
  // runner waiting for that output to end until the time-out.
  process.on('exit', () => host.kill('SIGKILL'));
  const base = await new Promise((resolve, reject) => {
    let output = '';
    const timer = setTimeout(() => reject(new Error('the host did not start')), 30000);
    host.stdout.on('data', (chunk) => {
      output += chunk;
      const match = output.match(/listening on (https?:\/\/[0-9.:]+)/);
      if (match) { clearTimeout(timer); resolve(match[1]); }
    });
  });
  return { host, base, certificateFolder };
}

// A plain TCP relay to the host. The connection whose request is "GET /events" is the event stream:
// hold() stops passing the host's bytes to the browser (they wait in the relay, as on a slow network),
// release() lets them through, cut() closes both sides as a dropped connection would; ids() are the ids
// of the event frames passed to the browser, in order. It listens before the host starts (the host is told
// to accept the relay's address as its name), and connects to the host once it is given its address.
async function startRelay() {
  let hostname;
  let port;
  const streams = new Set();
  let holding = false;
  const ids = [];
  const server = createServer((browserSide) => {
    const hostSide = connect(Number(port), hostname);
    browserSide.on('error', () => hostSide.destroy());
    hostSide.on('error', () => browserSide.destroy());
    browserSide.on('close', () => { hostSide.destroy(); streams.delete(pair); });
    hostSide.on('close', () => browserSide.destroy());
    const pair = { browserSide, hostSide };
    // A kept-alive connection may carry other requests before the stream: each request line decides.
    browserSide.on('data', (chunk) => {
      const head = chunk.toString('latin1', 0, 16);
      if (!/^[A-Z]+ \//.test(head)) return;
      if (!head.startsWith('GET /events')) {
        streams.delete(pair);
      } else if (!streams.has(pair)) {
        streams.add(pair);
        if (holding) hold(pair);
      }
    });
    hostSide.on('data', (chunk) => {
      if (!streams.has(pair)) return;
      for (const match of chunk.toString('utf8').matchAll(/^id: ?(.*)$/gm)) ids.push(match[1]);
    });
    browserSide.pipe(hostSide);
    hostSide.pipe(browserSide);
  });
  // Unpiped as well as paused: the pipe would resume the host's side on the browser's next drain.
  function hold({ browserSide, hostSide }) { hostSide.unpipe(browserSide); hostSide.pause(); }
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return {
    base: `http://127.0.0.1:${server.address().port}`,
    hostName: `127.0.0.1:${server.address().port}`,
    target(base) { ({ hostname, port } = new URL(base)); },
    hold() { holding = true; streams.forEach(hold); },
    release() { holding = false; for (const { browserSide, hostSide } of streams) hostSide.pipe(browserSide); },
    cut() { for (const { browserSide, hostSide } of streams) { browserSide.destroy(); hostSide.destroy(); } streams.clear(); },
    ids: () => [...ids],
    close: () => new Promise((resolve) => { server.close(resolve); for (const { browserSide } of streams) browserSide.destroy(); }),
  };
}

// Runs body({ page, base, host, relay, api, ... }) against a fresh host and browser and cleans up.
// Options: tls (serve HTTPS), relay (the page goes through the relay above).
export async function run(options, body) {
  const [hostPath, pluginDir, webDir, screenshot] = process.argv.slice(2);
  let chromium;
  try {
    ({ chromium } = await import('playwright-core'));
  } catch {
    skip('playwright-core is not installed');
  }
  if (!existsSync(chromiumPath)) skip('chromium is not installed');
  const relay = options.relay ? await startRelay() : null;
  const { host, base, certificateFolder } = await startHost(hostPath, pluginDir, webDir, options.tls,
    relay ? ['--allow-host', relay.hostName] : []);
  relay?.target(base);
  const browser = await chromium.launch({
    executablePath: chromiumPath,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--no-first-run', '--disable-background-networking',
      '--disable-quic', '--disable-component-update', '--disable-sync'],
  });
  let page = null;
  try {
    // The certificate is the test's own; the browser is told to take it rather than taught to trust it.
    const context = await browser.newContext({ viewport: { width: 1200, height: 900 }, ignoreHTTPSErrors: Boolean(options.tls) });
    page = await context.newPage();
    page.setDefaultTimeout(timeout);
    page.on('dialog', (dialog) => dialog.accept());
    const violations = [];
    const pageErrors = [];
    page.on('console', (message) => {
      if (/Content.Security.Policy/i.test(message.text())) violations.push(message.text());
    });
    page.on('pageerror', (error) => pageErrors.push(String(error)));
    // The page's requests on their way, the event stream aside: idle() waits until there are none, so a
    // test can know that what the page shows no longer depends on a read still coming back.
    const inFlight = new Set();
    const idleWaiters = [];
    const settle = (request) => {
      inFlight.delete(request);
      if (inFlight.size === 0) idleWaiters.splice(0).forEach((resolve) => resolve());
    };
    page.on('request', (request) => { if (!request.url().endsWith('/events')) inFlight.add(request); });
    page.on('requestfinished', settle);
    page.on('requestfailed', settle);
    const idle = () => bounded(new Promise((resolve) => {
      if (inFlight.size === 0) resolve();
      else idleWaiters.push(resolve);
    }), 'the page kept requests on their way');
    const origin = relay ? relay.base : base;
    const response = await page.goto(origin + '/');
    assert.equal(response.headers()['content-security-policy'], "default-src 'self'; frame-ancestors 'none'");
    await page.getByText('live', { exact: true }).waitFor();
    await page.locator('.types li', { hasText: 'Self test' }).waitFor();
    await body({ page, base, relay, screenshot, idle, api: hostApi(base) });
    assert.deepEqual(violations, []);
    assert.deepEqual(pageErrors, []);
  } finally {
    // A route handler still fetching when the browser closes would fail after the test, as an unhandled
    // rejection: handlers left running are let go, and whatever they throw from now on is ignored.
    await page?.unrouteAll({ behavior: 'ignoreErrors' }).catch(() => {});
    await browser.close();
    await relay?.close();
    host.kill('SIGTERM');
    if (certificateFolder) rmSync(certificateFolder, { recursive: true, force: true });
  }
}

// Requests of another client, straight to the host (not through the page or the relay).
function hostApi(base) {
  async function call(method, path, body, headers = {}) {
    const reply = await fetch(base + path, {
      method, headers: body === undefined ? headers : { 'Content-Type': 'application/json', ...headers },
      body: body === undefined ? undefined : JSON.stringify(body),
    });
    const text = await reply.text();
    return { status: reply.status, headers: reply.headers, json: text ? JSON.parse(text) : null };
  }
  return {
    call,
    routine: async (id) => (await call('GET', `/routines/${id}`)).json,
    // A creation that answers when the routine exists, so the test does not wait for the continue.
    create: (type) => call('POST', '/routines', { type }, { Prefer: 'respond-async' }),
  };
}

// The promise's value, or a failure naming `what` after the tests' bound.
export function bounded(promise, what) {
  let timer;
  const expiry = new Promise((resolve, reject) => { timer = setTimeout(() => reject(new Error(what)), timeout); });
  return Promise.race([promise, expiry]).finally(() => clearTimeout(timer));
}

// The page's routine article and a type's Start button.
export const routineOf = (page, id) => page.locator('article.routine', { hasText: id });
export const startOf = (page, typeName) => page.locator('.types li', { hasText: typeName }).getByRole('button', { name: 'Start' });

// Waits until the text of the element an input names in aria-describedby contains `text`.
export async function waitForDescription(input, text) {
  await input.page().waitForFunction(([element, expected]) => {
    const ids = (element.getAttribute('aria-describedby') || '').split(/\s+/);
    return ids.some((id) => document.getElementById(id)?.textContent.includes(expected));
  }, [await input.elementHandle(), text], { timeout });
}
