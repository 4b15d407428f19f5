// CapstoneDisasmManager: the host's disassembly manager on Capstone.
//
// Its disassemblers decode Arm code of the ELF files in an ElfSymbolPackage
// (the symbol handle of that package): Thumb, Thumb-2 and M-class for
// M-profile cores, Arm and Thumb by mapping symbol for A and R profiles.
// Bytes come from the file by address; the byte order comes from the target
// environment's answer to a "REG_ENDIAN" query. Literal pools ($d) come out
// as ".word"/".short" lines.
//
// Line text: "AAAAAAAA OPCODE    mnemonic operands", the address and the
// opcode in upper-case hexadecimal (a 32-bit Thumb opcode as its two
// halfwords, first one first). Label: "function+0xOFFSET", or "" outside
// any function.
//
// Ownership: the manager owns every disassembler it made until
// destroyDisassembler. Threads: the manager is thread-safe; a disassembler
// serves one caller at a time.
#pragma once

#include <mutex>
#include <unordered_set>

#include "disasm_lite/DisassemblyManager.hpp"

namespace hostkit {

class CapstoneDisassembler;

class CapstoneDisasmManager final : public disasm_lite::IDisassemblyManager {
 public:
  CapstoneDisasmManager();
  ~CapstoneDisasmManager();

  uint32_t getVersion() override { return kVersion; }
  // Null unless the processor is of the Arm family (470) and the handle is
  // a package of ElfSymbolManager with a file loaded.
  disasm_lite::IDisassembler* createDisassembler(disasm_lite::ITargetEnvironment* environment,
                                                 void* symbolHandle) override;
  void destroyDisassembler(disasm_lite::IDisassembler* disassembler) override;

 private:
  std::mutex mutex_;  // guards disassemblers_
  std::unordered_set<CapstoneDisassembler*> disassemblers_;
};

}  // namespace hostkit
