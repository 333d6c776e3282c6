// The graph query: the registry's nodes, the "default" metadata's sink, and
// for the sinks asked about their Props and their device's active Route, each
// step finished by a round trip to the daemon. Nothing thrown leaves a
// libpipewire callback: a failure inside one is kept and returned.
#include "platform/pipewire/pipewire_graph.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/raw.h>
#include <spa/param/props.h>
#include <spa/param/route.h>
#include <spa/pod/iter.h>
#include <spa/pod/parser.h>
#include <spa/utils/json.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace nimbara::platform::pipewire {

void initOnce() {
  static std::once_flag once;
  std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

std::string routeOf(const Node& node) {
  return node.port.empty() ? node.description : node.description + ": " + node.port;
}

namespace {

constexpr auto kQueryLimit = std::chrono::seconds(3);

// A node of the registry, as its global announces it.
struct Global {
  std::uint32_t id = 0;
  bool sink = false;
  std::uint32_t device = SPA_ID_INVALID;  // device.id
  int routeDevice = -1;                   // card.profile.device: its device's route index
  Node node;
  OutputLevel routeLevel;
  bool hasRouteLevel = false;
};

// The level in a Props object: the loudest channel, in the sound server's
// cubic percent (a linear 0.125 shows as 50%), and the mute flag.
void readProps(const spa_pod* pod, OutputLevel* level, bool* has) {
  if (pod == nullptr || !spa_pod_is_object_type(pod, SPA_TYPE_OBJECT_Props)) return;
  const auto* object = reinterpret_cast<const spa_pod_object*>(pod);
  if (const spa_pod_prop* prop =
          spa_pod_object_find_prop(object, nullptr, SPA_PROP_channelVolumes)) {
    float volumes[SPA_AUDIO_MAX_CHANNELS];
    const std::uint32_t n =
        spa_pod_copy_array(&prop->value, SPA_TYPE_Float, volumes, SPA_AUDIO_MAX_CHANNELS);
    if (n > 0) {
      float loudest = 0;
      for (std::uint32_t i = 0; i < n; ++i) loudest = std::max(loudest, volumes[i]);
      level->volumePercent = 100.0 * std::cbrt(static_cast<double>(loudest));
      *has = true;
    }
  }
  if (const spa_pod_prop* prop = spa_pod_object_find_prop(object, nullptr, SPA_PROP_mute)) {
    bool muted = false;
    if (spa_pod_get_bool(&prop->value, &muted) == 0) level->muted = muted;
  }
}

// The "name" of a metadata value such as {"name":"headphones"}.
std::string jsonName(const char* value) {
  spa_json outer;
  spa_json object;
  spa_json_init(&outer, value, std::strlen(value));
  if (spa_json_enter_object(&outer, &object) <= 0) return {};
  char key[64];
  while (spa_json_get_string(&object, key, sizeof key) > 0) {
    if (std::strcmp(key, "name") == 0) {
      char name[512];
      return spa_json_get_string(&object, name, sizeof name) > 0 ? name : "";
    }
    const char* skipped = nullptr;
    if (spa_json_next(&object, &skipped) <= 0) break;
  }
  return {};
}

class Query {
 public:
  ~Query() {
    for (auto& bound : bound_) {
      spa_hook_remove(&bound->listener);
      pw_proxy_destroy(bound->proxy);
    }
    if (registry_ != nullptr) {
      spa_hook_remove(&registryListener_);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    }
    if (core_ != nullptr) {
      spa_hook_remove(&coreListener_);
      pw_core_disconnect(core_);
    }
    if (context_ != nullptr) pw_context_destroy(context_);
    if (loop_ != nullptr) pw_loop_destroy(loop_);
  }

  std::int32_t run(const std::string& levelsOf, Graph* graph) {
    initOnce();
    loop_ = pw_loop_new(nullptr);
    if (loop_ == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    context_ = pw_context_new(loop_, nullptr, 0);
    if (context_ == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    core_ = pw_context_connect(context_, nullptr, 0);
    if (core_ == nullptr) return NIMBARA_AUDIO_ERR_NO_SERVER;
    static const pw_core_events coreEvents = [] {
      pw_core_events e{};
      e.version = PW_VERSION_CORE_EVENTS;
      e.done = &Query::onDone;
      e.error = &Query::onError;
      return e;
    }();
    pw_core_add_listener(core_, &coreListener_, &coreEvents, this);
    registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    if (registry_ == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    static const pw_registry_events registryEvents = [] {
      pw_registry_events e{};
      e.version = PW_VERSION_REGISTRY_EVENTS;
      e.global = &Query::onGlobal;
      return e;
    }();
    pw_registry_add_listener(registry_, &registryListener_, &registryEvents, this);
    until_ = std::chrono::steady_clock::now() + kQueryLimit;
    if (const std::int32_t status = roundTrip()) return status;

    // Second step: the default sink, then the levels and routes asked for.
    if (metadata_ != SPA_ID_INVALID) bindMetadata();
    if (const std::int32_t status = roundTrip()) return status;
    // No default known (no session manager): the first sink plays.
    if (defaultSink_.empty()) {
      for (const Global& g : globals_) {
        if (g.sink) {
          defaultSink_ = g.node.name;
          break;
        }
      }
    }
    graph->defaultSink = defaultSink_;
    const std::string wanted = levelsOf.empty() ? defaultSink_ : levelsOf;
    for (std::size_t i = 0; i < globals_.size(); ++i) {
      Global& g = globals_[i];
      if (!g.sink || (wanted != "*" && g.node.name != wanted)) continue;
      bindNode(i);
      if (g.device != SPA_ID_INVALID) bindDevice(i);
    }
    if (const std::int32_t status = roundTrip()) return status;

    for (Global& g : globals_) {
      if (!g.sink) {
        graph->sources.push_back(g.node.name);
        continue;
      }
      if (g.hasRouteLevel) {
        g.node.level = g.routeLevel;
        g.node.hasLevel = true;
      }
      graph->sinks.push_back(std::move(g.node));
    }
    return NIMBARA_AUDIO_OK;
  }

 private:
  // A proxy bound for its params or properties, and the global it tells about.
  struct Bound {
    Query* query;
    std::size_t global;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
  };

  // Runs the loop until the daemon has answered everything asked so far.
  std::int32_t roundTrip() {
    if (status_ != NIMBARA_AUDIO_OK) return status_;
    pending_ = pw_core_sync(core_, PW_ID_CORE, pending_);
    done_ = false;
    pw_loop_enter(loop_);
    while (!done_ && status_ == NIMBARA_AUDIO_OK) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          until_ - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        status_ = NIMBARA_AUDIO_ERR_NO_SERVER;  // a daemon that does not answer
        break;
      }
      if (pw_loop_iterate(loop_, static_cast<int>(left.count())) < 0) {
        status_ = NIMBARA_AUDIO_ERR_NO_SERVER;
      }
    }
    pw_loop_leave(loop_);
    return status_;
  }

  // Runs a callback's work; a failure in it ends the query.
  template <typename Work>
  void guard(Work work) noexcept {
    try {
      work();
    } catch (const std::bad_alloc&) {
      status_ = NIMBARA_AUDIO_ERR_NO_MEMORY;
    } catch (...) {
      status_ = NIMBARA_AUDIO_ERR_IO;
    }
  }

  static void onDone(void* self, std::uint32_t id, int seq) {
    auto* q = static_cast<Query*>(self);
    if (id == PW_ID_CORE && seq == q->pending_) q->done_ = true;
  }

  static void onError(void* self, std::uint32_t id, int, int, const char*) {
    // The connection itself failed: the daemon went away.
    if (id == PW_ID_CORE) static_cast<Query*>(self)->status_ = NIMBARA_AUDIO_ERR_NO_SERVER;
  }

  static void onGlobal(void* self, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                       const spa_dict* props) {
    auto* q = static_cast<Query*>(self);
    q->guard([&] {
      if (props == nullptr) return;
      if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
        const char* name = spa_dict_lookup(props, PW_KEY_METADATA_NAME);
        if (name != nullptr && std::strcmp(name, "default") == 0) q->metadata_ = id;
        return;
      }
      if (std::strcmp(type, PW_TYPE_INTERFACE_Node) != 0) return;
      const char* kind = spa_dict_lookup(props, PW_KEY_MEDIA_CLASS);
      const char* name = spa_dict_lookup(props, PW_KEY_NODE_NAME);
      if (kind == nullptr || name == nullptr) return;
      const bool sink = std::strcmp(kind, "Audio/Sink") == 0;
      if (!sink && std::strcmp(kind, "Audio/Source") != 0) return;
      Global g;
      g.id = id;
      g.sink = sink;
      g.node.name = name;
      const char* description = spa_dict_lookup(props, PW_KEY_NODE_DESCRIPTION);
      g.node.description = description != nullptr ? description : name;
      if (const char* device = spa_dict_lookup(props, PW_KEY_DEVICE_ID)) {
        g.device = static_cast<std::uint32_t>(std::strtoul(device, nullptr, 10));
      }
      if (const char* route = spa_dict_lookup(props, "card.profile.device")) {
        g.routeDevice = std::atoi(route);
      }
      q->globals_.push_back(std::move(g));
    });
  }

  Bound* bind(std::size_t global, std::uint32_t id, const char* type, std::uint32_t version) {
    auto bound = std::make_unique<Bound>(Bound{this, global});
    bound->proxy = static_cast<pw_proxy*>(pw_registry_bind(registry_, id, type, version, 0));
    if (bound->proxy == nullptr) {
      status_ = NIMBARA_AUDIO_ERR_NO_MEMORY;
      return nullptr;
    }
    bound_.push_back(std::move(bound));
    return bound_.back().get();
  }

  void bindMetadata() {
    Bound* bound = bind(0, metadata_, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA);
    if (bound == nullptr) return;
    static const pw_metadata_events events = [] {
      pw_metadata_events e{};
      e.version = PW_VERSION_METADATA_EVENTS;
      e.property = &Query::onProperty;
      return e;
    }();
    pw_metadata_add_listener(reinterpret_cast<pw_metadata*>(bound->proxy), &bound->listener,
                             &events, bound);
  }

  void bindNode(std::size_t global) {
    Bound* bound = bind(global, globals_[global].id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE);
    if (bound == nullptr) return;
    static const pw_node_events events = [] {
      pw_node_events e{};
      e.version = PW_VERSION_NODE_EVENTS;
      e.param = &Query::onNodeParam;
      return e;
    }();
    auto* node = reinterpret_cast<pw_node*>(bound->proxy);
    pw_node_add_listener(node, &bound->listener, &events, bound);
    pw_node_enum_params(node, 0, SPA_PARAM_Props, 0, UINT32_MAX, nullptr);
  }

  void bindDevice(std::size_t global) {
    Bound* bound =
        bind(global, globals_[global].device, PW_TYPE_INTERFACE_Device, PW_VERSION_DEVICE);
    if (bound == nullptr) return;
    static const pw_device_events events = [] {
      pw_device_events e{};
      e.version = PW_VERSION_DEVICE_EVENTS;
      e.param = &Query::onDeviceParam;
      return e;
    }();
    auto* device = reinterpret_cast<pw_device*>(bound->proxy);
    pw_device_add_listener(device, &bound->listener, &events, bound);
    pw_device_enum_params(device, 0, SPA_PARAM_Route, 0, UINT32_MAX, nullptr);
  }

  static int onProperty(void* data, std::uint32_t subject, const char* key, const char*,
                        const char* value) {
    auto* bound = static_cast<Bound*>(data);
    if (subject != PW_ID_CORE || key == nullptr || value == nullptr) return 0;
    if (std::strcmp(key, "default.audio.sink") != 0) return 0;
    bound->query->guard([&] { bound->query->defaultSink_ = jsonName(value); });
    return 0;
  }

  static void onNodeParam(void* data, int, std::uint32_t id, std::uint32_t, std::uint32_t,
                          const spa_pod* param) {
    auto* bound = static_cast<Bound*>(data);
    if (id != SPA_PARAM_Props) return;
    Global& g = bound->query->globals_[bound->global];
    readProps(param, &g.node.level, &g.node.hasLevel);
  }

  // The device's active routes: the output one of the node's own device
  // index names the port, and holds the level where the card has a mixer.
  static void onDeviceParam(void* data, int, std::uint32_t id, std::uint32_t, std::uint32_t,
                            const spa_pod* param) {
    auto* bound = static_cast<Bound*>(data);
    if (id != SPA_PARAM_Route) return;
    Query* q = bound->query;
    q->guard([&] {
      Global& g = q->globals_[bound->global];
      std::int32_t index = 0;
      std::int32_t device = -1;
      std::uint32_t direction = 0;
      const char* description = nullptr;
      const spa_pod* props = nullptr;
      if (spa_pod_parse_object(param, SPA_TYPE_OBJECT_ParamRoute, nullptr, SPA_PARAM_ROUTE_index,
                               SPA_POD_Int(&index), SPA_PARAM_ROUTE_direction,
                               SPA_POD_Id(&direction), SPA_PARAM_ROUTE_device, SPA_POD_Int(&device),
                               SPA_PARAM_ROUTE_description, SPA_POD_OPT_String(&description),
                               SPA_PARAM_ROUTE_props, SPA_POD_OPT_Pod(&props)) < 0) {
        return;
      }
      if (direction != SPA_DIRECTION_OUTPUT) return;
      if (g.routeDevice >= 0 && device != g.routeDevice) return;
      if (!g.node.port.empty()) return;  // the first matching route
      g.node.port = description != nullptr ? description : "";
      readProps(props, &g.routeLevel, &g.hasRouteLevel);
    });
  }

  pw_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  spa_hook coreListener_{};
  spa_hook registryListener_{};
  std::vector<std::unique_ptr<Bound>> bound_;
  std::vector<Global> globals_;
  std::uint32_t metadata_ = SPA_ID_INVALID;
  std::string defaultSink_;
  std::chrono::steady_clock::time_point until_;
  int pending_ = 0;
  bool done_ = false;
  std::int32_t status_ = NIMBARA_AUDIO_OK;
};

}  // namespace

std::int32_t readGraph(const std::string& levelsOf, Graph* graph) {
  try {
    Query query;
    Graph found;
    if (const std::int32_t status = query.run(levelsOf, &found)) return status;
    *graph = std::move(found);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform::pipewire
