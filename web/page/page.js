// The web remote: plays the library's own samples (rendered by its
// WebAssembly build) through Web Audio at 44100 Hz, so the accessory hears
// exactly what the native library would play; and listens with the library's
// receiver in an AudioWorklet.
import { render, describe, verbFields, isHeadsetRoute, wasmBinary } from './nimbara/nimbara.js';

const RATE = 44100;
const $ = (id) => document.querySelector(`[data-testid="${id}"]`);

// ---- the command the inputs make -------------------------------------------

function colour() {
  const hex = $('color').value;
  return [1, 3, 5].map((i) => parseInt(hex.slice(i, i + 2), 16));
}

function wholeNumber(id) {
  const text = $(id).value.trim();
  return /^-?\d+$/.test(text) ? Number(text) : NaN;
}

// The command's field map: the inputs' values of the fields the verb carries.
function commandFields(verb) {
  const [red, green, blue] = colour();
  const values = { red, green, blue, special: wholeNumber('special'), time: wholeNumber('time') };
  const fields = { command: verb };
  for (const name of verbFields(verb)) {
    if (name in values) fields[name] = Number.isNaN(values[name]) ? $(name).value.trim() : values[name];
  }
  return fields;
}

function rgb(c) {
  return `rgb(${c.red}, ${c.green}, ${c.blue})`;
}

// What the accessory does on hearing the command, from the fields it carries.
function sentence(c) {
  const led = `its LED ${rgb(c)} (special ${c.special})`;
  if (!('sprays' in c)) return `lights ${led} for ${c.time} ms`;
  if (!('red' in c)) return `sprays for ${c.sprays} ms`;
  return `sprays for ${c.sprays} ms with ${led}` + (c.asks_tank ? ', and is asked for its tank identity' : '');
}

function preview() {
  const lines = [];
  const asked = wholeNumber('time');
  for (const verb of ['flash', 'puff', 'spray']) {
    try {
      const c = describe(commandFields(verb));
      let line = `${verb[0].toUpperCase()}${verb.slice(1)}: the accessory ${sentence(c)}`;
      if ('sprays' in c && c.sprays !== asked) line += ` (${asked} ms is clamped to 100..1000)`;
      lines.push(line + '.');
    } catch (error) {
      lines.push(`${verb}: ${error.message.replace(/^nimbara: /, '')}`);
    }
  }
  const action = $('action');
  action.replaceChildren(...lines.flatMap((line, i) => (i ? [document.createElement('br'), line] : [line])));
  action.classList.remove('error');
}

// ---- presence: the library's route rule on the browser's output names -------

let present = null;  // true, false, or null when the browser cannot tell

async function checkPresence() {
  const out = $('presence');
  out.className = '';
  if (!navigator.mediaDevices?.enumerateDevices) {
    present = null;
    out.textContent = 'This browser does not list audio outputs (it needs https or localhost): it cannot tell whether the accessory is plugged in, and plays anyway.';
    return;
  }
  const outputs = (await navigator.mediaDevices.enumerateDevices()).filter((d) => d.kind === 'audiooutput');
  const named = outputs.filter((d) => d.label);
  if (named.length === 0) {
    present = null;
    out.textContent = outputs.length === 0
      ? 'This browser does not list its audio outputs: it cannot tell whether the accessory is plugged in, and plays anyway.'
      : 'The output names are hidden until the page may use the microphone (Check outputs): until then it cannot tell whether the accessory is plugged in, and plays anyway.';
    return;
  }
  // The current route is the default output where the browser marks one.
  const current = named.find((d) => d.deviceId === 'default') ?? (named.length === 1 ? named[0] : null);
  const judged = current ? [current] : named;
  const match = judged.find((d) => isHeadsetRoute(d.label));
  present = Boolean(match);
  const which = current ? `The current output “${current.label}”` : `Of the outputs ${named.map((d) => `“${d.label}”`).join(', ')}, ${match ? `“${match.label}”` : 'none'}`;
  out.textContent = present
    ? `${which} names headphones: the accessory counts as present.`
    : `${which} ${current ? 'does not name' : 'names'} headphones or a headset: no accessory (plug it in, or tick “play without the accessory”).`;
  out.className = present ? 'present' : 'absent';
}

async function askForOutputNames() {
  try {
    const stream = await navigator.mediaDevices.getUserMedia({ audio: true });
    stream.getTracks().forEach((t) => t.stop());
  } catch (error) {
    $('presence').textContent = `The outputs could not be read: ${error.message}. Commands play anyway.`;
    present = null;
    return;
  }
  await checkPresence();
}

// ---- playing ---------------------------------------------------------------

let context = null;
let queue = Promise.resolve();  // one command at a time, in the order pressed

export function audioContext() {
  // At 44100 Hz the buffer's samples reach the output as they are; a context
  // at another rate would resample the square waves.
  if (!context) {
    try {
      context = new AudioContext({ sampleRate: RATE, latencyHint: 'playback' });
    } catch {
      context = new AudioContext({ latencyHint: 'playback' });  // said on the page when it plays
    }
  }
  return context;
}

function play(verb) {
  let command, samples;
  try {
    command = describe(commandFields(verb));
    samples = render(commandFields(verb));
  } catch (error) {
    $('action').textContent = error.message.replace(/^nimbara: /, '');
    $('action').classList.add('error');
    return;
  }
  if (present === false && !$('skip-precheck').checked) {
    $('playing').textContent = 'Not played: no accessory on the audio output.';
    return;
  }
  const ctx = audioContext();
  ctx.resume();  // within the click, which allows the context to start
  queue = queue.then(() => playNow(ctx, command, samples)).catch((error) => {
    $('playing').textContent = `Not played: ${error.message}`;
  });
}

async function playNow(ctx, command, samples) {
  await ctx.resume();
  const frames = samples.length / 2;
  const buffer = ctx.createBuffer(2, frames, RATE);
  for (let channel = 0; channel < 2; ++channel) {
    const data = new Float32Array(frames);
    for (let i = 0; i < frames; ++i) data[i] = samples[2 * i + channel] / 32768;
    buffer.copyToChannel(data, channel);
  }
  const source = ctx.createBufferSource();
  source.buffer = buffer;
  source.connect(ctx.destination);
  const ended = new Promise((done) => source.addEventListener('ended', done, { once: true }));
  // Started at once, the source begins on a whole sample frame; a browser
  // may interpolate a source started between two frames.
  source.start();

  $('playing').textContent = `${command.command}: ${command.operation}, ${frames} frames at ${ctx.sampleRate} Hz` +
    (ctx.sampleRate !== RATE ? ' (this browser would not open 44100 Hz: the signal is resampled)' : '');
  if ('red' in command) showLed(command);
  drawWhilePlaying(samples, ctx, ctx.currentTime, buffer.duration);
  await ended;
}

function showLed(c) {
  const led = $('led');
  led.style.background = rgb(c);
  led.style.setProperty('--led', rgb(c));
  led.classList.add('lit');
  clearTimeout(showLed.timer);
  showLed.timer = setTimeout(() => led.classList.remove('lit'), Math.max(c.time, 300));
}

// The command's waveform up to the end of its sound (silence fills the rest
// of its time), the part already played in the accent colour.
function drawWaveform(samples, played) {
  const canvas = $('waveform');
  const g = canvas.getContext('2d');
  const { width, height } = canvas;
  const frames = samples.length / 2;
  let last = frames - 1;
  while (last > 0 && samples[2 * last] === 0) --last;
  const shown = Math.min(frames, Math.ceil((last + 1) * 1.04));
  const playedFrames = played * frames;
  const x = (f) => (f / shown) * width;
  const y = (s) => (0.5 - (s / 65536) * 0.85) * height;
  g.clearRect(0, 0, width, height);
  g.lineWidth = 1.5;
  for (const [from, to, colour] of [[0, Math.min(shown, playedFrames), '#d0306a'], [Math.min(shown, playedFrames), shown, '#9aa']]) {
    if (to <= from) continue;
    g.strokeStyle = colour;
    g.beginPath();
    for (let f = Math.floor(from); f < Math.ceil(to) && f < frames; ++f) {
      if (f === Math.floor(from)) g.moveTo(x(f), y(samples[2 * f]));
      else g.lineTo(x(f), y(samples[2 * f]));
    }
    g.stroke();
  }
  canvas.title = `the first ${Math.round((shown / RATE) * 1000)} ms of ${Math.round((frames / RATE) * 1000)} ms: silence follows`;
}

function drawWhilePlaying(samples, ctx, start, duration) {
  const step = () => {
    const played = Math.min(1, Math.max(0, (ctx.currentTime - start) / duration));
    drawWaveform(samples, played);
    if (played < 1) requestAnimationFrame(step);
  };
  step();
}

// ---- listening ---------------------------------------------------------------

let listening = null;

function heardItem(t) {
  const item = document.createElement('li');
  const led = 'red' in t;
  if (led) {
    const swatch = document.createElement('span');
    swatch.className = 'swatch';
    swatch.style.background = rgb(t);
    item.append(swatch);
  }
  let text = t.damaged ? `damaged ${t.command}` : t.command;
  if (led) text += ` ${rgb(t)} special ${t.special}`;
  if ('time' in t) text += ` time ${t.time} ms`;
  if ('number' in t) text += ` number ${t.number}`;
  item.append(`${text}, at ${t.start.toFixed(3)} s`);
  if (t.damaged) item.className = 'damaged';
  return item;
}

async function startListening() {
  const status = $('listen-status');
  if (!window.isSecureContext) throw new Error('the microphone needs a secure page: https, or localhost');
  const stream = await navigator.mediaDevices.getUserMedia({
    audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false },
  });
  const ctx = new AudioContext();
  await ctx.audioWorklet.addModule(new URL('listen-worklet.js', import.meta.url));
  const node = new AudioWorkletNode(ctx, 'nimbara-listener', {
    numberOfInputs: 1,
    numberOfOutputs: 0,
    channelCount: 1,
    channelCountMode: 'explicit',
    processorOptions: { wasmBinary: wasmBinary.slice().buffer },
  });
  node.port.onmessage = ({ data }) => {
    if (data.error) {
      status.textContent = data.error;
      status.className = 'error';
      return;
    }
    for (const t of data.transmissions) $('heard').append(heardItem(t));
  };
  ctx.createMediaStreamSource(stream).connect(node);
  await ctx.resume();
  listening = { ctx, stream };
  status.textContent = `Listening at ${ctx.sampleRate} Hz.`;
  $('listen').textContent = 'Stop';
  checkPresence().catch(() => {});  // the output names are readable now
}

async function stopListening() {
  listening.stream.getTracks().forEach((t) => t.stop());
  await listening.ctx.close();
  listening = null;
  $('listen').textContent = 'Listen';
  $('listen-status').textContent = 'Stopped.';
}

async function toggleListening() {
  const button = $('listen');
  button.disabled = true;
  try {
    if (listening) await stopListening();
    else await startListening();
  } catch (error) {
    $('listen-status').textContent = `Cannot listen: ${error.message}`;
    $('listen-status').className = 'error';
  } finally {
    button.disabled = false;
  }
}

// ---- wiring ---------------------------------------------------------------

for (const verb of ['flash', 'puff', 'spray']) $(verb).addEventListener('click', () => play(verb));
for (const id of ['color', 'time', 'special']) $(id).addEventListener('input', preview);
$('check-outputs').addEventListener('click', askForOutputNames);
$('listen').addEventListener('click', toggleListening);
navigator.mediaDevices?.addEventListener?.('devicechange', () => checkPresence().catch(() => {}));
preview();
try {
  drawWaveform(render(commandFields('puff')), 0);
} catch {
  // the inputs' defaults are valid; a restored form may not be
}
await checkPresence().catch((error) => {
  $('presence').textContent = `Cannot read the outputs (${error.message}): commands play anyway.`;
});
document.body.dataset.ready = 'true';
