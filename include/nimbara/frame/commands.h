/* The command catalogue: one frame builder per device command. Each builder
 * makes the fixed units if needed, logs its line and returns a new frame that
 * the caller owns (and normally hands to executeFunction), or null when memory
 * runs out. Arguments are passed on unchanged. */
#ifndef NIMBARA_FRAME_COMMANDS_H
#define NIMBARA_FRAME_COMMANDS_H

#include <stdint.h>

#include <nimbara/export.h>
#include <nimbara/frame/frame.h>

NIMBARA_BEGIN_C

NIMBARA_API FrameNode* createAcquireProtocol(void);   /**< opcode 1, parameter 0x00 */
NIMBARA_API FrameNode* createGetTankIdProtocol(void); /**< opcode 3, parameter 0x00 */
NIMBARA_API FrameNode* createLightLedProtocol(uint8_t red, uint8_t green, uint8_t blue,
                                              uint8_t special, int16_t time); /**< opcode 4 */
NIMBARA_API FrameNode* createSprayWithLightLedProtocol(uint8_t red, uint8_t green, uint8_t blue,
                                                       uint8_t special, int16_t time); /**< 2 */
NIMBARA_API FrameNode* createSprayWithLightLedGetTankIdProtocol(uint8_t red, uint8_t green,
                                                                uint8_t blue, uint8_t special,
                                                                int16_t time); /**< opcode 5 */
NIMBARA_API FrameNode* createSprayProtocol(int16_t time);   /**< opcode 2, 16-bit time */
NIMBARA_API FrameNode* createEchoProtocol(uint32_t number); /**< opcode 255, 32-bit number */

NIMBARA_END_C

#endif
