// A command's samples without an audio output: the frame rendered buffer by
// buffer exactly as the output callback renders it, for as many whole buffers
// as the playback engine hands the output before it reaches its target.
#include <nimbara/api/command.h>
#include <nimbara/api/vocabulary.h>
#include <nimbara/frame/commands.h>
#include <nimbara/frame/frame.h>

#include <cstring>

#include "signal/render_buffer.h"

namespace nimbara {

std::vector<std::int16_t> renderCommand(const Command& command) {
  FrameNode* frame = commandForm(command).frame(command);
  PlaybackContext context;
  std::memset(&context, 0, sizeof context);
  context.framesPerBuffer = NIMBARA_FRAMES_PER_BUFFER;
  context.targetFrames = commandFrames(command);
  context.protocolFrame = frame;
  context.frameHead = frame;
  const std::uint32_t buffers =
      (context.targetFrames + context.framesPerBuffer - 1) / context.framesPerBuffer;
  std::vector<std::int16_t> samples;
  try {
    samples.resize(static_cast<std::size_t>(buffers) * context.framesPerBuffer * 2);
  } catch (...) {
    freeProtocolFrame(frame);
    throw;
  }
  for (std::uint32_t b = 0; b < buffers; ++b) {
    detail::renderBuffer(&context, samples.data() + std::size_t{b} * context.framesPerBuffer * 2,
                         context.framesPerBuffer);
  }
  freeProtocolFrame(frame);
  return samples;
}

}  // namespace nimbara
