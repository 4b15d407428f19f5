// Compact JSON text as the wire carries it: one line, no spaces, members in
// ascending key order, no ending line feed.
#pragma once

#include <json/json.h>

#include <string>

namespace JSONInterface {

std::string compactText(const Json::Value& value);

}  // namespace JSONInterface
