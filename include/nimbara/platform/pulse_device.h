/* The sound-server backend: PulseAudio, or PipeWire through its PulseAudio
 * interface. Plays at exactly 44100 Hz s16le stereo with about 50 ms of
 * latency and never touches the volume. The route is the default sink's
 * description and, when it has one, its active port's: "Built-in Audio
 * Analog Stereo: Headphones". */
#ifndef NIMBARA_PLATFORM_PULSE_DEVICE_H
#define NIMBARA_PLATFORM_PULSE_DEVICE_H

#include <nimbara/platform/backend.h>

#ifdef __cplusplus
#include <memory>
#include <mutex>
#include <string>

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

  /** The server connection the device shares between its queries and streams. */
  class Connection;

 private:
  class Stream;
  std::int32_t connection(std::shared_ptr<Connection>* out);
  std::int32_t readFacts(void* facts);

  const std::string server_;
  const std::string sink_;
  std::mutex mutex_;
  std::shared_ptr<Connection> connection_;
};

}  // namespace nimbara::platform
#endif

#endif
