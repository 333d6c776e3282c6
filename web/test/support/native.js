// The native references: the `nimbara` tool's renders, and the library's
// renderCommand through a small program for commands the tool cannot name.
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const root = resolve(fileURLToPath(import.meta.url), '../../../..');
const tool = process.env.NIMBARA_TOOL ?? join(root, 'build/release/tool/nimbara');
const build = process.env.NIMBARA_BUILD ?? join(root, 'build/release');
const scratch = mkdtempSync(join(tmpdir(), 'nimbara-web-'));

export const siteDir = join(root, 'build/web/site');
export const packageDir = join(root, 'build/web/package');
export const webDir = join(root, 'web');
export { scratch };

// The data chunk of a 16-bit PCM WAV file, with its format.
export function readWav(path) {
  const bytes = readFileSync(path);
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  if (bytes.toString('latin1', 0, 4) !== 'RIFF' || bytes.toString('latin1', 8, 12) !== 'WAVE') {
    throw new Error(`${path} is not a WAV file`);
  }
  let format = null;
  for (let at = 12; at + 8 <= bytes.length; ) {
    const id = bytes.toString('latin1', at, at + 4);
    const size = view.getUint32(at + 4, true);
    if (id === 'fmt ') {
      format = { channels: view.getUint16(at + 10, true), rate: view.getUint32(at + 12, true), bits: view.getUint16(at + 22, true) };
    } else if (id === 'data') {
      if (!format || format.bits !== 16) throw new Error(`${path}: not 16-bit PCM`);
      const samples = new Int16Array(size / 2);
      for (let i = 0; i < samples.length; ++i) samples[i] = view.getInt16(at + 8 + 2 * i, true);
      return { ...format, samples };
    }
    at += 8 + size + (size & 1);
  }
  throw new Error(`${path} has no data chunk`);
}

// A 16-bit PCM WAV file of interleaved samples.
export function wavBytes(samples, rate, channels) {
  const header = Buffer.alloc(44);
  header.write('RIFF', 0, 'latin1');
  header.writeUInt32LE(36 + samples.byteLength, 4);
  header.write('WAVEfmt ', 8, 'latin1');
  header.writeUInt32LE(16, 16);
  header.writeUInt16LE(1, 20);
  header.writeUInt16LE(channels, 22);
  header.writeUInt32LE(rate, 24);
  header.writeUInt32LE(rate * channels * 2, 28);
  header.writeUInt16LE(channels * 2, 32);
  header.writeUInt16LE(16, 34);
  header.write('data', 36, 'latin1');
  header.writeUInt32LE(samples.byteLength, 40);
  return Buffer.concat([header, Buffer.from(samples.buffer, samples.byteOffset, samples.byteLength)]);
}

let renders = 0;

// What `nimbara render OPERATION ARGS... --out FILE` writes.
export function toolRender(operation, args = []) {
  const out = join(scratch, `render-${++renders}.wav`);
  execFileSync(tool, ['render', operation, ...args.map(String), '--out', out], { stdio: ['ignore', 'ignore', 'pipe'] });
  const wav = readWav(out);
  if (wav.rate !== 44100 || wav.channels !== 2) throw new Error(`the tool wrote ${wav.rate} Hz, ${wav.channels} channels`);
  return wav.samples;
}

let helper = null;

// The library's renderCommand for a verb or operation name.
export function libraryRender(name, args = []) {
  if (!helper) {
    helper = join(scratch, 'render_native');
    execFileSync('g++', ['-std=c++20', '-O1', `-I${join(root, 'include')}`, join(root, 'web/test/support/render_native.cpp'),
      '-o', helper, `-L${build}`, '-lnimbara', `-Wl,-rpath,${build}`]);
  }
  const raw = execFileSync(helper, [name, ...args.map(String)], { maxBuffer: 1 << 26 });
  return new Int16Array(raw.buffer.slice(raw.byteOffset, raw.byteOffset + raw.byteLength));
}

// The index of the first sample where two arrays differ, or -1.
export function firstDifference(a, b) {
  const n = Math.min(a.length, b.length);
  for (let i = 0; i < n; ++i) if (a[i] !== b[i]) return i;
  return a.length === b.length ? -1 : n;
}
