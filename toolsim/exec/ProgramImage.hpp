// ProgramImage: the memory image of an ARM ELF program, as the core fetches
// it: the bytes of every loadable segment at its load address, the
// executable ranges, and the symbol table (name to address).
//
// Immutable after construction, so any thread may read it. The constructor
// throws std::runtime_error naming the file and the reason when the file
// cannot be read or is no 32-bit little-endian ARM ELF.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace OstrandSim {

class ProgramImage {
 public:
  struct Segment {
    uint32_t address = 0;
    bool executable = false;
    std::vector<uint8_t> bytes;
  };

  explicit ProgramImage(const std::string& elfPath);

  const std::string& path() const { return path_; }
  uint32_t entry() const { return entry_; }
  const std::vector<Segment>& segments() const { return segments_; }

  // Bytes at `address`; false when any byte lies outside the image.
  bool read(uint32_t address, void* out, uint32_t size) const;
  // The Thumb instruction at `address`: its size (2 or 4) and opcode (a
  // 32-bit one as first halfword << 16 | second). Size 0 outside the image.
  uint32_t opcodeAt(uint32_t address, uint8_t& size) const;
  bool isCode(uint32_t address) const;
  // Address of a symbol (Thumb bit cleared for functions).
  std::optional<uint32_t> symbol(const std::string& name) const;
  // The function whose code holds `address` (the nearest function symbol
  // at or below it), "" outside the code.
  std::string functionAt(uint32_t address) const;
  // Lowest and one past the highest executable address.
  uint32_t codeStart() const { return codeStart_; }
  uint32_t codeEnd() const { return codeEnd_; }

 private:
  const Segment* segmentOf(uint32_t address, uint32_t size) const;

  std::string path_;
  uint32_t entry_ = 0;
  uint32_t codeStart_ = 0xFFFFFFFFu;
  uint32_t codeEnd_ = 0;
  std::vector<Segment> segments_;
  std::unordered_map<std::string, uint32_t> symbols_;
  std::map<uint32_t, std::string> functions_;  // start address to name
};

// True for the first halfword of a 32-bit Thumb instruction.
inline bool isWideThumb(uint16_t first) { return (first & 0xF800u) >= 0xE800u; }

}  // namespace OstrandSim
