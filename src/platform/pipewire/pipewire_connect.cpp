#include "platform/pipewire/pipewire_connect.h"

#include <nimbara/platform/backend.h>
#include <nimbara/signal/signal_format.h>

#include <spa/param/audio/format-utils.h>

namespace nimbara::platform::pipewire {

std::int32_t connectStream(pw_thread_loop* loop, const char* name, pw_properties* props,
                           const pw_stream_events* events, void* data, pw_direction direction,
                           pw_stream** stream) {
  pw_thread_loop_lock(loop);
  if (pw_thread_loop_start(loop) < 0) {
    pw_thread_loop_unlock(loop);
    pw_properties_free(props);
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  *stream = pw_stream_new_simple(pw_thread_loop_get_loop(loop), name, props, events, data);
  if (*stream == nullptr) {
    pw_thread_loop_unlock(loop);
    return NIMBARA_AUDIO_ERR_NO_SERVER;
  }
  std::uint8_t pod[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(pod, sizeof pod);
  spa_audio_info_raw info{};
  info.format = SPA_AUDIO_FORMAT_S16_LE;
  info.rate = NIMBARA_SAMPLE_RATE;
  info.channels = NIMBARA_CHANNELS;
  info.position[0] = SPA_AUDIO_CHANNEL_FL;
  info.position[1] = SPA_AUDIO_CHANNEL_FR;
  const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
  const auto flags = static_cast<pw_stream_flags>(
      PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS);
  const int connected = pw_stream_connect(*stream, direction, PW_ID_ANY, flags, params, 1);
  pw_thread_loop_unlock(loop);
  return connected < 0 ? NIMBARA_AUDIO_ERR_STREAM : NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform::pipewire
