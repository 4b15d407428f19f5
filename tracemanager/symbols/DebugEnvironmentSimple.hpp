// DebugEnvironmentSimple: the debug environment that ObjectFileInfo makes a
// symbol package for. Immutable after construction; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "sym_lite/SymbolManager.hpp"

namespace sym_lite {

// The environment a package from a processor is made for: a name and the
// manager's processor class and model.
class DebugEnvironmentSimple : public DebugEnvironment {
 public:
  DebugEnvironmentSimple(std::string name, uint32_t processorClass, uint32_t processorModel)
      : name_(std::move(name)), processorClass_(processorClass), processorModel_(processorModel) {}

  const char* name() const override { return name_.c_str(); }
  uint32_t firstValue() const override { return first_; }
  uint32_t secondValue() const override { return second_; }
  uint64_t* processorSelector(uint64_t* out) const override {
    *out = uint64_t{processorClass_} | (uint64_t{processorModel_} << 32);
    return out;
  }
  void reserved() override {}

  uint32_t processorClass() const { return processorClass_; }
  uint32_t processorModel() const { return processorModel_; }

 private:
  std::string name_;
  uint32_t first_ = 0;
  uint32_t second_ = 0;
  uint32_t processorClass_;
  uint32_t processorModel_;
};

}  // namespace sym_lite
