// Hand-made power streams for the tests: records are laid out byte by byte
// here, independently of the decoder, so a test compares the decoder with
// what the file format says rather than with itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TestSupport.hpp"

namespace wltest {

struct Sample {
  uint64_t time = 0;  // microseconds, 56 bits
  std::vector<uint32_t> words;
  uint32_t current = 0;
  uint16_t voltage = 0;
  uint32_t energy = 0;
};

class StreamBuilder {
 public:
  // `tag` is the first byte of every record: low nibble the type, high
  // nibble the state word count.
  explicit StreamBuilder(uint8_t tag, unsigned wordsPerRecord);
  // The lead-in record (no sample); added by the first add() if missing.
  StreamBuilder& leadIn();
  StreamBuilder& add(const Sample& s);
  StreamBuilder& addWithTag(uint8_t tag, const Sample& s);
  std::vector<uint8_t>& bytes() { return bytes_; }

 private:
  void put(uint64_t value, int width);
  uint8_t tag_;
  unsigned words_;
  bool hasLeadIn_ = false;
  std::vector<uint8_t> bytes_;
};

using TempDir = ostrand_test::TempDir;

// A file of tracemanager/wattline/tests/golden.
inline std::string sourceFile(const std::string& name) {
  return ostrand_test::sourcePath("tracemanager/wattline/tests/golden/" + name);
}

}  // namespace wltest
