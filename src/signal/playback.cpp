#include <nimbara/signal/playback.h>

#include <nimbara/signal/renderer.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "common/log.h"
#include "frame/frame_internal.h"
#include "signal/playback_internal.h"

namespace {

constexpr double kPollSeconds = 0.1;

NimbaraStreamFormat outputFormat() {
  NimbaraStreamFormat format{};
  format.sampleRate = NIMBARA_SAMPLE_RATE;
  format.formatID = NIMBARA_FORMAT_LINEAR_PCM;
  format.formatFlags = NIMBARA_FORMAT_FLAG_SIGNED_INTEGER | NIMBARA_FORMAT_FLAG_PACKED;
  format.bytesPerPacket = 2 * NIMBARA_CHANNELS;
  format.framesPerPacket = 1;
  format.bytesPerFrame = 2 * NIMBARA_CHANNELS;
  format.channelsPerFrame = NIMBARA_CHANNELS;
  format.bitsPerChannel = 16;
  format.reserved = 0;
  return format;
}

void destroyContext(PlaybackContext* context) {
  NimbaraAudioQueueRef queue = context->queue;
  std::free(context);
  nimbaraAudioQueueRelease(queue);
}

// One party is done with the context; the last one releases it, so that the
// caller's final poll never reads released memory.
void dropHold(PlaybackContext* context) {
  std::atomic_ref<std::uint32_t> holds(context->engineHolds);
  if (holds.load(std::memory_order_acquire) == 0 ||
      holds.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    destroyContext(context);
  }
}

// A transmission that failed before its queue ran: no callback can come any
// more, so the engine releases what it holds, without a log line.
std::int32_t abandon(PlaybackContext* context, std::int32_t status) {
  nimbara::detail::releaseFrameSilently(context->frameHead);
  destroyContext(context);
  return status;
}

void countReturn(PlaybackContext* context, const char* releaseLine) {
  if (context == nullptr) return;
  context->disposedCount += 1;
  NIMBARA_LOG(" dispose return[1] aqc->disposedCount=%d", context->disposedCount);
  if (context->disposedCount >= static_cast<std::int32_t>(NIMBARA_BUFFER_COUNT)) {
    NIMBARA_LOG("%s", releaseLine);
    dropHold(context);
  }
}

}  // namespace

namespace nimbara::detail {

void endOfPlayback(PlaybackContext* context) {
  if (context->disposed == 0) {
    context->disposed = 1;
    NIMBARA_LOG(" -> AudioQueueDispose(aqc->queue, true);");
    nimbaraAudioQueueDispose(context->queue, true);
    freeProtocolFrame(context->frameHead);
    context->frameHead = nullptr;
  }
  incrementAqcFinishCount(context);
}

}  // namespace nimbara::detail

void incrementAqcFinishCount(PlaybackContext* context) {
  countReturn(context, " -> free(aqc);");
}

void incrementPlayFinishCount(PlaybackContext* context) {
  countReturn(context, " -> freeProtocolFrame(aqc->protocolFrame);");
}

int32_t executeFunction(FrameNode* frame, uint32_t /*expectedReplyCode*/, unsigned long sampleLen,
                        struct ResponseRecord* /*record*/) {
  NIMBARA_LOG("#executeFunction %ld", static_cast<long>(sampleLen));
  if (frame == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  auto* context = static_cast<PlaybackContext*>(std::calloc(1, sizeof(PlaybackContext)));
  if (context == nullptr) {
    nimbara::detail::releaseFrameSilently(frame);
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  context->format = outputFormat();
  context->framesPerBuffer = NIMBARA_FRAMES_PER_BUFFER;
  context->targetFrames = static_cast<std::uint32_t>(sampleLen >> 1);
  context->playedFrames = 0;
  context->protocolFrame = frame;
  context->frameHead = frame;
  NIMBARA_LOG("aqc->protocolFrame add = %ld", static_cast<long>(reinterpret_cast<intptr_t>(frame)));
  NIMBARA_LOG("aqc->protocolFrame->protocol add = %ld",
              static_cast<long>(reinterpret_cast<intptr_t>(frame->protocol)));
  context->disposed = 0;
  context->disposedCount = 0;
  context->engineHolds = 2;  // this caller and the callback side

  const std::int32_t created =
      nimbaraAudioQueueNewOutput(&context->format, AQOutputCallback, context, 0, &context->queue);
  NIMBARA_LOG("#sampleLen=%d", static_cast<int>(context->targetFrames));
  if (created != 0) {
    NIMBARA_LOG("#newOutput err=%ld", static_cast<long>(created));
    return abandon(context, created);
  }
  const std::uint32_t bufferBytes = context->framesPerBuffer * context->format.bytesPerFrame;
  for (NimbaraAudioBufferRef& buffer : context->buffers) {
    const std::int32_t status =
        nimbaraAudioQueueAllocateBuffer(context->queue, bufferBytes, &buffer);
    if (status != 0) return abandon(context, status);
    AQOutputCallback(context, context->queue, buffer);
  }
  const std::int32_t started = nimbaraAudioQueueStart(context->queue);
  if (started != 0) return abandon(context, started);

  NIMBARA_LOG("#play wait before.");
  auto played = nimbara::detail::playedFramesOf(context);
  for (std::uint32_t now = played.load(std::memory_order_acquire); now < context->targetFrames;
       now = played.load(std::memory_order_acquire)) {
    NIMBARA_LOG("wait... %d / %d", static_cast<int>(now), static_cast<int>(context->targetFrames));
    nimbaraThreadSleep(kPollSeconds);
  }
  NIMBARA_LOG("#play wait after.");
  // The sound is not out until the output has taken the last buffer: a write
  // error or a lost server up to then is this transmission's failure.
  nimbaraAudioQueueWaitUntilDone(context->queue);
  const std::int32_t status = nimbaraAudioQueueGetStatus(context->queue);
  dropHold(context);
  return status;
}

std::int32_t nimbara::playFrames(const std::int16_t* samples, std::size_t frames) {
  if (samples == nullptr || frames == 0 || frames > std::numeric_limits<std::int32_t>::max() / 4) {
    return NIMBARA_AUDIO_ERR_INVALID;
  }
  // One node over the caller's samples; the engine releases the node, and
  // the unit, which it does not own, lives here until the output is done.
  ProtocolUnit unit{};
  unit.data = reinterpret_cast<std::uint8_t*>(const_cast<std::int16_t*>(samples));
  unit.length = static_cast<std::int32_t>(frames);
  unit.kind = nimbara::detail::kFramesUnit;
  std::memcpy(unit.name, "PCM", 4);
  auto* node = static_cast<FrameNode*>(std::calloc(1, sizeof(FrameNode)));
  if (node == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  node->protocol = &unit;
  // The engine ends a playback once it has rendered its target, and the
  // buffers still queued behind the one playing then are never heard: the
  // target covers them with silence, so that every frame is heard.
  const std::size_t unheard = (NIMBARA_BUFFER_COUNT - 1) * NIMBARA_FRAMES_PER_BUFFER;
  return executeFunction(node, 0, 2ul * (frames + unheard), nullptr);
}
