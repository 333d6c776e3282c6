#include <nimbara/signal/renderer.h>

#include <algorithm>
#include <cstdint>

#include "common/log.h"
#include "signal/playback_internal.h"

void AQOutputCallback(void* userData, NimbaraAudioQueueRef queue, NimbaraAudioBufferRef buffer) {
  auto* context = static_cast<PlaybackContext*>(userData);
  if (context == nullptr || buffer == nullptr) return;
  const auto* audio = static_cast<const std::int16_t*>(buffer->audioData);
  const int firstSample = audio != nullptr && buffer->audioDataBytesCapacity >= 2 ? audio[0] : 0;
  auto played = nimbara::detail::playedFramesOf(context);
  NIMBARA_LOG("AQOutputCallback %ld / %ld, data=%d, disposedCount=%d",
              static_cast<long>(played.load(std::memory_order_relaxed)),
              static_cast<long>(context->targetFrames), firstSample, context->disposedCount);
  if (played.load(std::memory_order_relaxed) >= context->targetFrames) {
    nimbara::detail::endOfPlayback(context);
    return;
  }
  if (context->framesPerBuffer == 0) {
    NIMBARA_LOG(" dispose return[3]");
    return;
  }
  // Whole buffers only; a buffer smaller than asked for is filled as far as it goes.
  const std::uint32_t frames =
      audio != nullptr ? std::min(context->framesPerBuffer, buffer->audioDataBytesCapacity / 4) : 0;
  buffer->audioDataByteSize = frames * 4;
  nimbara::detail::renderBuffer(context, static_cast<std::int16_t*>(buffer->audioData), frames);
  played.fetch_add(frames, std::memory_order_release);
  const std::int32_t status = nimbaraAudioQueueEnqueueBuffer(queue, buffer);
  if (status != 0) {
    NIMBARA_LOG(" [ERROR] Play AudioQueueEnqueueBuffer err=%ld", static_cast<long>(status));
    NIMBARA_LOG(" dispose return[2]");
  }
}
