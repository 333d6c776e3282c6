// The package's API over the WebAssembly module, made from the module's bytes.
// It loads nothing itself, so it runs wherever those bytes can be handed over:
// Node.js, a window, a worker or an AudioWorklet.
import createNimbaraModule from './nimbara-glue.js';

// Commands and transmissions cross from wasm/bindings.cpp as the library's
// field maps (JSON text): command, red, green, blue, special, time, number,
// asks_tank, sprays, operation; a field the verb does not carry is left out.

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

  // The JSON text a C function returned, parsed; its message on failure.
  function parsedText(pointer, Kind = RangeError) {
    if (pointer === 0) fail(Kind);
    return JSON.parse(m.UTF8ToString(pointer));
  }

  // A verb or an operation and its numbers in order, as the library's makeCommand takes them.
  function fromArguments(operation, args) {
    for (const a of args) {
      if (typeof a !== 'number') throw new TypeError(`nimbara: argument ${JSON.stringify(a)} is not a number`);
    }
    return withString(operation, (name) =>
      withBlock(args.length * 8, (list) => {
        m.HEAPF64.set(args, list >> 3);
        return parsedText(m._nimbara_web_command_from_arguments(name, list, args.length));
      }),
    );
  }

  // A command's field map from the tool's words (an array of strings; numbers
  // are taken as their decimal words) or from a field map (checked and
  // completed with the derived fields).
  function command(words) {
    if (Array.isArray(words)) {
      const text = words.map((w, i) => {
        if (typeof w === 'string') return w;
        if (Number.isInteger(w)) return String(w);
        throw new TypeError(`nimbara: word ${i + 1} must be a string or a whole number, not ${JSON.stringify(w)}`);
      });
      if (typeof words[0] !== 'string') throw new TypeError("nimbara: a command's first word must be its verb");
      return withString(JSON.stringify(text), (list) => parsedText(m._nimbara_web_command_from_words(list)));
    }
    if (words === null || typeof words !== 'object') {
      throw new TypeError("nimbara: a command is an array of words or an object of fields");
    }
    return withString(JSON.stringify(words), (fields) => parsedText(m._nimbara_web_command_fields(fields)));
  }

  // The names of the fields a verb carries ('red', 'time', ...).
  function verbFields(verb) {
    if (typeof verb !== 'string') throw new TypeError('nimbara: a verb is a string');
    return withString(verb, (text) => parsedText(m._nimbara_web_verb_fields(text)));
  }

  // render(operation, numbers) as before; render(verb, words) when a word is a
  // string; render(words) for an array of words; render(fields) for a field map.
  function fieldsOf(operation, args) {
    if (typeof operation === 'string') {
      if (!Array.isArray(args)) throw new TypeError('nimbara: the arguments must be an array');
      if (args.some((a) => typeof a === 'string')) return command([operation, ...args]);
      return fromArguments(operation, args);
    }
    if (Array.isArray(operation) || (operation !== null && typeof operation === 'object')) return command(operation);
    throw new TypeError('nimbara: the operation must be a string, an array of words or an object of fields');
  }

  function render(operation, args = []) {
    const fields = JSON.stringify(fieldsOf(operation, args));
    return withString(fields, (text) =>
      withBlock(4, (countOut) => {
        const samples = m._nimbara_web_render(text, countOut);
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

  // The field map, and the transmission's length in frames.
  function describe(operation, args = []) {
    const fields = fieldsOf(operation, args);
    const frames = withString(JSON.stringify(fields), (text) => m._nimbara_web_command_frames(text));
    if (frames < 0) fail(RangeError);
    return { ...fields, frames };
  }

  function isHeadsetRoute(name) {
    return withString(String(name), (text) => m._nimbara_web_route_names_headset(text) === 1);
  }

  // Native receivers are freed by close(); one that is dropped unclosed is
  // freed when it is collected.
  const orphans = new FinalizationRegistry((handle) => m._nimbara_web_receiver_delete(handle));

  class Receiver {
    #handle;
    #channels;

    // By default 44100 Hz and 2 channels, as the library renders.
    constructor(sampleRate = 44100, channels = 2) {
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

    // The transmissions decoded so far, each handed out once.
    take() {
      return parsedText(m._nimbara_web_receiver_take(this.#open()), Error);
    }

    close() {
      if (this.#handle === 0) return;
      orphans.unregister(this);
      m._nimbara_web_receiver_delete(this.#handle);
      this.#handle = 0;
    }
  }

  function decode(samples, sampleRate = 44100, channels = 2) {
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
  // its cues in order of time, each with its command's field map (what
  // command() gives, and render() takes).
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

  return { command, verbFields, render, decode, describe, isHeadsetRoute, Receiver, parseTrack };
}
