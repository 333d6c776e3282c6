// The service's settings: the command line over one config file, and the
// broker's address read from its URL.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tool::serve {

struct BrokerAddress {
  bool tls = false;
  std::string host;
  int port = 1883;
  std::string user;
  std::optional<std::string> password;
};

// mqtt://[USER[:PASSWORD]@]HOST[:PORT] or mqtts://...; a UsageError says what
// is wrong. The port defaults to 1883, or 8883 for mqtts.
BrokerAddress parseBrokerUrl(const std::string& url);

struct Settings {
  std::string mqtt = "mqtt://localhost";
  std::string caFile;
  std::string name;  // empty: the host name
  std::string discoveryPrefix = "homeassistant";
  std::vector<std::string> devices;  // empty: every sink with headphones
  std::string route;                 // the route of virtual and WAV outputs
  std::size_t queue = 1024;          // waiting commands per accessory
  std::optional<std::string> password;
  int verbosity = 0;
};

// The config file's place: $XDG_CONFIG_HOME/nimbara/serve.conf, else
// ~/.config/nimbara/serve.conf.
std::string defaultConfigPath();

// Reads "key = value" lines (# starts a comment) into `settings`: the keys
// are the long options' names without dashes, "device" may repeat, and
// "password" is the broker's password. A missing file is an error only when
// `mustExist`; an unknown key or a bad value is a UsageError naming the line.
void readConfigFile(const std::string& path, bool mustExist, Settings& settings);

// A number of waiting commands, 1 to 100000.
std::size_t queueLength(const std::string& text);

}  // namespace tool::serve
