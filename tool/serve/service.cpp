#include "service.h"

#include <mosquitto.h>

#include <nimbara/nimbara.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "../commands.h"

#ifndef NIMBARA_VERSION
#define NIMBARA_VERSION "0"
#endif

namespace tool::serve {
namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr int kLongestReconnectDelay = 30;  // seconds
constexpr auto kFirstAnswer = std::chrono::seconds(10);
constexpr auto kSlice = std::chrono::milliseconds(100);
constexpr auto kNoTime = std::chrono::milliseconds(0);
constexpr auto kPresenceInterval = std::chrono::seconds(1);

Service& self(void* user) {
  return *static_cast<Service*>(user);
}

// No exception leaves a callback of the client library.
template <typename Call>
void guarded(Call call) noexcept {
  try {
    call();
  } catch (const std::exception& e) {
    serviceLog(std::string("a message was dropped: ") + e.what());
  } catch (...) {
    serviceLog("a message was dropped");
  }
}

}  // namespace

Service::Service(const Settings& settings, BrokerAddress broker, std::vector<ServedOutput> outputs)
    : settings_(settings), broker_(std::move(broker)) {
  mosquitto_lib_init();
  topics_.id = topicLevel(settings.name);
  topics_.discoveryPrefix = settings.discoveryPrefix;
  for (auto& output : outputs) {
    auto accessory = std::make_unique<Accessory>();
    accessory->output = std::move(output);
    accessory->presence = presenceOf(*accessory->output.backend);
    Accessory* raw = accessory.get();
    accessory->worker = std::make_unique<AccessoryWorker>(
        raw->output.backend, settings.queue,
        [this, raw](const Job& job, const Outcome& outcome) { finished(*raw, job, outcome); });
    accessories_.emplace(raw->output.name, std::move(accessory));
  }
}

Service::~Service() {
  stopWatching();
  for (auto& [name, accessory] : accessories_) accessory->worker->stop();
  nimbara::platform::waitUntilIdle();  // the last transmissions' threads end
  if (client_ != nullptr) mosquitto_destroy(client_);
  mosquitto_lib_cleanup();
}

bool Service::setUpClient() {
  client_ = mosquitto_new(("nimbara-" + topics_.id).c_str(), true, this);
  if (client_ == nullptr) return false;
  mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  if (!broker_.user.empty()) {
    mosquitto_username_pw_set(client_, broker_.user.c_str(),
                              broker_.password ? broker_.password->c_str() : nullptr);
  }
  if (broker_.tls) {
    const char* caFile = settings_.caFile.empty() ? nullptr : settings_.caFile.c_str();
    if (const int rc = mosquitto_tls_set(client_, caFile, caFile ? nullptr : "/etc/ssl/certs",
                                         nullptr, nullptr, nullptr);
        rc != MOSQ_ERR_SUCCESS) {
      serviceLog(std::string("cannot set up TLS: ") + mosquitto_strerror(rc));
      return false;
    }
  }
  const std::string offline = "offline";
  mosquitto_will_set(client_, topics_.availability().c_str(), static_cast<int>(offline.size()),
                     offline.data(), 1, true);
  mosquitto_reconnect_delay_set(client_, 1, kLongestReconnectDelay, true);
  mosquitto_connect_callback_set(client_,
                                 [](mosquitto*, void* user, int rc) { self(user).onConnect(rc); });
  mosquitto_disconnect_callback_set(
      client_, [](mosquitto*, void* user, int rc) { self(user).onDisconnect(rc); });
  mosquitto_message_callback_set(client_,
                                 [](mosquitto*, void* user, const mosquitto_message* message) {
                                   self(user).onMessage(*message);
                                 });
  mosquitto_publish_callback_set(
      client_, [](mosquitto*, void* user, int mid) { self(user).onPublish(mid); });
  return true;
}

int Service::run(const sigset_t& signals) {
  if (!setUpClient()) {
    serviceLog("cannot make the MQTT client");
    return EXIT_FAILURE;
  }
  for (const auto& [name, accessory] : accessories_) {
    serviceLog("output " + accessory->output.device + " on nimbara/" + topics_.id + "/" + name +
               "/command" + (accessory->presence.present ? "" : " (no headphones on its route)"));
  }
  watcher_ = std::thread([this] { watchPresence(); });
  int signal = firstConnection(signals);
  if (signal == 0) sigwait(&signals, &signal);
  serviceLog(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));

  stopWatching();
  for (auto& [name, accessory] : accessories_) accessory->worker->stop();
  nimbara::platform::waitUntilIdle();  // the last transmissions' threads end
  if (!everConnected_) {
    if (loopRunning_) mosquitto_loop_stop(client_, true);
    return EXIT_SUCCESS;
  }
  int mid = -1;
  {
    std::unique_lock lock(publishMutex_);
    publish(topics_.availability(), "offline", true, &mid);
    goodbyeMid_ = mid;
    published_.wait_for(lock, std::chrono::seconds(2), [this] { return goodbyeDone_; });
  }
  mosquitto_disconnect(client_);
  mosquitto_loop_stop(client_, false);
  return EXIT_SUCCESS;
}

int Service::firstConnection(const sigset_t& signals) {
  // The client library's loop reconnects only a client that has connected
  // once: until then the service tries again itself, as the loop would, and
  // gives each attempt a while to be answered.
  for (int delay = 1;; delay = std::min(2 * delay, kLongestReconnectDelay)) {
    std::string failure;
    const int rc =
        mosquitto_connect_async(client_, broker_.host.c_str(), broker_.port, kKeepAliveSeconds);
    if (rc != MOSQ_ERR_SUCCESS) {
      failure = rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc);
    } else if (mosquitto_loop_start(client_) != MOSQ_ERR_SUCCESS) {
      failure = "the client's thread did not start";
    } else {
      loopRunning_ = true;
      for (auto waited = kNoTime; waited < kFirstAnswer; waited += kSlice) {
        if (everConnected_) return 0;
        const timespec slice{0, std::chrono::nanoseconds(kSlice).count()};
        if (const int signal = sigtimedwait(&signals, nullptr, &slice); signal > 0) return signal;
      }
      if (everConnected_) return 0;
      mosquitto_loop_stop(client_, true);
      loopRunning_ = false;
      failure = "no answer, or a refusal";
    }
    serviceLog("cannot reach the broker at " + broker_.host + ":" + std::to_string(broker_.port) +
               " (" + failure + "); trying again in " + std::to_string(delay) + " s");
    const timespec wait{delay, 0};
    if (const int signal = sigtimedwait(&signals, nullptr, &wait); signal > 0) return signal;
  }
}

void Service::onConnect(int rc) {
  if (rc != 0) {
    serviceLog(std::string("the broker refused the connection: ") + mosquitto_connack_string(rc));
    return;
  }
  everConnected_ = true;
  serviceLog("connected to " + broker_.host + ":" + std::to_string(broker_.port) + " as nimbara/" +
             topics_.id);
  for (const auto& leaf : inputLeaves()) {
    mosquitto_subscribe(client_, nullptr, ("nimbara/" + topics_.id + "/+/" + leaf).c_str(), 1);
  }
  mosquitto_subscribe(client_, nullptr, topics_.haStatus().c_str(), 1);
  announce();
}

void Service::onDisconnect(int rc) {
  if (rc != 0) serviceLog("lost the broker; reconnecting (results wait until it is back)");
}

void Service::onPublish(int mid) {
  std::lock_guard lock(publishMutex_);
  if (mid == goodbyeMid_) {
    goodbyeDone_ = true;
    published_.notify_all();
  }
}

void Service::publish(const std::string& topic, const std::string& payload, bool retain, int* mid) {
  // QoS 1: the client library keeps the message through a reconnect.
  const int rc = mosquitto_publish(client_, mid, topic.c_str(), static_cast<int>(payload.size()),
                                   payload.data(), 1, retain);
  if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
    serviceLog("cannot publish on " + topic + ": " + mosquitto_strerror(rc));
  }
}

void Service::announce() {
  for (const auto& [name, accessory] : accessories_) {
    for (const auto& message : discoveryMessages(topics_, name, NIMBARA_VERSION)) {
      publish(message.topic, message.payload, true);
    }
  }
  publish(topics_.availability(), "online", true);
  for (auto& [name, accessory] : accessories_) {
    publishState(*accessory);
    publishLength(*accessory);
  }
}

void Service::publishState(Accessory& accessory) {
  Json state;
  {
    std::lock_guard lock(accessory.mutex);
    state = Json{{"present", accessory.presence.present},
                 {"route", accessory.presence.route},
                 {"last", accessory.last}};
  }
  publish(topics_.output(accessory.output.name, "state"), text(state), true);
}

void Service::publishLength(Accessory& accessory) {
  int length = 0;
  {
    std::lock_guard lock(accessory.mutex);
    length = accessory.entities.lengthMs;
  }
  publish(topics_.output(accessory.output.name, "length"), std::to_string(length), true);
}

void Service::publishResult(const std::string& output, const Json& result) {
  publish(topics_.output(output, "result"), text(result), false);
}

void Service::onMessage(const mosquitto_message& message) {
  const std::string topic = message.topic;
  const std::string payload(static_cast<const char*>(message.payload),
                            static_cast<std::size_t>(message.payloadlen));
  if (topic == topics_.haStatus()) {
    if (payload == "online") announce();
    return;
  }
  // nimbara/ID/OUTPUT/LEAF...
  const std::string prefix = "nimbara/" + topics_.id + "/";
  if (!topic.starts_with(prefix)) return;
  const std::string rest = topic.substr(prefix.size());
  const auto slash = rest.find('/');
  if (slash == std::string::npos) return;
  const std::string output = rest.substr(0, slash);
  const std::string leaf = rest.substr(slash + 1);
  const auto it = accessories_.find(output);
  if (it == accessories_.end()) {
    std::string known;
    for (const auto& [name, accessory] : accessories_) known += (known.empty() ? "" : ", ") + name;
    publishResult(output, Json{{"result", "error"},
                               {"exit", kUsage},
                               {"message", "no output named \"" + output +
                                               "\" here (outputs: " + known + ")"}});
    return;
  }
  try {
    take(*it->second, leaf, payload);
  } catch (const UsageError& e) {
    publishResult(output, Json{{"result", "error"}, {"exit", kUsage}, {"message", e.what()}});
  }
}

void Service::take(Accessory& accessory, const std::string& leaf, const std::string& payload) {
  if (payload.size() > kMaxPayload) {
    throw UsageError("the message has " + std::to_string(payload.size()) +
                     " bytes; a command takes at most " + std::to_string(kMaxPayload));
  }
  if (leaf == "command") {
    CommandMessage message = commandFromMessage(payload);
    queue(accessory, Job{message.command, message.at, message.id, false});
    return;
  }
  EntitySettings now;
  {
    std::lock_guard lock(accessory.mutex);
    now = accessory.entities;
  }
  const EntityRequest request = entityRequest(leaf, payload, now);
  if (request.settings) {
    std::lock_guard lock(accessory.mutex);
    accessory.entities = *request.settings;
  }
  if (request.lengthChanged) publishLength(accessory);
  if (request.lightState) {
    publish(topics_.output(accessory.output.name, "light/state"), request.lightState->dump(), true);
  }
  if (request.command) queue(accessory, Job{*request.command, {}, {}, request.fromLight});
}

void Service::queue(Accessory& accessory, Job job) {
  const Json fields = fieldsOf(job.command);
  const Json id = job.id;
  switch (accessory.worker->submit(std::move(job))) {
    case AccessoryWorker::Queued::yes:
      return;
    case AccessoryWorker::Queued::full: {
      Json result{{"result", "error"},
                  {"exit", EXIT_FAILURE},
                  {"message", "queue full: " + std::to_string(accessory.worker->capacity()) +
                                  " commands are waiting; this one did not play"},
                  {"command", fields}};
      if (!id.is_null()) result["id"] = id;
      publishResult(accessory.output.name, result);
      return;
    }
    case AccessoryWorker::Queued::stopping:
      publishResult(accessory.output.name, Json{{"result", "error"},
                                                {"exit", EXIT_FAILURE},
                                                {"message", "the service is stopping"},
                                                {"command", fields}});
      return;
  }
}

void Service::finished(Accessory& accessory, const Job& job, const Outcome& outcome) {
  Json result{{"result", outcome.exit == 0 ? "done" : "error"},
              {"exit", outcome.exit},
              {"message", outcome.message},
              {"command", fieldsOf(job.command)}};
  if (!job.id.is_null()) result["id"] = job.id;
  publishResult(accessory.output.name, result);
  if (outcome.exit == 0) {
    {
      std::lock_guard lock(accessory.mutex);
      accessory.last = fieldsOf(job.command);
    }
    publishState(accessory);
  }
  if (job.fromLight) {
    publish(topics_.output(accessory.output.name, "light/state"),
            lightStateAfter(job.command).dump(), true);
  }
}

void Service::watchPresence() {
  std::unique_lock lock(watchMutex_);
  while (!watchWake_.wait_for(lock, kPresenceInterval, [this] { return watchStop_; })) {
    lock.unlock();
    for (auto& [name, accessory] : accessories_) {
      const Presence now = presenceOf(*accessory->output.backend);
      bool changed = false;
      {
        std::lock_guard guard(accessory->mutex);
        changed =
            now.present != accessory->presence.present || now.route != accessory->presence.route;
        accessory->presence = now;
      }
      if (changed) {
        serviceLog(name + ": " + (now.present ? "headphones on " : "no headphones on ") +
                   (now.route.empty() ? "an unreadable route" : "\"" + now.route + "\""));
        publishState(*accessory);
      }
    }
    lock.lock();
  }
}

void Service::stopWatching() {
  {
    std::lock_guard lock(watchMutex_);
    watchStop_ = true;
  }
  watchWake_.notify_all();
  if (watcher_.joinable()) watcher_.join();
}

}  // namespace tool::serve
