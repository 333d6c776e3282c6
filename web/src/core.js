// The package's API over the WebAssembly module, made from the module's bytes.
// It loads nothing itself, so it runs wherever those bytes can be handed over:
// Node.js, a window, a worker or an AudioWorklet.
import createNimbaraModule from './nimbara-glue.js';

// Byte offsets of the records that wasm/bindings.cpp writes.
const COMMAND = { size: 64, verb: 0, operation: 8, number: 40, time: 44, sprayMs: 48, frames: 52, red: 56 };
const TRANSMISSION = { size: 48, confidence: 8, snrDb: 16, number: 24, time: 28, opcode: 32, command: 39 };

export async function createNimbara(wasmBinary) {
  const m = await createNimbaraModule({
    wasmBinary,
    // Never asked for a file; naming one keeps the glue from building a URL,
    // which an AudioWorklet's scope has no class for.
    locateFile: (path) => path,
    print: (line) => console.log(line),
    printErr: (line) => console.warn(line),
  });

  const fail = (Kind = Error) => {
    throw new Kind(`nimbara: ${m.UTF8ToString(m._nimbara_web_error())}`);
  };

  // Runs body(pointer) with a temporary heap block of `bytes`.
  function withBlock(bytes, body) {
    const pointer = m._malloc(Math.max(bytes, 1));
    if (pointer === 0) throw new RangeError('nimbara: out of WebAssembly memory');
    try {
      return body(pointer);
    } finally {
      m._free(pointer);
    }
  }

  function withString(text, body) {
    const bytes = m.lengthBytesUTF8(text) + 1;
    return withBlock(bytes, (pointer) => {
      m.stringToUTF8(text, pointer, bytes);
      return body(pointer);
    });
  }

  // A command's name and arguments as the C functions take them.
  function withCommand(operation, args, body) {
    if (typeof operation !== 'string') throw new TypeError('nimbara: the operation must be a string');
    if (!Array.isArray(args)) throw new TypeError('nimbara: the arguments must be an array of numbers');
    for (const a of args) {
      if (typeof a !== 'number') throw new TypeError(`nimbara: argument ${JSON.stringify(a)} is not a number`);
    }
    return withString(operation, (name) =>
      withBlock(args.length * 8, (list) => {
        m.HEAPF64.set(args, list >> 3);
        return body(name, list, args.length);
      }),
    );
  }

  function render(operation, args = []) {
    return withCommand(operation, args, (name, list, count) =>
      withBlock(4, (countOut) => {
        const samples = m._nimbara_web_render(name, list, count, countOut);
        if (samples === 0) fail(RangeError);
        try {
          const length = m.HEAPU32[countOut >> 2];
          return m.HEAP16.slice(samples >> 1, (samples >> 1) + length);
        } finally {
          m._free(samples);
        }
      }),
    );
  }

  function describe(operation, args = []) {
    return withCommand(operation, args, (name, list, count) =>
      withBlock(COMMAND.size, (out) => {
        if (m._nimbara_web_describe(name, list, count, out) !== 0) fail(RangeError);
        const u8 = m.HEAPU8;
        const i32 = (offset) => m.HEAP32[(out + offset) >> 2];
        const command = m.UTF8ToString(out + COMMAND.verb);
        const rgb = out + COMMAND.red;
        return {
          command,
          operation: m.UTF8ToString(out + COMMAND.operation),
          red: u8[rgb],
          green: u8[rgb + 1],
          blue: u8[rgb + 2],
          special: u8[rgb + 3],
          time: i32(COMMAND.time),
          spray_ms: i32(COMMAND.sprayMs),
          number: m.HEAPU32[(out + COMMAND.number) >> 2],
          asks_tank: u8[rgb + 4] !== 0,
          frames: m.HEAPU32[(out + COMMAND.frames) >> 2],
        };
      }),
    );
  }

  function isHeadsetRoute(name) {
    return withString(String(name), (text) => m._nimbara_web_route_names_headset(text) === 1);
  }

  function readTransmission(at) {
    const u8 = m.HEAPU8;
    const f64 = (offset) => m.HEAPF64[(at + offset) >> 3];
    const o = at + TRANSMISSION.opcode;
    return {
      command: m.UTF8ToString(at + TRANSMISSION.command),
      opcode: u8[o],
      start: f64(0),
      damaged: u8[o + 5] !== 0,
      red: u8[o + 1],
      green: u8[o + 2],
      blue: u8[o + 3],
      special: u8[o + 4],
      time: m.HEAP32[(at + TRANSMISSION.time) >> 2],
      number: m.HEAPU32[(at + TRANSMISSION.number) >> 2],
      asks_tank: u8[o + 6] !== 0,
      confidence: f64(TRANSMISSION.confidence),
      snr_db: f64(TRANSMISSION.snrDb),
    };
  }

  // Native receivers are freed by close(); one that is dropped unclosed is
  // freed when it is collected.
  const orphans = new FinalizationRegistry((handle) => m._nimbara_web_receiver_delete(handle));

  class Receiver {
    #handle;
    #channels;

    constructor(sampleRate, channels = 1) {
      if (!Number.isInteger(channels)) throw new RangeError('nimbara: channels must be a whole number');
      const handle = m._nimbara_web_receiver_new(Number(sampleRate), channels);
      if (handle === 0) fail(RangeError);
      this.#handle = handle;
      this.#channels = channels;
      orphans.register(this, handle, this);
    }

    #open() {
      if (this.#handle === 0) throw new Error('nimbara: the receiver is closed');
      return this.#handle;
    }

    // Interleaved frames: an Int16Array, or a Float32Array in -1..1.
    push(samples) {
      const handle = this.#open();
      const int16 = samples instanceof Int16Array;
      if (!int16 && !(samples instanceof Float32Array)) {
        throw new TypeError('nimbara: push takes an Int16Array or a Float32Array');
      }
      if (samples.length % this.#channels !== 0) {
        throw new RangeError(`nimbara: ${samples.length} samples are not whole frames of ${this.#channels} channels`);
      }
      const frames = samples.length / this.#channels;
      withBlock(samples.byteLength, (pointer) => {
        if (int16) m.HEAP16.set(samples, pointer >> 1);
        else m.HEAPF32.set(samples, pointer >> 2);
        const push = int16 ? m._nimbara_web_receiver_push_int16 : m._nimbara_web_receiver_push_float;
        if (push(handle, pointer, frames) !== 0) fail();
      });
    }

    finish() {
      if (m._nimbara_web_receiver_finish(this.#open()) !== 0) fail();
    }

    take() {
      const handle = this.#open();
      return withBlock(4, (recordsOut) => {
        const count = m._nimbara_web_receiver_take(handle, recordsOut);
        if (count < 0) fail();
        const records = m.HEAPU32[recordsOut >> 2];
        return Array.from({ length: count }, (_, i) => readTransmission(records + i * TRANSMISSION.size));
      });
    }

    close() {
      if (this.#handle === 0) return;
      orphans.unregister(this);
      m._nimbara_web_receiver_delete(this.#handle);
      this.#handle = 0;
    }
  }

  function decode(samples, sampleRate, channels = 1) {
    const receiver = new Receiver(sampleRate, channels);
    try {
      receiver.push(samples);
      receiver.finish();
      return receiver.take();
    } finally {
      receiver.close();
    }
  }

  // A scent track (WebVTT, or "SECONDS COMMAND" lines) parsed by the library:
  // its cues in order of time, each with what render() takes for it.
  function parseTrack(text, name = '<track>') {
    if (typeof text !== 'string') throw new TypeError('nimbara: a track is a string');
    const json = withString(text, (t) => withString(String(name), (n) => m._nimbara_web_parse_track(t, n)));
    if (json === 0) throw new RangeError('nimbara: out of WebAssembly memory');
    let parsed;
    try {
      parsed = JSON.parse(m.UTF8ToString(json));
    } finally {
      m._free(json);
    }
    if (parsed.error !== undefined) throw new SyntaxError(`nimbara: ${parsed.error}`);
    return parsed.cues;
  }

  return { render, decode, describe, isHeadsetRoute, Receiver, parseTrack };
}
