#include "json_interface/JsonArgs.hpp"

#include <stdexcept>

#include "json_interface/JsonText.hpp"

namespace JSONInterface {

const Json::Value& argument(const Json::Value& message, unsigned int index) {
  static const Json::Value null;
  if (!message.isObject()) return null;
  const Json::Value& data = message["data"];
  if (!data.isArray() || index >= data.size()) return null;
  return data[index];
}

void throwCannotConvert(const Json::Value& value, const char* typeName) {
  throw std::runtime_error("Cannot convert " + compactText(value) + " to " + typeName);
}

// The library's as*() conversions raise their own exceptions for values they
// cannot take; those are replaced by our message with the value in it.
std::string toString(const Json::Value& value) {
  try {
    return value.asString();
  } catch (const std::exception&) {
    throwCannotConvert(value, "string");
  }
}

bool toBool(const Json::Value& value) {
  try {
    return value.asBool();
  } catch (const std::exception&) {
    throwCannotConvert(value, "bool");
  }
}

uint32_t toUInt(const Json::Value& value) {
  try {
    return value.asUInt();
  } catch (const std::exception&) {
    throwCannotConvert(value, "unsigned int");
  }
}

uint64_t toUInt64(const Json::Value& value) {
  try {
    return value.asUInt64();
  } catch (const std::exception&) {
    throwCannotConvert(value, "unsigned long long");
  }
}

std::vector<std::string> toStringList(const Json::Value& value) {
  std::vector<std::string> list;
  if (value.isArray()) {
    for (const auto& element : value) list.push_back(toString(element));
  } else {
    list.push_back(toString(value));
  }
  return list;
}

}  // namespace JSONInterface
