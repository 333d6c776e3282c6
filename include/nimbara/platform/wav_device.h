/* A backend that plays into a WAV file (16-bit stereo, 44100 Hz, written
 * through libsndfile) as fast as possible: the file holds exactly what a device would have heard,
 * every transmission after the one before. Not a real-time device. When the file cannot be written
 * (no such folder, a full disk, a size limit) the transmission fails with NIMBARA_AUDIO_ERR_IO and
 * the file is removed. */
#ifndef NIMBARA_PLATFORM_WAV_DEVICE_H
#define NIMBARA_PLATFORM_WAV_DEVICE_H

#include <nimbara/platform/backend.h>
#include <nimbara/signal/signal_format.h>

#ifdef __cplusplus
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace nimbara::detail {
class WavWriter;
}

namespace nimbara::platform {

class NIMBARA_API WavDevice : public Backend {
 public:
  explicit WavDevice(std::string path, std::string route = "WAV Headphones");
  ~WavDevice() override;

  const char* name() const override { return "wav"; }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<OutputStream>* stream) override;
  std::int32_t routeName(std::string* name) override;
  /** Its one output, the file, at the signal's rate. */
  std::int32_t listOutputs(std::vector<OutputInfo>* outputs) override;
  std::int32_t outputLevel(OutputLevel* level) override;
  std::int32_t playbackRate(PlaybackRate* rate) override;
  /** Lasts until `seconds` more of sound have been written (or a stream has
   * closed): the file takes sound as fast as the disk allows. */
  void sleep(double seconds) override;

  void setRoute(std::string route);
  /** Frames written so far. */
  std::size_t frames() const;
  /** NIMBARA_AUDIO_ERR_IO once a write has failed (the file is then gone),
   * else 0. */
  std::int32_t status() const;

 private:
  class Stream;
  std::int32_t write(const std::int16_t* samples, std::size_t frames);
  std::int32_t finishHeader();
  std::int32_t failLocked();

  const std::string path_;
  mutable std::mutex mutex_;
  std::condition_variable progress_;
  std::size_t closedStreams_ = 0;
  std::string route_;
  std::unique_ptr<nimbara::detail::WavWriter> file_;
  std::size_t frames_ = 0;
  bool failed_ = false;
};

/** Writes interleaved 16-bit stereo samples at 44100 Hz as a WAV file
 * (writeAudioFile): NIMBARA_AUDIO_ERR_IO when it cannot be written. */
NIMBARA_API std::int32_t writeWavFile(const std::string& path, const std::int16_t* samples,
                                      std::size_t frames);

}  // namespace nimbara::platform
#endif

#endif
