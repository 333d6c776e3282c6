// The tool's command line: its options, subcommands and their dispatch.
#include "cli.h"

#include <nimbara/nimbara.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"

namespace {

constexpr int kUsage = 2;

// The device commands' colour, special and time options.
void addLedOptions(CLI::App* command, tool::LedRequest& led) {
  command->add_option("R", led.red, "red, 0 to 255")->required()->check(CLI::Range(0, 255));
  command->add_option("G", led.green, "green, 0 to 255")->required()->check(CLI::Range(0, 255));
  command->add_option("B", led.blue, "blue, 0 to 255")->required()->check(CLI::Range(0, 255));
  command->add_option("--special", led.special, "special effect byte, 0 to 255")
      ->check(CLI::Range(0, 255));
  command->add_option("--time", led.time, "time in milliseconds, -32768 to 32767")
      ->check(CLI::Range(-32768, 32767));
}

}  // namespace

namespace tool {

int runTool(int argc, const char* const* argv, bool execute) {
  CLI::App app{"nimbara: drives the scent accessory on the headphone jack by sound"};
  app.require_subcommand(1, 1);
  app.fallthrough();
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return "nimbara: " + std::string(e.what()) + " (see --help)\n";
  });

  tool::Globals globals;
  app.add_option("--device", globals.device,
                 "audio output: pulse (the default sink), pulse:SINK, virtual or wav:PATH")
      ->check([](const std::string& device) {
        if (device == "pulse" || device == "virtual") return std::string();
        if ((device.starts_with("wav:") && device.size() > 4) ||
            (device.starts_with("pulse:") && device.size() > 6)) {
          return std::string();
        }
        return std::string("must be pulse, pulse:SINK, virtual or wav:PATH");
      });
  app.add_option("--route", globals.route, "route name of the virtual or wav output");
  app.add_flag("--verbose", globals.verbose, "show the library's log lines");
  app.add_flag("--json", globals.json, "print results as JSON");
  app.add_flag("--skip-precheck", globals.skipPrecheck,
               "do not check for headphones on the audio route (SKIP_PRECHECK)");

  auto* status = app.add_subcommand(
      "status", "the audio route, the device's presence and the volume; exit 3 when absent");
  auto* outputs = app.add_subcommand(
      "outputs",
      "every sink of the sound server: presence, default, and whether the signal "
      "reaches it unresampled");
  tool::LedRequest flashLed, puffLed;
  auto* flash = app.add_subcommand("flash", "flash the LED");
  addLedOptions(flash, flashLed);
  auto* puff = app.add_subcommand("puff", "puff a scent while flashing the LED");
  addLedOptions(puff, puffLed);
  auto* tank = app.add_subcommand(
      "tank",
      "send the tank identity query; the reply is not heard, so the library's fixed identity "
      "is printed");
  std::uint64_t echoNumber = 0;
  auto* echo = app.add_subcommand(
      "echo",
      "send a number to echo; the reply is not heard, so the library's fixed answer (0) "
      "is printed");
  echo->add_option("N", echoNumber, "number, 0 to 4294967295")
      ->required()
      ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{4294967295u}));

  tool::RenderRequest render;
  auto* renderCommand =
      app.add_subcommand("render", "write the samples a device operation hands the output");
  renderCommand
      ->add_option("OPERATION", render.operation,
                   "doAquireDeviceState, doGetTankId, doEcho, doLightLed, doSprayWithLightLed or "
                   "doSprayWithLightLedGetTankId")
      ->required();
  renderCommand->add_option("ARGS", render.arguments, "the operation's arguments, in order");
  renderCommand->add_option("--out", render.out, "the WAV file to write")->required();

  std::string decodePath;
  auto* decode = app.add_subcommand("decode", "print every transmission in a WAV file");
  decode->add_option("FILE", decodePath, "a WAV file")->required();

  tool::ListenRequest listen;
  auto* listenCommand =
      app.add_subcommand("listen", "be the accessory: decode what a sound source plays, live");
  listenCommand->add_option("--source", listen.source,
                            "PulseAudio source (default: the monitor of the default sink)");
  listenCommand->add_option("--count", listen.count, "stop after this many transmissions")
      ->check(CLI::NonNegativeNumber);
  listenCommand->add_option("--seconds", listen.seconds, "stop after this many seconds")
      ->check(CLI::NonNegativeNumber);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (!execute) return e.get_exit_code() == 0 ? EXIT_SUCCESS : kUsage;
    const int code = app.exit(e);
    return code == 0 ? EXIT_SUCCESS : kUsage;
  }
  if (!execute) return EXIT_SUCCESS;

  try {
    if (*status) return tool::runStatus(globals);
    if (*outputs) return tool::runOutputs(globals);
    if (*flash) return tool::runLed(globals, flashLed, false);
    if (*puff) return tool::runLed(globals, puffLed, true);
    if (*tank) return tool::runTank(globals);
    if (*echo) return tool::runEcho(globals, static_cast<std::uint32_t>(echoNumber));
    if (*renderCommand) return tool::runRender(globals, render);
    if (*decode) return tool::runDecode(globals, decodePath);
    if (*listenCommand) return tool::runListen(globals, listen);
  } catch (const tool::UsageError& e) {
    std::cerr << "nimbara: " << e.what() << " (see --help)\n";
    return kUsage;
  } catch (const std::exception& e) {
    std::cerr << "nimbara: " << e.what() << "\n";
    return EXIT_FAILURE;
  }
  return EXIT_FAILURE;
}

}  // namespace tool
