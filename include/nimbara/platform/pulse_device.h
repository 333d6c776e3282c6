/* The sound-server backend: PulseAudio, or PipeWire through its PulseAudio
 * interface. Plays at exactly 44100 Hz s16le stereo with about 50 ms of
 * latency and never touches the volume. The route is the default sink's
 * description and, when it has one, its active port's: "Built-in Audio
 * Analog Stereo: Headphones". A sink that runs at another rate resamples the
 * signal on its way out; playbackRate() tells. */
#ifndef NIMBARA_PLATFORM_PULSE_DEVICE_H
#define NIMBARA_PLATFORM_PULSE_DEVICE_H

#include <nimbara/platform/backend.h>

#ifdef __cplusplus
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace nimbara::platform {

class NIMBARA_API PulseDevice : public Backend {
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

  /** The default sink's volume (percent of normal, the loudest channel) and
   * mute state. */
  struct OutputLevel {
    double volumePercent = 0;
    bool muted = false;
  };
  std::int32_t outputLevel(OutputLevel* level);

  /** Asks the server to run the sink at `rate` (a whole number of hertz)
   * while this device's streams play: PipeWire switches its graph to the
   * stream's node.rate when that rate is allowed; PulseAudio switches an idle
   * sink to its alternate rate by itself. */
  std::int32_t setPreferredSampleRate(double rate) override;

  /** The rate the sink runs at while a stream of this device plays on it, and
   * whether that is the stream's own 44100 Hz, so that the signal reaches the
   * sink unresampled. Found by playing up to 300 ms of silence on the sink with the
   * same rate request as a transmission makes: an idle sink's rate says
   * nothing about the rate it will switch to. */
  struct PlaybackRate {
    std::uint32_t sinkRate = 0;
    bool exact = false;
    bool pipewire = false;  ///< the server is PipeWire's PulseAudio interface
  };
  std::int32_t playbackRate(PlaybackRate* rate);

  /** One sink of the server, as the route and the presence rule see it. */
  struct SinkSummary {
    std::string name;
    std::string description;
    std::string port;        ///< the active port's description, empty without ports
    std::string route;       ///< what routeName() gives while this sink is the default
    std::uint32_t rate = 0;  ///< its rate now; it may change once a stream plays
    bool isDefault = false;
  };
  std::int32_t listSinks(std::vector<SinkSummary>* sinks);

  /** The server connection the device shares between its queries and streams. */
  class Connection;

 private:
  class Stream;
  std::int32_t connection(std::shared_ptr<Connection>* out);
  std::int32_t readFacts(void* facts);

  const std::string server_;
  const std::string sink_;
  std::atomic<std::uint32_t> preferredRate_{0};  // 0: no request
  std::mutex mutex_;
  std::shared_ptr<Connection> connection_;
};

}  // namespace nimbara::platform
#endif

#endif
