/* The frame renderer: the output callback that turns a frame into 16-bit
 * stereo PCM, one whole buffer of framesPerBuffer frames at a time. */
#ifndef NIMBARA_SIGNAL_RENDERER_H
#define NIMBARA_SIGNAL_RENDERER_H

#include <nimbara/export.h>
#include <nimbara/platform/audio_queue.h>

NIMBARA_BEGIN_C

/** The output callback of the playback engine; userData is its PlaybackContext.
 *
 * Thread: the queue's callback thread, never concurrently with itself; the
 * engine also calls it three times on the caller's thread to prime the
 * buffers before the queue starts.
 *
 * Contract: while fewer than targetFrames frames have been produced it fills
 * the whole buffer (the frame from the nodes' cursors, silence after its end),
 * counts the frames and enqueues the buffer again; without allocating,
 * locking or waiting. At or past the target it ends the playback instead:
 * disposes of the queue, releases the frame, and counts the buffers' returns
 * until the third one releases the context. */
NIMBARA_API void AQOutputCallback(void* userData, NimbaraAudioQueueRef queue,
                                  NimbaraAudioBufferRef buffer);

NIMBARA_END_C

#endif
