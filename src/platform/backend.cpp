// What a backend or a stream does for an operation it does not define: the
// stream steps succeed, the output's operations are not supported.
#include <nimbara/platform/backend.h>

#include <chrono>
#include <thread>

namespace nimbara::platform {

std::int32_t OutputStream::prepareBuffer(std::uint32_t) {
  return NIMBARA_AUDIO_OK;
}
std::int32_t OutputStream::enqueued(const std::int16_t*, std::size_t) {
  return NIMBARA_AUDIO_OK;
}
std::int32_t OutputStream::start() {
  return NIMBARA_AUDIO_OK;
}
std::int32_t OutputStream::close() {
  return NIMBARA_AUDIO_OK;
}

std::int32_t Backend::listOutputs(std::vector<OutputInfo>*) {
  return NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}
std::int32_t Backend::outputLevel(OutputLevel*) {
  return NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}
std::int32_t Backend::playbackRate(PlaybackRate*) {
  return NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}
std::int32_t Backend::openCapture(const std::string&, std::unique_ptr<CaptureStream>*) {
  return NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}
std::int32_t Backend::takePlayed(std::vector<std::int16_t>*) {
  return NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}
std::int32_t Backend::setPreferredSampleRate(double) {
  return NIMBARA_AUDIO_OK;
}
std::int32_t Backend::setAllowResampling(bool) {
  return NIMBARA_AUDIO_OK;
}
void Backend::sleep(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}
bool Backend::returnsBuffersAfterDispose() const {
  return true;
}

}  // namespace nimbara::platform
