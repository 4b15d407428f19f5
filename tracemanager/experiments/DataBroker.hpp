// DataBroker: the one road by which the capture side hands data to the trace
// server and the experiments read it back.
//
// Four operations addressed by a topic and a JSON header. This base does
// nothing: writes are dropped, reads give nothing. `DataBrokerRouter` is the
// implementation that routes the file topic to the capture directories.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace VSKTspServer {

// A file in a capture directory; the header is {"path": dir, "name": file}.
inline constexpr const char* kTopicFile = "vsktrace/file";
// Defined for the capture kinds, routed nowhere.
inline constexpr const char* kTopicMtb = "vsktrace/mtb";
inline constexpr const char* kTopicEtb = "vsktrace/etb";
inline constexpr const char* kTopicWl = "vsktrace/wl";

// Bytes read through the broker, owned by the caller. `data` is null when
// nothing could be read; an empty file gives a buffer of size 0.
struct BrokerBytes {
  std::unique_ptr<uint8_t[]> data;
  size_t size = 0;
};

class DataBroker {
 public:
  virtual ~DataBroker() = default;
  virtual void writeData(std::string topic, std::string header, const uint8_t* bytes,
                         size_t length) {}
  virtual BrokerBytes readData(std::string topic, std::string header) { return {}; }
  virtual void writeText(std::string topic, std::string header, std::string text) {}
  virtual std::string readText(std::string topic, std::string header) { return {}; }
};

}  // namespace VSKTspServer
