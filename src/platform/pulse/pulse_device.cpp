// The sound-server backend's operations: one connection per device, made
// again only when the server has gone, shared by its queries and streams.
#include "platform/pulse/pulse_device.h"

#include <nimbara/signal/signal_format.h>

#include <cmath>
#include <new>
#include <stdexcept>

#include "platform/backend_registry.h"
#include "platform/guarded.h"
#include "platform/pulse/pulse_connection.h"
#include "platform/pulse/pulse_queries.h"
#include "platform/pulse/pulse_stream.h"

namespace nimbara::platform {
namespace {

// The source `listen` records from when none is named.
constexpr const char* kDefaultSource = "@DEFAULT_MONITOR@";

std::string howToAllowTheRate(bool pipewire) {
  if (pipewire) {
    return "let PipeWire run at 44100 Hz with this line in "
           "~/.config/pipewire/pipewire.conf.d/44100.conf, then restart PipeWire:\n"
           "  context.properties = { default.clock.allowed-rates = [ 44100 48000 ] }\n";
  }
  return "let PulseAudio run at 44100 Hz with this line in ~/.config/pulse/daemon.conf, then "
         "restart it (pulseaudio -k):\n"
         "  default-sample-rate = 44100\n";
}

using detail::guarded;

}  // namespace

PulseDevice::PulseDevice(std::string server, std::string sink)
    : server_(std::move(server)), sink_(std::move(sink)) {}

PulseDevice::~PulseDevice() = default;

std::int32_t PulseDevice::connection(std::shared_ptr<pulse::Connection>* out) {
  std::lock_guard lock(mutex_);
  if (!connection_ || !connection_->alive()) {
    std::shared_ptr<pulse::Connection> fresh;
    try {
      fresh = std::make_shared<pulse::Connection>();
    } catch (const std::bad_alloc&) {
      return NIMBARA_AUDIO_ERR_NO_MEMORY;
    }
    if (const std::int32_t status = fresh->connect(server_)) return status;
    connection_ = std::move(fresh);
  }
  *out = connection_;
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::openStream(const NimbaraStreamFormat&,
                                     std::unique_ptr<OutputStream>* stream) {
  std::shared_ptr<pulse::Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  return pulse::openPlayback(std::move(shared), sink_, preferredRate(), stream);
}

template <typename Use>
std::int32_t PulseDevice::withSinkFacts(Use use) {
  std::shared_ptr<pulse::Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  return guarded([&] {
    pulse::SinkFacts facts;
    if (const std::int32_t status = pulse::readSink(*shared, sink_, &facts)) return status;
    use(facts);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t PulseDevice::routeName(std::string* name) {
  return withSinkFacts([&](const pulse::SinkFacts& facts) { *name = facts.route; });
}

std::int32_t PulseDevice::outputLevel(OutputLevel* level) {
  return withSinkFacts([&](const pulse::SinkFacts& facts) { *level = facts.level; });
}

std::int32_t PulseDevice::playbackRate(PlaybackRate* rate) {
  std::shared_ptr<pulse::Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  return guarded([&] {
    pulse::SinkFacts facts;
    if (const std::int32_t status = pulse::readSink(*shared, sink_, &facts)) return status;
    PlaybackRate found;
    if (const std::int32_t status =
            pulse::probeRate(*shared, sink_, preferredRate(), &found.rate)) {
      return status;
    }
    found.exact = found.rate == NIMBARA_SAMPLE_RATE;
    if (!found.exact) found.howToAllow = howToAllowTheRate(facts.pipewire);
    *rate = std::move(found);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t PulseDevice::listOutputs(std::vector<OutputInfo>* outputs) {
  std::shared_ptr<pulse::Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  return guarded([&] {
    std::vector<OutputInfo> sinks;
    if (const std::int32_t status = pulse::listSinks(*shared, &sinks)) return status;
    // The rate a sink runs at shows only while something plays on it, with
    // the request every transmission makes.
    for (OutputInfo& sink : sinks) {
      std::uint32_t rate = 0;
      const std::int32_t status = pulse::probeRate(*shared, sink.name, NIMBARA_SAMPLE_RATE, &rate);
      if (status == NIMBARA_AUDIO_ERR_NO_SERVER) return status;
      sink.rate = status == NIMBARA_AUDIO_OK ? rate : 0;
      sink.exact = sink.rate == NIMBARA_SAMPLE_RATE;
    }
    *outputs = std::move(sinks);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t PulseDevice::openCapture(const std::string& source,
                                      std::unique_ptr<CaptureStream>* stream) {
  std::shared_ptr<pulse::Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  return guarded([&] {
    // Some servers (PipeWire's PulseAudio interface) quietly record from the
    // default source instead of refusing a name they do not know.
    if (!source.empty()) {
      bool exists = false;
      if (const std::int32_t status = pulse::hasSource(*shared, source, &exists)) return status;
      if (!exists) return std::int32_t{NIMBARA_AUDIO_ERR_NO_SUCH_NAME};
    }
    return pulse::openRecord(std::move(shared), source.empty() ? kDefaultSource : source, stream);
  });
}

std::int32_t PulseDevice::setPreferredSampleRate(double rate) {
  if (!std::isfinite(rate) || rate < 1 || rate > 768000 || rate != std::floor(rate)) {
    return NIMBARA_AUDIO_ERR_INVALID;
  }
  preferredRate_.store(static_cast<std::uint32_t>(rate), std::memory_order_relaxed);
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::setAllowResampling(bool allow) {
  return allow ? NIMBARA_AUDIO_OK : NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}

std::shared_ptr<Backend> detail::makePulseBackend(const BackendArgs& args) {
  return std::make_shared<PulseDevice>(std::string(), args.argument);
}

}  // namespace nimbara::platform
