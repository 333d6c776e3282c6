/* Device operations: one call per device command. Each logs its start, fixes
 * the transmission length, builds the frame, plays it (blocking until the
 * sound has been produced), reads the reply if a receiver filled the result
 * record, logs its end and returns the playback status or the reply's status. */
#ifndef NIMBARA_DEVICE_OPERATIONS_H
#define NIMBARA_DEVICE_OPERATIONS_H

#include <stdint.h>

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** The result record of one operation ("rtnParam" in the log). Nothing in the
 * library fills it; a receiver would set bit 0 of replyPresent and put a
 * malloc'ed reply, laid out as below, in replyData, which the operation frees.
 * Status reply: byte 0 status. Tank identity reply: status, year, month, day
 * (bytes 0-3), scentId (16-bit at 4), serialId (16-bit at 6), reserve1 (byte
 * 8), reserve2 (16-bit at 10), in the host's byte order. Echo reply: the
 * number, 32-bit at 0. */
typedef struct ResponseRecord {
  uint8_t replyPresent;
  uint8_t reserved[7];
  uint8_t* replyData;
} ResponseRecord;

/** Which reply an operation expects. */
enum { NIMBARA_REPLY_STATUS = 1, NIMBARA_REPLY_TANK_ID = 2, NIMBARA_REPLY_ECHO = 3 };

NIMBARA_API int32_t doAquireDeviceState(void);                 /**< 200 ms */
NIMBARA_API int32_t doEcho(uint32_t number, uint32_t* result); /**< 400 ms */
NIMBARA_API int32_t doLightLed(uint8_t red, uint8_t green, uint8_t blue, uint8_t special,
                               int16_t time); /**< 400 ms; time sent unchanged */
NIMBARA_API int32_t doSprayWithLightLed(uint8_t red, uint8_t green, uint8_t blue, uint8_t special,
                                        int16_t time); /**< 400 ms; time clamped to 100..1000 */

NIMBARA_END_C

#ifdef __cplusplus
#include <functional>
#include <memory>

namespace nimbara {

class TankId;

/** Called by every operation right after playback with its expected-reply code
 * and its record: the place of a receiver. None by default. */
using ReplyReceiver = std::function<void(std::uint32_t expectedReplyCode, ResponseRecord& record)>;
NIMBARA_API void setReplyReceiver(ReplyReceiver receiver);

}  // namespace nimbara

/** The two tank identity operations fill the caller's object from a reply. */
NIMBARA_API int32_t doGetTankId(std::shared_ptr<nimbara::TankId>& tankId); /**< 200 ms */
NIMBARA_API int32_t doSprayWithLightLedGetTankId(uint8_t red, uint8_t green, uint8_t blue,
                                                 uint8_t special, int16_t time,
                                                 std::shared_ptr<nimbara::TankId>& tankId);
#endif

#endif
