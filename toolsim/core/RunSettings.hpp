// What the enabled trace operations of a CPU ask of its next run, read from
// the property trees the module gave them: buffer size and type, watermark,
// decode depth, address ranges and start/stop triggers, power settings.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace OstrandSim {

// A property as an operation keeps it: a copy of the tree it was given.
struct PropNode {
  enum class Kind { kString, kBoolean, kNumber, kAddress, kGroup };
  std::string name;
  Kind kind = Kind::kGroup;
  std::string text;
  bool flag = false;
  uint64_t number = 0;  // numbers and addresses
  uint32_t page = 0;
  std::vector<PropNode> children;
};

struct AddressRange {
  uint64_t start = 0;
  uint64_t end = 0;
};

struct TraceSettings {
  std::string receiver;        // "MTB", "ETB"; empty: no trace recorded
  uint32_t bufferBytes = 0;
  bool oneShot = false;
  bool traceOn = true;
  uint32_t watermark = 0;      // bytes
  bool stopAtWatermark = false;
  bool hierarchical = true;    // MTB: instruction rows under each run row
  std::vector<AddressRange> ranges;       // ETB: trace only inside these
  std::optional<uint64_t> startAddress;   // ETB: trace from the first hit
  std::optional<uint64_t> stopAddress;    // ETB: trace until the first hit
};

struct PowerSettings {
  bool enabled = false;
  bool statesWanted = false;  // the WLplus setting
  uint64_t durationMs = 0;
  std::string dataDir;
};

// Default buffer of a receiver whose settings name none.
inline constexpr uint32_t kDefaultEtbBufferBytes = 4096;
inline constexpr uint32_t kDefaultMtbBufferBytes = 32;

// Parse what an operation of `receiver` ("MTB", "ETB", "WL") was given; the
// sub-operation form reads "Actions" trees (trace on, range, triggers).
// Throw std::invalid_argument with a sentence for a value the hardware
// cannot take.
void applyMainProperties(const std::string& receiver, const std::vector<PropNode>& props,
                         TraceSettings& trace, PowerSettings& power);
void applySubProperties(const std::vector<PropNode>& props, TraceSettings& trace);

// "32 Bytes", "4 KB", "1 MBytes", "256" -> bytes; nullopt if not a size.
std::optional<uint32_t> parseBufferSize(const std::string& text);

}  // namespace OstrandSim
