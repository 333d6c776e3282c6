#pragma once

#include <nimbara/frame/frame.h>

namespace nimbara::detail {

// Releases a frame like freeProtocolFrame, without its log lines: for frames
// the library gives up on after a failure. Accepts null.
void releaseFrameSilently(FrameNode* frame);

}  // namespace nimbara::detail
