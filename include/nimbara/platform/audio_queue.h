/* The platform audio layer: an output queue of PCM buffers, the audio session
 * and the current audio route. The playback engine reaches the audio output
 * only through these calls; the backend behind them (a sound server, the
 * in-process virtual device, a WAV file) is chosen with nimbara::platform
 * (<nimbara/platform/backend.h>). */
#ifndef NIMBARA_PLATFORM_AUDIO_QUEUE_H
#define NIMBARA_PLATFORM_AUDIO_QUEUE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** Statuses: 0 for success, negative for the layer's own failures. */
enum {
  NIMBARA_AUDIO_OK = 0,
  NIMBARA_AUDIO_ERR_NO_SERVER = -1,      /**< the audio server cannot be reached */
  NIMBARA_AUDIO_ERR_FORMAT = -2,         /**< the stream format is not 44100 Hz s16 stereo PCM */
  NIMBARA_AUDIO_ERR_DISPOSED = -3,       /**< the queue has been disposed of */
  NIMBARA_AUDIO_ERR_INVALID = -4,        /**< a null or malformed argument */
  NIMBARA_AUDIO_ERR_NO_MEMORY = -5,      /**< memory or the queue's buffer slots ran out */
  NIMBARA_AUDIO_ERR_BUSY = -6,           /**< buffer already enqueued, or queue already started */
  NIMBARA_AUDIO_ERR_IO = -7,             /**< the output (a file, a stream) failed */
  NIMBARA_AUDIO_ERR_NO_ROUTE = -8,       /**< the current route cannot be read */
  NIMBARA_AUDIO_ERR_STREAM = -9,         /**< the server refused the playback stream */
  NIMBARA_AUDIO_ERR_LOST = -10,          /**< the output went away while playing */
  NIMBARA_AUDIO_ERR_NOT_SUPPORTED = -11, /**< the backend has no such operation */
  NIMBARA_AUDIO_ERR_RAN_DRY = -12,       /**< the output played silence: the stream came late */
  NIMBARA_AUDIO_ERR_NO_SUCH_NAME = -13,  /**< no output or source of that name */
  NIMBARA_AUDIO_ERR_RATE = -14           /**< the output cannot run at 44100 Hz unresampled */
};

/** Text of a status, for messages; never null. */
NIMBARA_API const char* nimbaraAudioStatusText(int32_t status);

/** An output queue. The handle stays valid memory until it is released, even
 * after the queue has been disposed of. */
typedef struct NimbaraAudioQueue* NimbaraAudioQueueRef;

/** One buffer of the queue: audio data of a fixed capacity, of which
 * audioDataByteSize bytes are played. Allocated zero-filled. */
typedef struct NimbaraAudioBuffer {
  uint32_t audioDataBytesCapacity;
  void* audioData;
  uint32_t audioDataByteSize;
} NimbaraAudioBuffer;
typedef NimbaraAudioBuffer* NimbaraAudioBufferRef;

/** The stream description, field by field as the audio platforms order it. */
typedef struct NimbaraStreamFormat {
  double sampleRate;
  uint32_t formatID; /**< NIMBARA_FORMAT_LINEAR_PCM */
  uint32_t formatFlags;
  uint32_t bytesPerPacket;
  uint32_t framesPerPacket;
  uint32_t bytesPerFrame;
  uint32_t channelsPerFrame;
  uint32_t bitsPerChannel;
  uint32_t reserved;
} NimbaraStreamFormat;

#define NIMBARA_FORMAT_LINEAR_PCM 0x6C70636Du /**< 'lpcm' */
#define NIMBARA_FORMAT_FLAG_SIGNED_INTEGER 4u
#define NIMBARA_FORMAT_FLAG_PACKED 8u

/** The output callback. Called once for each buffer after that buffer has been
 * played, on the queue's own thread, never concurrently with itself. After an
 * immediate dispose every buffer still enqueued comes back through it exactly
 * once, unplayed; a queue disposed of before it was started returns none.
 * It runs on the real-time path: it must not allocate, lock, block or wait,
 * and it may call enqueue and dispose on its own queue. */
typedef void (*NimbaraAudioQueueOutputCallback)(void* userData, NimbaraAudioQueueRef queue,
                                                NimbaraAudioBufferRef buffer);

/** Creates an output queue on the current backend; the format must be 44100 Hz,
 * 16-bit signed packed linear PCM, 2 channels. */
NIMBARA_API int32_t nimbaraAudioQueueNewOutput(const NimbaraStreamFormat* format,
                                               NimbaraAudioQueueOutputCallback callback,
                                               void* userData, uint32_t flags,
                                               NimbaraAudioQueueRef* outQueue);
/** At most NIMBARA_AUDIO_MAX_BUFFERS buffers per queue. */
#define NIMBARA_AUDIO_MAX_BUFFERS 16
NIMBARA_API int32_t nimbaraAudioQueueAllocateBuffer(NimbaraAudioQueueRef queue, uint32_t byteSize,
                                                    NimbaraAudioBufferRef* outBuffer);
/** Never allocates, locks or waits: safe inside the output callback. */
NIMBARA_API int32_t nimbaraAudioQueueEnqueueBuffer(NimbaraAudioQueueRef queue,
                                                   NimbaraAudioBufferRef buffer);
NIMBARA_API int32_t nimbaraAudioQueueStart(NimbaraAudioQueueRef queue);
/** Stops the output at once (immediate must be true; there is no deferred mode).
 * Safe inside the output callback. */
NIMBARA_API int32_t nimbaraAudioQueueDispose(NimbaraAudioQueueRef queue, bool immediate);
/** The first failure of the output since the queue started (a write error, a
 * lost server, a failed close), or 0. */
NIMBARA_API int32_t nimbaraAudioQueueGetStatus(NimbaraAudioQueueRef queue);
/** Waits until the queue's thread has played or returned every buffer and
 * closed its stream; at once for a queue that never started. Not from the
 * output callback. */
NIMBARA_API void nimbaraAudioQueueWaitUntilDone(NimbaraAudioQueueRef queue);
/** Gives the handle back. A queue still running is stopped without further
 * callbacks. The queue's memory goes once its thread has finished too. */
NIMBARA_API void nimbaraAudioQueueRelease(NimbaraAudioQueueRef queue);

/** The audio session. Initialize, the category and activation have nothing to
 * do on any output this library plays on and succeed; the preferred rate is
 * passed to the current backend. */
NIMBARA_API int32_t nimbaraAudioSessionInitialize(void);
NIMBARA_API int32_t nimbaraAudioSessionSetCategoryPlayback(void);
NIMBARA_API int32_t nimbaraAudioSessionSetActive(bool active);
NIMBARA_API int32_t nimbaraAudioSessionSetPreferredSampleRate(double rate);
/** Whether the current backend may play the signal resampled on an output
 * that cannot run at 44100 Hz (logged as resampled) rather than fail with
 * NIMBARA_AUDIO_ERR_RATE. The PipeWire backend refuses unless allowed; the
 * sound-server backend plays by default. */
NIMBARA_API int32_t nimbaraAudioSessionSetAllowResampling(bool allow);
/** Copies the current route's name, zero-terminated and cut to capacity. */
NIMBARA_API int32_t nimbaraAudioSessionCopyRouteName(char* name, size_t capacity);

/** Chooses the backend for new queues and session calls, by name: "pulse"
 * (the sound server), "virtual" (in memory, real time) or "wav:PATH" (into a
 * WAV file). NIMBARA_AUDIO_ERR_INVALID for any other name. */
NIMBARA_API int32_t nimbaraAudioUseBackend(const char* name);

/** Waits until every queue's thread has finished: the last callbacks of a
 * transmission run after its caller has returned, and a WAV file is complete
 * only then. */
NIMBARA_API void nimbaraAudioWaitUntilIdle(void);

/** The thread pause, on the current backend's clock (a fast virtual clock
 * shortens it). */
NIMBARA_API void nimbaraThreadSleep(double seconds);

NIMBARA_END_C

#endif
