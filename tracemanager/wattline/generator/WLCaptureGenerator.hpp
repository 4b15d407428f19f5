// WLCaptureGenerator: writes realistic Wattline capture directories.
//
// A simulated low-power device runs a small firmware loop: it wakes on a
// timer, runs code (the program counter walks through the functions of a
// program), now and then drives a serial port, a converter or a radio
// burst, and sleeps in between. From that one timeline come the current
// (with noise), the voltage (a source resistance makes it sag under load),
// the energy counter (the integral of voltage times current, in 0.1 uJ,
// wrapping at 32 bits) and, for records with state words, the words laid
// out as the chosen state description says.
//
// The stream is written in blocks as it is made, so any duration can be
// generated in constant memory. Not thread-safe; one object per capture.
// Failures: std::runtime_error with the path and the system's reason.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace VSKTspServer {

// Which state description goes with a capture of state words.
enum class WLStateLayout {
  kNone,        // record type 7 without a description
  kV2,          // version 2, default mode table and program counter
  kV2Enums,     // version 2 with its own enumerated modes
  kV4,          // version 4 with placeholders for whole families of states
  kV5,          // version 5 with dotted names
};

// What a state word shows of a device: the processor's mode, the radio's
// state (the version-4 numbers: 0 off, 1 idle, 2 synth, 6 rx-wait, 10 tx,
// 14 rx), the peripherals on (kWL* bits), the interrupt being served (0
// none) and the analog domain.
enum class WLCpuMode { kActive, kSleep, kDeepSleep, kStop };
inline constexpr uint32_t kWLTimer = 1, kWLUart = 2, kWLAdc = 4, kWLSpi = 8;
struct WLDeviceState {
  WLCpuMode cpu = WLCpuMode::kActive;
  uint32_t radio = 0;
  uint32_t peripherals = 0;
  uint32_t irq = 0;
  bool auxOn = false;
};

// Lays a device state and program counter into the two state words as the
// layout's description (stateDescription) reads them.
void encodeStateWords(WLStateLayout layout, const WLDeviceState& state, uint32_t pc,
                      uint32_t words[2]);

// The record writer of `WLData.bin`: records of type 7 (two state words)
// or 8, buffered. The first record written is the stream's lead-in. Throws
// std::runtime_error with the path on a write failure.
class WLStreamWriter {
 public:
  WLStreamWriter(const std::string& path, uint32_t recordType);
  ~WLStreamWriter();
  WLStreamWriter(const WLStreamWriter&) = delete;
  WLStreamWriter& operator=(const WLStreamWriter&) = delete;
  // Time in microseconds (56 bits), current in nA, energy counter in 0.1 uJ.
  void put(uint64_t timeUs, const uint32_t words[2], uint32_t current, uint16_t millivolts,
           uint32_t energy);
  void close();

 private:
  struct File;
  std::unique_ptr<File> file_;
  bool withWords_;
  uint8_t tag_;
};

// Writes `metadata` and `metadataSup.json` of a capture into `directory`.
void writeCaptureCompanions(const std::string& directory, uint32_t recordType,
                            WLStateLayout layout, const std::string& device);

struct WLGeneratorOptions {
  uint32_t recordType = 7;      // 7 (state words) or 8
  WLStateLayout layout = WLStateLayout::kV4;
  double durationSeconds = 10.0;
  uint32_t sampleRate = 10000;  // samples per second
  uint64_t seed = 1;
  bool wrapEnergy = false;  // start the counter so that it wraps once (for tests)
  std::string device = "sim/cortex_m4_0";
};

// Parses "none", "v2", "v2-enums", "v4", "v5"; false for anything else.
bool parseStateLayout(const std::string& text, WLStateLayout& layout);

// The `JState` object for a layout (null for kNone).
nlohmann::json stateDescription(WLStateLayout layout);

struct WLGeneratorResult {
  uint64_t records = 0;  // samples, lead-in excluded
  uint64_t bytes = 0;
  uint32_t energyWraps = 0;
};

// Writes `metadata`, `metadataSup.json` and `WLData.bin` into `directory`
// (made if missing). `progress`, when set, is called now and then with the
// fraction done.
WLGeneratorResult writeCaptureDirectory(const std::string& directory,
                                        const WLGeneratorOptions& options,
                                        const std::function<void(double)>& progress = {});

// Only the stream, to any path.
WLGeneratorResult writeStream(const std::string& path, const WLGeneratorOptions& options,
                              const std::function<void(double)>& progress = {});

}  // namespace VSKTspServer
