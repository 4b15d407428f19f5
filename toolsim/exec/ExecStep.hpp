// ExecStep: one event of a CPU's execution as the simulation sees it, and
// the consumer interface every trace model implements.
//
// A run produces, in execution order: an instruction step for every
// instruction that completed; an exception entry when the core takes an
// exception (before the handler's first instruction); an exception return
// when it leaves one (before the first instruction resumed); a sleep and a
// wake around the time a WFI/WFE instruction waits; and a bus write for
// every write to a device register (peripherals, SysTick, NVIC).
//
// `instructions` counts the instructions completed before the step; for an
// instruction step its own index. `timeNs` is virtual time: instructions at
// the CPU clock plus the time slept so far.
#pragma once

#include <cstdint>
#include <vector>

namespace OstrandSim {

enum class StepKind : uint8_t {
  kInstruction,      // address, opcode (value), size 2 or 4
  kExceptionEntry,   // value: exception number (15 SysTick, 16+ IRQ, 3 HardFault)
  kExceptionReturn,  // value: number of the exception left
  kSleep,            // address: the WFI/WFE instruction; timeNs: when it started waiting
  kWake,             // timeNs: when the wait ended
  kBusWrite,         // address: bus address, value: the value written
};

struct ExecStep {
  StepKind kind = StepKind::kInstruction;
  uint8_t size = 0;
  uint32_t address = 0;
  uint32_t value = 0;
  uint64_t instructions = 0;
  uint64_t timeNs = 0;
};

// Receives the steps of a run in order. Called on the runner's thread only;
// must not call back into the runner except halt().
class StepConsumer {
 public:
  virtual ~StepConsumer() = default;
  virtual void onStep(const ExecStep& step) = 0;
  // The run is over for now (halted, limit reached or program ended); the
  // consumer may flush. Further steps may follow with the next run.
  virtual void onPause() {}
};

// Hands each step to several consumers in the order they were added (the
// trace models of one CPU: MTB or ETM, power). Consumers are borrowed.
class StepFanout : public StepConsumer {
 public:
  void add(StepConsumer& consumer) { consumers_.push_back(&consumer); }
  void onStep(const ExecStep& step) override {
    for (StepConsumer* c : consumers_) c->onStep(step);
  }
  void onPause() override {
    for (StepConsumer* c : consumers_) c->onPause();
  }

 private:
  std::vector<StepConsumer*> consumers_;
};

}  // namespace OstrandSim
