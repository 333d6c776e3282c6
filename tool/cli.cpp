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
#include "serve/serve.h"
#include "words.h"

#ifndef NIMBARA_VERSION
#define NIMBARA_VERSION "0"
#endif

namespace tool {
namespace {

const std::vector<std::string> kSubcommands = {"status", "outputs", "flash", "puff",   "spray",
                                               "state",  "tank",    "echo",  "render", "decode",
                                               "listen", "play",    "serve", "help"};

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

}  // namespace

int runTool(int argc, const char* const* argv, bool execute) {
  if (argc > 1 && std::string(argv[1]) == "serve") return runServe(argc - 1, argv + 1, execute);
  CLI::App app{"nimbara: drives the scent accessory on the headphone jack by sound", "nimbara"};
  app.require_subcommand(1, 1);
  app.fallthrough();
  app.set_version_flag("--version", "nimbara " NIMBARA_VERSION);
  app.footer(
      "COLOUR is R G B (0 to 255 each), #rrggbb, rrggbb or a CSS name (orange, teal...).\n"
      "Numbers are decimal. Exit status: 0, 1 failure, 2 usage, 3 no device on the route.");

  Globals globals;
  int verbose = 0;
  bool quiet = false;
  app.add_option("--device", globals.device,
                 "audio output: pulse (the default sink), pulse:SINK, virtual or wav:PATH "
                 "(default pulse)")
      ->check([](const std::string& device) {
        if (device == "pulse" || device == "virtual") return std::string();
        if ((device.starts_with("wav:") && device.size() > 4) ||
            (device.starts_with("pulse:") && device.size() > 6)) {
          return std::string();
        }
        return std::string("must be pulse, pulse:SINK, virtual or wav:PATH");
      });
  app.add_option("--route", globals.route, "route name of the virtual or wav output");
  app.add_flag("-v,--verbose", verbose,
               "-v: a trace of what was sent and when; -vv: the library's log lines too");
  app.add_flag("-q,--quiet", quiet, "print nothing but errors");
  app.add_flag("--json", globals.json,
               "print JSON (decode and listen: JSON Lines, one object a line)");
  app.add_flag("--skip-precheck", globals.skipPrecheck,
               "send without checking for headphones on the audio route");

  app.add_subcommand("status",
                     "the audio route, the device's presence, the volume and the sink's rate; "
                     "exit 3 when absent");
  app.add_subcommand("outputs",
                     "every sink of the sound server: presence, default, and whether the signal "
                     "reaches it unresampled");
  const auto named = [](const char* verb) {
    CommandWords words;
    words.verb = verb;
    return words;
  };
  CommandWords flash = named("flash"), puff = named("puff"), spray = named("spray"),
               state = named("state"), tank = named("tank"), echo = named("echo");
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

  RenderRequest render;
  auto* renderCommand = app.add_subcommand(
      "render", "write the samples a command hands the output: render VERB ARGS... --out FILE");
  renderCommand
      ->add_option("COMMAND", render.words,
                   "a verb and its words as above (flash orange), or a library "
                   "operation and its numbers (doLightLed 255 0 128 1 500)")
      ->required();
  renderCommand->add_option("--out", render.out, "the WAV file to write, - for standard output")
      ->required();
  renderCommand->add_option("--special", render.special, "special-effect byte (flash, puff)");
  renderCommand->add_option("--time", render.time, "milliseconds (flash, puff)");
  renderCommand->add_flag("--no-tank", render.noTank, "the puff that does not ask for the tank");

  DecodeRequest decode;
  auto* decodeCommand = app.add_subcommand(
      "decode", "print every transmission in audio files (WAV, FLAC, Ogg, MP3...; - is stdin)");
  decodeCommand->add_option("FILE", decode.files, "audio files, or - for standard input")
      ->required();
  decodeCommand->add_flag("--raw", decode.raw, "raw signed 16-bit little-endian PCM (as parec)");
  decodeCommand->add_option("--rate", decode.rate, "sample rate of --raw input (default 44100)");
  decodeCommand->add_option("--channels", decode.channels, "channels of --raw input (default 2)");

  ListenRequest listen;
  auto* listenCommand =
      app.add_subcommand("listen", "be the accessory: decode what a sound source plays, live");
  listenCommand->add_option("--source", listen.source,
                            "PulseAudio source (default: the monitor of the default sink)");
  listenCommand->add_option("--count", listen.count,
                            "stop after this many transmissions (default 0: no limit)");
  listenCommand->add_option("--seconds", listen.seconds,
                            "stop after this many seconds (default 0: no limit)");

  std::string cues;
  auto* playCommand = app.add_subcommand(
      "play", "play a cue file: one \"SECONDS VERB ARGS...\" a line, each at its time");
  playCommand->add_option("CUES", cues, "the cue file")->required();

  app.add_subcommand("serve",
                     "the accessories in Home Assistant and on plain MQTT topics: "
                     "serve [--mqtt URL] [--device OUTPUT]... (see serve --help)");

  std::string helpTopic;
  auto* helpCommand = app.add_subcommand("help", "describe the tool, or one command");
  helpCommand->add_option("COMMAND", helpTopic, "a command");

  // An unknown command word: say which, and suggest the nearest.
  bool jsonAsked = false;
  for (int i = 1; i < argc; ++i) jsonAsked = jsonAsked || std::string(argv[i]) == "--json";
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.starts_with("-")) {
      if (word == "--device" || word == "--route") ++i;  // their values
      continue;
    }
    if (std::find(kSubcommands.begin(), kSubcommands.end(), word) == kSubcommands.end()) {
      if (!execute) return kUsage;
      const std::string near = nearest(word, kSubcommands);
      return fail(jsonAsked,
                  "unknown command \"" + word + "\"" +
                      (near.empty() ? "" : " (did you mean " + near + "?)"),
                  kUsage);
    }
    break;
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return execute ? app.exit(e) : 0;
  } catch (const CLI::CallForVersion& e) {
    return execute ? app.exit(e) : 0;
  } catch (const CLI::ParseError& e) {
    if (!execute) return kUsage;
    return fail(globals.json, e.what(), kUsage);
  }
  if (!execute) return EXIT_SUCCESS;
  globals.verbosity = quiet ? -1 : verbose;

  try {
    if (*helpCommand) {
      if (helpTopic.empty()) {
        std::cout << app.help();
        return 0;
      }
      CLI::App* topic = nullptr;
      try {
        topic = app.get_subcommand(helpTopic);
      } catch (const CLI::OptionNotFound&) {
        const std::string near = nearest(helpTopic, kSubcommands);
        throw UsageError("unknown command \"" + helpTopic + "\"" +
                         (near.empty() ? "" : " (did you mean " + near + "?)"));
      }
      std::cout << topic->help();
      return 0;
    }
    if (app.got_subcommand("status")) return runStatus(globals);
    if (app.got_subcommand("outputs")) return runOutputs(globals);
    for (CommandWords* words : {&flash, &puff, &spray, &state, &tank, &echo}) {
      if (app.got_subcommand(words->verb)) return runDevice(globals, *words);
    }
    if (*renderCommand) return runRender(globals, render);
    if (*decodeCommand) return runDecode(globals, decode);
    if (*listenCommand) return runListen(globals, listen);
    if (*playCommand) return runPlay(globals, cues);
  } catch (const UsageError& e) {
    return fail(globals.json, e.what(), kUsage);
  } catch (const NoDevice& e) {
    return fail(globals.json, e.what(), kNoDevice);
  } catch (const std::exception& e) {
    return fail(globals.json, e.what(), EXIT_FAILURE);
  }
  return EXIT_FAILURE;
}

}  // namespace tool
