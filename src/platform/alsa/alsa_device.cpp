#include "platform/alsa/alsa_device.h"

#include <nimbara/signal/signal_format.h>

#include <alsa/asoundlib.h>

#include <memory>
#include <mutex>

#include "platform/alsa/alsa_controls.h"
#include "platform/alsa/alsa_pcm.h"
#include "platform/backend_registry.h"
#include "platform/guarded.h"

namespace nimbara::platform {
namespace {

using detail::guarded;

std::string hint(void* entry, const char* field) {
  char* text = snd_device_name_get_hint(entry, field);
  if (text == nullptr) return {};
  std::string copy = text;
  free(text);  // NOLINT: alsa-lib's allocation
  return copy;
}

// The card's name and what its jack controls say, or the PCM's own name and
// "cannot tell" where it has none.
std::string routeOf(const std::string& pcm) {
  const int card = alsa::cardOf(pcm);
  const std::string where = card >= 0 ? alsa::cardName(card) : pcm;
  switch (alsa::headphoneJack(card)) {
    case alsa::Jack::Plugged:
      return where + ": Headphones";
    case alsa::Jack::Empty:
      return where + ": jack empty";
    case alsa::Jack::Unknown:
      break;
  }
  return where + ": cannot tell whether headphones are plugged in (no jack detection)";
}

// alsa-lib prints its errors on stderr; this library's callers say what
// failed themselves, through the statuses.
void quiet(const char*, int, const char*, int, const char*, ...) {}

}  // namespace

AlsaDevice::AlsaDevice(std::string pcm) : pcm_(pcm.empty() ? "default" : std::move(pcm)) {
  static std::once_flag once;
  std::call_once(once, [] { snd_lib_error_set_handler(&quiet); });
}

std::int32_t AlsaDevice::openStream(const NimbaraStreamFormat&,
                                    std::unique_ptr<OutputStream>* stream) {
  return guarded([&] { return alsa::openPlayback(pcm_, stream); });
}

std::int32_t AlsaDevice::routeName(std::string* name) {
  return guarded([&] {
    *name = routeOf(pcm_);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t AlsaDevice::outputLevel(OutputLevel* level) {
  return guarded([&] { return alsa::mixerLevel(alsa::cardOf(pcm_), level); });
}

std::int32_t AlsaDevice::playbackRate(PlaybackRate* rate) {
  return guarded([&] {
    snd_pcm_t* pcm = nullptr;
    unsigned nearest = 0;
    const std::int32_t status =
        alsa::openExact(pcm_, SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK, &pcm, &nearest);
    if (status == NIMBARA_AUDIO_OK) {
      snd_pcm_close(pcm);
      *rate = {NIMBARA_SAMPLE_RATE, true, {}};
      return std::int32_t{NIMBARA_AUDIO_OK};
    }
    if (status != NIMBARA_AUDIO_ERR_RATE) return status;
    *rate = {nearest, false,
             "the PCM \"" + pcm_ +
                 "\" cannot run at 44100 Hz; name a PCM of a card that can (alsa:hw:CARD,DEVICE), "
                 "or allow resampling\n"};
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t AlsaDevice::setAllowResampling(bool allow) {
  return allow ? NIMBARA_AUDIO_ERR_NOT_SUPPORTED : NIMBARA_AUDIO_OK;
}

std::int32_t AlsaDevice::listOutputs(std::vector<OutputInfo>* outputs) {
  return guarded([&] {
    void** hints = nullptr;
    if (snd_device_name_hint(-1, "pcm", &hints) < 0) return std::int32_t{NIMBARA_AUDIO_ERR_IO};
    const std::unique_ptr<void*, int (*)(void**)> held(hints, &snd_device_name_free_hint);
    std::vector<OutputInfo> found;
    for (void** entry = hints; *entry != nullptr; ++entry) {
      const std::string io = hint(*entry, "IOID");
      if (!io.empty() && io != "Output") continue;
      OutputInfo info;
      info.name = hint(*entry, "NAME");
      info.description = hint(*entry, "DESC");
      for (char& c : info.description) {
        if (c == '\n') c = ' ';
      }
      info.isDefault = info.name == pcm_;
      // Only this backend's own PCM is probed: opening every PCM alsa-lib
      // names would start the servers some of them stand for.
      if (info.isDefault) {
        info.route = routeOf(info.name);
        snd_pcm_t* pcm = nullptr;
        if (alsa::openExact(info.name, SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK, &pcm) == 0) {
          snd_pcm_close(pcm);
          info.rate = NIMBARA_SAMPLE_RATE;
          info.exact = true;
        }
      }
      found.push_back(std::move(info));
    }
    *outputs = std::move(found);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t AlsaDevice::openCapture(const std::string& source,
                                     std::unique_ptr<CaptureStream>* stream) {
  return guarded([&] { return alsa::openRecord(source.empty() ? pcm_ : source, stream); });
}

std::shared_ptr<Backend> detail::makeAlsaBackend(const BackendArgs& args) {
  return std::make_shared<AlsaDevice>(args.argument);
}

}  // namespace nimbara::platform
