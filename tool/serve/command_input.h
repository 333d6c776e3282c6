// What a message on a command topic asks for: the tool's words
// ("puff orange --time 300") or a JSON field map ({"command": "puff", "red":
// 255, ...}), with the service's own fields "at" (a start time, Unix
// milliseconds) and "id" (echoed in the result). The only place the service
// turns text into commands and commands into fields.
#pragma once

#include <nimbara/api/command.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tool::serve {

using Json = nlohmann::ordered_json;

// The largest payload taken on a command topic.
constexpr std::size_t kMaxPayload = 4096;
// The furthest ahead a start time may be.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24);

struct CommandMessage {
  nimbara::Command command;
  std::optional<std::int64_t> at;  // Unix milliseconds
  Json id;                         // null when not given
};

// The JSON object a message holds, or a UsageError naming it as `what` ("the
// message") and saying what is wrong with it.
Json jsonObjectOf(const std::string& payload, const std::string& what);

// The command, or a UsageError saying what is wrong with the payload.
CommandMessage commandFromMessage(const std::string& payload);

// A command's fields, as the tool prints them with --json.
Json fieldsOf(const nimbara::Command& command);

// JSON as one line of text; bytes that are not UTF-8 become U+FFFD.
std::string text(const Json& json);

// One log line of the service on stderr.
void serviceLog(const std::string& line);

}  // namespace tool::serve
