// render and decode: the signal as a WAV file, and back.
#include <nimbara/nimbara.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <memory>

#include "commands.h"
#include "report.h"

namespace tool {
namespace {

long parseNumber(const std::string& name, const std::string& text, long min, long max) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0) {
    throw UsageError(name + " must be a number, not \"" + text + "\"");
  }
  if (value < min || value > max) {
    throw UsageError(name + " must be from " + std::to_string(min) + " to " + std::to_string(max) +
                     ", not " + text);
  }
  return value;
}

struct Operation {
  std::vector<std::string> arguments;
  std::function<void(const std::vector<long>&)> run;
};

std::uint8_t byte(long value) {
  return static_cast<std::uint8_t>(value);
}
std::int16_t time(long value) {
  return static_cast<std::int16_t>(value);
}

const std::vector<std::string> kLedArguments = {"red", "green", "blue", "special", "time"};

const std::map<std::string, Operation>& operations() {
  static const std::map<std::string, Operation> table = {
      {"doAquireDeviceState", {{}, [](const auto&) { doAquireDeviceState(); }}},
      {"doGetTankId",
       {{},
        [](const auto&) {
          auto tank = std::make_shared<nimbara::TankId>();
          doGetTankId(tank);
        }}},
      {"doEcho",
       {{"number"}, [](const auto& a) { doEcho(static_cast<std::uint32_t>(a[0]), nullptr); }}},
      {"doLightLed",
       {kLedArguments,
        [](const auto& a) {
          doLightLed(byte(a[0]), byte(a[1]), byte(a[2]), byte(a[3]), time(a[4]));
        }}},
      {"doSprayWithLightLed",
       {kLedArguments,
        [](const auto& a) {
          doSprayWithLightLed(byte(a[0]), byte(a[1]), byte(a[2]), byte(a[3]), time(a[4]));
        }}},
      {"doSprayWithLightLedGetTankId",
       {kLedArguments,
        [](const auto& a) {
          auto tank = std::make_shared<nimbara::TankId>();
          doSprayWithLightLedGetTankId(byte(a[0]), byte(a[1]), byte(a[2]), byte(a[3]), time(a[4]),
                                       tank);
        }}},
  };
  return table;
}

std::vector<long> parseArguments(const std::string& operation, const Operation& op,
                                 const std::vector<std::string>& texts) {
  if (texts.size() != op.arguments.size()) {
    throw UsageError(operation + " takes " + std::to_string(op.arguments.size()) +
                     " arguments, not " + std::to_string(texts.size()));
  }
  std::vector<long> values;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const std::string& name = op.arguments[i];
    if (name == "number") {
      values.push_back(parseNumber(name, texts[i], 0, 4294967295L));
    } else if (name == "time") {
      values.push_back(parseNumber(name, texts[i], -32768, 32767));
    } else {
      values.push_back(parseNumber(name, texts[i], 0, 255));
    }
  }
  return values;
}

// A regular file is written beside the target and renamed into place, so no
// partial file is ever seen; a device or a pipe is written in place.
void writeWav(const std::string& out, const std::vector<std::int16_t>& samples) {
  struct stat status {};
  const bool special = ::stat(out.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
  const std::string target = special ? out : out + ".partial";
  errno = 0;
  if (nimbara::platform::writeWavFile(target, samples.data(), samples.size() / 2) == 0 &&
      (special || std::rename(target.c_str(), out.c_str()) == 0)) {
    return;
  }
  const std::string why = errno != 0 ? std::strerror(errno) : "write error";
  if (!special) std::remove(target.c_str());
  throw std::runtime_error("cannot write " + out + ": " + why);
}

}  // namespace

int runRender(const Globals& globals, const RenderRequest& request) {
  const auto found = operations().find(request.operation);
  if (found == operations().end()) {
    throw UsageError("unknown operation \"" + request.operation + "\"");
  }
  const std::vector<long> values =
      parseArguments(request.operation, found->second, request.arguments);
  if (!globals.verbose) nimbara::setLogSink({});
  nimbara::platform::VirtualDevice::Options options;
  options.timeScale = 0;
  auto device = std::make_shared<nimbara::platform::VirtualDevice>(options);
  nimbara::platform::setBackend(device);
  found->second.run(values);
  nimbara::platform::waitUntilIdle();
  const auto samples = device->enqueuedSamples();

  writeWav(request.out, samples);
  if (globals.json) {
    std::printf("{\"operation\": %s, \"out\": %s, \"frames\": %zu}\n",
                jsonString(request.operation).c_str(), jsonString(request.out).c_str(),
                samples.size() / 2);
  } else {
    std::printf("%s: %zu frames at 44100 Hz into %s\n", request.operation.c_str(),
                samples.size() / 2, request.out.c_str());
  }
  return 0;
}

int runDecode(const Globals& globals, const std::string& path) {
  nimbara::WavAudio audio;
  std::string error;
  if (!nimbara::readWavFile(path, &audio, &error)) throw std::runtime_error(error);
  const auto transmissions = nimbara::decodeAudio(audio);
  for (const auto& t : transmissions) std::cout << describeTransmission(t, globals.json) << "\n";
  if (transmissions.empty() && !globals.json) std::cerr << "nimbara: no transmission found\n";
  return 0;
}

}  // namespace tool
