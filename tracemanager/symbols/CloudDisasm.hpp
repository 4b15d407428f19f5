// CloudDisasm: one disassembler of the host's disassembly manager (HostApis),
// tied to the package of one ObjectFileInfo and to the target environment of
// one processor.
//
// Ownership: held by std::shared_ptr beside its ObjectFileInfo, which it does
// not keep alive: the owner drops both together. The disassembler is
// destroyed before the environment it reads.
// Threads: one thread at a time; no lock.
// Errors: "Mismatch API version" and "Failed to create the disassembler
// interface" as std::runtime_error from the constructor.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "disasm_lite/DisassemblyManager.hpp"
#include "symbols/ObjectFileInfo.hpp"
#include "symbols/TargetEnvironment.hpp"

namespace disasm_lite {

struct DisassemblySourceLine {
  int32_t size = 0;  // above 0 for a valid line
  uint64_t address = 0;
  std::string label;
  std::string text;
};

// A disassembler, or none: without one both operations answer with nothing.
class Disassembler {
 public:
  Disassembler() = default;
  explicit Disassembler(std::shared_ptr<IDisassembler> disassembler)
      : disassembler_(std::move(disassembler)) {}

  // Every line from `from` through the instruction at `to`, as delivered.
  std::vector<DisassemblySourceLine> Disassemble(const Debugger::Address& from,
                                                 const Debugger::Address& to) const;
  // The line at `address`, or the zero record when it cannot be decoded.
  DisassemblySourceLine DisassembleOne(const Debugger::Address& address) const;

  bool valid() const { return disassembler_ != nullptr; }

 private:
  std::shared_ptr<IDisassembler> disassembler_;
};

}  // namespace disasm_lite

class CloudDisasm {
 public:
  // The caller has checked that a disassembly manager is set and that
  // `objectInfo` is not empty.
  CloudDisasm(std::shared_ptr<ObjectFileInfo>& objectInfo, uint32_t processorId);
  CloudDisasm(const CloudDisasm&) = delete;
  CloudDisasm& operator=(const CloudDisasm&) = delete;

  const disasm_lite::Disassembler& disassembler() const { return disassembler_; }
  const disasm_lite::TargetEnvironment& environment() const { return *environment_; }

  disasm_lite::DisassemblySourceLine DisassembleOne(const Debugger::Address& address) const {
    return disassembler_.DisassembleOne(address);
  }
  std::vector<disasm_lite::DisassemblySourceLine> Disassemble(const Debugger::Address& from,
                                                              const Debugger::Address& to) const {
    return disassembler_.Disassemble(from, to);
  }

 private:
  // Declared before the disassembler so that it is destroyed after it.
  std::unique_ptr<disasm_lite::TargetEnvironment> environment_;
  disasm_lite::Disassembler disassembler_;
};
