// The target environments a disassembler asks about the processor: above all
// the byte order, which each processor family keeps in a different register
// at a different bit.
//
// Ownership: made by makeTargetEnvironment, owned by CloudDisasm, and
// outliving the disassembler that reads it. Threads: written by the
// disassembler during a call on the caller's thread; no lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "disasm_lite/DisassemblyManager.hpp"

namespace disasm_lite {

// One register query: the name asked about and three values the asker
// passes along, which nothing here interprets.
struct RegisterQuery {
  std::string name;
  uint64_t value = 0;
  uint32_t first = 0;
  uint32_t second = 0;
};

// Knows no register: every value is 0.
class TargetEnvironment : public ITargetEnvironment {
 public:
  TargetEnvironment(uint32_t processorId, std::string contextName)
      : processorId_(processorId), contextName_(std::move(contextName)) {}

  const char* name() const override { return contextName_.c_str(); }
  uint32_t processorId() const override { return processorId_; }
  uint32_t flags() const override { return flags_; }
  void setRegisterQuery(const char* name, uint64_t value, uint32_t first,
                        uint32_t second) override;
  void setSecondRegisterQuery(const char* name, uint64_t value, uint32_t first,
                              uint32_t second) override;
  uint64_t* registerValue(uint64_t* out) override;
  uint64_t* secondRegisterValue(uint64_t* out) override;
  void finish() override {}

  const RegisterQuery& query() const { return query_; }
  const RegisterQuery& secondQuery() const { return secondQuery_; }

 private:
  uint32_t processorId_;
  std::string contextName_;
  uint32_t flags_ = 0;
  RegisterQuery query_;
  RegisterQuery secondQuery_;
};

// Answers a query for one register, the one that holds the byte order.
class TargetEnvironmentWithEndianness : public TargetEnvironment {
 public:
  TargetEnvironmentWithEndianness(uint32_t processorId, std::string contextName,
                                  std::string endianRegister, uint64_t endianValue)
      : TargetEnvironment(processorId, std::move(contextName)),
        endianRegister_(std::move(endianRegister)),
        endianValue_(endianValue) {}

  uint64_t* registerValue(uint64_t* out) override;

 private:
  std::string endianRegister_;
  uint64_t endianValue_;
};

class TargetEnvironmentCortex : public TargetEnvironmentWithEndianness {
  using TargetEnvironmentWithEndianness::TargetEnvironmentWithEndianness;
};
class TargetEnvironmentDsb : public TargetEnvironmentWithEndianness {
  using TargetEnvironmentWithEndianness::TargetEnvironmentWithEndianness;
};
class TargetEnvironmentDsc : public TargetEnvironmentWithEndianness {
  using TargetEnvironmentWithEndianness::TargetEnvironmentWithEndianness;
};

// Answers "ST1" with a mode bit that is never set.
class TargetEnvironmentDsa : public TargetEnvironment {
 public:
  using TargetEnvironment::TargetEnvironment;
  uint64_t* registerValue(uint64_t* out) override;

 private:
  bool modeBit_ = false;
};

inline constexpr uint32_t processorFamily(uint32_t processorId) { return processorId >> 22; }
inline constexpr uint32_t processorVariant(uint32_t processorId) {
  return (processorId >> 10) & 0xFFFu;
}

// The environment of a processor, with the byte order of its object file.
std::unique_ptr<TargetEnvironment> makeTargetEnvironment(uint32_t processorId, bool bigEndian);

}  // namespace disasm_lite
