// The sound-server backend: PulseAudio, or PipeWire through its PulseAudio
// interface. Plays at exactly the signal's rate, s16le stereo, with about
// 200 ms of buffering asked of the server, and never touches the volume. The
// route is the sink's description and, when it has one, its active port's:
// "Built-in Audio Analog Stereo: Headphones". A sink that runs at another rate
// resamples the signal on its way out; playbackRate() tells.
#pragma once

#include <nimbara/platform/backend.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace nimbara::platform {

namespace pulse {
class Connection;
struct SinkFacts;
}  // namespace pulse

class PulseDevice : public Backend {
 public:
  /** server: a server string such as "unix:/run/user/1000/pulse/native"; empty
   * for libpulse's own choice (its configuration and PULSE_SERVER). sink: the
   * name of the sink to play on; empty for the server's default sink. The
   * route, the level and the stream all concern that sink. */
  explicit PulseDevice(std::string server = {}, std::string sink = {});
  ~PulseDevice() override;

  const char* name() const override { return "pulse"; }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<OutputStream>* stream) override;
  std::int32_t routeName(std::string* name) override;
  /** Every sink, each rate found by playing up to 300 ms of silence on it. */
  std::int32_t listOutputs(std::vector<OutputInfo>* outputs) override;
  std::int32_t outputLevel(OutputLevel* level) override;
  /** Found by playing up to 300 ms of silence on the sink with the same rate
   * request as a transmission makes: an idle sink's rate says nothing about
   * the rate it will switch to. */
  std::int32_t playbackRate(PlaybackRate* rate) override;
  /** A source of the server; empty: the monitor of the default sink. */
  std::int32_t openCapture(const std::string& source,
                           std::unique_ptr<CaptureStream>* stream) override;
  /** Asks the server to run the sink at `rate` (a whole number of hertz)
   * while this device's streams play: PipeWire switches its graph to the
   * stream's node.rate when that rate is allowed; PulseAudio switches an idle
   * sink to its alternate rate by itself. */
  std::int32_t setPreferredSampleRate(double rate) override;
  /** The server resamples a sink at another rate and the stream plays, as it
   * always has (the tool warns): refusing is not supported, since the sink's
   * rate shows only once a stream plays on it. */
  std::int32_t setAllowResampling(bool allow) override;

 private:
  std::int32_t connection(std::shared_ptr<pulse::Connection>* out);
  // Reads the sink's facts and hands them to `use`; the status of the read.
  template <typename Use>
  std::int32_t withSinkFacts(Use use);
  std::uint32_t preferredRate() const { return preferredRate_.load(std::memory_order_relaxed); }

  const std::string server_;
  const std::string sink_;
  std::atomic<std::uint32_t> preferredRate_{0};  // 0: no request
  std::mutex mutex_;
  std::shared_ptr<pulse::Connection> connection_;
};

}  // namespace nimbara::platform
