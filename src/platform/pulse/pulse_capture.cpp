// The record stream: fragments the server hands over, read out as they come,
// on the connection the device shares.
#include <nimbara/signal/signal_format.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/pulse/pulse_stream.h"

namespace nimbara::platform::pulse {
namespace {

constexpr std::size_t kBytesPerFrame = 2 * NIMBARA_CHANNELS;

class RecordStream : public CaptureStream, public CallbackData {
 public:
  explicit RecordStream(std::shared_ptr<Connection> connection)
      : CallbackData(*connection), connection_(std::move(connection)) {}

  ~RecordStream() override {
    Connection::Lock lock(*connection_);
    if (stream_ == nullptr) return;
    if (fragment_ != nullptr || hole_ > 0) pa_stream_drop(stream_);
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
  }

  std::int32_t open(const std::string& source) {
    const pa_sample_spec format{PA_SAMPLE_S16LE, NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS};
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<std::uint32_t>(-1);
    // 20 ms fragments: a transmission is heard soon after its end.
    attr.fragsize = NIMBARA_SAMPLE_RATE / 50 * kBytesPerFrame;
    Connection::Lock lock(*connection_);
    if (!connection_->alive()) return NIMBARA_AUDIO_ERR_NO_SERVER;
    stream_ = pa_stream_new(connection_->context(), "accessory", &format, nullptr);
    if (stream_ == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    pa_stream_set_state_callback(stream_, &RecordStream::onEvent, this);
    pa_stream_set_read_callback(stream_, &RecordStream::onReadable, this);
    if (pa_stream_connect_record(stream_, source.c_str(), &attr, PA_STREAM_ADJUST_LATENCY) < 0) {
      return NIMBARA_AUDIO_ERR_STREAM;
    }
    for (;;) {
      const pa_stream_state_t state = pa_stream_get_state(stream_);
      if (state == PA_STREAM_READY) return NIMBARA_AUDIO_OK;
      if (!connection_->alive()) return NIMBARA_AUDIO_ERR_NO_SERVER;
      if (!PA_STREAM_IS_GOOD(state)) {
        return pa_context_errno(connection_->context()) == PA_ERR_NOENTITY
                   ? NIMBARA_AUDIO_ERR_NO_SUCH_NAME
                   : NIMBARA_AUDIO_ERR_STREAM;
      }
      waitForSignal(connection_->loop());
    }
  }

  std::int32_t read(std::int16_t* samples, std::size_t frames) override {
    auto* out = reinterpret_cast<std::uint8_t*>(samples);
    std::size_t wanted = frames * kBytesPerFrame;
    Connection::Lock lock(*connection_);
    while (wanted > 0) {
      if (!connection_->alive()) return NIMBARA_AUDIO_ERR_NO_SERVER;
      if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream_))) return NIMBARA_AUDIO_ERR_LOST;
      if (fragment_ == nullptr && hole_ == 0) {
        const void* data = nullptr;
        std::size_t size = 0;
        if (pa_stream_peek(stream_, &data, &size) < 0) return NIMBARA_AUDIO_ERR_IO;
        if (size == 0) {  // nothing yet
          waitForSignal(connection_->loop());
          continue;
        }
        if (data == nullptr) {
          hole_ = size;  // the server lost data here: silence in its place
        } else {
          fragment_ = static_cast<const std::uint8_t*>(data);
          left_ = size;
        }
      }
      if (hole_ > 0) {
        const std::size_t n = std::min(hole_, wanted);
        std::memset(out, 0, n);
        hole_ -= n;
        out += n;
        wanted -= n;
        if (hole_ == 0) pa_stream_drop(stream_);
        continue;
      }
      const std::size_t n = std::min(left_, wanted);
      std::memcpy(out, fragment_, n);
      fragment_ += n;
      left_ -= n;
      out += n;
      wanted -= n;
      if (left_ == 0) {
        fragment_ = nullptr;
        pa_stream_drop(stream_);
      }
    }
    return NIMBARA_AUDIO_OK;
  }

 private:
  static void onEvent(pa_stream*, void* self) {
    answer<RecordStream>(self, [](RecordStream&) {});
  }
  static void onReadable(pa_stream*, std::size_t, void* self) {
    answer<RecordStream>(self, [](RecordStream&) {});
  }

  std::shared_ptr<Connection> connection_;
  pa_stream* stream_ = nullptr;
  const std::uint8_t* fragment_ = nullptr;  // the peeked fragment's unread part
  std::size_t left_ = 0;
  std::size_t hole_ = 0;  // bytes of a hole still to give as silence
};

}  // namespace

std::int32_t openRecord(std::shared_ptr<Connection> connection, const std::string& source,
                        std::unique_ptr<CaptureStream>* stream) {
  try {
    auto opened = std::make_unique<RecordStream>(std::move(connection));
    if (const std::int32_t status = opened->open(source)) return status;
    *stream = std::move(opened);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform::pulse
