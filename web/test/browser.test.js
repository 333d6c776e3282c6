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
import { nimbara } from './support/package.js';

const { isHeadsetRoute } = nimbara;

const screenshots = join(siteDir, '../screenshots');
const heardWav = join(scratch, 'microphone.wav');
let server, browser, address;

// Records what reaches the destination of every context the page opens: a
// tap (an AudioWorklet that keeps its input) is connected beside the
// destination to every buffer source the page connects there, before the
// source starts. Also keeps, per source started, the rates and whether it
// played to its end.
function recordPlayback() {
  window.__played = [];
  window.__atDestination = [[], []];
  const tapCode = `registerProcessor('nimbara-tap', class extends AudioWorkletProcessor {
    process(inputs) {
      if (inputs[0].length > 0) this.port.postMessage(inputs[0].map((channel) => channel.slice()));
      return true;
    }
  });`;
  const tapUrl = URL.createObjectURL(new Blob([tapCode], { type: 'text/javascript' }));
  const taps = new WeakMap();
  const tapOf = (context) => {
    if (!taps.has(context)) {
      taps.set(context, context.audioWorklet.addModule(tapUrl).then(() => {
        const tap = new AudioWorkletNode(context, 'nimbara-tap', {
          numberOfInputs: 1, numberOfOutputs: 0, channelCount: 2, channelCountMode: 'explicit', channelInterpretation: 'discrete',
        });
        tap.port.onmessage = ({ data }) => data.forEach((channel, c) => window.__atDestination[c]?.push(channel));
        return tap;
      }));
    }
    return taps.get(context);
  };
  const connect = AudioBufferSourceNode.prototype.connect;
  AudioBufferSourceNode.prototype.connect = function (target, ...rest) {
    if (target instanceof AudioDestinationNode) this.__tapped = tapOf(this.context).then((tap) => connect.call(this, tap));
    return connect.call(this, target, ...rest);
  };
  const start = AudioBufferSourceNode.prototype.start;
  AudioBufferSourceNode.prototype.start = function (...args) {
    const record = { contextRate: this.context.sampleRate, bufferRate: this.buffer.sampleRate, toDestination: Boolean(this.__tapped), ended: false };
    window.__played.push(record);
    this.addEventListener('ended', () => { record.ended = true; });
    if (!this.__tapped) return start.apply(this, args);
    this.__tapped.then(() => start.apply(this, args));
  };
}

// The two channels that reached the destination as 16-bit values, from the
// first sound on, `frames` long, and how many samples after them were not
// silent.
function heardAtDestination(frames) {
  const joined = window.__atDestination.map((chunks) => {
    const out = new Float32Array(chunks.reduce((n, c) => n + c.length, 0));
    let at = 0;
    for (const c of chunks) { out.set(c, at); at += c.length; }
    return out;
  });
  const first = joined[0].findIndex((x) => x !== 0);
  if (first < 0 || joined[0].length < first + frames) return null;
  return {
    channels: joined.map((channel) => Array.from(channel.subarray(first, first + frames), (x) => Math.round(x * 32768))),
    loudAfter: joined.reduce((n, channel) => n + channel.subarray(first + frames).filter((x) => x !== 0).length, 0),
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
  assert.deepEqual(played, { contextRate: 44100, bufferRate: 44100, toDestination: true, ended: true });
  const native = toolRender('doSprayWithLightLedGetTankId', [18, 171, 52, 7, 5000]);
  const frames = native.length / 2;
  const heard = await (await page.waitForFunction(heardAtDestination, frames, { timeout: 10000 })).jsonValue();
  assert.equal(heard.channels.length, 2);
  for (const [c, channel] of heard.channels.entries()) {
    const expected = native.filter((_, i) => i % 2 === c);
    assert.equal(firstDifference(Int16Array.from(channel), expected), -1, `channel ${c}`);
  }
  assert.equal(heard.loudAfter, 0);
  assert.equal(await page.getByTestId('led').evaluate((e) => e.style.background), 'rgb(18, 171, 52)');
  mkdirSync(screenshots, { recursive: true });
  await page.screenshot({ path: join(screenshots, 'puff.png'), fullPage: true });
  assert.deepEqual(problems, []);
  await context.close();
});

test('with the output names known the presence rule applies; the listen panel lists the transmission the microphone hears', async () => {
  const { context, page, problems } = await openPage({ permissions: ['microphone'] });
  // With the permission the output names are readable; the page judges the
  // default output's name (Chromium's fake output, or a sound server's) by
  // the library's rule, and without an accessory plays only when told to.
  const current = await page.evaluate(async () =>
    (await navigator.mediaDevices.enumerateDevices()).find((d) => d.kind === 'audiooutput' && d.deviceId === 'default')?.label ?? null);
  const presence = await page.getByTestId('presence').innerText();
  if (current === null || current === '') {
    assert.match(presence, /cannot tell/);
  } else if (isHeadsetRoute(current)) {
    assert.match(presence, /counts as present/);
  } else {
    assert.ok(presence.includes(`“${current}” does not name headphones`), presence);
    await page.getByTestId('puff').click();
    assert.match(await page.getByTestId('playing').innerText(), /Not played: no accessory/);
    await page.getByTestId('skip-precheck').check();
  }
  await page.getByTestId('puff').click();
  await page.waitForFunction(() => window.__played.length === 1);

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
