// The executor that runs a CPU's program under QEMU: the runner's steps
// become the simulation's steps, fed to the CPU's trace recorder while QEMU
// runs. The runner (and with it the QEMU process) lives as long as the
// executor, so a CPU goes on from where its last run stopped.
#include "QemuExecutor.hpp"

#include <memory>
#include <stdexcept>

#include "QemuRunner.hpp"
#include "Scenario.hpp"

namespace OstrandSim {

namespace {

class QemuExecutor final : public CpuExecutor, public StepConsumer {
 public:
  explicit QemuExecutor(const CpuSpec& cpu) {
    config_.machine = cpu.machine;
    config_.program = cpu.program;
    config_.coreClockHz = cpu.clockHz;
  }

  RunOutcome run(uint64_t limit, const std::atomic<bool>& halt, StepSink& sink) override {
    RunOutcome outcome;
    uint64_t before = instructions();
    try {
      if (!runner_) {
        runner_ = std::make_unique<QemuRunner>(config_, *this);
        runner_->start();
      }
      sink_ = &sink;
      halt_ = &halt;
      RunEnd end = runner_->run(limit == 0 ? UINT64_MAX : limit);
      outcome.programEnded = end == RunEnd::kEnded;
    } catch (const std::exception& e) {
      outcome.error = e.what();
      runner_.reset();
    }
    sink_ = nullptr;
    halt_ = nullptr;
    outcome.instructions = instructions() - before;
    outcome.timeNs = timeNs();
    return outcome;
  }

  uint64_t instructions() const override { return runner_ ? runner_->instructions() : 0; }
  uint64_t timeNs() const override { return runner_ ? runner_->timeNs() : 0; }

 private:
  // On the runner's reader thread, only while run() is under way.
  void onStep(const ExecStep& step) override {
    if (halt_ != nullptr && halt_->load(std::memory_order_relaxed)) runner_->halt();
    SimStep s;
    switch (step.kind) {
      case StepKind::kInstruction: s.kind = SimStepKind::kInstruction; break;
      case StepKind::kExceptionEntry: s.kind = SimStepKind::kExceptionEntry; break;
      case StepKind::kExceptionReturn: s.kind = SimStepKind::kExceptionReturn; break;
      default: return;  // sleep, wake and bus writes concern the power model
    }
    s.size = step.size;
    s.address = step.address;
    s.value = step.value;
    s.instructions = step.instructions;
    s.timeNs = step.timeNs;
    if (sink_ != nullptr) sink_->onStep(s);
  }

  QemuRunConfig config_;
  std::unique_ptr<QemuRunner> runner_;
  StepSink* sink_ = nullptr;
  const std::atomic<bool>* halt_ = nullptr;
};

}  // namespace

std::unique_ptr<CpuExecutor> makeQemuExecutor(const CpuSpec& cpu) { return std::make_unique<QemuExecutor>(cpu); }

}  // namespace OstrandSim
