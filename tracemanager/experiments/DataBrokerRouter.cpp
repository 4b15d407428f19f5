#include "experiments/DataBrokerRouter.hpp"

#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

namespace VSKTspServer {

namespace {

// The file of a file-topic header, or empty when the topic is another one.
// The header is parsed first whatever the topic, so malformed text always
// throws. A missing key reads as null, so it fails like a wrong type: with
// type error 302 "type must be string, but is null".
std::string routedFile(const std::string& topic, const std::string& header) {
  const nlohmann::json h = nlohmann::json::parse(header);
  if (topic != kTopicFile) return {};
  auto field = [&h](const char* key) {
    const nlohmann::json& value = h.is_object() && h.contains(key) ? h.at(key) : nlohmann::json();
    return value.get<std::string>();
  };
  const std::string path = field("path");
  return path + "/" + field("name");
}

}  // namespace

void DataBrokerRouter::writeData(std::string topic, std::string header, const uint8_t* bytes,
                                 size_t length) {
  const std::string file = routedFile(topic, header);
  if (file.empty()) return;
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  if (length > 0) out.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(length));
}

BrokerBytes DataBrokerRouter::readData(std::string topic, std::string header) {
  const std::string file = routedFile(topic, header);
  if (file.empty()) return {};
  std::ifstream in(file, std::ios::binary | std::ios::ate);
  if (!in) return {};
  const std::streamoff end = in.tellg();
  if (end < 0) return {};
  BrokerBytes result;
  result.size = static_cast<size_t>(end);
  result.data = std::make_unique<uint8_t[]>(result.size);
  in.seekg(0);
  in.read(reinterpret_cast<char*>(result.data.get()), static_cast<std::streamsize>(result.size));
  result.size = static_cast<size_t>(in.gcount());
  return result;
}

void DataBrokerRouter::writeText(std::string topic, std::string header, std::string text) {
  const std::string file = routedFile(topic, header);
  if (file.empty()) return;
  std::ofstream out(file, std::ios::trunc);
  out << text;
}

std::string DataBrokerRouter::readText(std::string topic, std::string header) {
  const std::string file = routedFile(topic, header);
  if (file.empty()) return {};
  std::ifstream in(file, std::ios::binary);
  if (!in) return "{}";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace VSKTspServer
