// The ALSA backend: a PCM of alsa-lib ("hw:0,0", "default", any PCM an
// asoundrc defines) opened at exactly 44100 Hz, S16_LE, 2 channels, with
// alsa-lib's resampling off: a PCM that cannot run at the signal's rate fails
// with NIMBARA_AUDIO_ERR_RATE instead of converting it. Presence comes from the
// card's headphone jack controls; a PCM on no card, or a card without them,
// cannot tell.
#pragma once

#include <nimbara/platform/backend.h>

#include <string>

namespace nimbara::platform {

class AlsaDevice : public Backend {
 public:
  /** pcm: the PCM to play on and to record from; empty for "default". */
  explicit AlsaDevice(std::string pcm = {});

  const char* name() const override { return "alsa"; }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<OutputStream>* stream) override;
  /** "CARD: Headphones" while the card's headphone jack is plugged,
   * "CARD: jack empty" while not, and a route that says it cannot tell where
   * the card has no jack detection. */
  std::int32_t routeName(std::string* name) override;
  /** The PCMs alsa-lib's hints name as outputs, each probed for the rate. */
  std::int32_t listOutputs(std::vector<OutputInfo>* outputs) override;
  /** The card's headphone, master or PCM control. */
  std::int32_t outputLevel(OutputLevel* level) override;
  std::int32_t playbackRate(PlaybackRate* rate) override;
  /** A capture PCM by name; empty: this backend's PCM. */
  std::int32_t openCapture(const std::string& source,
                           std::unique_ptr<CaptureStream>* stream) override;
  /** Plays at the signal's rate or not at all: allowing resampling is not
   * supported (a plughw: PCM resamples, and is named so). */
  std::int32_t setAllowResampling(bool allow) override;

 private:
  const std::string pcm_;
};

}  // namespace nimbara::platform
