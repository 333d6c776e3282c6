/* The playback engine: plays one frame on an audio output queue and blocks
 * its caller until the requested number of frames has been produced. */
#ifndef NIMBARA_SIGNAL_PLAYBACK_H
#define NIMBARA_SIGNAL_PLAYBACK_H

#include <stdint.h>

#include <nimbara/export.h>
#include <nimbara/frame/frame.h>
#include <nimbara/platform/audio_queue.h>
#include <nimbara/signal/signal_format.h>
#include <nimbara/signal/signal_units.h>

NIMBARA_BEGIN_C

struct ResponseRecord;

/** The state of one transmission ("aqc" in the log), shared by the caller's
 * thread and the queue's callback thread. */
typedef struct PlaybackContext {
  NimbaraAudioQueueRef queue;
  uint32_t framesPerBuffer; /**< 735: 1/60 s at 44100 Hz */
  NimbaraAudioBufferRef buffers[3];
  NimbaraStreamFormat format; /**< 44100 Hz, s16, 2 channels, interleaved */
  uint32_t playedFrames;      /**< frames rendered so far, silence included */
  uint32_t targetFrames;      /**< sampleLen / 2 */
  FrameNode* protocolFrame;   /**< render cursor: the node being played */
  FrameNode* frameHead;       /**< the frame, for its release; null once released */
  uint8_t disposed;           /**< the queue has been disposed of */
  int32_t disposedCount;      /**< callback returns after the end of playback */
  /** Engine-private: how many parties (the waiting caller, the callback side)
   * still use the context; the last one releases it. 0 in a context not made
   * by executeFunction, which is then released at once. */
  uint32_t engineHolds;
  /** Engine-private: the two bit waveforms (0-bit, 1-bit) the renderer took
   * at its first call and keeps to the end; null in a fresh context. */
  const struct WaveTable* engineWaves[2];
} PlaybackContext;

/** Plays `frame` (taken over: released when playback ends) until sampleLen / 2
 * stereo frames have been produced, polling every 0.1 s. Returns 0, or the
 * status of the failing platform call. expectedReplyCode and record are the
 * hook of a receiver and are not used: the record comes back as it was. */
NIMBARA_API int32_t executeFunction(FrameNode* frame, uint32_t expectedReplyCode,
                                    unsigned long sampleLen, struct ResponseRecord* record);

/** Counts one callback return after the end of playback; the third releases
 * the context. */
NIMBARA_API void incrementAqcFinishCount(PlaybackContext* context);

/** Counts the same way and releases the context too (its log line names the
 * frame, which it does not release). Nothing in the library calls it. */
NIMBARA_API void incrementPlayFinishCount(PlaybackContext* context);

NIMBARA_END_C

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>

namespace nimbara {

/** Plays ready interleaved stereo frames through the playback engine on the
 * current backend, as one transmission: the same buffers and format as a
 * frame, followed by silence to the end of the engine's last heard buffer.
 * Blocks until the output has
 * taken them: 0, or the status of the failing platform call. */
NIMBARA_API std::int32_t playFrames(const std::int16_t* samples, std::size_t frames);

}  // namespace nimbara
#endif

#endif
