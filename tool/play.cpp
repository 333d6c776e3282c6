// play: a timeline of scents from a track (WebVTT, or a cue file of
// "SECONDS VERB ARGS..." lines), each starting at its time on the output's clock.
// The whole timeline is rendered first and played as one stream, so the
// times hold to the sample.
#include <nimbara/nimbara.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "track_commands.h"

namespace tool {
namespace {

// Plays interleaved stereo samples on the current output as one stream and
// waits until the output has taken the last of them.
class StreamPlayer {
 public:
  explicit StreamPlayer(const std::vector<std::int16_t>& samples) : samples_(samples) {}

  std::int32_t play() {
    NimbaraStreamFormat format{44100.0,
                               NIMBARA_FORMAT_LINEAR_PCM,
                               NIMBARA_FORMAT_FLAG_SIGNED_INTEGER | NIMBARA_FORMAT_FLAG_PACKED,
                               4,
                               1,
                               4,
                               2,
                               16,
                               0};
    NimbaraAudioQueueRef queue = nullptr;
    std::int32_t status =
        nimbaraAudioQueueNewOutput(&format, &StreamPlayer::onBuffer, this, 0, &queue);
    for (int i = 0; i < 3 && status == 0; ++i) {
      NimbaraAudioBufferRef buffer = nullptr;
      status = nimbaraAudioQueueAllocateBuffer(queue, kFrames * 4, &buffer);
      if (status == 0 && next_ < frames()) status = fill(queue, buffer);
    }
    if (status == 0) status = nimbaraAudioQueueStart(queue);
    if (status == 0) {
      nimbaraAudioQueueWaitUntilDone(queue);
      status = nimbaraAudioQueueGetStatus(queue);
    }
    nimbaraAudioQueueRelease(queue);
    return status;
  }

 private:
  static constexpr std::uint32_t kFrames = 735;

  std::size_t frames() const { return samples_.size() / 2; }

  std::int32_t fill(NimbaraAudioQueueRef queue, NimbaraAudioBufferRef buffer) {
    const std::size_t n = std::min<std::size_t>(kFrames, frames() - next_);
    auto* out = static_cast<std::int16_t*>(buffer->audioData);
    std::memcpy(out, samples_.data() + 2 * next_, n * 4);
    std::memset(out + 2 * n, 0, (kFrames - n) * 4);
    buffer->audioDataByteSize = kFrames * 4;
    next_ += n;
    ++enqueued_;
    return nimbaraAudioQueueEnqueueBuffer(queue, buffer);
  }

  // On the queue's thread: refill, and once every buffer has come back
  // played, end the stream.
  static void onBuffer(void* user, NimbaraAudioQueueRef queue, NimbaraAudioBufferRef buffer) {
    auto* self = static_cast<StreamPlayer*>(user);
    ++self->returned_;
    if (self->next_ < self->frames()) {
      self->fill(queue, buffer);
    } else if (self->returned_ == self->enqueued_) {
      nimbaraAudioQueueDispose(queue, true);
    }
  }

  const std::vector<std::int16_t>& samples_;
  std::size_t next_ = 0;  // the priming, then the queue's thread
  unsigned enqueued_ = 0, returned_ = 0;
};

}  // namespace

int runPlay(const Globals& globals, const std::string& cuePath) {
  const std::vector<nimbara::TrackCue> cues = loadTrack(cuePath);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const std::vector<std::int16_t> timeline = nimbara::renderTrack(cues);
  const Output output = openOutput(globals);
  checkPresence(globals);
  warnAboutLevel(output);
  for (const auto& cue : cues) {
    char at[32];
    std::snprintf(at, sizeof at, "%.3f s", cue.start);
    trace(globals, std::string("cue at ") + at + ": " + describeCommand(cue.command));
  }
  StreamPlayer player(timeline);
  CueAnnouncer announcer(globals, cues);
  const std::int32_t status = player.play();
  nimbara::platform::waitUntilIdle();
  announcer.finish(status == 0);
  if (status != 0) failedOutput(globals, output, status);
  return 0;
}

}  // namespace tool
