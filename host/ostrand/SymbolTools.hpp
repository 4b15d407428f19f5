// What `ostrand lookup` and `ostrand disasm` share: the command line of an
// ELF file and addresses, and a session that puts the host kit's symbol and
// disassembly managers behind the module-wide pointers, so that the answers
// come through the same ObjectFileInfo and CloudDisasm the trace tables use.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/CapstoneDisasmManager.hpp"
#include "kit/ElfSymbolManager.hpp"
#include "symbols/CloudDisasm.hpp"
#include "symbols/ObjectFileInfo.hpp"

namespace ostrand {

// A family-470 (Arm) processor id; the disassembler takes the core's
// profile from the ELF file itself.
inline constexpr uint32_t kDefaultArmProcessorId = 0x75803800;

// Decimal or 0x-hexadecimal, the whole text, at most 64 bits.
std::optional<uint64_t> parseAddress(std::string_view text);

struct SymbolArgs {
  std::string elf;
  bool json = false;
  bool help = false;
  uint32_t processorId = kDefaultArmProcessorId;
  std::vector<std::string> positional;
  std::vector<std::pair<std::string, std::string>> options;  // --name value, in order
  std::string error;  // set when the command line is bad
};

// Reads --elf FILE, --json and --help anywhere, --processor-id N, and the
// options named in `valued` (each with a value); the rest is positional.
SymbolArgs parseSymbolArgs(int argc, char** argv, const std::vector<std::string>& valued);

// Owns the managers, registers them module-wide for its life, and opens one
// ELF file.
class SymbolSession {
 public:
  SymbolSession();
  ~SymbolSession();

  // False with `error` set when the file cannot be used.
  bool open(const std::string& elf, uint32_t processorId, std::string& error);

  ObjectFileInfo& objectInfo() { return *objectInfo_; }
  CloudDisasm* disasm() { return disasm_.get(); }
  bool findSymbol(const std::string& name, uint64_t& address);

 private:
  hostkit::ElfSymbolManager symbols_;
  hostkit::CapstoneDisasmManager disassembly_;
  std::shared_ptr<ObjectFileInfo> objectInfo_;
  std::unique_ptr<CloudDisasm> disasm_;
};

}  // namespace ostrand
