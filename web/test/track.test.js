// Scent tracks parsed by the WebAssembly library: the cues, their errors, and
// every cue rendered at its time giving the tool's render of the whole track.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { firstDifference, readWav, scratch } from './support/native.js';
import { nimbara } from './support/package.js';

const { command, describe, parseTrack, render } = nimbara;
const tool = process.env.NIMBARA_TOOL;

const TRACK = `WEBVTT

NOTE a meadow, then roses

meadow
00:00.250 --> 00:01.000 align:start
puff orange --time 300

00:00:01.500 --> 00:00:02.000
{"command": "flash", "red": 0, "green": 128, "blue": 255, "time": 250}

00:02.125 --> 00:02.500
spray 300

00:03.000 --> 00:03.500
puff 1 2 3 --no-tank
`;

test('a track parses into its cues, each with its command\'s field map', () => {
  const cues = parseTrack(TRACK, 'film.vtt');
  assert.deepEqual(cues.map((c) => [c.start, c.line, c.command]), [
    [0.25, 7, 'puff'],
    [1.5, 10, 'flash'],
    [2.125, 13, 'spray'],
    [3, 16, 'puff'],
  ]);
  assert.deepEqual(cues[0].fields, {
    command: 'puff', red: 255, green: 165, blue: 0, special: 0, time: 300, asks_tank: true,
    sprays: 300, operation: 'doSprayWithLightLedGetTankId',
  });
  assert.deepEqual(cues[2].fields, { command: 'spray', time: 300, sprays: 300, operation: 'createSprayProtocol' });
  assert.equal(cues[3].fields.asks_tank, false);
  // The same field map, and length, as command() and describe() give for the cue's text.
  assert.deepEqual(cues[0].fields, command(cues[0].text.split(' ')));
  assert.deepEqual(cues[1].fields, command(JSON.parse(cues[1].text)));
  for (const cue of cues) assert.deepEqual({ ...cue.fields, frames: cue.frames }, describe(cue.fields));
  assert.equal(cues[0].text, 'puff orange --time 300');
});

test('a bad track names its line', () => {
  assert.throws(() => parseTrack('WEBVTT\n\n00:01.000 --> 00:02.000\nblink red\n', 'x.vtt'),
    { name: 'SyntaxError', message: 'nimbara: x.vtt:4: unknown command "blink"' });
  assert.throws(() => parseTrack('WEBVTT\n\n00:01.000 --> 00:02.000\npuf red\n', 'x.vtt'),
    { message: 'nimbara: x.vtt:4: unknown command "puf" (did you mean puff?)' });
  assert.throws(() => parseTrack('WEBVTT\n\n00:01.000 --> 00:02.000\n{"command": "puff", "red": 1}\n', 'x.vtt'),
    { message: 'nimbara: x.vtt:4: puff needs green' });
  assert.throws(() => parseTrack('WEBVTT\n\n00:00.000 --> 00:01.000\npuff red\n\n00:00.100 --> 00:01.000\nflash red\n', 'x.vtt'),
    { message: /^nimbara: x\.vtt:7: starts at 0\.100 s, before the puff of line 4 has finished/ });
  assert.throws(() => parseTrack('WEBVTT\n'), { message: 'nimbara: <track> holds no cue' });
  assert.throws(() => parseTrack(42), TypeError);
});

test('each cue rendered at its time is the tool\'s render of the track', () => {
  const path = join(scratch, 'film.vtt');
  const out = join(scratch, 'film.wav');
  writeFileSync(path, TRACK);
  execFileSync(tool, ['-q', 'render', path, '--out', out]);
  const expected = readWav(out).samples;
  const samples = new Int16Array(expected.length);
  for (const cue of parseTrack(TRACK)) {
    const rendered = render(cue.fields);
    const at = 2 * Math.round(cue.start * 44100);
    samples.set(rendered.subarray(0, Math.min(rendered.length, samples.length - at)), at);
  }
  assert.equal(firstDifference(samples, expected), -1);
});
