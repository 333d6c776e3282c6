// `play TRACK --mqtt URL`: one track played by every accessory that
// `nimbara serve` puts on a broker, each cue given to all of them with the
// same start time so that they play it together.
#pragma once

#include <string>

#include "commands.h"

namespace tool {

struct RoomRequest {
  std::string url;     // mqtt://[USER[:PASSWORD]@]HOST[:PORT] or mqtts://...
  std::string caFile;  // for mqtts
  std::string only;    // ID or ID/OUTPUT: just those accessories
};

int runRoomCue(const Globals& globals, const std::string& path, const RoomRequest& request);

}  // namespace tool
