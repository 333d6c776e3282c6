// The serve subcommand's options, over the config file, and the service's
// start: signals blocked before any thread exists, so that only sigwait sees
// them.
#include "serve.h"

#include <nimbara/log.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "../commands.h"
#include "command_input.h"
#include "output_choice.h"
#include "service.h"
#include "settings.h"

namespace tool {

int runServe(int argc, const char* const* argv, bool execute) {
  CLI::App app{"nimbara serve: every accessory in Home Assistant, and on plain topics, over MQTT",
               "nimbara serve"};
  app.footer("Settings come from --config FILE, else " + serve::defaultConfigPath() +
             " when it exists, as \"key = value\" lines with the long options' names (device may "
             "repeat) and password; the options override them. The broker's password is read from "
             "NIMBARA_MQTT_PASSWORD, else the file.");
  std::optional<std::string> config, mqtt, caFile, name, prefix, route, queue;
  std::vector<std::string> devices;
  int verbose = 0;
  app.add_option("--config", config, "the config file");
  app.add_option("--mqtt", mqtt,
                 "the broker: mqtt://[USER@]HOST[:PORT] or mqtts://... (default mqtt://localhost)");
  app.add_option("--ca-file", caFile, "CA certificates for mqtts (default: the system's)");
  app.add_option("--name", name, "the service's id in topics (default: the host name)");
  app.add_option("--discovery-prefix", prefix,
                 "Home Assistant's discovery prefix (default homeassistant)");
  app.add_option("--device", devices,
                 "an output to serve, repeatable: " + nimbara::platform::backendNames() +
                     " (default: every output with headphones)");
  app.add_option("--route", route, "the route name of virtual and WAV outputs");
  app.add_option("--queue", queue, "commands that may wait per accessory (default 1024)");
  app.add_flag("-v,--verbose", verbose, "the library's log lines too");

  const auto fail = [&](const std::string& message, int code) {
    if (execute)
      std::cerr << "nimbara: " << message << (code == kUsage ? " (see nimbara serve --help)" : "")
                << "\n";
    return code;
  };
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return execute ? app.exit(e) : 0;
  } catch (const CLI::ParseError& e) {
    return fail(e.what(), kUsage);
  }
  if (!execute) return EXIT_SUCCESS;

  // Before any thread starts (a sound server's connection has its own).
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  serve::Settings settings;
  serve::BrokerAddress broker;
  std::vector<serve::ServedOutput> outputs;
  try {
    serve::readConfigFile(config.value_or(serve::defaultConfigPath()), config.has_value(),
                          settings);
    const std::optional<std::string> filePassword = settings.password;
    if (mqtt) settings.mqtt = *mqtt;
    if (caFile) settings.caFile = *caFile;
    if (name) settings.name = *name;
    if (prefix) settings.discoveryPrefix = *prefix;
    if (route) settings.route = *route;
    if (queue) settings.queue = serve::queueLength(*queue);
    if (!devices.empty()) settings.devices = devices;
    if (settings.name.empty()) {
      char host[256] = {};
      gethostname(host, sizeof host - 1);
      settings.name = host;
    }
    if (settings.discoveryPrefix.empty()) throw UsageError("the discovery prefix is empty");
    broker = serve::parseBrokerUrl(settings.mqtt);
    const bool passwordOnCommandLine = mqtt && broker.password;
    if (passwordOnCommandLine) {
      serve::serviceLog(
          "warning: a password on the command line is visible to every user; put it in the "
          "config file or NIMBARA_MQTT_PASSWORD");
    } else if (const char* environment = std::getenv("NIMBARA_MQTT_PASSWORD")) {
      broker.password = environment;
    } else if (!broker.password && filePassword) {
      broker.password = filePassword;
    }
    if (broker.password && broker.user.empty()) {
      throw UsageError("a broker password needs a user: mqtt://USER@HOST");
    }
    if (verbose == 0) nimbara::setLogSink({});
    outputs = serve::chooseOutputs(settings.devices, settings.route);
  } catch (const UsageError& e) {
    return fail(e.what(), kUsage);
  } catch (const std::exception& e) {
    return fail(e.what(), EXIT_FAILURE);
  }

  int status = EXIT_FAILURE;
  {
    serve::Service service(settings, broker, std::move(outputs));
    status = service.run(signals);
  }
  nimbara::flushLog();
  return status;
}

}  // namespace tool
