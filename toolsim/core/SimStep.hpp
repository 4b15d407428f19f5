// How a simulated CPU executes: an executor runs the CPU and reports every
// step (instructions, exception entries and returns) to a sink; the trace
// recorders are such sinks. An executor belongs to one CPU and keeps its
// place between runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace OstrandSim {

struct CpuSpec;

enum class SimStepKind : uint8_t { kInstruction, kExceptionEntry, kExceptionReturn };

struct SimStep {
  SimStepKind kind = SimStepKind::kInstruction;
  uint8_t size = 0;        // instruction: 2 or 4
  uint32_t address = 0;    // instruction address
  uint32_t value = 0;      // instruction: opcode; exception: its number
  uint64_t instructions = 0;  // instructions completed before this step
  uint64_t timeNs = 0;        // virtual time of the step
};

class StepSink {
 public:
  virtual ~StepSink() = default;
  virtual void onStep(const SimStep& step) = 0;
};

struct RunOutcome {
  uint64_t instructions = 0;  // executed in this run
  uint64_t timeNs = 0;        // virtual time at the end (since the CPU's reset)
  bool programEnded = false;
  std::string error;          // why the CPU could not run, empty otherwise
};

class CpuExecutor {
 public:
  virtual ~CpuExecutor() = default;
  // Runs until `halt` becomes true, `limit` more instructions have executed
  // (0: no limit) or the program ends. Called on one run thread at a time.
  virtual RunOutcome run(uint64_t limit, const std::atomic<bool>& halt, StepSink& sink) = 0;
  // Instructions executed and virtual time since reset.
  virtual uint64_t instructions() const = 0;
  virtual uint64_t timeNs() const = 0;
};

// The executor of a CPU of the scenario.
std::unique_ptr<CpuExecutor> makeExecutor(const CpuSpec& cpu);

}  // namespace OstrandSim
