// Sending a command: the device operation that carries it, or for the spray,
// which no operation sends, its frame played for its length.
#include <nimbara/api/command.h>
#include <nimbara/api/vocabulary.h>
#include <nimbara/device/operations.h>
#include <nimbara/signal/playback.h>
#include <nimbara/tank/TankId.h>

#include <cstring>
#include <string_view>
#include <utility>

namespace nimbara {
namespace {

using Sender = std::int32_t (*)(const Command&);

// The device operation of each operation name in the command table.
constexpr std::pair<std::string_view, Sender> kSenders[] = {
    {"doLightLed",
     [](const Command& c) { return doLightLed(c.red, c.green, c.blue, c.special, c.time); }},
    {"doSprayWithLightLedGetTankId",
     [](const Command& c) {
       std::shared_ptr<TankId> tank = std::make_shared<TankId>();
       return doSprayWithLightLedGetTankId(c.red, c.green, c.blue, c.special, c.time, tank);
     }},
    {"doSprayWithLightLed",
     [](const Command& c) {
       return doSprayWithLightLed(c.red, c.green, c.blue, c.special, c.time);
     }},
    {"createSprayProtocol",
     [](const Command& c) {
       ResponseRecord record;
       std::memset(&record, 0, sizeof record);
       return executeFunction(commandForm(c).frame(c), NIMBARA_REPLY_STATUS, 2ul * commandFrames(c),
                              &record);
     }},
    {"doAquireDeviceState", [](const Command&) { return doAquireDeviceState(); }},
    {"doGetTankId",
     [](const Command&) {
       std::shared_ptr<TankId> tank = std::make_shared<TankId>();
       return doGetTankId(tank);
     }},
    {"doEcho",
     [](const Command& c) {
       std::uint32_t echoed = 0;
       return doEcho(c.number, &echoed);
     }},
};

}  // namespace

std::int32_t sendCommand(const Command& c) {
  const std::string_view operation = commandForm(c).operation;
  for (const auto& [name, send] : kSenders) {
    if (name == operation) return send(c);
  }
  return -1;  // every operation of the table has its sender above
}

}  // namespace nimbara
