// The tool's command line.
#pragma once

namespace tool {

// Parses the arguments and, when `execute` is set, runs the subcommand.
// Returns the exit status: 0, 1 for a failure, 2 for wrong words, 3 for no
// device on the route.
int runTool(int argc, const char* const* argv, bool execute);

}  // namespace tool
