// The executor that runs a CPU's program under QEMU: the runner's steps go
// to the run's consumers (trace recorder, power probe) while QEMU runs. The
// runner, and with it the QEMU process, lives until the executor is stopped
// or destroyed (the scenario is replaced, the process ends), so a CPU goes
// on from where its last run stopped.
#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "QemuRunner.hpp"
#include "Scenario.hpp"
#include "SimStep.hpp"

namespace OstrandSim {

namespace {

// QEMU counts instructions in powers of two of nanoseconds: the shift whose
// instruction time is nearest the CPU's clock period.
uint32_t icountShiftFor(uint64_t clockHz) {
  if (clockHz == 0) return 5;
  const double shift = std::round(std::log2(1e9 / static_cast<double>(clockHz)));
  return static_cast<uint32_t>(std::clamp(shift, 0.0, 10.0));
}

class QemuExecutor final : public CpuExecutor, public StepConsumer {
 public:
  explicit QemuExecutor(const CpuSpec& cpu) {
    config_.machine = cpu.machine;
    config_.program = cpu.program;
    config_.coreClockHz = cpu.clockHz;
    config_.icountShift = icountShiftFor(cpu.clockHz);
  }
  ~QemuExecutor() override { stop(); }

  bool ready(std::string& error) const override {
    std::lock_guard<std::mutex> guard(mutex_);
    if (runner_ || !QemuRunner::findExecutable(config_.qemu).empty()) return true;
    error = config_.qemu + " not found: install the Debian package qemu-system-arm "
            "(apt-get install qemu-system-arm)";
    return false;
  }

  RunOutcome run(uint64_t limit, const std::atomic<bool>& halt, StepConsumer& consumer) override {
    RunOutcome outcome;
    uint64_t before = instructions();
    consumer_ = &consumer;
    halt_ = &halt;
    try {
      QemuRunner* runner = nullptr;
      {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!runner_) {
          auto fresh = std::make_unique<QemuRunner>(config_, *this);
          fresh->start();
          runner_ = std::move(fresh);
        }
        runner = runner_.get();
        stepInstructions_ = baseInstructions_;
        stepTimeNs_ = baseTimeNs_;
      }
      active_ = runner;
      RunEnd end = runner->run(limit == 0 ? UINT64_MAX : limit);
      outcome.programEnded = end == RunEnd::kEnded;
    } catch (const std::exception& e) {
      outcome.error = e.what();
      stop();
    }
    consumer_ = nullptr;
    halt_ = nullptr;
    active_ = nullptr;
    outcome.instructions = instructions() - before;
    outcome.timeNs = timeNs();
    return outcome;
  }

  void stop() override {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!runner_) return;
    runner_->stop();
    // A new runner starts the program from reset; the counts go on from
    // where they were, so the CPU's history stays one timeline.
    baseInstructions_ += runner_->instructions();
    baseTimeNs_ += runner_->timeNs();
    runner_.reset();
  }

  uint64_t instructions() const override {
    std::lock_guard<std::mutex> guard(mutex_);
    return baseInstructions_ + (runner_ ? runner_->instructions() : 0);
  }
  uint64_t timeNs() const override {
    std::lock_guard<std::mutex> guard(mutex_);
    return baseTimeNs_ + (runner_ ? runner_->timeNs() : 0);
  }

 private:
  // On the runner's reader thread, only while run() is under way. Steps
  // carry the time since the CPU's reset, across restarts of QEMU.
  void onStep(const ExecStep& step) override {
    if (halt_ != nullptr && halt_->load(std::memory_order_relaxed)) active_->halt();
    if (consumer_ == nullptr) return;
    ExecStep shifted = step;
    shifted.instructions += stepInstructions_;
    shifted.timeNs += stepTimeNs_;
    consumer_->onStep(shifted);
  }

  QemuRunConfig config_;
  mutable std::mutex mutex_;  // guards runner_ and the bases
  std::unique_ptr<QemuRunner> runner_;
  uint64_t baseInstructions_ = 0;
  uint64_t baseTimeNs_ = 0;
  // Set by run() before the runner delivers, read by onStep.
  StepConsumer* consumer_ = nullptr;
  const std::atomic<bool>* halt_ = nullptr;
  QemuRunner* active_ = nullptr;
  uint64_t stepInstructions_ = 0;
  uint64_t stepTimeNs_ = 0;
};

}  // namespace

std::unique_ptr<CpuExecutor> makeExecutor(const CpuSpec& cpu) { return std::make_unique<QemuExecutor>(cpu); }

}  // namespace OstrandSim
