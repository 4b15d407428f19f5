// OutputElementStyle: how a state, series, entry or annotation is drawn.
//
// A parent key and a map of string to string. Four keys ("height", "opacity",
// "border-radius", "-factor") carry numbers: they are written as JSON numbers,
// parsed as 32-bit floats and widened to double, so "0.1" goes out as
// 0.10000000149011612. Every other value is written as a string.
//
// Plain value type; no locks. Writing throws std::invalid_argument
// ("invalid stof argument") or std::out_of_range ("stof argument out of
// range") when a numeric value does not parse.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace VSKTspServer {

struct OutputElementStyle {
  std::string parentKey;
  std::map<std::string, std::string> values;

  bool operator==(const OutputElementStyle&) const = default;
};

// True for the four keys whose values are written as numbers.
bool isNumericStyleKey(std::string_view key);

// The value as the wire carries it: the float the text parses to (the same
// prefix rule as std::stof), widened to double. Throws as described above.
double styleNumber(const std::string& text);

void to_json(nlohmann::json& j, const OutputElementStyle& style);
// Reads a style back from a document: `parentKey` must be a string; under
// the four numeric keys a number is kept as its JSON text; every other value
// must be a string (type error 302 otherwise).
void from_json(const nlohmann::json& j, OutputElementStyle& style);

}  // namespace VSKTspServer
