/* The signal's format, defined once: every command is 16-bit signed stereo PCM
 * at 44100 Hz, played in buffers of 735 frames (1/60 s). */
#ifndef NIMBARA_SIGNAL_SIGNAL_FORMAT_H
#define NIMBARA_SIGNAL_SIGNAL_FORMAT_H

/** Frames per second of the signal, the rate the accessory decodes at. */
#define NIMBARA_SAMPLE_RATE 44100u
/** Interleaved channels per frame: the same signal on left and right. */
#define NIMBARA_CHANNELS 2u
/** Frames per buffer of the playback engine: 1/60 s. */
#define NIMBARA_FRAMES_PER_BUFFER 735u
/** Buffers the playback engine keeps in flight. */
#define NIMBARA_BUFFER_COUNT 3u

#endif
