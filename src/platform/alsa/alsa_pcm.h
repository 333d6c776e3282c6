// The PCMs of the ALSA backend: one opened at exactly the signal's format, a
// playback stream that reports xruns inside its sound, and a capture stream.
#pragma once

#include <nimbara/platform/backend.h>

#include <alsa/asoundlib.h>

#include <cstdint>
#include <memory>
#include <string>

namespace nimbara::platform::alsa {

// Opens `name` for `direction` at 44100 Hz, S16_LE, 2 channels, with alsa-lib's
// own resampling off. NIMBARA_AUDIO_ERR_RATE when the PCM cannot run at the
// signal's rate (a plughw: PCM would have to convert); *nearest is then the
// rate it offers (0: unknown).
std::int32_t openExact(const std::string& name, snd_pcm_stream_t direction, int mode,
                       snd_pcm_t** pcm, unsigned* nearest = nullptr);

std::int32_t openPlayback(const std::string& name, std::unique_ptr<OutputStream>* stream);
std::int32_t openRecord(const std::string& name, std::unique_ptr<CaptureStream>* stream);

// Reads alsa-lib's configuration where it has changed; a failure leaves none.
std::int32_t loadConfiguration();

// The status of an alsa-lib error from opening a PCM.
std::int32_t openFailure(int error);

}  // namespace nimbara::platform::alsa
