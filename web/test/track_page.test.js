// The page's scent track panel and its phone side in headless Chromium with a
// phone's viewport and touch: a video made by ffmpeg and its track play, the
// commands reaching the audio destination are the renders bit for bit, in
// order, spaced as their cues; a pause holds the track and a seek skips; the
// screen is kept on while the track plays; a suspended context runs on the
// first touch; the page reloads offline through its service worker and still
// plays a puff; a browser with navigator.audioSession gets "playback".
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { chromium, devices } from 'playwright-core';
import { serve } from '../serve.js';
import { firstDifference, scratch, siteDir } from './support/native.js';
import { nimbara } from './support/package.js';

const { parseTrack, render } = nimbara;
const RATE = 44100;
const SPACING_MS = 30;  // how far a command may start from its cue's place
// How far a pause may move the track from the film's own hold.
const HOLD_MS = 15;

const TRACK = `WEBVTT

NOTE three scents along a six-second film

00:00.500 --> 00:01.000
puff orange --time 300

00:01.750 --> 00:02.000
flash 0 128 255

00:03.000 --> 00:03.500
{"command": "echo", "number": 7}

00:04.500 --> 00:05.000
spray 200
`;
const video = join(scratch, 'film.webm');
const trackPath = join(scratch, 'film.vtt');
let server, browser, address;

// Everything that reaches the destination, with the context's frame where
// each block begins: a tap beside the destination on every buffer source.
function recordDestination() {
  window.__blocks = [];
  const code = `registerProcessor('nimbara-tap', class extends AudioWorkletProcessor {
    process(inputs) {
      if (inputs[0].length > 0) this.port.postMessage({ frame: currentFrame, channels: inputs[0].map((c) => c.slice()) });
      return true;
    }
  });`;
  const url = URL.createObjectURL(new Blob([code], { type: 'text/javascript' }));
  const taps = new WeakMap();
  const tapOf = (context) => {
    if (!taps.has(context)) {
      window.__context = context;
      taps.set(context, context.audioWorklet.addModule(url).then(() => {
        const tap = new AudioWorkletNode(context, 'nimbara-tap', {
          numberOfInputs: 1, numberOfOutputs: 0, channelCount: 2, channelCountMode: 'explicit', channelInterpretation: 'discrete',
        });
        tap.port.onmessage = ({ data }) => window.__blocks.push(data);
        // Silence into the tap keeps it processing between the sounds, so
        // that its frames run on without a break.
        const keep = context.createConstantSource();
        keep.offset.value = 0;
        keep.connect(tap);
        keep.start();
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
    if (!this.__tapped) return start.apply(this, args);
    this.__tapped.then(() => start.apply(this, args));
  };
}

// A Wake Lock that records each request and release.
function recordWakeLock() {
  window.__wake = [];
  const request = async (type) => {
    window.__wake.push(`request ${type}`);
    const sentinel = new EventTarget();
    sentinel.release = async () => {
      window.__wake.push('release');
      sentinel.dispatchEvent(new Event('release'));
    };
    return sentinel;
  };
  Object.defineProperty(navigator, 'wakeLock', { value: { request }, configurable: true });
}

// Waits until the Wake Lock has seen `calls`, and checks them.
async function wakeCalls(page, calls) {
  await page.waitForFunction((n) => window.__wake.length >= n, calls.length, { timeout: 5000 }).catch(() => {});
  assert.deepEqual(await page.evaluate(() => window.__wake), calls);
}

// The sounds that reached the destination: each run of non-silent blocks, as
// its first frame and its left and right 16-bit samples.
function sounds(blocks) {
  // The tap runs without a break, a block each 128 frames; Chromium may stamp
  // the first blocks early, so the frames are counted back from the last.
  const last = blocks.at(-1).frame;
  const out = [];
  let current = null;
  for (const [i, { channels }] of blocks.entries()) {
    const frame = last - (blocks.length - 1 - i) * 128;
    const loud = channels[0].some((x) => x !== 0);
    if (current && frame === current.end && (loud || current.trailing < 4)) {
      current.trailing = loud ? 0 : current.trailing + 1;
    } else if (loud) {
      current = { frame, end: frame, trailing: 0, channels: [[], []] };
      out.push(current);
    } else {
      continue;
    }
    channels.forEach((c, i) => current.channels[i].push(...Array.from(c, (x) => Math.round(x * 32768))));
    current.end = frame + channels[0].length;
  }
  return out.map(({ frame, channels }) => {
    const first = channels[0].findIndex((x) => x !== 0);
    return { start: frame + first, channels: channels.map((c) => c.slice(first)) };
  });
}

// Checks that the sounds are the cues' renders, bit for bit, in order, and
// spaced as the cues (plus `extra` seconds before each cue from `after`).
function checkSounds(heard, cues, { after = Infinity, extra = 0 } = {}) {
  assert.equal(heard.length, cues.length, `${heard.length} sounds for ${cues.length} cues`);
  const offsets = [];
  heard.forEach((sound, i) => {
    const samples = render(cues[i].fields);
    for (let c = 0; c < 2; ++c) {
      const expected = samples.filter((_, k) => k % 2 === c);
      let last = expected.length - 1;
      while (last > 0 && expected[last] === 0) --last;
      const got = Int16Array.from(sound.channels[c].slice(0, last + 1));
      const ahead = Int16Array.from(expected.subarray(expected.findIndex((x) => x !== 0), last + 1));
      assert.equal(firstDifference(got, ahead), -1, `cue ${i + 1}, channel ${c}`);
    }
    const cueStart = cues[i].start + (cues[i].start >= after ? extra : 0);
    const leading = samples.findIndex((x) => x !== 0) / 2;  // a render may begin with silence
    offsets.push((sound.start - leading) / RATE - cueStart);
  });
  const spread = offsets.map((o) => (o - offsets[0]) * 1000);
  for (const [i, ms] of spread.entries()) {
    assert.ok(Math.abs(ms) < SPACING_MS, `cue ${i + 1} is ${ms.toFixed(1)} ms from its place`);
  }
  return spread;
}

before(async () => {
  execFileSync('ffmpeg', ['-loglevel', 'error', '-y', '-f', 'lavfi', '-i', 'testsrc=size=160x120:rate=25',
    '-t', '6', '-c:v', 'libvpx', '-b:v', '100k', video]);
  writeFileSync(trackPath, TRACK);
  server = await serve(siteDir, 0, '127.0.0.1');
  address = `http://127.0.0.1:${server.address().port}/`;
  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync',
      '--autoplay-policy=no-user-gesture-required'],
  });
});

after(async () => {
  await browser?.close();
  server?.close();
});

async function openPhone(init) {
  const { defaultBrowserType, ...phone } = devices['Pixel 5'];
  const context = await browser.newContext({ ...phone });
  const page = await context.newPage();
  const problems = [];
  page.on('console', (m) => { if (m.type() === 'error' || m.type() === 'warning') problems.push(`console ${m.type()}: ${m.text()}`); });
  page.on('pageerror', (e) => problems.push(`page error: ${e.message}`));
  await page.addInitScript(recordDestination);
  if (init) await page.addInitScript(init);
  await page.goto(address);
  await page.waitForSelector('body[data-ready="true"]');
  return { context, page, problems };
}

// Waits until `blocks` blocks of sound (not silence) have reached the destination.
function loudBlocks(page, blocks) {
  return page.waitForFunction((n) => window.__blocks.filter((b) => b.channels[0].some((x) => x !== 0)).length >= n, blocks);
}

async function loadFilm(page) {
  await page.getByTestId('video-file').setInputFiles(video);
  await page.getByTestId('track-file').setInputFiles(trackPath);
  await page.waitForSelector('body[data-track-ready="4"]');
  await page.waitForFunction(() => document.querySelector('[data-testid="track-video"]').readyState >= 1);
}

test('a film and its track play: each command the render, at its cue', async () => {
  const { context, page, problems } = await openPhone(recordWakeLock);
  await loadFilm(page);
  // A suspended context (as a phone's browser makes it) runs on the first touch.
  assert.equal(await page.evaluate(async () => {
    const { audioContext } = await import('./page.js');
    window.__page = audioContext();
    await window.__page.suspend();
    return window.__page.state;
  }), 'suspended');
  await page.getByTestId('track-status').tap();
  await page.waitForFunction(() => window.__page.state === 'running', null, { timeout: 5000 });
  await page.getByTestId('track-video').evaluate((v) => v.play());
  await wakeCalls(page, ['request screen']);  // the screen stays on while the track plays
  // The panel on the phone's screen while the second cue plays.
  await page.waitForFunction(() => document.querySelector('[data-testid="track-video"]').currentTime > 1.8);
  await page.evaluate(() => document.querySelector('section.track').scrollIntoView({ block: 'start' }));
  await page.screenshot({ path: join(siteDir, '../screenshots/track-phone.png') });
  await page.getByTestId('track-video').evaluate((v) => new Promise((done) => (v.ended ? done() : v.addEventListener('ended', done, { once: true }))));
  await wakeCalls(page, ['request screen', 'release']);
  const heard = sounds(await page.evaluate(() => window.__blocks));
  const spread = checkSounds(heard, parseTrack(TRACK));
  console.log(`track panel: cues at ${spread.map((ms) => ms.toFixed(1)).join(', ')} ms from their places`);
  assert.match(await page.getByTestId('track-status').innerText(), /^Cue 4 of 4 at 4\.500 s: spray 200/);
  assert.deepEqual(problems, []);
  await context.close();
});

test('a pause holds the track and a seek skips the cues jumped over', async () => {
  const { context, page, problems } = await openPhone(recordWakeLock);
  await loadFilm(page);
  const player = page.getByTestId('track-video');
  await player.evaluate((v) => v.play());
  // Paused for a second once the first cue has begun. The film's hold is
  // the time from the pause until the film moves again, less the film's own
  // advance by then (on the page's clock: the context's moves in steps).
  await loudBlocks(page, 1);
  const paused = await player.evaluate((v) => { v.pause(); return { time: performance.now() / 1000, film: v.currentTime }; });
  await wakeCalls(page, ['request screen', 'release']);
  await page.evaluate(() => new Promise((done) => setTimeout(done, 1000)));  // the pause itself
  const resumed = await player.evaluate((v) => new Promise((done) => {
    const from = v.currentTime;
    const moved = () => (v.currentTime !== from ? done({ time: performance.now() / 1000, film: v.currentTime }) : setTimeout(moved, 1));
    v.play().then(moved);
  }));
  // Past the second cue (1.75 s), a seek over the third (3.0 s) to 4.0 s.
  await page.waitForFunction(() => document.querySelector('[data-testid="track-video"]').currentTime > 2.3);
  // The seek's moment as the context time leaving the output then.
  const seekedAt = await player.evaluate((v) => {
    v.currentTime = 4.0;
    const stamp = window.__context.getOutputTimestamp();
    return stamp.contextTime + (performance.now() - stamp.performanceTime) / 1000;
  });
  await player.evaluate((v) => new Promise((done) => (v.ended ? done() : v.addEventListener('ended', done, { once: true }))));

  await wakeCalls(page, ['request screen', 'release', 'request screen', 'release']);

  const heard = sounds(await page.evaluate(() => window.__blocks));
  const cues = parseTrack(TRACK);
  assert.equal(heard.length, 3, `${heard.length} sounds: the third cue should be jumped over`);
  checkSounds([heard[0]], [cues[0]]);
  checkSounds([heard[1]], [cues[1]]);
  checkSounds([heard[2]], [cues[3]]);
  const pause = resumed.time - paused.time - (resumed.film - paused.film);
  const held = (heard[1].start - heard[0].start) / RATE - (cues[1].start - cues[0].start);
  assert.ok(Math.abs(held - pause) < HOLD_MS / 1000, `paused ${(pause * 1000).toFixed(0)} ms, the track held ${(held * 1000).toFixed(0)} ms`);
  const afterSeek = heard[2].start / RATE - seekedAt;
  assert.ok(afterSeek > 0.5 - 0.03 && afterSeek < 0.5 + 0.25, `the fourth cue came ${(afterSeek * 1000).toFixed(0)} ms after the seek to 0.5 s before it`);
  console.log(`track panel: paused ${(pause * 1000).toFixed(0)} ms, held ${(held * 1000).toFixed(0)} ms; the cue 0.5 s after the seek came after ${(afterSeek * 1000).toFixed(0)} ms`);
  assert.deepEqual(problems, []);
  await context.close();
});

test('installable and offline after the first visit; the audio session is "playback"', async () => {
  const { context, page, problems } = await openPhone(() => {
    Object.defineProperty(navigator, 'audioSession', { value: { type: 'auto' }, configurable: true });
  });
  assert.equal(await page.evaluate(() => navigator.audioSession.type), 'playback');
  const manifest = await page.evaluate(async () => (await fetch(document.querySelector('link[rel="manifest"]').href)).json());
  assert.equal(manifest.display, 'standalone');
  assert.ok(manifest.start_url);
  // Every icon is served as declared; PNGs of 192 and 512 pixels, plain and maskable.
  for (const icon of manifest.icons) {
    const response = await fetch(new URL(icon.src, address));
    assert.equal(response.headers.get('content-type'), icon.type, icon.src);
    if (icon.type !== 'image/png') continue;
    const png = Buffer.from(await response.arrayBuffer());
    assert.equal(png.toString('latin1', 1, 4), 'PNG', icon.src);
    assert.equal(`${png.readUInt32BE(16)}x${png.readUInt32BE(20)}`, icon.sizes, icon.src);
  }
  const pngs = manifest.icons.filter((i) => i.type === 'image/png').map((i) => `${i.sizes} ${i.purpose}`).sort();
  assert.deepEqual(pngs, ['192x192 any', '192x192 maskable', '512x512 any', '512x512 maskable']);
  await page.evaluate(() => navigator.serviceWorker.ready);
  await page.reload();  // the worker now controls the page
  await page.waitForSelector('body[data-ready="true"]');
  await page.waitForFunction(() => navigator.serviceWorker.controller !== null);

  await context.setOffline(true);
  await page.reload();
  await page.waitForSelector('body[data-ready="true"]');
  await page.getByTestId('puff').tap();
  await loudBlocks(page, 4);
  const [heard] = sounds(await page.evaluate(() => window.__blocks));
  const puff = render('puff', [255, 0, 128, 0, 500]);
  const left = puff.filter((_, k) => k % 2 === 0);
  const first = left.findIndex((x) => x !== 0);
  assert.equal(firstDifference(Int16Array.from(heard.channels[0].slice(0, 400)), left.subarray(first, first + 400)), -1);
  assert.deepEqual(problems, []);
  await context.close();
});
