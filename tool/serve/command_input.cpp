// The service's seam to the command vocabulary: a message's words or field map
// become a command, with the service's own fields taken off first.
#include "command_input.h"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <vector>

#include <nimbara/api/vocabulary.h>

#include <stdexcept>

#include "../commands.h"

namespace tool::serve {
namespace {

// The vocabulary's own readers; their one-line messages are the tool's.
template <typename Read>
nimbara::Command readCommand(Read read) {
  try {
    return read();
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

}  // namespace

Json jsonObjectOf(const std::string& payload, const std::string& what) {
  Json object;
  try {
    object = Json::parse(payload);
  } catch (const Json::parse_error& e) {
    throw UsageError(what + " is not JSON: " + e.what());
  }
  if (!object.is_object()) throw UsageError(what + " is not a JSON object");
  return object;
}

CommandMessage commandFromMessage(const std::string& payload) {
  CommandMessage message;
  const auto first = payload.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) throw UsageError("the message is empty");
  if (payload[first] != '{' && payload[first] != '[') {
    std::istringstream stream(payload);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    message.command = readCommand([&] { return nimbara::commandFromWords(words); });
    return message;
  }
  Json fields = jsonObjectOf(payload, "the message");
  if (const auto at = fields.find("at"); at != fields.end()) {
    if (!at->is_number_integer() || at->get<long long>() < 0) {
      throw UsageError("at must be a time in Unix milliseconds");
    }
    message.at = at->get<std::int64_t>();
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    if (*message.at > now.count() + kLongestWait.count()) {
      throw UsageError("at is more than a day away");
    }
    fields.erase("at");
  }
  if (const auto id = fields.find("id"); id != fields.end()) {
    message.id = *id;
    fields.erase("id");
  }
  message.command = readCommand([&] { return nimbara::commandFromFields(fields.dump()); });
  return message;
}

Json fieldsOf(const nimbara::Command& command) {
  return Json::parse(nimbara::commandFields(command));
}

std::string text(const Json& json) {
  // Words quoted back from a payload need not be UTF-8.
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void serviceLog(const std::string& line) {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  std::fprintf(stderr, "nimbara serve: %s\n", line.c_str());
  std::fflush(stderr);
}

}  // namespace tool::serve
