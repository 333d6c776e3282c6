// Playback writes each buffer with a blocking snd_pcm_writei: the device's
// clock paces the queue's thread. An xrun shows as -EPIPE on the next write,
// at a known position in the stream; one that falls between the first and
// the last sound of the stream has put a gap into it.
#include "platform/alsa/alsa_pcm.h"

#include <nimbara/signal/signal_format.h>

#include <cerrno>
#include <new>

#include "common/log.h"

namespace nimbara::platform::alsa {
namespace {

constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);
constexpr unsigned kBufferMicroseconds = 200000;  // as the sound-server backend asks
constexpr unsigned kPeriodMicroseconds = 20000;

struct HwParams {
  snd_pcm_hw_params_t* params = nullptr;
  HwParams() { snd_pcm_hw_params_malloc(&params); }
  ~HwParams() { snd_pcm_hw_params_free(params); }
};

struct SwParams {
  snd_pcm_sw_params_t* params = nullptr;
  SwParams() { snd_pcm_sw_params_malloc(&params); }
  ~SwParams() { snd_pcm_sw_params_free(params); }
};

std::int32_t configure(snd_pcm_t* pcm, unsigned* nearest) {
  HwParams hw;
  if (hw.params == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  if (snd_pcm_hw_params_any(pcm, hw.params) < 0) return NIMBARA_AUDIO_ERR_STREAM;
  snd_pcm_hw_params_set_rate_resample(pcm, hw.params, 0);
  if (snd_pcm_hw_params_set_access(pcm, hw.params, SND_PCM_ACCESS_RW_INTERLEAVED) < 0 ||
      snd_pcm_hw_params_set_format(pcm, hw.params, SND_PCM_FORMAT_S16_LE) < 0 ||
      snd_pcm_hw_params_set_channels(pcm, hw.params, NIMBARA_CHANNELS) < 0) {
    return NIMBARA_AUDIO_ERR_FORMAT;
  }
  if (snd_pcm_hw_params_set_rate(pcm, hw.params, NIMBARA_SAMPLE_RATE, 0) < 0) {
    if (nearest != nullptr) {
      unsigned rate = NIMBARA_SAMPLE_RATE;
      *nearest = snd_pcm_hw_params_set_rate_near(pcm, hw.params, &rate, nullptr) == 0 ? rate : 0;
    }
    return NIMBARA_AUDIO_ERR_RATE;
  }
  unsigned buffer = kBufferMicroseconds;
  unsigned period = kPeriodMicroseconds;
  snd_pcm_hw_params_set_buffer_time_near(pcm, hw.params, &buffer, nullptr);
  snd_pcm_hw_params_set_period_time_near(pcm, hw.params, &period, nullptr);
  if (snd_pcm_hw_params(pcm, hw.params) < 0) return NIMBARA_AUDIO_ERR_STREAM;
  if (snd_pcm_stream(pcm) != SND_PCM_STREAM_PLAYBACK) return NIMBARA_AUDIO_OK;
  // Playback starts once the buffer is full, so that it starts well ahead.
  snd_pcm_uframes_t bufferFrames = 0;
  snd_pcm_uframes_t periodFrames = 0;
  if (snd_pcm_get_params(pcm, &bufferFrames, &periodFrames) < 0) return NIMBARA_AUDIO_ERR_STREAM;
  SwParams sw;
  if (sw.params == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  if (snd_pcm_sw_params_current(pcm, sw.params) < 0 ||
      snd_pcm_sw_params_set_start_threshold(pcm, sw.params, bufferFrames) < 0 ||
      snd_pcm_sw_params(pcm, sw.params) < 0) {
    return NIMBARA_AUDIO_ERR_STREAM;
  }
  return NIMBARA_AUDIO_OK;
}

class Playback : public OutputStream {
 public:
  explicit Playback(snd_pcm_t* pcm) : pcm_(pcm) {}
  ~Playback() override { close(); }

  std::int32_t play(const std::int16_t* samples, std::size_t frames,
                    const std::atomic<bool>& stop) override {
    if (pcm_ == nullptr) return NIMBARA_AUDIO_ERR_LOST;
    noteSound(samples, frames);
    std::size_t left = frames;
    std::int32_t status = NIMBARA_AUDIO_OK;
    while (left > 0 && !stop.load(std::memory_order_acquire)) {
      const snd_pcm_sframes_t n = snd_pcm_writei(pcm_, samples, left);
      if (n == -EPIPE || n == -ESTRPIPE) {
        // The device played everything it had: a gap at this position.
        if (dryAt_ == kNowhere && soundStart_ != kNowhere && written_ > soundStart_) {
          dryAt_ = written_;
        }
        if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) < 0) return NIMBARA_AUDIO_ERR_IO;
        continue;
      }
      if (n == -EAGAIN || n == -EINTR) continue;
      if (n < 0) {
        status = n == -ENODEV ? NIMBARA_AUDIO_ERR_LOST : NIMBARA_AUDIO_ERR_IO;
        break;
      }
      written_ += static_cast<std::size_t>(n);
      samples += static_cast<std::size_t>(n) * NIMBARA_CHANNELS;
      left -= static_cast<std::size_t>(n);
    }
    if (status == NIMBARA_AUDIO_OK && ranDryInSound()) status = NIMBARA_AUDIO_ERR_RAN_DRY;
    return status;
  }

  std::int32_t close() override {
    if (pcm_ == nullptr) return NIMBARA_AUDIO_OK;
    std::int32_t status = NIMBARA_AUDIO_OK;
    if (written_ > 0 && snd_pcm_drain(pcm_) < 0) status = NIMBARA_AUDIO_ERR_IO;
    snd_pcm_close(pcm_);
    pcm_ = nullptr;
    if (status == NIMBARA_AUDIO_OK && ranDryInSound()) status = NIMBARA_AUDIO_ERR_RAN_DRY;
    return status;
  }

 private:
  // Where the stream's sound starts and ends, in frames.
  void noteSound(const std::int16_t* samples, std::size_t frames) {
    for (std::size_t i = 0; i < frames * NIMBARA_CHANNELS; ++i) {
      if (samples[i] == 0) continue;
      const std::size_t frame = handed_ + i / NIMBARA_CHANNELS;
      if (soundStart_ == kNowhere) soundStart_ = frame;
      soundEnd_ = frame + 1;
    }
    handed_ += frames;
  }

  bool ranDryInSound() {
    if (dryReported_ || dryAt_ == kNowhere || dryAt_ >= soundEnd_) return false;
    dryReported_ = true;
    NIMBARA_LOG(" [ERROR] the ALSA device ran dry %zu frames into the stream", dryAt_);
    return true;
  }

  snd_pcm_t* pcm_;
  std::size_t handed_ = 0;
  std::size_t written_ = 0;
  std::size_t soundStart_ = kNowhere;
  std::size_t soundEnd_ = 0;
  std::size_t dryAt_ = kNowhere;
  bool dryReported_ = false;
};

class Record : public CaptureStream {
 public:
  explicit Record(snd_pcm_t* pcm) : pcm_(pcm) {}
  ~Record() override { snd_pcm_close(pcm_); }

  std::int32_t read(std::int16_t* samples, std::size_t frames) override {
    while (frames > 0) {
      const snd_pcm_sframes_t n = snd_pcm_readi(pcm_, samples, frames);
      if (n == -EAGAIN || n == -EINTR) continue;
      if (n < 0) {
        // An overrun loses what came meanwhile; listening goes on.
        if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) < 0) return NIMBARA_AUDIO_ERR_IO;
        continue;
      }
      samples += static_cast<std::size_t>(n) * NIMBARA_CHANNELS;
      frames -= static_cast<std::size_t>(n);
    }
    return NIMBARA_AUDIO_OK;
  }

 private:
  snd_pcm_t* pcm_;
};

}  // namespace

std::int32_t openFailure(int error) {
  switch (error) {
    case -ENOENT:
    case -ENODEV:
    case -ENXIO:
      return NIMBARA_AUDIO_ERR_NO_SUCH_NAME;
    case -ENOMEM:
      return NIMBARA_AUDIO_ERR_NO_MEMORY;
    default:
      return NIMBARA_AUDIO_ERR_STREAM;
  }
}

std::int32_t loadConfiguration() {
  // alsa-lib keeps a half-read configuration after a failure (out of memory
  // while parsing) and crashes on it later: it is dropped, to be read afresh.
  if (const int error = snd_config_update(); error < 0) {
    snd_config_update_free_global();
    return error == -ENOMEM ? NIMBARA_AUDIO_ERR_NO_MEMORY : NIMBARA_AUDIO_ERR_STREAM;
  }
  return NIMBARA_AUDIO_OK;
}

std::int32_t openExact(const std::string& name, snd_pcm_stream_t direction, int mode,
                       snd_pcm_t** pcm, unsigned* nearest) {
  if (const std::int32_t status = loadConfiguration()) return status;
  snd_pcm_t* opened = nullptr;
  if (const int error = snd_pcm_open(&opened, name.c_str(), direction, mode); error < 0) {
    return openFailure(error);
  }
  if (const std::int32_t status = configure(opened, nearest)) {
    snd_pcm_close(opened);
    return status;
  }
  *pcm = opened;
  return NIMBARA_AUDIO_OK;
}

namespace {

// Opens the PCM in `direction` and hands it to a new Wrapper, closing it again
// when there is no memory for one.
template <typename Wrapper, typename Stream>
std::int32_t openWrapped(const std::string& name, snd_pcm_stream_t direction,
                         std::unique_ptr<Stream>* stream) {
  snd_pcm_t* pcm = nullptr;
  if (const std::int32_t status = openExact(name, direction, 0, &pcm)) return status;
  auto* opened = new (std::nothrow) Wrapper(pcm);
  if (opened == nullptr) {
    snd_pcm_close(pcm);
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  stream->reset(opened);
  return NIMBARA_AUDIO_OK;
}

}  // namespace

std::int32_t openPlayback(const std::string& name, std::unique_ptr<OutputStream>* stream) {
  return openWrapped<Playback>(name, SND_PCM_STREAM_PLAYBACK, stream);
}

std::int32_t openRecord(const std::string& name, std::unique_ptr<CaptureStream>* stream) {
  return openWrapped<Record>(name, SND_PCM_STREAM_CAPTURE, stream);
}

}  // namespace nimbara::platform::alsa
