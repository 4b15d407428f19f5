// Reading typed command arguments out of a JSON message.
//
// Each reader accepts what the JSON library's own conversion accepts and
// otherwise raises std::runtime_error "Cannot convert <json> to <type>", with
// the value as compact JSON text. A missing argument reads as null: "" for a
// string, false for a boolean, 0 for a number.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace JSONInterface {

// "data"[index] of a message, null when missing (also when "data" is not an
// array or the message is not an object).
const Json::Value& argument(const Json::Value& message, unsigned int index);

std::string toString(const Json::Value& value);
bool toBool(const Json::Value& value);
uint32_t toUInt(const Json::Value& value);
uint64_t toUInt64(const Json::Value& value);
// An array gives each element as a string; anything else one element.
std::vector<std::string> toStringList(const Json::Value& value);

[[noreturn]] void throwCannotConvert(const Json::Value& value, const char* typeName);

}  // namespace JSONInterface
