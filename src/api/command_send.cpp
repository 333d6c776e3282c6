// Sending a command: the device operation that carries it, or for the spray,
// which no operation sends, its frame played for 400 ms.
#include <nimbara/api/command.h>
#include <nimbara/device/operations.h>
#include <nimbara/frame/commands.h>
#include <nimbara/signal/playback.h>
#include <nimbara/tank/TankId.h>

#include <cstring>
#include <stdexcept>

namespace nimbara {

std::int32_t sendCommand(const Command& c) {
  if (c.verb == "flash") return doLightLed(c.red, c.green, c.blue, c.special, c.time);
  if (c.verb == "puff") {
    if (!c.asksTank) return doSprayWithLightLed(c.red, c.green, c.blue, c.special, c.time);
    std::shared_ptr<TankId> tank = std::make_shared<TankId>();
    return doSprayWithLightLedGetTankId(c.red, c.green, c.blue, c.special, c.time, tank);
  }
  if (c.verb == "state") return doAquireDeviceState();
  if (c.verb == "tank") {
    std::shared_ptr<TankId> tank = std::make_shared<TankId>();
    return doGetTankId(tank);
  }
  if (c.verb == "echo") {
    std::uint32_t echoed = 0;
    return doEcho(c.number, &echoed);
  }
  if (c.verb == "spray") {
    ResponseRecord record;
    std::memset(&record, 0, sizeof record);
    return executeFunction(createSprayProtocol(c.time), NIMBARA_REPLY_STATUS,
                           2ul * commandFrames(c), &record);
  }
  throw std::invalid_argument("unknown command \"" + c.verb + "\"");
}

}  // namespace nimbara
