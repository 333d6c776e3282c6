// The page in a real browser: Debian's Chromium, headless, driven by
// playwright-core. It loads cleanly, a puff plays exactly the native samples
// at 44100 Hz, and the listen panel decodes a WAV file played as the
// microphone.
import assert from 'node:assert/strict';
import { mkdirSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { chromium } from 'playwright-core';
import { serve } from '../serve.js';
import { firstDifference, scratch, siteDir, toolRender, wavBytes } from './support/native.js';

const screenshots = join(siteDir, '../screenshots');
const heardWav = join(scratch, 'microphone.wav');
let server, browser, address;

// What the page hands the context: every buffer source started, with its
// samples back as 16-bit values, whether it goes to the destination, the
// rates, and whether it played to its end.
function recordPlayback() {
  window.__played = [];
  const connect = AudioBufferSourceNode.prototype.connect;
  AudioBufferSourceNode.prototype.connect = function (target, ...rest) {
    if (target instanceof AudioDestinationNode) this.__toDestination = true;
    return connect.call(this, target, ...rest);
  };
  const start = AudioBufferSourceNode.prototype.start;
  AudioBufferSourceNode.prototype.start = function (...args) {
    const buffer = this.buffer;
    const record = {
      contextRate: this.context.sampleRate,
      bufferRate: buffer.sampleRate,
      toDestination: Boolean(this.__toDestination),
      channels: Array.from({ length: buffer.numberOfChannels }, (_, c) =>
        Array.from(buffer.getChannelData(c), (x) => Math.round(x * 32768))),
      ended: false,
    };
    this.addEventListener('ended', () => { record.ended = true; record.endTime = this.context.currentTime; });
    window.__played.push(record);
    return start.apply(this, args);
  };
}

before(async () => {
  // The microphone hears a puff between silences (Chromium loops the file).
  const puff = toolRender('doSprayWithLightLedGetTankId', [200, 30, 90, 5, 700]);
  const pad = new Int16Array(2 * 44100 * 0.5);
  const samples = new Int16Array(pad.length * 2 + puff.length);
  samples.set(puff, pad.length);
  writeFileSync(heardWav, wavBytes(samples, 44100, 2));

  server = await serve(siteDir, 0, '127.0.0.1');
  address = `http://127.0.0.1:${server.address().port}/`;
  // launch() gives the browser a fresh profile in a new temporary folder.
  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync',
      '--use-fake-device-for-media-stream', `--use-file-for-fake-audio-capture=${heardWav}`],
  });
});

after(async () => {
  await browser?.close();
  server?.close();
});

async function openPage(options = {}) {
  const context = await browser.newContext(options);
  const page = await context.newPage();
  const problems = [];
  page.on('console', (m) => { if (m.type() === 'error' || m.type() === 'warning') problems.push(`console ${m.type()}: ${m.text()}`); });
  page.on('pageerror', (e) => problems.push(`page error: ${e.message}`));
  page.on('requestfailed', (r) => problems.push(`request failed: ${r.url()}`));
  page.on('response', (r) => { if (r.status() >= 400) problems.push(`HTTP ${r.status()}: ${r.url()}`); });
  await page.addInitScript(recordPlayback);
  await page.goto(address);
  await page.waitForSelector('body[data-ready="true"]');
  return { context, page, problems };
}

test('the page loads cleanly, and a puff plays exactly the native samples', async () => {
  const { context, page, problems } = await openPage();
  for (const id of ['color', 'time', 'special', 'flash', 'puff', 'spray', 'listen', 'heard']) {
    assert.equal(await page.getByTestId(id).count(), 1, `data-testid ${id}`);
  }
  assert.equal(await page.getByTestId('color').getAttribute('type'), 'color');
  assert.match(await page.getByTestId('volume').innerText(), /maximum volume/);
  assert.match(await page.getByTestId('presence').innerText(), /cannot tell .* plays anyway/);

  await page.getByTestId('color').fill('#12ab34');
  await page.getByTestId('time').fill('5000');
  await page.getByTestId('special').fill('7');
  const action = await page.getByTestId('action').innerText();
  assert.match(action, /Puff: the accessory sprays for 1000 ms with its LED rgb\(18, 171, 52\) \(special 7\).*5000 ms is clamped/);
  assert.match(action, /Spray: the accessory sprays for 5000 ms/);

  await page.getByTestId('puff').click();
  await page.waitForFunction(() => window.__played.length === 1 && window.__played[0].ended, null, { timeout: 10000 });
  const [played] = await page.evaluate(() => window.__played);
  assert.equal(played.contextRate, 44100);
  assert.equal(played.bufferRate, 44100);
  assert.equal(played.toDestination, true);
  const native = toolRender('doSprayWithLightLedGetTankId', [18, 171, 52, 7, 5000]);
  assert.equal(played.channels.length, 2);
  for (const [c, channel] of played.channels.entries()) {
    const expected = native.filter((_, i) => i % 2 === c);
    assert.equal(firstDifference(Int16Array.from(channel), expected), -1, `channel ${c}`);
  }
  assert.equal(await page.getByTestId('led').evaluate((e) => e.style.background), 'rgb(18, 171, 52)');
  mkdirSync(screenshots, { recursive: true });
  await page.screenshot({ path: join(screenshots, 'puff.png'), fullPage: true });
  assert.deepEqual(problems, []);
  await context.close();
});

test('the listen panel lists the transmission the microphone hears', async () => {
  const { context, page, problems } = await openPage({ permissions: ['microphone'] });
  await page.getByTestId('listen').click();
  // Each transmission is one child; Chromium loops the file, so more follow.
  const heard = /^puff rgb\(200, 30, 90\) special 5 time 700 ms/;
  await page.getByTestId('heard').locator(':scope > *', { hasText: heard }).first().waitFor({ timeout: 15000 });
  assert.match(await page.getByTestId('listen-status').innerText(), /^Listening at \d+ Hz/);
  await page.screenshot({ path: join(screenshots, 'listen.png'), fullPage: true });
  await page.getByTestId('listen').click();  // stop
  await page.waitForFunction(() => document.querySelector('[data-testid="listen"]').textContent === 'Listen');
  assert.deepEqual(problems, []);
  await context.close();
});
