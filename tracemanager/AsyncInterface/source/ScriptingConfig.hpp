// The typed trace configuration of scripting.configureTrace, its decoding
// from JSON and its encoding back into the session configuration text.
//
// Decoding raises std::runtime_error with the client-facing texts:
// "No member '<name>\"" for a missing required member, "Cannot convert <json>
// to a map", "Cannot convert <json> to a variant of the allowed types", and
// the argument conversion texts.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace AsyncInterface::Scripting {

using PropertyValue = std::variant<bool, uint64_t, std::string>;

struct Property {
  std::string name;
  std::string type;
  PropertyValue value;
  std::optional<std::vector<Property>> sub_properties;
};

struct PropertyGroup {
  std::string name;
  std::vector<Property> sub_properties;
};

struct TargetConfig {
  bool enable = false;
  std::optional<std::vector<PropertyGroup>> opProp;
};

using TraceConfig = std::map<std::string, TargetConfig>;

TraceConfig decodeTraceConfig(const Json::Value& value);
// {"traceSession":{<kind>:{"enable":..,"opProp":[...]}}}
Json::Value encodeTraceConfig(const TraceConfig& config);

}  // namespace AsyncInterface::Scripting
