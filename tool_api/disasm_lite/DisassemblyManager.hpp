// The host's disassembly manager and its disassemblers.
//
// A host hands the module one IDisassemblyManager (through
// InitializeDisAsmManagerAPI). A disassembler is made for one target
// environment and one symbol handle (ISymbolPackage::symbolHandle of the same
// host): it reads code bytes through the handle and asks the environment
// what it cannot read from the file, such as the byte order. Virtual tables
// in slot order; the layouts must not change.
//
// Ownership: a disassembler belongs to its manager and is destroyed only by
// destroyDisassembler; the environment and the symbol handle must outlive it.
// Threads: one caller at a time per disassembler.
#pragma once

#include <cstdint>

#include "logging/ILoggerContext.hpp"

namespace Debugger {

struct Address {
  uint64_t value = 0;
};

}  // namespace Debugger

namespace disasm_lite {

// What the disassembler may ask about the target. A query names a register
// (setRegisterQuery), then reads its value (registerValue).
class ITargetEnvironment : public Logging::ILoggerContext {
 public:
  virtual uint32_t processorId() const = 0;
  virtual uint32_t flags() const = 0;
  virtual void setRegisterQuery(const char* name, uint64_t value, uint32_t first,
                                uint32_t second) = 0;
  virtual void setSecondRegisterQuery(const char* name, uint64_t value, uint32_t first,
                                      uint32_t second) = 0;
  virtual uint64_t* registerValue(uint64_t* out) = 0;
  virtual uint64_t* secondRegisterValue(uint64_t* out) = 0;
  virtual void finish() = 0;
};

// One disassembled line. `size` above 0 marks a valid line; the two texts
// are valid only during the call that delivers the record.
struct DisassemblyRecord {
  int32_t size;
  uint64_t address;
  const char* first;   // label: the function and offset, "" when unknown
  const char* second;  // "AAAAAAAA OPCODE    mnemonic operands"
};
static_assert(sizeof(DisassemblyRecord) == 32);

class IDisassembler {
 public:
  class IResultInserter {
   public:
    virtual void insert(const DisassemblyRecord* record) = 0;

   protected:
    ~IResultInserter() = default;
  };

  // Every instruction from `from` through the one that starts at `to`, one
  // inserter call each. An undecodable unit gives a record of size 0 and the
  // walk goes on after it.
  virtual void disassembleRange(const Debugger::Address& from, const Debugger::Address& to,
                                IResultInserter* inserter) = 0;
  virtual void disassembleOne(DisassemblyRecord* out, const Debugger::Address& address) = 0;

 protected:
  ~IDisassembler() = default;
};

class IDisassemblyManager {
 public:
  static constexpr uint32_t kVersion = 2;

  virtual uint32_t getVersion() = 0;
  virtual IDisassembler* createDisassembler(ITargetEnvironment* environment,
                                            void* symbolHandle) = 0;
  virtual void destroyDisassembler(IDisassembler* disassembler) = 0;

 protected:
  ~IDisassemblyManager() = default;
};

}  // namespace disasm_lite
