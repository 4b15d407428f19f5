// The executor that replays a recorded instruction sample of the CPU's
// program (what the program executed under an emulator, kept as text), over
// and over, at the CPU's clock. It stands where live execution will stand,
// with the same steps and virtual time.
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "Scenario.hpp"
#include "SimStep.hpp"

namespace OstrandSim {

namespace {

// Steps per slice between two looks at the clock of the host: small enough
// that a halt is seen within a millisecond, large enough to cost nothing.
constexpr uint64_t kSlice = 4096;

class SampleExecutor final : public CpuExecutor {
 public:
  explicit SampleExecutor(const CpuSpec& cpu)
      : nsPerInstruction_(cpu.clockHz > 0 ? 1e9 / static_cast<double>(cpu.clockHz) : 0) {
    if (cpu.sample.empty()) {
      error_ = "CPU " + cpu.name + " has no recorded sample to run";
      return;
    }
    std::ifstream in(cpu.sample);
    std::string line;
    size_t number = 0;
    while (std::getline(in, line)) {
      ++number;
      if (line.empty() || line[0] == '#') continue;
      std::istringstream fields(line);
      char kind = 0;
      fields >> kind;
      SimStep step;
      if (kind == 'I') {
        unsigned size = 0;
        fields >> std::hex >> step.address >> std::dec >> size >> std::hex >> step.value;
        step.size = static_cast<uint8_t>(size);
      } else if (kind == 'E' || kind == 'R') {
        step.kind = kind == 'E' ? SimStepKind::kExceptionEntry : SimStepKind::kExceptionReturn;
        fields >> step.value;
      }
      if (!fields || (kind == 'I' && step.size != 2 && step.size != 4)) {
        error_ = cpu.sample + ":" + std::to_string(number) + ": not a sample line";
        steps_.clear();
        return;
      }
      steps_.push_back(step);
    }
    if (steps_.empty()) error_ = cpu.sample + ": no instructions";
  }

  RunOutcome run(uint64_t limit, const std::atomic<bool>& halt, StepSink& sink) override {
    RunOutcome end;
    if (!error_.empty()) {
      end.error = error_;
      end.timeNs = timeNs();
      return end;
    }
    auto started = std::chrono::steady_clock::now();
    while (!halt.load(std::memory_order_relaxed) && (limit == 0 || end.instructions < limit)) {
      for (uint64_t i = 0; i < kSlice && (limit == 0 || end.instructions < limit); ++i) {
        SimStep step = steps_[next_];
        next_ = (next_ + 1) % steps_.size();
        uint64_t done = count_.load(std::memory_order_relaxed);
        step.instructions = done;
        step.timeNs = static_cast<uint64_t>(static_cast<double>(done) * nsPerInstruction_);
        sink.onStep(step);
        if (step.kind == SimStepKind::kInstruction) {
          count_.store(done + 1, std::memory_order_relaxed);
          ++end.instructions;
        }
      }
      // Keep to about 4 M instructions per second of host time, so a run
      // without a limit leaves the host room and a halt lands promptly.
      started += std::chrono::milliseconds(1);
      std::this_thread::sleep_until(started);
    }
    end.timeNs = timeNs();
    return end;
  }

  uint64_t instructions() const override { return count_.load(std::memory_order_relaxed); }
  uint64_t timeNs() const override {
    return static_cast<uint64_t>(static_cast<double>(instructions()) * nsPerInstruction_);
  }

 private:
  double nsPerInstruction_;
  std::vector<SimStep> steps_;
  size_t next_ = 0;  // run thread only
  std::atomic<uint64_t> count_{0};
  std::string error_;
};

}  // namespace

std::unique_ptr<CpuExecutor> makeExecutor(const CpuSpec& cpu) {
  return std::make_unique<SampleExecutor>(cpu);
}

}  // namespace OstrandSim
