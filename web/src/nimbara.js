// nimbara: the accessory's signal and its receiver, compiled from the C++
// library to WebAssembly. The module is loaded by this file's top-level await,
// so the named exports are ready to call once the import has resolved.
import { createNimbara } from './core.js';

const wasmUrl = new URL('./nimbara-glue.wasm', import.meta.url);

async function wasmBytes() {
  if (wasmUrl.protocol === 'file:' && typeof process === 'object' && process.versions?.node) {
    const { readFile } = await import('node:fs/promises');
    return readFile(wasmUrl);
  }
  const response = await fetch(wasmUrl);
  if (!response.ok) throw new Error(`nimbara: cannot load ${wasmUrl}: HTTP ${response.status}`);
  return new Uint8Array(await response.arrayBuffer());
}

/** The module's bytes, for a worker or an AudioWorklet that calls createNimbara itself. */
export const wasmBinary = await wasmBytes();

export const { command, verbFields, render, decode, describe, isHeadsetRoute, Receiver, parseTrack } = await createNimbara(wasmBinary);
export { createNimbara };
