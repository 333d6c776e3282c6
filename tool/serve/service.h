// The service: one MQTT client, one worker per accessory, the presence watch,
// and Home Assistant's discovery. Runs until SIGTERM or SIGINT.
#pragma once

#include <csignal>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "accessory_worker.h"
#include "entity_requests.h"
#include "output_choice.h"
#include "settings.h"
#include "topics.h"

struct mosquitto;
struct mosquitto_message;

namespace tool::serve {

class Service {
 public:
  Service(const Settings& settings, BrokerAddress broker, std::vector<ServedOutput> outputs);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Connects, serves until one of `signals` arrives (blocked in every
  // thread), and says goodbye: exit status 0, or 1 when the client could
  // not be set up.
  int run(const sigset_t& signals);

 private:
  struct Accessory {
    ServedOutput output;
    std::unique_ptr<AccessoryWorker> worker;
    std::mutex mutex;  // the fields below
    Presence presence;
    Json last;  // the last command's fields, null before one
    EntitySettings entities;
  };

  bool setUpClient();
  // 0 once connected, or the stop signal that came first.
  int firstConnection(const sigset_t& signals);
  void onConnect(int rc);
  void onDisconnect(int rc);
  void onMessage(const mosquitto_message& message);
  void onPublish(int mid);
  void announce();
  void publish(const std::string& topic, const std::string& payload, bool retain,
               int* mid = nullptr);
  void publishState(Accessory& accessory);
  void publishLength(Accessory& accessory);
  void publishResult(const std::string& output, const Json& result);
  void take(Accessory& accessory, const std::string& leaf, const std::string& payload);
  void queue(Accessory& accessory, Job job);
  void finished(Accessory& accessory, const Job& job, const Outcome& outcome);
  void watchPresence();
  void stopWatching();

  Settings settings_;
  BrokerAddress broker_;
  Topics topics_;
  std::map<std::string, std::unique_ptr<Accessory>> accessories_;
  mosquitto* client_ = nullptr;
  bool loopRunning_ = false;
  std::atomic<bool> everConnected_{false};

  std::mutex watchMutex_;
  std::condition_variable watchWake_;
  bool watchStop_ = false;
  std::thread watcher_;

  std::mutex publishMutex_;
  std::condition_variable published_;
  int goodbyeMid_ = -1;
  bool goodbyeDone_ = false;
};

}  // namespace tool::serve
