/* Frames: a singly linked list of nodes, each sending one protocol unit. */
#ifndef NIMBARA_FRAME_FRAME_H
#define NIMBARA_FRAME_FRAME_H

#include <stdint.h>

#include <nimbara/export.h>
#include <nimbara/frame/protocol_unit.h>

NIMBARA_BEGIN_C

typedef struct FrameNode {
  ProtocolUnit* protocol; /**< the unit this node sends; null once released */
  uint32_t bitIndex;      /**< renderer cursor: element being sent */
  uint32_t sampleIndex;   /**< renderer cursor: sample inside the current bit's waveform */
  uint8_t owned;          /**< bit 0: this node releases its unit (unless the unit is static) */
  struct FrameNode* next; /**< null at the last node */
} FrameNode;

/** Wraps a command unit and a parameter unit into the 11-node frame:
 * wake-up, then twice silence, command, parameter, even parity and stop bits.
 * The second repetition shares the first one's units. The fixed units must
 * exist (initProtocolUnit); command and parameter must be distinct records
 * unless the parameter is a fixed unit. Returns null only when memory runs out;
 * the units then stay the caller's. */
NIMBARA_API FrameNode* buildProtocol(ProtocolUnit* command, ProtocolUnit* parameter);

/** Releases a frame: every node, and every non-static unit of an owning node,
 * once, logging " name=%s -> free" for each unit. Accepts null. */
NIMBARA_API void freeProtocolFrame(FrameNode* frame);

NIMBARA_END_C

#endif
