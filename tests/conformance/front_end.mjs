// The JavaScript side of the conformance test: reads a request (JSON) on
// standard input and answers it with the built npm package, on standard output.
//   commands: lists of the tool's words -> their field map and a SHA-256 of
//             their samples, or the message they are refused with
//   recordings: audio files as {path, format} -> their transmissions; format
//             "wav" is read here (16- or 24-bit PCM, 32-bit float), "s16"
//             is raw interleaved 16-bit with {rate, channels}
import { createHash } from 'node:crypto';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { pathToFileURL } from 'node:url';

const request = JSON.parse(readFileSync(0, 'utf8'));
const nimbara = await import(pathToFileURL(join(request.package, 'nimbara.js')).href);

function digest(samples) {
  return createHash('sha256').update(new Uint8Array(samples.buffer, samples.byteOffset, samples.byteLength)).digest('hex');
}

function answer(words) {
  try {
    return { fields: nimbara.command(words), sha256: digest(nimbara.render(words)) };
  } catch (error) {
    return { error: error.message.replace(/^nimbara: /, '') };
  }
}

// Interleaved samples of a WAV file, as Int16Array or Float32Array in -1..1.
function readWav(path) {
  const bytes = readFileSync(path);
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  let format = null;
  for (let at = 12; at + 8 <= bytes.length; ) {
    const id = bytes.toString('latin1', at, at + 4);
    const size = view.getUint32(at + 4, true);
    const body = at + 8;
    if (id === 'fmt ') {
      const tag = view.getUint16(body, true);
      format = {
        float: tag === 3 || (tag === 0xfffe && view.getUint16(body + 24, true) === 3),
        channels: view.getUint16(body + 2, true),
        rate: view.getUint32(body + 4, true),
        bits: view.getUint16(body + 14, true),
      };
    } else if (id === 'data') {
      const count = Math.floor(size / (format.bits / 8));
      let samples;
      if (format.bits === 16) {
        samples = Int16Array.from({ length: count }, (_, i) => view.getInt16(body + 2 * i, true));
      } else if (format.bits === 24) {
        samples = Float32Array.from({ length: count }, (_, i) => {
          const p = body + 3 * i;
          const v = (view.getInt8(p + 2) << 16) | (view.getUint8(p + 1) << 8) | view.getUint8(p);
          return v / 8388608;
        });
      } else if (format.float && format.bits === 32) {
        samples = Float32Array.from({ length: count }, (_, i) => view.getFloat32(body + 4 * i, true));
      } else {
        throw new Error(`${path}: ${format.bits}-bit samples are not read here`);
      }
      return { samples, rate: format.rate, channels: format.channels };
    }
    at = body + size + (size & 1);
  }
  throw new Error(`${path}: no data chunk`);
}

function readRaw(recording) {
  const bytes = readFileSync(recording.path);
  const samples = new Int16Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength));
  return { samples, rate: recording.rate, channels: recording.channels };
}

function transmissions(recording) {
  const audio = recording.format === 'wav' ? readWav(recording.path) : readRaw(recording);
  return nimbara.decode(audio.samples, audio.rate, audio.channels);
}

process.stdout.write(JSON.stringify({
  commands: request.commands.map(answer),
  recordings: request.recordings.map(transmissions),
}));
