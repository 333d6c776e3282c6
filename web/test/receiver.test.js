// render, then decode and the streaming Receiver, back to the same commands.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { nimbara } from './support/package.js';

const { render, decode, Receiver } = nimbara;

const commands = [
  ['flash', [255, 0, 128, 1, 500], { command: 'flash', opcode: 4, red: 255, green: 0, blue: 128, special: 1, time: 500 }],
  ['puff', [18, 171, 52, 7, 5000], { command: 'puff', opcode: 5, red: 18, green: 171, blue: 52, special: 7, time: 1000, asks_tank: true }],
  ['doSprayWithLightLed', [1, 2, 3, 4, 50], { command: 'puff', opcode: 2, red: 1, green: 2, blue: 3, special: 4, time: 100, asks_tank: false }],
  ['spray', [-300], { command: 'spray', time: -300 }],
  ['state', [], { command: 'state', opcode: 1 }],
  ['tank', [], { command: 'tank', opcode: 3 }],
  ['echo', [4294967295], { command: 'echo', opcode: 255, number: 4294967295 }],
];

const silence = (seconds) => new Int16Array(2 * Math.round(seconds * 44100));

function concat(parts) {
  const out = new Int16Array(parts.reduce((n, p) => n + p.length, 0));
  let at = 0;
  for (const p of parts) {
    out.set(p, at);
    at += p.length;
  }
  return out;
}

// Every command, each after 0.3 s of silence, and where each one starts.
function stream() {
  const parts = [];
  const starts = [];
  let frames = 0;
  for (const [name, args] of commands) {
    const gap = silence(0.3);
    const samples = render(name, args);
    starts.push((frames + gap.length / 2) / 44100);
    parts.push(gap, samples);
    frames += (gap.length + samples.length) / 2;
  }
  parts.push(silence(0.5));
  return { samples: concat(parts), starts };
}

function assertHeard(heard, starts) {
  assert.equal(heard.length, commands.length, JSON.stringify(heard.map((t) => t.command)));
  heard.forEach((t, i) => {
    const expected = commands[i][2];
    for (const [field, value] of Object.entries(expected)) assert.equal(t[field], value, `${commands[i][0]}: ${field}`);
    assert.equal(t.damaged, false, commands[i][0]);
    assert.ok(Math.abs(t.start - starts[i]) < 0.005, `${commands[i][0]} starts at ${t.start}, not ${starts[i]}`);
    for (const field of ['command', 'opcode', 'start', 'damaged', 'confidence', 'snr_db']) {
      assert.ok(field in t, `no field ${field}`);
    }
    // A field the verb does not carry is left out, as in the tool's JSON.
    const carried = Object.keys(t).filter((f) => !['command', 'opcode', 'start', 'damaged', 'confidence', 'snr_db'].includes(f));
    assert.deepEqual(carried.sort(), Object.keys(expected).filter((f) => !['command', 'opcode'].includes(f)).sort(), commands[i][0]);
  });
}

test('render then decode gives back every command', () => {
  for (const [name, args, expected] of commands) {
    const heard = decode(render(name, args), 44100, 2);
    assert.equal(heard.length, 1, name);
    for (const [field, value] of Object.entries(expected)) assert.equal(heard[0][field], value, `${name}: ${field}`);
    assert.equal(heard[0].damaged, false);
  }
});

test('decode finds every command of a stream, from 16-bit stereo and from float mono', () => {
  const { samples, starts } = stream();
  assertHeard(decode(samples, 44100, 2), starts);
  const mono = new Float32Array(samples.length / 2);
  for (let i = 0; i < mono.length; ++i) mono[i] = samples[2 * i] / 32768 * 0.5;
  assertHeard(decode(mono, 44100, 1), starts);
});

// Runs of sound, [first, end) in frames, between silences of over 50 frames.
function bursts(samples) {
  const runs = [];
  let start = -1;
  let zeros = 0;
  for (let f = 0; f < samples.length / 2; ++f) {
    if (samples[2 * f] !== 0) {
      if (start < 0 || zeros > 50) {
        if (start >= 0) runs[runs.length - 1][1] = f - zeros;
        runs.push([f, 0]);
        start = f;
      }
      zeros = 0;
    } else {
      ++zeros;
    }
  }
  runs[runs.length - 1][1] = samples.length / 2 - zeros;
  return runs;
}

test('a transmission whose second repetition is cut short is reported as damaged', () => {
  const samples = render('flash', [255, 0, 128, 1, 500]);
  const runs = bursts(samples);
  assert.equal(runs.length, 3, 'wake-up and two payload repetitions');
  const [first, end] = runs[2];
  samples.fill(0, 2 * Math.floor((first + end) / 2), 2 * end);
  const heard = decode(samples, 44100, 2);
  assert.equal(heard.length, 1, JSON.stringify(heard));
  assert.equal(heard[0].damaged, true);
});

test('the Receiver fed in uneven chunks hears what decode hears', () => {
  const { samples, starts } = stream();
  let seed = 12345;
  const random = () => (seed = (seed * 1103515245 + 12345) % 2147483648) / 2147483648;
  const sizes = [1, 2, 3, 7, 127, 128, 129, 735, 4096, 30000];
  const receiver = new Receiver(44100, 2);
  const heard = [];
  let at = 0;
  let takes = 0;
  while (at < samples.length) {
    const frames = sizes[Math.floor(random() * sizes.length)];
    receiver.push(samples.subarray(at, Math.min(samples.length, at + 2 * frames)));
    at += 2 * frames;
    const got = receiver.take();
    if (got.length) ++takes;
    heard.push(...got);
  }
  receiver.finish();
  heard.push(...receiver.take());
  receiver.close();
  assertHeard(heard, starts);
  assert.ok(takes >= 2, 'transmissions arrive while the stream goes on, not only at its end');
});

test('the Receiver refuses what it cannot take', () => {
  assert.throws(() => new Receiver(1000, 1), { name: 'RangeError' });
  assert.throws(() => new Receiver(44100, 0), { name: 'RangeError' });
  const receiver = new Receiver(48000, 2);
  assert.throws(() => receiver.push(new Int16Array(3)), { name: 'RangeError', message: /not whole frames/ });
  assert.throws(() => receiver.push([0, 0]), { name: 'TypeError' });
  receiver.push(new Float32Array(2));
  assert.deepEqual(receiver.take(), []);
  receiver.close();
  assert.throws(() => receiver.push(new Int16Array(2)), { message: /closed/ });
  receiver.close();  // twice is harmless
});
