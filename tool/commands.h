// The tool's subcommands.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// Exit statuses besides 0 and 1 (a failure).
constexpr int kNoDevice = 3;

// Wrong words on the command line: exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Globals {
  std::string device = "pulse";
  std::string route;
  bool verbose = false;
  bool json = false;
  bool skipPrecheck = false;
};

struct LedRequest {
  int red = 0, green = 0, blue = 0;
  int special = 0;
  int time = 500;
};

struct RenderRequest {
  std::string operation;
  std::vector<std::string> arguments;
  std::string out;
};

struct ListenRequest {
  std::string source;
  unsigned count = 0;
  double seconds = 0;
};

int runStatus(const Globals& globals);
int runOutputs(const Globals& globals);
int runLed(const Globals& globals, const LedRequest& led, bool puff);
int runTank(const Globals& globals);
int runEcho(const Globals& globals, std::uint32_t number);
int runRender(const Globals& globals, const RenderRequest& request);
int runDecode(const Globals& globals, const std::string& path);
int runListen(const Globals& globals, const ListenRequest& request);

}  // namespace tool
