#include "entity_requests.h"

#include <cmath>
#include <cstdlib>

#include "../commands.h"
#include "topics.h"

namespace tool::serve {
namespace {

// Home Assistant's flash and transition, in seconds, as the LED's time.
int lightMilliseconds(const Json& request, int fallback) {
  double seconds = -1;
  if (const auto flash = request.find("flash"); flash != request.end()) {
    if (flash->is_number())
      seconds = flash->get<double>();
    else if (*flash == "short")
      seconds = kFlashShortSeconds;
    else if (*flash == "long")
      seconds = kFlashLongSeconds;
    else
      throw UsageError("flash must be a number of seconds, short or long");
  } else if (const auto transition = request.find("transition"); transition != request.end()) {
    if (!transition->is_number()) throw UsageError("transition must be a number of seconds");
    seconds = transition->get<double>();
  }
  if (seconds < 0) return fallback;
  const double ms = std::round(seconds * 1000);
  if (!(ms >= 1 && ms <= 32767)) throw UsageError("a flash lasts from 0.001 to 32.767 seconds");
  return static_cast<int>(ms);
}

int colourPart(const Json& colour, const char* name) {
  const auto it = colour.find(name);
  if (it == colour.end() || !it->is_number_integer() || *it < 0 || *it > 255) {
    throw UsageError(std::string("color.") + name + " must be 0 to 255");
  }
  return it->get<int>();
}

Json lightState(const char* state, int red, int green, int blue) {
  return Json{
      {"state", state}, {"color_mode", "rgb"}, {"color", {{"r", red}, {"g", green}, {"b", blue}}}};
}

EntityRequest lightRequest(const std::string& payload, EntitySettings settings) {
  const Json request = jsonObjectOf(payload, "the light's message");
  EntityRequest result;
  if (request.value("state", "ON") == "OFF") {
    result.lightState = Json{{"state", "OFF"}};
    return result;
  }
  if (const auto colour = request.find("color"); colour != request.end()) {
    settings.red = colourPart(*colour, "r");
    settings.green = colourPart(*colour, "g");
    settings.blue = colourPart(*colour, "b");
    result.settings = settings;
  }
  const int time = lightMilliseconds(request, settings.lengthMs);
  result.lightState = lightState("ON", settings.red, settings.green, settings.blue);
  result.command =
      nimbara::makeCommand("flash", {settings.red, settings.green, settings.blue, 0, time});
  result.fromLight = true;
  return result;
}

}  // namespace

EntityRequest entityRequest(const std::string& leaf, const std::string& payload,
                            const EntitySettings& now) {
  EntityRequest result;
  if (leaf == "length/set") {
    char* end = nullptr;
    const double value = std::strtod(payload.c_str(), &end);
    if (payload.empty() || *end != '\0' || !(value >= 100 && value <= 1000)) {
      throw UsageError("the length must be 100 to 1000 ms, not \"" + payload + "\"");
    }
    result.settings = now;
    result.settings->lengthMs = static_cast<int>(std::lround(value));
    result.lengthChanged = true;
  } else if (leaf == "puff/press") {
    result.command = nimbara::makeCommand("puff", {now.red, now.green, now.blue, 0, now.lengthMs});
  } else if (leaf == "spray/press") {
    result.command = nimbara::makeCommand("spray", {now.lengthMs});
  } else if (leaf == "light/set") {
    return lightRequest(payload, now);
  }
  return result;
}

Json lightStateAfter(const nimbara::Command& flash) {
  return lightState("OFF", flash.red, flash.green, flash.blue);
}

}  // namespace tool::serve
