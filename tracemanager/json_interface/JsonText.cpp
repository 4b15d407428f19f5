#include "json_interface/JsonText.hpp"

// The fast writer is marked deprecated by the library, but its output is the
// wire format clients compare against; it is used here and nowhere else.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace JSONInterface {

std::string compactText(const Json::Value& value) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(value);
}

}  // namespace JSONInterface

#pragma GCC diagnostic pop
