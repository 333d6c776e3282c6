// The server's answers about its sinks and sources.
#include "platform/pulse/pulse_queries.h"

#include <nimbara/signal/signal_format.h>

#include <cstring>

#include "platform/pulse/pulse_stream.h"

namespace nimbara::platform::pulse {
namespace {

std::string routeOf(const std::string& description, const std::string& port) {
  return port.empty() ? description : description + ": " + port;
}

OutputInfo outputOf(const pa_sink_info& info) {
  OutputInfo sink;
  sink.name = info.name != nullptr ? info.name : "";
  sink.description = info.description != nullptr ? info.description : sink.name;
  if (info.active_port != nullptr && info.active_port->description != nullptr) {
    sink.port = info.active_port->description;
  }
  sink.route = routeOf(sink.description, sink.port);
  sink.rate = info.sample_spec.rate;
  sink.exact = sink.rate == NIMBARA_SAMPLE_RATE;
  return sink;
}

// The server's own facts: its kind and its default sink.
struct ServerQuery : CallbackData {
  using CallbackData::CallbackData;
  std::string defaultSink;
  bool pipewire = false;
};

std::int32_t readServer(Connection& connection, ServerQuery* query) {
  auto onServer = [](pa_context*, const pa_server_info* info, void* data) {
    answer<ServerQuery>(data, [&](ServerQuery& q) {
      if (info == nullptr) return;
      q.pipewire =
          info->server_name != nullptr && std::strstr(info->server_name, "PipeWire") != nullptr;
      if (info->default_sink_name != nullptr) q.defaultSink = info->default_sink_name;
    });
  };
  if (!connection.await(pa_context_get_server_info(connection.context(), onServer, query))) {
    return queryFailure(connection, NIMBARA_AUDIO_ERR_NO_ROUTE);
  }
  return NIMBARA_AUDIO_OK;
}

// The sinks a query by name, by index or of the whole list yields.
struct SinkQuery : CallbackData {
  using CallbackData::CallbackData;
  std::vector<OutputInfo> sinks;
  OutputLevel level;  // of the last sink
};

void onSink(pa_context*, const pa_sink_info* info, int eol, void* data) {
  answer<SinkQuery>(data, [&](SinkQuery& q) {
    if (eol != 0 || info == nullptr) return;
    q.sinks.push_back(outputOf(*info));
    q.level.volumePercent = 100.0 * pa_cvolume_max(&info->volume) / PA_VOLUME_NORM;
    q.level.muted = info->mute != 0;
  });
}

// The rate of the sink with this index.
std::int32_t readSinkRate(Connection& connection, std::uint32_t index, std::uint32_t* rate) {
  SinkQuery query(connection);
  if (!connection.await(
          pa_context_get_sink_info_by_index(connection.context(), index, onSink, &query)) ||
      query.sinks.empty()) {
    return queryFailure(connection, NIMBARA_AUDIO_ERR_NO_ROUTE);
  }
  *rate = query.sinks.front().rate;
  return NIMBARA_AUDIO_OK;
}

// A stream's progress as the probe waits for it.
struct ProbeState : CallbackData {
  using CallbackData::CallbackData;
  std::atomic<bool> started{false};
};

}  // namespace

std::int32_t readSink(Connection& connection, const std::string& sink, SinkFacts* facts) {
  Connection::Lock lock(connection);
  ServerQuery server(connection);
  if (const std::int32_t status = readServer(connection, &server)) return status;
  facts->pipewire = server.pipewire;
  const std::string name = sink.empty() ? server.defaultSink : sink;
  if (name.empty()) return NIMBARA_AUDIO_ERR_NO_ROUTE;
  SinkQuery query(connection);
  if (!connection.await(
          pa_context_get_sink_info_by_name(connection.context(), name.c_str(), onSink, &query)) ||
      query.sinks.empty()) {
    return queryFailure(connection, NIMBARA_AUDIO_ERR_NO_ROUTE);
  }
  facts->route = query.sinks.front().route;
  facts->rate = query.sinks.front().rate;
  facts->level = query.level;
  return NIMBARA_AUDIO_OK;
}

std::int32_t listSinks(Connection& connection, std::vector<OutputInfo>* sinks) {
  Connection::Lock lock(connection);
  ServerQuery server(connection);
  if (const std::int32_t status = readServer(connection, &server)) return status;
  SinkQuery query(connection);
  if (!connection.await(pa_context_get_sink_info_list(connection.context(), onSink, &query))) {
    return queryFailure(connection, NIMBARA_AUDIO_ERR_NO_ROUTE);
  }
  for (auto& sink : query.sinks) sink.isDefault = sink.name == server.defaultSink;
  *sinks = std::move(query.sinks);
  return NIMBARA_AUDIO_OK;
}

std::int32_t probeRate(Connection& connection, const std::string& sink, std::uint32_t preferredRate,
                       std::uint32_t* rate) {
  constexpr pa_usec_t kProbeLimitUsec = 2000000;
  constexpr pa_usec_t kRecheckUsec = 20000;
  constexpr std::size_t kSilenceFrames = NIMBARA_SAMPLE_RATE * 3 / 10;  // 300 ms
  ProbeState probe(connection);
  const std::vector<std::int16_t> silence(kSilenceFrames * NIMBARA_CHANNELS, 0);
  Connection::Lock lock(connection);
  if (!connection.alive()) return NIMBARA_AUDIO_ERR_NO_SERVER;
  pa_stream* stream = newPlaybackStream(connection.context(), preferredRate, "nimbara rate probe");
  if (stream == nullptr) return NIMBARA_AUDIO_ERR_STREAM;
  auto onState = [](pa_stream*, void* data) { answer<ProbeState>(data, [](ProbeState&) {}); };
  auto onStarted = [](pa_stream*, void* data) {
    answer<ProbeState>(data,
                       [](ProbeState& p) { p.started.store(true, std::memory_order_release); });
  };
  pa_stream_set_state_callback(stream, onState, &probe);
  pa_stream_set_started_callback(stream, onStarted, &probe);
  const pa_buffer_attr attr = playbackBufferAttr();
  auto ready = [&] {
    const pa_stream_state_t state = pa_stream_get_state(stream);
    return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
  };
  std::int32_t status = NIMBARA_AUDIO_OK;
  if (pa_stream_connect_playback(stream, sink.empty() ? nullptr : sink.c_str(), &attr,
                                 PA_STREAM_ADJUST_LATENCY, nullptr, nullptr) < 0 ||
      !connection.waitFor(ready, kProbeLimitUsec) ||
      pa_stream_get_state(stream) != PA_STREAM_READY) {
    status = NIMBARA_AUDIO_ERR_STREAM;
  } else if (pa_stream_write(stream, silence.data(), silence.size() * sizeof silence[0], nullptr, 0,
                             PA_SEEK_RELATIVE) < 0 ||
             !connection.waitFor([&] { return probe.started.load(std::memory_order_acquire); },
                                 kProbeLimitUsec)) {
    status = NIMBARA_AUDIO_ERR_STREAM;
  } else {
    // PipeWire may switch the sink a little after the stream has started:
    // another rate counts only once it has held for 200 ms of playing.
    const std::uint32_t index = pa_stream_get_device_index(stream);
    for (int look = 0; look < 10; ++look) {
      status = readSinkRate(connection, index, rate);
      if (status != NIMBARA_AUDIO_OK || *rate == NIMBARA_SAMPLE_RATE) break;
      connection.waitFor([] { return false; }, kRecheckUsec);
    }
  }
  if (!connection.alive()) status = NIMBARA_AUDIO_ERR_NO_SERVER;
  pa_stream_set_state_callback(stream, nullptr, nullptr);
  pa_stream_set_started_callback(stream, nullptr, nullptr);
  pa_stream_disconnect(stream);
  pa_stream_unref(stream);
  return status;
}

std::int32_t hasSource(Connection& connection, const std::string& name, bool* exists) {
  struct SourceQuery : CallbackData {
    using CallbackData::CallbackData;
    bool found = false;
  } query(connection);
  auto onSource = [](pa_context*, const pa_source_info* info, int eol, void* data) {
    answer<SourceQuery>(data, [&](SourceQuery& q) {
      if (eol == 0 && info != nullptr) q.found = true;
    });
  };
  Connection::Lock lock(connection);
  pa_operation* operation =
      pa_context_get_source_info_by_name(connection.context(), name.c_str(), onSource, &query);
  // An unknown name ends the operation with an error: not found.
  connection.await(operation);
  if (operation == nullptr || !connection.alive()) {
    return queryFailure(connection, NIMBARA_AUDIO_ERR_IO);
  }
  *exists = query.found;
  return NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform::pulse
