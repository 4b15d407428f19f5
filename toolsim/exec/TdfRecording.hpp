// TdfRecording: a run's trace saved as a `.tdf` file and read back, so it
// decodes without a target to the same rows as it did live.
//
// The file is the header the module reads (magic "TDF2", header size,
// format version, component "TraceQX", receiver, CPU name and its seven
// values, program file, header flags, source paths, four empty tables and
// the trace clock), followed by the data section described in
// docs/tdf-data.md: tagged chunks holding the configuration (JSON text, as
// the file decoder's LoadConfiguration reads it) and the raw trace of the
// run (the MTB buffer with POSITION and WRAP, or the ETM byte stream).
//
// Free functions; thread-safe. Failures throw std::runtime_error with the
// path and what is wrong ("not a trace recording", "cut short in ...").
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "EtmEncoder.hpp"
#include "MtbEncoder.hpp"
#include "ProgramImage.hpp"
#include "RowTable.hpp"

namespace OstrandSim {

struct TdfRecording {
  std::string receiverName;               // "MTB" or "ETB"
  std::string cpuName;
  std::array<uint32_t, 7> cpuValues{};    // carried as the channel server gives them
  std::string programFile;
  uint32_t headerFlags = 0;
  std::string sourcePaths;
  double clockHz = 0.0;
  std::string configuration = "{}";       // JSON object
  std::optional<MtbSnapshot> mtb;
  std::optional<EtmSnapshot> etm;
};

inline constexpr uint32_t kTdfFormatVersion = 4;

void writeTdf(const std::string& path, const TdfRecording& recording);
TdfRecording readTdf(const std::string& path);

// The rows of a recording: its MTB buffer (with "Hierarchical Decode" of
// the configuration, default on) or its ETM stream, with `image`.
RowTable decodeRecording(const TdfRecording& recording, const ProgramImage& image);

}  // namespace OstrandSim
