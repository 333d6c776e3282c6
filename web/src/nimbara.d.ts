// Types of the nimbara package: the accessory's signal and its receiver.

/** A tool verb or a library operation name. */
export type Operation =
  | 'flash' | 'puff' | 'spray' | 'state' | 'tank' | 'echo'
  | 'doLightLed' | 'doSprayWithLightLed' | 'doSprayWithLightLedGetTankId'
  | 'doAquireDeviceState' | 'doGetTankId' | 'doEcho';

/** One transmission as the accessory would have understood it (the fields of
 * the tool's JSON Lines). A field the verb does not carry is left out. */
/** The fields a verb carries, each left out when it does not. */
export interface CarriedFields {
  /** flash and puff: the LED colour and special-effect byte. */
  red?: number;
  green?: number;
  blue?: number;
  special?: number;
  /** Milliseconds (flash, puff, spray): a command's as asked, a transmission's as the frame carried it. */
  time?: number;
  /** The echo's number. */
  number?: number;
  /** puff: whether it also asks for the tank identity. */
  asks_tank?: boolean;
}

export interface Transmission extends CarriedFields {
  /** flash, puff, spray, state, tank, echo, or unknown. */
  command: string;
  opcode: number;
  /** Seconds from the start of the stream to the transmission's wake-up. */
  start: number;
  /** Bad parity, disagreeing or missing repetitions, or an unknown layout. */
  damaged: boolean;
  /** From 0 to 1: the weakest bit's margin between its two waveforms. */
  confidence: number;
  /** The estimated signal-to-noise ratio in dB. */
  snr_db: number;
}

/** A command's field map, the same as the tool's --json and Python's
 * nimbara.command(). A field the verb does not carry is left out. */
export interface CommandFields extends CarriedFields {
  command: 'flash' | 'puff' | 'spray' | 'state' | 'tank' | 'echo';
  /** puff and spray: how long the accessory sprays, in ms (a puff's time clamped to 100..1000). */
  sprays?: number;
  /** The library function that sends it. */
  operation?: string;
}

/** A command's fields and its length. */
export interface CommandInfo extends CommandFields {
  /** Stereo frames at 44100 Hz that the command plays. */
  frames: number;
}

/** The tool's words: a verb, its words and options ('puff', 'orange', '--no-tank'). */
export type Words = [string, ...(string | number)[]];

/** A command's field map from the tool's words, or from a field map (checked
 * and completed). Throws RangeError naming what is wrong. */
export function command(words: Words | CommandFields): CommandFields;

/** The names of the fields a verb carries ('red', 'green', 'blue', 'special',
 * 'time', 'number', 'asks_tank'). */
export function verbFields(verb: string): string[];

/**
 * The exact samples the operation hands the output, interleaved stereo 16-bit
 * at 44100 Hz. With numbers, flash and puff take red, green, blue[, special[,
 * time]]; spray takes time; echo takes number; a library name takes all of its
 * arguments. With any string among them they are the tool's words
 * (render('puff', ['orange', '--no-tank'])); render(words) and render(fields)
 * take the words or a field map. Throws RangeError for an unknown operation or
 * an argument out of range.
 */
export function render(operation: Operation | string | Words | CommandFields, args?: (number | string)[]): Int16Array;

/** The command an operation and its arguments make, without rendering it. */
export function describe(operation: Operation | string | Words | CommandFields, args?: (number | string)[]): CommandInfo;

/** Every transmission in a whole recording of interleaved samples (by default
 * 44100 Hz, 2 channels). */
export function decode(samples: Int16Array | Float32Array, sampleRate?: number, channels?: number): Transmission[];

/** Whether an output's name says the accessory is there ("HeadsetInOut" or
 * "Headphone" anywhere in it, case-sensitive). */
export function isHeadsetRoute(name: string): boolean;

/** A streaming receiver: push chunks of any size, take what was decoded. */
export class Receiver {
  /** sampleRate from 8000 to 192000 Hz (default 44100); channels interleaved
   * (mixed to one; default 2). */
  constructor(sampleRate?: number, channels?: number);
  /** Whole interleaved frames: 16-bit integers, or floats in -1..1. */
  push(samples: Int16Array | Float32Array): void;
  /** The end of the stream: decodes what is still pending. */
  finish(): void;
  /** Transmissions decoded since the last call, in order. */
  take(): Transmission[];
  /** Frees the receiver's WebAssembly memory; later calls throw. */
  close(): void;
}

/** One cue of a scent track. */
export interface TrackCue {
  /** Seconds from the start of the track. */
  start: number;
  /** The file line of the cue's text. */
  line: number;
  /** The cue's text as written. */
  text: string;
  command: 'flash' | 'puff' | 'spray' | 'state' | 'tank' | 'echo';
  /** The command's field map, as command() gives it; what render() takes. */
  fields: CommandFields;
  /** Stereo frames at 44100 Hz that the command plays. */
  frames: number;
}

/**
 * The cues of a scent track (WebVTT, or "SECONDS COMMAND" lines), in order of
 * time. Throws SyntaxError "nimbara: NAME:LINE: ..." for a malformed track, a
 * cue that is not a command, or a cue that starts while the one before plays.
 */
export function parseTrack(text: string, name?: string): TrackCue[];

/** The WebAssembly module's bytes, to hand to a worker or an AudioWorklet. */
export const wasmBinary: Uint8Array;

/** Makes the API from the module's bytes where nothing can be fetched (an
 * AudioWorklet): import core.js from the package and await this. */
export function createNimbara(wasmBinary: BufferSource): Promise<{
  command: typeof command;
  verbFields: typeof verbFields;
  render: typeof render;
  describe: typeof describe;
  decode: typeof decode;
  isHeadsetRoute: typeof isHeadsetRoute;
  Receiver: typeof Receiver;
  parseTrack: typeof parseTrack;
}>;
