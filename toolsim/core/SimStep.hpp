// How a simulated CPU executes: an executor runs the CPU's program and
// hands every step (instructions, exception entries and returns, sleep and
// wake, device register writes; see ExecStep.hpp) to a consumer; the trace
// recorders and the power probe are such consumers. An executor belongs to
// one CPU and keeps its place between runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "ExecStep.hpp"

namespace OstrandSim {

struct CpuSpec;

struct RunOutcome {
  uint64_t instructions = 0;  // executed in this run
  uint64_t timeNs = 0;        // virtual time at the end (since the CPU's reset)
  bool programEnded = false;
  std::string error;          // why the CPU could not run, empty otherwise
};

class CpuExecutor {
 public:
  virtual ~CpuExecutor() = default;
  // Whether a run can start at all (the emulator is there); false with the
  // reason for the user in `error`. Called before a run's events go out.
  virtual bool ready(std::string& error) const = 0;
  // Runs until `halt` becomes true, `limit` more instructions have executed
  // (0: no limit) or the program ends. Called on one run thread at a time.
  virtual RunOutcome run(uint64_t limit, const std::atomic<bool>& halt, StepConsumer& consumer) = 0;
  // Ends the emulation for good (no run is under way); the counts stay.
  virtual void stop() = 0;
  // Instructions executed and virtual time since reset.
  virtual uint64_t instructions() const = 0;
  virtual uint64_t timeNs() const = 0;
};

// The executor of a CPU of the scenario: its program under qemu-system-arm.
std::unique_ptr<CpuExecutor> makeExecutor(const CpuSpec& cpu);

}  // namespace OstrandSim
