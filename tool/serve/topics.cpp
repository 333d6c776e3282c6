#include "topics.h"

namespace tool::serve {
namespace {

Json entity(const Topics& topics, const std::string& output, const std::string& key,
            const std::string& name, const Json& device) {
  return Json{{"name", name},
              {"unique_id", "nimbara_" + topics.id + "_" + output + "_" + key},
              {"object_id", "nimbara_" + topics.id + "_" + output + "_" + key},
              {"availability_topic", topics.availability()},
              {"payload_available", "online"},
              {"payload_not_available", "offline"},
              {"device", device}};
}

}  // namespace

std::vector<RetainedMessage> discoveryMessages(const Topics& topics, const std::string& output,
                                               const std::string& version) {
  const std::string node = "nimbara_" + topics.id + "_" + output;
  const Json device{{"identifiers", Json::array({node})},
                    {"name", "nimbara " + output + " on " + topics.id},
                    {"manufacturer", "nimbara"},
                    {"model", "scent accessory on the headphone jack"},
                    {"sw_version", version}};
  const auto config = [&](const std::string& component, const std::string& key) {
    return topics.discoveryPrefix + "/" + component + "/" + node + "/" + key + "/config";
  };
  const std::string state = topics.output(output, "state");

  Json light = entity(topics, output, "led", "LED", device);
  light["schema"] = "json";
  light["command_topic"] = topics.output(output, "light/set");
  light["state_topic"] = topics.output(output, "light/state");
  light["supported_color_modes"] = Json::array({"rgb"});
  light["brightness"] = false;
  light["flash_time_short"] = kFlashShortSeconds;
  light["flash_time_long"] = kFlashLongSeconds;

  Json puff = entity(topics, output, "puff", "Puff", device);
  puff["command_topic"] = topics.output(output, "puff/press");
  puff["payload_press"] = "PRESS";
  puff["icon"] = "mdi:scent";

  Json spray = entity(topics, output, "spray", "Spray", device);
  spray["command_topic"] = topics.output(output, "spray/press");
  spray["payload_press"] = "PRESS";
  spray["icon"] = "mdi:spray";

  Json length = entity(topics, output, "length", "Puff and spray length", device);
  length["command_topic"] = topics.output(output, "length/set");
  length["state_topic"] = topics.output(output, "length");
  length["min"] = 100;
  length["max"] = 1000;
  length["step"] = 50;
  length["unit_of_measurement"] = "ms";
  length["mode"] = "slider";

  Json presence = entity(topics, output, "presence", "Presence", device);
  presence["state_topic"] = state;
  presence["value_template"] = "{{ 'ON' if value_json.present else 'OFF' }}";
  presence["payload_on"] = "ON";
  presence["payload_off"] = "OFF";
  presence["device_class"] = "plug";

  Json route = entity(topics, output, "route", "Route", device);
  route["state_topic"] = state;
  route["value_template"] = "{{ value_json.route }}";
  route["icon"] = "mdi:headphones";

  return {{config("light", "led"), text(light)},
          {config("button", "puff"), text(puff)},
          {config("button", "spray"), text(spray)},
          {config("number", "length"), text(length)},
          {config("binary_sensor", "presence"), text(presence)},
          {config("sensor", "route"), text(route)}};
}

}  // namespace tool::serve
