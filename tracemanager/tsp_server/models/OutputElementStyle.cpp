#include "tsp_server/models/OutputElementStyle.hpp"

#include <array>
#include <stdexcept>

namespace VSKTspServer {

bool isNumericStyleKey(std::string_view key) {
  static constexpr std::array<std::string_view, 4> kNumericKeys = {"height", "opacity",
                                                                    "border-radius", "-factor"};
  for (auto k : kNumericKeys) {
    if (k == key) return true;
  }
  return false;
}

double styleNumber(const std::string& text) {
  // The texts of the exceptions are part of what a client sees in the
  // EXCEPTION_WHAT header, so they are fixed here rather than left to the
  // standard library's wording.
  try {
    return static_cast<double>(std::stof(text));
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument("invalid stof argument");
  } catch (const std::out_of_range&) {
    throw std::out_of_range("stof argument out of range");
  }
}

void to_json(nlohmann::json& j, const OutputElementStyle& style) {
  nlohmann::json values = nlohmann::json::object();
  for (const auto& [key, value] : style.values) {
    if (isNumericStyleKey(key)) {
      values[key] = styleNumber(value);
    } else {
      values[key] = value;
    }
  }
  j = nlohmann::json{{"parentKey", style.parentKey}, {"values", std::move(values)}};
}

void from_json(const nlohmann::json& j, OutputElementStyle& style) {
  style.parentKey = j.at("parentKey").get<std::string>();
  style.values.clear();
  for (const auto& [key, value] : j.at("values").items()) {
    if (isNumericStyleKey(key) && value.is_number()) {
      style.values[key] = value.dump();
    } else {
      style.values[key] = value.get<std::string>();
    }
  }
}

}  // namespace VSKTspServer
