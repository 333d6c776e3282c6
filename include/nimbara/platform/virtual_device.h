/* The virtual device: an audio output that plays into memory, on a clock of
 * its own, so that everything runs headless. It records what it is handed and
 * what it plays, and has a settable route. It always runs at the signal's rate
 * at full volume; playing in real time it can report that it ran dry. */
#ifndef NIMBARA_PLATFORM_VIRTUAL_DEVICE_H
#define NIMBARA_PLATFORM_VIRTUAL_DEVICE_H

#include <nimbara/platform/backend.h>
#include <nimbara/signal/signal_format.h>

#ifdef __cplusplus
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace nimbara::platform {

class NIMBARA_API VirtualDevice : public Backend {
 public:
  struct Options {
    /** Seconds of device time per second of sound: 1 plays in real time, 0.001
     * a thousand times faster, 0 as fast as possible. Also scales the thread
     * pause of the playback engine's wait. */
    double timeScale = 1.0;
    std::string route = "Virtual Headphones";
    /** Whether the samples are kept, and how many frames each stream may keep. */
    bool record = true;
    std::size_t recordLimitFrames = NIMBARA_SAMPLE_RATE * 10;
    /** Whether a buffer that came after the device had run out of sound fails
     * the stream with NIMBARA_AUDIO_ERR_RAN_DRY (it is counted either way). */
    bool reportRunDry = false;
  };

  VirtualDevice();
  explicit VirtualDevice(Options options);

  const char* name() const override { return "virtual"; }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<OutputStream>* stream) override;
  std::int32_t routeName(std::string* name) override;
  /** Its one output, "virtual", at the signal's rate. */
  std::int32_t listOutputs(std::vector<OutputInfo>* outputs) override;
  std::int32_t outputLevel(OutputLevel* level) override;
  std::int32_t playbackRate(PlaybackRate* rate) override;
  /** What it played since the last call; the recordings start anew. */
  std::int32_t takePlayed(std::vector<std::int16_t>* samples) override;
  std::int32_t setPreferredSampleRate(double rate) override;
  void sleep(double seconds) override;
  bool returnsBuffersAfterDispose() const override;

  void setRoute(std::string route);
  void setReturnsBuffersAfterDispose(bool returns);

  /** Interleaved stereo samples of the streams that have finished, in order:
   * everything handed to the output, and what was played of it. */
  std::vector<std::int16_t> enqueuedSamples() const;
  std::vector<std::int16_t> playedSamples() const;
  void clearRecordings();

  /** Times a buffer came after the device, playing in real time, had run out
   * of sound for more than 5 ms: gaps a real output would have played. */
  std::uint64_t underruns() const;

  /** The rate requests it has seen. */
  struct Session {
    int preferredRateCalls = 0;
    double preferredRate = 0;
  };
  Session session() const;

  double timeScale() const { return options_.timeScale; }

 private:
  class Stream;

  std::int32_t keep(const std::vector<std::int16_t>& enqueued,
                    const std::vector<std::int16_t>& played);

  const Options options_;
  std::atomic<bool> returnsBuffers_{true};
  std::atomic<std::uint64_t> underruns_{0};
  mutable std::mutex mutex_;
  std::string route_;
  std::vector<std::int16_t> enqueued_;
  std::vector<std::int16_t> played_;
  Session session_;
};

}  // namespace nimbara::platform
#endif

#endif
