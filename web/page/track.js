// The scent track panel: a video and its WebVTT track. The track's cues join
// the video as a metadata text track; each command is scheduled on the
// AudioContext's clock from the video's current time, ahead of its cue (the
// text track's cuechange alone comes too late and too coarse). A
// pause holds the track, a seek moves it (cues jumped over are not played).
import { parseTrack, render } from './nimbara/nimbara.js';
import { audioContext } from './page.js';

const RATE = 44100;
const AHEAD = 0.5;  // seconds of the film scheduled in advance (a busy page may lag)
const $ = (id) => document.querySelector(`[data-testid="${id}"]`);
const video = $('track-video');
const status = $('track-status');

let cues = [];       // the track's cues, each with its AudioBuffer
let next = 0;        // the first cue not yet scheduled
let pending = [];    // scheduled sources: { source, index, when }
let textTrack = null;
let wakeLock = null;

function bufferOf(ctx, samples) {
  const frames = samples.length / 2;
  const buffer = ctx.createBuffer(2, frames, RATE);
  for (let channel = 0; channel < 2; ++channel) {
    const data = new Float32Array(frames);
    for (let i = 0; i < frames; ++i) data[i] = samples[2 * i + channel] / 32768;
    buffer.copyToChannel(data, channel);
  }
  return buffer;
}

function say(text, error = false) {
  status.textContent = text;
  status.className = error ? 'note error' : 'note';
}

// The first cue at or after the film's position.
function cueAt(seconds) {
  const i = cues.findIndex((cue) => cue.start >= seconds - 0.001);
  return i < 0 ? cues.length : i;
}

// The film's clock on the AudioContext's: film = heard x rate + offset, where
// `heard` is the context time of the sample frame leaving the output now, so
// that a command sounds when the film shows its cue. The output's timestamp
// gives it smoothly against the page's clock, as the film's currentTime runs;
// the context's own currentTime runs ahead of it by the output's latency and
// moves in steps of its buffer (there the offset is the largest of the last
// STEPS seconds, where the steps meet the film). The context's clock may jump
// against the film (a late buffer, a device that changes, a node that joins
// the graph): an offset that moves by MOVED moves the commands not yet begun.
const STEPS = 0.2;
const MOVED = 0.004;
let anchor = null;   // { offset, rate }
let stepped = [];    // recent { time, offset, rate } of a clock that moves in steps
let stillAt = null;  // the film's position while it has not moved yet

function heardNow(ctx) {
  const stamp = ctx.getOutputTimestamp?.();
  if (stamp?.performanceTime > 0) {
    return { time: stamp.contextTime + (performance.now() - stamp.performanceTime) / 1000, smooth: true };
  }
  return { time: ctx.currentTime - (ctx.baseLatency ?? 0) - (ctx.outputLatency ?? 0), smooth: false };
}

function whenOf(cue, ctx) {
  // On a whole frame: a source started between two frames is interpolated.
  return Math.round(((cue.start - anchor.offset) / anchor.rate) * ctx.sampleRate) / ctx.sampleRate;
}

// Reads the film against the context; returns the heard time.
function follow(ctx) {
  const rate = video.playbackRate || 1;
  const { time, smooth } = heardNow(ctx);
  let offset = video.currentTime - time * rate;
  if (!smooth) {
    stepped = stepped.filter((s) => s.time > time - STEPS && s.rate === rate);
    stepped.push({ time, offset, rate });
    offset = Math.max(...stepped.map((s) => s.offset));
  }
  if (anchor && anchor.rate === rate && Math.abs(offset - anchor.offset) < MOVED) return time;
  const moved = anchor !== null;
  anchor = { offset, rate };
  if (moved) next = cancel();
  return time;
}

function schedule() {
  if (video.paused || video.ended || video.seeking || cues.length === 0) return;
  if (!anchor && (stillAt === null || video.currentTime === stillAt)) return;
  const ctx = audioContext();
  const film = follow(ctx) * anchor.rate + anchor.offset;
  const soonest = Math.ceil(ctx.currentTime * ctx.sampleRate) / ctx.sampleRate;
  for (; next < cues.length && cues[next].start < film + AHEAD; ++next) {
    const cue = cues[next];
    const when = Math.max(whenOf(cue, ctx), soonest);
    const source = ctx.createBufferSource();
    source.buffer = cue.buffer;
    source.connect(ctx.destination);
    source.start(when);
    const entry = { source, index: next, when };
    pending.push(entry);
    source.addEventListener('ended', () => { pending = pending.filter((p) => p !== entry); }, { once: true });
    say(`Cue ${next + 1} of ${cues.length} at ${cue.start.toFixed(3)} s: ${cue.text.replace(/\s+/g, ' ')}`);
  }
}

// Stops the commands that have not begun; returns the first of them.
function cancel() {
  const now = audioContext().currentTime;
  let first = next;
  for (const p of pending) {
    if (p.when > now) {
      p.source.stop();
      first = Math.min(first, p.index);
    }
  }
  pending = pending.filter((p) => p.when <= now);
  return first;
}

let timer = 0;
function run() {
  anchor = null;
  stepped = [];
  stillAt = video.currentTime;
  clearInterval(timer);
  timer = setInterval(schedule, 5);
  schedule();
}
function halt() {
  anchor = null;
  stepped = [];
  clearInterval(timer);
  timer = 0;
}

async function keepAwake(on) {
  try {
    if (on && !wakeLock && navigator.wakeLock) {
      wakeLock = await navigator.wakeLock.request('screen');
      wakeLock.addEventListener('release', () => { wakeLock = null; }, { once: true });
    } else if (!on && wakeLock) {
      await wakeLock.release();
    }
  } catch {
    // the browser may refuse (a hidden page, low battery): the track plays on
  }
}

async function loadTrack(file) {
  let parsed;
  try {
    parsed = parseTrack(await file.text(), file.name);
  } catch (error) {
    say(error.message.replace(/^nimbara: /, ''), true);
    return;
  }
  cancel();
  const ctx = audioContext();
  cues = parsed.map((cue) => ({ ...cue, buffer: bufferOf(ctx, render(cue.fields)) }));
  if (textTrack) textTrack.mode = 'disabled';
  textTrack = video.addTextTrack('metadata', file.name);
  textTrack.mode = 'hidden';
  for (const cue of cues) textTrack.addCue(new VTTCue(cue.start, cue.start + cue.buffer.duration, cue.text));
  textTrack.addEventListener('cuechange', schedule);
  next = cueAt(video.currentTime);
  say(`${cues.length} cues from ${file.name}: ${cues.map((c) => `${c.command} at ${c.start.toFixed(3)} s`).join(', ')}`);
  document.body.dataset.trackReady = String(cues.length);
}

$('video-file').addEventListener('change', (event) => {
  const [file] = event.target.files;
  if (!file) return;
  if (video.src) URL.revokeObjectURL(video.src);
  video.src = URL.createObjectURL(file);
});
$('track-file').addEventListener('change', (event) => {
  const [file] = event.target.files;
  if (file) loadTrack(file);
});
video.addEventListener('play', () => {
  audioContext().resume();
  keepAwake(true);
});
video.addEventListener('playing', run);  // moving: after a play, a seek or a stall
video.addEventListener('waiting', halt);
video.addEventListener('pause', () => {
  halt();
  next = cancel();
  keepAwake(false);
});
video.addEventListener('seeking', () => {
  halt();
  cancel();
});
video.addEventListener('seeked', () => {
  next = cueAt(video.currentTime);
});
video.addEventListener('ratechange', () => {
  next = cancel();
  schedule();  // a new rate sets the offset afresh
});
video.addEventListener('ended', () => {
  halt();
  keepAwake(false);
});
