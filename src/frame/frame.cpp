#include <nimbara/frame/frame.h>

#include <cstdint>
#include <cstdlib>

#include "common/log.h"
#include "frame/frame_internal.h"
#include "signal/fixed_units.h"

using namespace nimbara::detail;

namespace {

FrameNode* newNode(ProtocolUnit* unit, std::uint8_t owned) {
  auto* node = static_cast<FrameNode*>(std::calloc(1, sizeof(FrameNode)));
  if (node != nullptr) {
    node->protocol = unit;
    node->owned = owned;
  }
  return node;
}

// Releases nodes only; the units stay with whoever owned them before.
void freeNodes(FrameNode* node) {
  while (node != nullptr) {
    FrameNode* next = node->next;
    std::free(node);
    node = next;
  }
}

}  // namespace

FrameNode* buildProtocol(ProtocolUnit* command, ProtocolUnit* parameter) {
  NIMBARA_LOG("build protocol.");
  FrameNode* head = newNode(wakeUp, 1);
  if (head == nullptr) return nullptr;
  FrameNode* tail = head;
  auto append = [&tail](ProtocolUnit* unit, std::uint8_t owned) {
    if (tail == nullptr) return;
    tail->next = newNode(unit, owned);
    tail = tail->next;
  };
  for (int repetition = 0; repetition < 2; ++repetition) {
    // The first repetition owns the payload units; the second only sends them again.
    const std::uint8_t ownsPayload = repetition == 0 ? 1 : 0;
    std::int32_t ones = 0;
    append(noSound, 1);
    append(command, ownsPayload);
    ones += countPlusBit(command);
    append(parameter, ownsPayload);
    ones += countPlusBit(parameter);
    append(ones % 2 != 0 ? checkOneBit : checkZeroBit, 1);  // even parity
    append(stopBits, 1);
  }
  if (tail == nullptr) {
    freeNodes(head);
    return nullptr;
  }
  frameBuilt();
  dumpBit(head);
  NIMBARA_LOG("build protocol -> finished.");
  return head;
}

namespace {

void releaseFrame(FrameNode* frame, bool logLines) {
  for (FrameNode* node = frame; node != nullptr;) {
    ProtocolUnit* unit = node->protocol;
    if (unit != nullptr && (node->owned & 1u) != 0 && (unit->isStatic & 1u) == 0) {
      if (logLines) NIMBARA_LOG(" name=%.3s -> free", unit->name);
      std::free(unit->data);
      unit->data = nullptr;
      std::free(unit);
      node->protocol = nullptr;
    }
    FrameNode* next = node->next;
    std::free(node);
    node = next;
  }
  // Only now, with no node left to look at a fixed unit: the last frame's
  // release may release fixed units that were cleared meanwhile.
  if (frame != nullptr) frameReleased();
}

}  // namespace

void freeProtocolFrame(FrameNode* frame) {
  NIMBARA_LOG("#freeProtocolFrame");
  releaseFrame(frame, true);
}

void nimbara::detail::releaseFrameSilently(FrameNode* frame) {
  releaseFrame(frame, false);
}
