// The tool's command line: its options, subcommands and their dispatch.
#include "cli.h"

#include <nimbara/nimbara.h>

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "report.h"
#include "room_cue.h"
#include "serve/serve.h"
#include "track_commands.h"
#include "words.h"

#ifndef NIMBARA_VERSION
#define NIMBARA_VERSION "0"
#endif

namespace tool {
namespace {

// One line on stderr, or one JSON object there under --json; the exit status.
int fail(bool json, const std::string& message, int code) {
  if (json) {
    std::cerr << Json{{"error", message}, {"exit", code}}.dump() << std::endl;
  } else {
    std::cerr << "nimbara: " << message << (code == kUsage ? " (see nimbara help)" : "") << "\n";
  }
  return code;
}

// The options every device command takes after its words.
void addCommandOptions(CLI::App* command, CommandWords& words, bool led) {
  if (!led) return;
  command->add_option("--special", words.special, "special-effect byte, 0 to 255 (default 0)");
  command->add_option("--time", words.time,
                      "milliseconds, -32768 to 32767 (default 500; a puff sprays 100 to 1000)");
}

// Everything the command line can ask for, filled in by the parse.
struct Requests {
  Globals globals;
  int verbose = 0;
  bool quiet = false;
  std::vector<CommandWords> device;  // flash, puff, spray, state, tank, echo
  RenderRequest render;
  DecodeRequest decode;
  ListenRequest listen;
  std::string cues, follow;
  RoomRequest room;
  std::string helpTopic;
};

CommandWords named(const char* verb) {
  CommandWords words;
  words.verb = verb;
  return words;
}

void addGlobalOptions(CLI::App& app, Requests& r) {
  app.require_subcommand(1, 1);
  app.fallthrough();
  app.set_version_flag("--version", "nimbara " NIMBARA_VERSION);
  app.footer(
      "COLOUR is R G B (0 to 255 each), #rrggbb, rrggbb or a CSS name (orange, teal...).\n"
      "Numbers are decimal. Exit status: 0, 1 failure, 2 usage, 3 no device on the route.");
  r.globals.device = nimbara::platform::defaultBackendName();
  app.add_option("--device", r.globals.device,
                 "audio output: " + nimbara::platform::backendNames() + " (default " +
                     r.globals.device + ")")
      ->check([](const std::string& device) {
        try {
          nimbara::platform::makeBackend(device);
        } catch (const std::invalid_argument&) {
          return "must be " + nimbara::platform::backendNames();
        }
        return std::string();
      });
  app.add_option("--route", r.globals.route, "route name of the virtual or wav output");
  app.add_flag("-v,--verbose", r.verbose,
               "-v: a trace of what was sent and when; -vv: the library's log lines too");
  app.add_flag("-q,--quiet", r.quiet, "print nothing but errors");
  app.add_flag("--json", r.globals.json,
               "print JSON (decode and listen: JSON Lines, one object a line)");
  app.add_flag("--skip-precheck", r.globals.skipPrecheck,
               "send without checking for headphones on the audio route");
  app.add_flag("--allow-resampling", r.globals.allowResampling,
               "play on an output that cannot run at 44100 Hz, resampled, rather than fail");
}

// status, outputs and the commands sent to the accessory.
void addDeviceCommands(CLI::App& app, Requests& r) {
  app.add_subcommand("status",
                     "the audio route, the device's presence, the volume and the sink's rate; "
                     "exit 3 when absent");
  app.add_subcommand(
      "outputs",
      "every output of the device's backend: presence, default, and whether the signal "
      "reaches it unresampled");
  r.device = {named("flash"), named("puff"), named("spray"),
              named("state"), named("tank"), named("echo")};
  CommandWords &flash = r.device[0], &puff = r.device[1], &spray = r.device[2], &echo = r.device[5];
  auto* flashCommand = app.add_subcommand("flash", "flash the LED: flash COLOUR");
  flashCommand->add_option("COLOUR", flash.words, "R G B, #rrggbb, rrggbb or a CSS name")
      ->required();
  addCommandOptions(flashCommand, flash, true);
  auto* puffCommand = app.add_subcommand(
      "puff", "puff a scent while flashing the LED, asking for the tank: puff COLOUR");
  puffCommand->add_option("COLOUR", puff.words, "R G B, #rrggbb, rrggbb or a CSS name")->required();
  addCommandOptions(puffCommand, puff, true);
  puffCommand->add_flag("--no-tank", puff.noTank, "send the puff that does not ask for the tank");
  auto* sprayCommand =
      app.add_subcommand("spray", "spray without the LED for MS milliseconds: spray MS");
  sprayCommand->add_option("MS", spray.words, "milliseconds, -32768 to 32767")->required();
  app.add_subcommand("state", "ask for the accessory's state");
  app.add_subcommand("tank",
                     "send the tank identity query; no reply is heard, so the library's fixed "
                     "identity is printed");
  auto* echoCommand = app.add_subcommand(
      "echo", "send N to echo; no reply is heard, so the library's fixed answer (0) is printed");
  echoCommand->add_option("N", echo.words, "number, 0 to 4294967295")->required();
}

// render and decode: the signal as a file and back.
void addFileCommands(CLI::App& app, Requests& r) {
  auto* renderCommand = app.add_subcommand(
      "render",
      "write the samples a command hands the output: render VERB ARGS... --out FILE, or a "
      "whole track: render TRACK --out FILE");
  renderCommand
      ->add_option("COMMAND", r.render.words,
                   "a verb and its words as above (flash orange), or a library "
                   "operation and its numbers (doLightLed 255 0 128 1 500)")
      ->required();
  renderCommand->add_option("--out", r.render.out, "the WAV file to write, - for standard output")
      ->required();
  renderCommand->add_option("--special", r.render.special, "special-effect byte (flash, puff)");
  renderCommand->add_option("--time", r.render.time, "milliseconds (flash, puff)");
  renderCommand->add_flag("--no-tank", r.render.noTank, "the puff that does not ask for the tank");

  auto* decodeCommand = app.add_subcommand(
      "decode", "print every transmission in audio files (WAV, FLAC, Ogg, MP3...; - is stdin)");
  decodeCommand->add_option("FILE", r.decode.files, "audio files, or - for standard input")
      ->required();
  decodeCommand->add_flag("--raw", r.decode.raw, "raw signed 16-bit little-endian PCM (as parec)");
  decodeCommand->add_option("--rate", r.decode.rate, "sample rate of --raw input (default 44100)");
  decodeCommand->add_option("--channels", r.decode.channels, "channels of --raw input (default 2)");
}

// listen, play and help.
void addLiveCommands(CLI::App& app, Requests& r) {
  auto* listenCommand =
      app.add_subcommand("listen", "be the accessory: decode what a sound source plays, live");
  listenCommand->add_option("--source", r.listen.source,
                            "source to record (default: the monitor of the default sink)");
  listenCommand->add_option("--count", r.listen.count,
                            "stop after this many transmissions (default 0: no limit)");
  listenCommand->add_option("--seconds", r.listen.seconds,
                            "stop after this many seconds (default 0: no limit)");

  auto* playCommand = app.add_subcommand(
      "play",
      "play a track (WebVTT, or one \"SECONDS VERB ARGS...\" a line), each cue at its time");
  playCommand->add_option("TRACK", r.cues, "the track or cue file")->required();
  playCommand->add_option("--follow", r.follow,
                          "mpv:SOCKET: send each cue when the film playing in mpv reaches it");
  auto* mqtt = playCommand->add_option(
      "--mqtt", r.room.url,
      "mqtt://[USER[:PASSWORD]@]HOST[:PORT] or mqtts://...: play the track on every accessory "
      "that `nimbara serve` puts on this broker, together");
  mqtt->excludes("--follow");
  playCommand->add_option("--ca-file", r.room.caFile, "with --mqtt mqtts://: the broker's CA")
      ->needs(mqtt);
  playCommand
      ->add_option("--only", r.room.only, "with --mqtt: only the accessories ID or ID/OUTPUT")
      ->needs(mqtt);

  app.add_subcommand("serve",
                     "the accessories in Home Assistant and on plain MQTT topics: "
                     "serve [--mqtt URL] [--device OUTPUT]... (see serve --help)");

  auto* helpCommand = app.add_subcommand("help", "describe the tool, or one command");
  helpCommand->add_option("COMMAND", r.helpTopic, "a command");
}

// The first word the parse left over, when it is where a command belongs.
std::string strayCommand(const CLI::App& app) {
  for (const std::string& word : app.remaining()) {
    if (!word.starts_with("-")) return word;
  }
  return "";
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  return names;
}

std::string unknownCommand(const CLI::App& app, const std::string& word) {
  const std::string near = nearest(word, commandNames(app));
  return "unknown command \"" + word + "\"" + (near.empty() ? "" : " (did you mean " + near + "?)");
}

int runHelp(const CLI::App& app, const std::string& topic) {
  if (topic.empty()) {
    std::cout << app.help();
    return 0;
  }
  const CLI::App* command = nullptr;
  try {
    command = app.get_subcommand(topic);
  } catch (const CLI::OptionNotFound&) {
    throw UsageError(unknownCommand(app, topic));
  }
  std::cout << command->help();
  return 0;
}

// Runs the one subcommand the parse found; errors are exceptions.
int dispatch(const CLI::App& app, Requests& r) {
  const Globals& globals = r.globals;
  if (app.got_subcommand("help")) return runHelp(app, r.helpTopic);
  if (app.got_subcommand("status")) return runStatus(globals);
  if (app.got_subcommand("outputs")) return runOutputs(globals);
  for (const CommandWords& words : r.device) {
    if (app.got_subcommand(words.verb)) return runDevice(globals, words);
  }
  if (app.got_subcommand("render") && namesTrack(r.render.words)) {
    return runRenderTrack(globals, r.render.words[0], r.render.out);
  }
  if (app.got_subcommand("render")) return runRender(globals, r.render);
  if (app.got_subcommand("decode")) return runDecode(globals, r.decode);
  if (app.got_subcommand("listen")) return runListen(globals, r.listen);
  if (app.got_subcommand("play")) {
    if (!r.room.url.empty()) return runRoomCue(globals, r.cues, r.room);
    return r.follow.empty() ? runPlay(globals, r.cues) : runFollow(globals, r.cues, r.follow);
  }
  return EXIT_FAILURE;
}

}  // namespace

int runTool(int argc, const char* const* argv, bool execute) {
  // The service parses its own options (and its config file).
  if (argc > 1 && std::string(argv[1]) == "serve") return runServe(argc - 1, argv + 1, execute);
  CLI::App app{"nimbara: drives the scent accessory on the headphone jack by sound", "nimbara"};
  Requests r;
  addGlobalOptions(app, r);
  addDeviceCommands(app, r);
  addFileCommands(app, r);
  addLiveCommands(app, r);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return execute ? app.exit(e) : 0;
  } catch (const CLI::CallForVersion& e) {
    return execute ? app.exit(e) : 0;
  } catch (const CLI::ParseError& e) {
    if (!execute) return kUsage;
    // A word where a command belongs that is none: say which, and the nearest.
    const std::string stray = app.get_subcommands().empty() ? strayCommand(app) : "";
    return fail(r.globals.json, stray.empty() ? e.what() : unknownCommand(app, stray), kUsage);
  }
  if (!execute) return EXIT_SUCCESS;
  r.globals.verbosity = r.quiet ? -1 : r.verbose;
  try {
    return dispatch(app, r);
  } catch (const UsageError& e) {
    return fail(r.globals.json, e.what(), kUsage);
  } catch (const NoDevice& e) {
    return fail(r.globals.json, e.what(), kNoDevice);
  } catch (const std::exception& e) {
    return fail(r.globals.json, e.what(), EXIT_FAILURE);
  }
}

}  // namespace tool
