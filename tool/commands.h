// The tool's subcommands.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// Exit statuses besides 0 and 1 (a failure).
constexpr int kUsage = 2;
constexpr int kNoDevice = 3;

// Wrong words on the command line: exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// No device on the audio route: exit status 3.
struct NoDevice : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Globals {
  std::string device = "pulse";
  std::string route;
  int verbosity = 0;  // -1 quiet, 1 a trace of what was sent, 2 the library's log too
  bool json = false;
  bool skipPrecheck = false;
  bool allowResampling = false;  // play resampled where the output cannot run at 44100 Hz
};

struct CommandWords;

struct RenderRequest {
  std::vector<std::string> words;  // the verb, then its words
  std::string special, time;
  bool noTank = false;
  std::string out;
};

struct DecodeRequest {
  std::vector<std::string> files;
  bool raw = false;
  std::string rate = "44100";
  std::string channels = "2";
};

struct ListenRequest {
  std::string source;
  std::string count = "0";
  std::string seconds = "0";
};

int runStatus(const Globals& globals);
int runOutputs(const Globals& globals);
int runDevice(const Globals& globals, const CommandWords& words);
int runRender(const Globals& globals, const RenderRequest& request);
int runDecode(const Globals& globals, const DecodeRequest& request);
int runListen(const Globals& globals, const ListenRequest& request);
int runPlay(const Globals& globals, const std::string& cuePath);

}  // namespace tool
