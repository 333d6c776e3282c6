#include <nimbara/device/operations.h>

#include <nimbara/frame/commands.h>
#include <nimbara/signal/playback.h>
#include <nimbara/tank/TankId.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/log.h"
#include "device/spray_time.h"

namespace nimbara {
namespace {

constexpr float kShortMs = 200.0f;
constexpr float kLongMs = 400.0f;

std::mutex receiverMutex;
ReplyReceiver replyReceiver;

// Samples over both channels for a duration: ms / 1000 x 88200.
unsigned long sampleLength(float milliseconds) {
  return static_cast<unsigned long>(static_cast<double>(milliseconds) / 1000.0 * 88200.0);
}

template <typename T>
T readAt(const std::uint8_t* reply, std::size_t offset) {
  T value;
  std::memcpy(&value, reply + offset, sizeof value);
  return value;
}

// The common recipe; readReply(reply, &result) reads a present reply.
template <typename ReadReply>
std::int32_t runOperation(const char* name, FrameNode* frame, std::uint32_t expectedReply,
                          float milliseconds, ReadReply readReply) {
  ResponseRecord record;
  std::memset(&record, 0, sizeof record);
  std::int32_t result = executeFunction(frame, expectedReply, sampleLength(milliseconds), &record);
  ReplyReceiver receiver;
  {
    std::lock_guard lock(receiverMutex);
    receiver = replyReceiver;
  }
  if (receiver) receiver(expectedReply, record);
  if ((record.replyPresent & 1u) != 0) {
    if (record.replyData != nullptr) readReply(record.replyData, &result);
    std::free(record.replyData);
  }
  NIMBARA_LOG("%s end. ret=%d", name, result);
  return result;
}

void readStatus(const std::uint8_t* reply, std::int32_t* result) {
  NIMBARA_LOG("#rtnParam->status=%x", reply[0]);
  *result = reply[0];
}

void readTankId(const std::uint8_t* reply, std::int32_t* result,
                std::shared_ptr<TankId>& callersTankId) {
  const std::shared_ptr<TankId> tankId = callersTankId;  // held for the step
  if (tankId) {
    tankId->setYear(reply[1]);
    tankId->setMonth(reply[2]);
    tankId->setDay(reply[3]);
    tankId->setScentId(readAt<std::uint16_t>(reply, 4));
    tankId->setSerialId(readAt<std::uint16_t>(reply, 6));
    tankId->setReserve1(reply[8]);
    tankId->setReserve2(readAt<std::uint16_t>(reply, 10));
  }
  NIMBARA_LOG("#TankId=%s", tankId ? tankId->description().c_str() : "(null)");
  NIMBARA_LOG("#rtnParam->status=%x", reply[0]);
  *result = reply[0];
}

}  // namespace

void setReplyReceiver(ReplyReceiver receiver) {
  std::lock_guard lock(receiverMutex);
  replyReceiver = std::move(receiver);
}

}  // namespace nimbara

using nimbara::kLongMs;
using nimbara::kShortMs;
using nimbara::readStatus;
using nimbara::runOperation;

int32_t doAquireDeviceState(void) {
  NIMBARA_LOG("doAquireDeviceState start.");
  return runOperation("doAquireDeviceState", createAcquireProtocol(), NIMBARA_REPLY_STATUS,
                      kShortMs, readStatus);
}

int32_t doGetTankId(std::shared_ptr<nimbara::TankId>& tankId) {
  NIMBARA_LOG("doGetTankId start.");
  return runOperation("doGetTankId", createGetTankIdProtocol(), NIMBARA_REPLY_TANK_ID, kShortMs,
                      [&](const std::uint8_t* reply, std::int32_t* result) {
                        nimbara::readTankId(reply, result, tankId);
                      });
}

int32_t doEcho(uint32_t number, uint32_t* result) {
  NIMBARA_LOG("doEcho start.");
  // The echo stores the number and keeps the playback status as its result.
  return runOperation("doEcho", createEchoProtocol(number), NIMBARA_REPLY_ECHO, kLongMs,
                      [&](const std::uint8_t* reply, std::int32_t*) {
                        const auto echoed = nimbara::readAt<std::uint32_t>(reply, 0);
                        if (result != nullptr) *result = echoed;
                        NIMBARA_LOG("#   return Number=%u", echoed);
                      });
}

int32_t doLightLed(uint8_t red, uint8_t green, uint8_t blue, uint8_t special, int16_t time) {
  NIMBARA_LOG("doLightLed start.");
  return runOperation("doLightLed", createLightLedProtocol(red, green, blue, special, time),
                      NIMBARA_REPLY_STATUS, kLongMs, readStatus);
}

int32_t doSprayWithLightLed(uint8_t red, uint8_t green, uint8_t blue, uint8_t special,
                            int16_t time) {
  NIMBARA_LOG("doSprayWithLightLed start.");
  time = nimbara::detail::clampSprayTime(time);
  return runOperation("doSprayWithLightLed",
                      createSprayWithLightLedProtocol(red, green, blue, special, time),
                      NIMBARA_REPLY_STATUS, kLongMs, readStatus);
}

int32_t doSprayWithLightLedGetTankId(uint8_t red, uint8_t green, uint8_t blue, uint8_t special,
                                     int16_t time, std::shared_ptr<nimbara::TankId>& tankId) {
  NIMBARA_LOG("doSprayWithLightLedGetTankId start.");
  time = nimbara::detail::clampSprayTime(time);
  return runOperation("doSprayWithLightLedGetTankId",
                      createSprayWithLightLedGetTankIdProtocol(red, green, blue, special, time),
                      NIMBARA_REPLY_TANK_ID, kLongMs,
                      [&](const std::uint8_t* reply, std::int32_t* result) {
                        nimbara::readTankId(reply, result, tankId);
                      });
}
