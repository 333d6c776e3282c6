#include "room_cue.h"

#include <mosquitto.h>

#include <nimbara/api/vocabulary.h>
#include <nimbara/log.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "report.h"
#include "serve/settings.h"
#include "serve/topics.h"
#include "track_commands.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// The broker has sent every retained message once it has been quiet this
// long after the subscriptions were granted.
constexpr auto kSettleQuiet = 300ms;
constexpr auto kSettleLongest = 2s;
// The first cue's start lies this far ahead, so that every service has it in
// time; each later cue is published this long before it starts.
constexpr std::int64_t kLeadMs = 1000;
// How long after the last cue's start its results may take.
constexpr auto kResultWait = 15s;
constexpr int kKeepAliveSeconds = 30;

std::vector<std::string> levels(const std::string& topic) {
  std::vector<std::string> parts;
  std::size_t from = 0;
  for (std::size_t slash; (slash = topic.find('/', from)) != std::string::npos; from = slash + 1) {
    parts.push_back(topic.substr(from, slash - from));
  }
  parts.push_back(topic.substr(from));
  return parts;
}

std::int64_t unixMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

struct Result {
  std::string result, message;
};

// What the broker has told: the services' availability, their accessories
// and the results of the cues. Written by the client's thread.
class Room {
 public:
  void take(const std::string& topic, const std::string& payload) {
    const auto parts = levels(topic);
    if (parts.size() < 3 || parts[0] != "nimbara") return;
    std::lock_guard lock(mutex_);
    lastNews_ = Clock::now();
    if (parts.size() == 3 && parts[2] == "availability") {
      online_[parts[1]] = payload == "online";
    } else if (parts.size() == 4 && parts[3] == "state" && !payload.empty()) {
      accessories_.insert(parts[1] + "/" + parts[2]);
    } else if (parts.size() == 4 && parts[3] == "result") {
      const auto json = Json::parse(payload, nullptr, false);
      if (!json.is_object() || !json.contains("id") || !json["id"].is_string()) return;
      Result result{json.value("result", ""), json.value("message", "")};
      results_[{parts[1] + "/" + parts[2], json["id"].get<std::string>()}] = result;
      changed_.notify_all();
    }
  }

  void granted() {
    std::lock_guard lock(mutex_);
    ++granted_;
    lastNews_ = Clock::now();
    changed_.notify_all();
  }

  // Once the retained messages have come: the accessories of online services.
  std::vector<std::string> settle(int subscriptions, const std::string& only) {
    std::unique_lock lock(mutex_);
    const auto deadline = Clock::now() + kSettleLongest;
    changed_.wait_until(lock, deadline, [&] { return granted_ >= subscriptions; });
    while (Clock::now() < deadline && Clock::now() < lastNews_ + kSettleQuiet) {
      changed_.wait_until(lock, std::min(deadline, lastNews_ + kSettleQuiet));
    }
    std::vector<std::string> found;
    for (const auto& accessory : accessories_) {
      const std::string id = accessory.substr(0, accessory.find('/'));
      const auto online = online_.find(id);
      if (online == online_.end() || !online->second) continue;
      if (!only.empty() && only != id && only != accessory) continue;
      found.push_back(accessory);
    }
    return found;
  }

  // Until `until`, or sooner when one of `awaited` has failed: that failure,
  // or "".
  std::string failureBy(const std::vector<std::pair<std::string, std::string>>& awaited,
                        const std::vector<std::string>& cueOf, Clock::time_point until) {
    std::unique_lock lock(mutex_);
    std::string failure;
    changed_.wait_until(lock, until, [&] { return !(failure = failed(awaited, cueOf)).empty(); });
    return failure;
  }

  // Every result awaited, or until `deadline`: the first failure, or "".
  std::string await(const std::vector<std::pair<std::string, std::string>>& awaited,
                    const std::vector<std::string>& cueOf, Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    std::string failure;
    changed_.wait_until(lock, deadline, [&] {
      failure = failed(awaited, cueOf);
      return !failure.empty() || std::all_of(awaited.begin(), awaited.end(), [&](const auto& key) {
        return results_.contains(key);
      });
    });
    if (!failure.empty()) return failure;
    for (std::size_t i = 0; i < awaited.size(); ++i) {
      if (!results_.contains(awaited[i])) {
        return awaited[i].first + ": no result for the cue at " + cueOf[i];
      }
    }
    return "";
  }

 private:
  // The first of `awaited` whose result is not "done", or "" (under the lock).
  std::string failed(const std::vector<std::pair<std::string, std::string>>& awaited,
                     const std::vector<std::string>& cueOf) const {
    for (std::size_t i = 0; i < awaited.size(); ++i) {
      const auto result = results_.find(awaited[i]);
      if (result != results_.end() && result->second.result != "done") {
        return awaited[i].first + ": the cue at " + cueOf[i] + " failed: " +
               (result->second.message.empty() ? result->second.result : result->second.message);
      }
    }
    return "";
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Clock::time_point lastNews_ = Clock::now();
  int granted_ = 0;
  std::map<std::string, bool> online_;
  std::set<std::string> accessories_;
  std::map<std::pair<std::string, std::string>, Result> results_;
};

// The client library, set up and torn down in one scope.
class Client {
 public:
  explicit Client(Room& room) {
    mosquitto_lib_init();
    client_ = mosquitto_new(nullptr, true, &room);
    if (client_ == nullptr) {
      mosquitto_lib_cleanup();
      throw std::runtime_error("cannot make the MQTT client");
    }
  }
  ~Client() {
    if (looping_) {
      mosquitto_disconnect(client_);
      mosquitto_loop_stop(client_, false);
    }
    mosquitto_destroy(client_);
    mosquitto_lib_cleanup();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void connect(const serve::BrokerAddress& broker, const std::string& caFile) {
    mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    if (!broker.user.empty()) {
      const char* password =
          broker.password ? broker.password->c_str() : std::getenv("NIMBARA_MQTT_PASSWORD");
      mosquitto_username_pw_set(client_, broker.user.c_str(), password);
    }
    if (broker.tls) {
      const char* ca = caFile.empty() ? nullptr : caFile.c_str();
      if (const int rc = mosquitto_tls_set(client_, ca, ca ? nullptr : "/etc/ssl/certs", nullptr,
                                           nullptr, nullptr);
          rc != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string("cannot set up TLS: ") + mosquitto_strerror(rc));
      }
    }
    mosquitto_message_callback_set(
        client_, [](mosquitto*, void* user, const mosquitto_message* message) {
          try {
            static_cast<Room*>(user)->take(
                message->topic, std::string(static_cast<const char*>(message->payload),
                                            static_cast<std::size_t>(message->payloadlen)));
          } catch (...) {  // a message that cannot be read is none of ours
          }
        });
    mosquitto_subscribe_callback_set(client_, [](mosquitto*, void* user, int, int, const int*) {
      static_cast<Room*>(user)->granted();
    });
    const std::string where = broker.host + ":" + std::to_string(broker.port);
    if (const int rc =
            mosquitto_connect(client_, broker.host.c_str(), broker.port, kKeepAliveSeconds);
        rc != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error(
          "cannot reach the broker at " + where + ": " +
          (rc == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : mosquitto_strerror(rc)));
    }
    if (mosquitto_loop_start(client_) != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error("the MQTT client's thread did not start");
    }
    looping_ = true;
  }

  void subscribe(const std::string& pattern) {
    if (const int rc = mosquitto_subscribe(client_, nullptr, pattern.c_str(), 1);
        rc != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error("cannot subscribe to " + pattern + ": " + mosquitto_strerror(rc));
    }
  }
  void publish(const std::string& topic, const std::string& payload) {
    if (const int rc =
            mosquitto_publish(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), 1, false);
        rc != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error("cannot publish to " + topic + ": " + mosquitto_strerror(rc));
    }
  }

 private:
  mosquitto* client_ = nullptr;
  bool looping_ = false;
};

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", value);
  return text;
}

}  // namespace

int runRoomCue(const Globals& globals, const std::string& path, const RoomRequest& request) {
  const auto cues = loadTrack(path);
  const serve::BrokerAddress broker = serve::parseBrokerUrl(request.url);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  Room room;
  Client client(room);
  client.connect(broker, request.caFile);
  const std::vector<std::string> patterns = {"nimbara/+/availability", "nimbara/+/+/state",
                                             "nimbara/+/+/result"};
  for (const auto& pattern : patterns) client.subscribe(pattern);
  const std::vector<std::string> accessories =
      room.settle(static_cast<int>(patterns.size()), request.only);
  if (accessories.empty()) {
    throw std::runtime_error("no accessory is served on the broker at " + broker.host + ":" +
                             std::to_string(broker.port) +
                             (request.only.empty() ? "" : " as " + request.only));
  }
  const std::int64_t start = unixMs() + kLeadMs;
  const std::string run = std::to_string(start);
  std::vector<std::pair<std::string, std::string>> awaited;
  std::vector<std::string> cueOf;
  std::int64_t lastAt = start;
  for (std::size_t i = 0; i < cues.size(); ++i) {
    const auto& cue = cues[i];
    const std::int64_t at = start + std::llround(cue.start * 1000);
    lastAt = at;
    // A cue goes out a little before it starts: the services' queues hold only
    // what is about to play, however long the track. None goes out after a
    // failure: the room would play the track with a hole in it.
    const std::string failure = room.failureBy(
        awaited, cueOf, Clock::now() + std::chrono::milliseconds(at - kLeadMs - unixMs()));
    if (!failure.empty()) throw std::runtime_error(failure);
    Json fields = Json::parse(nimbara::commandFields(cue.command));
    fields["at"] = at;
    fields["id"] = "cue-" + run + "-" + std::to_string(i + 1);
    const std::string payload = fields.dump();
    for (const auto& accessory : accessories) {
      const auto parts = levels(accessory);
      serve::Topics topics{parts[0], ""};
      client.publish(topics.output(parts[1], "command"), payload);
      awaited.emplace_back(accessory, fields["id"].get<std::string>());
      cueOf.push_back(seconds(cue.start));
    }
    const double sent = unixNow();
    if (globals.json) {
      Json line{{"cue", cue.start}, {"sent", sent}, {"line", cue.line}};
      line.update(commandJson(cue.command));
      line["at"] = at;
      line["to"] = accessories;
      std::cout << line.dump() << std::endl;
    } else {
      char time[32];
      std::snprintf(time, sizeof time, "%8.3f s  ", cue.start);
      say(globals, time + nimbara::describeCommand(cue.command) + " to " +
                       std::to_string(accessories.size()) +
                       (accessories.size() == 1 ? " accessory\n" : " accessories\n"));
    }
  }
  const auto untilLast = std::chrono::milliseconds(std::max<std::int64_t>(0, lastAt - unixMs()));
  const std::string failure = room.await(awaited, cueOf, Clock::now() + untilLast + kResultWait);
  if (!failure.empty()) throw std::runtime_error(failure);
  return 0;
}

}  // namespace tool
