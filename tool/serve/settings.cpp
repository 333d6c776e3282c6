#include "settings.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "../commands.h"
#include "../words.h"
#include "command_input.h"

namespace tool::serve {
namespace {

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

BrokerAddress parseBrokerUrl(const std::string& url) {
  BrokerAddress address;
  std::string rest;
  if (url.starts_with("mqtt://")) {
    rest = url.substr(7);
  } else if (url.starts_with("mqtts://")) {
    address.tls = true;
    address.port = 8883;
    rest = url.substr(8);
  } else {
    throw UsageError(
        "the broker must be mqtt://[USER[:PASSWORD]@]HOST[:PORT] or mqtts://..., not \"" + url +
        "\"");
  }
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  if (const auto at = rest.rfind('@'); at != std::string::npos) {
    const std::string credentials = rest.substr(0, at);
    rest = rest.substr(at + 1);
    const auto colon = credentials.find(':');
    address.user = credentials.substr(0, colon);
    if (colon != std::string::npos) address.password = credentials.substr(colon + 1);
    if (address.user.empty()) throw UsageError("the broker URL has a password but no user");
  }
  if (const auto colon = rest.rfind(':'); colon != std::string::npos && rest.back() != ']') {
    address.port =
        static_cast<int>(decimalNumber("the broker's port", rest.substr(colon + 1), 1, 65535));
    rest = rest.substr(0, colon);
  }
  if (rest.size() > 2 && rest.front() == '[' && rest.back() == ']')
    rest = rest.substr(1, rest.size() - 2);
  if (rest.empty() || rest.find_first_of("/?#") != std::string::npos) {
    throw UsageError("the broker URL \"" + url + "\" has no host name");
  }
  address.host = rest;
  return address;
}

std::string defaultConfigPath() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && *xdg != '\0') {
    return std::string(xdg) + "/nimbara/serve.conf";
  }
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr ? home : "") + "/.config/nimbara/serve.conf";
}

std::size_t queueLength(const std::string& text) {
  return static_cast<std::size_t>(decimalNumber("queue", text, 1, 100000));
}

void readConfigFile(const std::string& path, bool mustExist, Settings& settings) {
  std::ifstream file(path);
  if (!file) {
    if (mustExist) throw UsageError("cannot read the config file " + path);
    return;
  }
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    const std::string where = path + ":" + std::to_string(number) + ": ";
    line = trimmed(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    const auto equals = line.find('=');
    if (equals == std::string::npos) throw UsageError(where + "expected key = value");
    const std::string key = trimmed(line.substr(0, equals));
    const std::string value = trimmed(line.substr(equals + 1));
    try {
      if (key == "mqtt") {
        parseBrokerUrl(value);
        settings.mqtt = value;
      } else if (key == "ca-file") {
        settings.caFile = value;
      } else if (key == "name") {
        settings.name = value;
      } else if (key == "discovery-prefix") {
        settings.discoveryPrefix = value;
      } else if (key == "device") {
        settings.devices.push_back(value);
      } else if (key == "route") {
        settings.route = value;
      } else if (key == "queue") {
        settings.queue = queueLength(value);
      } else if (key == "password") {
        settings.password = value;
        struct stat info {};
        if (stat(path.c_str(), &info) == 0 && (info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
          serviceLog("warning: " + path + " holds a password and others may read it (chmod 600)");
        }
      } else {
        throw UsageError("unknown key \"" + key + "\"");
      }
    } catch (const UsageError& e) {
      throw UsageError(where + e.what());
    }
  }
}

}  // namespace tool::serve
