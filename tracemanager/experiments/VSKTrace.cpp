#include "experiments/VSKTrace.hpp"

#include <fstream>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "experiments/DataTree.hpp"

namespace VSKTspServer {

std::string makeUuid() {
  // random_generator draws from the system's cryptographic source and sets
  // the version and variant bits; its text form is lower-case with hyphens.
  boost::uuids::random_generator generator;
  return boost::uuids::to_string(generator());
}

VSKTrace::VSKTrace(std::string name_, std::string path_, std::string type_, bool confined_)
    : type(std::move(type_)), confined(confined_) {
  name = std::move(name_);
  path = std::move(path_);
  UUID = makeUuid();
  readMetadata();
}

void VSKTrace::readMetadata() {
  std::ifstream file(captureFilePath(path, "metadata", confined));
  // An unreadable file parses as empty input, which the parser rejects.
  nlohmann::json parsed = nlohmann::json::parse(file);
  metadata = std::move(parsed);
  if (metadata.is_null()) return;
  type = metadata.at("typeId").get<std::string>();
}

std::string dataFileName(const VSKTrace& trace, const std::string& defaultName) {
  if (trace.metadata.is_object()) {
    auto it = trace.metadata.find("dataFile");
    if (it != trace.metadata.end() && it->is_string()) return it->get<std::string>();
  }
  return defaultName;
}

}  // namespace VSKTspServer
