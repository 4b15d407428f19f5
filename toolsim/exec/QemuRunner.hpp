// QemuRunner: runs an ARM program under qemu-system-arm and hands the
// execution, step by step, to a StepConsumer while QEMU runs.
//
// QEMU runs with deterministic instruction counting (-icount shift=N,
// sleep=off), one instruction per translation block and the execution log
// (-d exec,nochain,int and bus writes) written into a FIFO that a thread of
// the runner reads. The runner delivers exactly the number of instructions
// asked for: when a run's budget is spent it stops reading, and QEMU blocks
// on the full FIFO until the next run, so nothing is lost or skipped.
//
// Lifetime: start() spawns QEMU; the process is killed and reaped by stop(),
// by the destructor, when start or a run fails, and (PR_SET_PDEATHSIG, bound
// to the runner's own thread, which lives as long as the process) when this
// process dies. A program that ends (QEMU exits) ends the run.
//
// Threads: start, run and stop from one controlling thread; halt() and
// state() from any thread. The consumer is called on the runner's reader
// thread, only while run() is under way.
// Errors: std::runtime_error with a text for the user: qemu-system-arm
// missing ("... install the Debian package qemu-system-arm"), a program
// that cannot be loaded, QEMU failing at start (its own message).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ExecStep.hpp"
#include "ProgramImage.hpp"
#include "QemuLogParser.hpp"

namespace OstrandSim {

struct QemuMachine {
  std::string name;          // QEMU machine ("microbit", "mps2-an386")
  uint64_t coreClockHz = 0;  // the clock SysTick counts on that board
};

// The boards the test programs run on; nullptr for an unknown machine.
const QemuMachine* findMachine(const std::string& name);

struct QemuRunConfig {
  std::string qemu = "qemu-system-arm";  // a name searched in PATH, or a path
  std::string machine = "mps2-an386";
  std::string program;                   // ELF file
  uint32_t icountShift = 5;              // one instruction = 2^shift ns
  uint64_t coreClockHz = 0;              // 0: the machine's
  std::string teeLogPath;                // also write the raw log here (tests)
};

enum class RunEnd : uint8_t {
  kLimit,    // the instructions asked for have run
  kHalted,   // halt() was called
  kEnded,    // the program ended: QEMU exited
};

class QemuRunner {
 public:
  QemuRunner(QemuRunConfig config, StepConsumer& consumer);
  ~QemuRunner();
  QemuRunner(const QemuRunner&) = delete;
  QemuRunner& operator=(const QemuRunner&) = delete;

  // Loads the program and spawns QEMU, stopped before the first
  // instruction is delivered. Throws on the failures above.
  void start();
  // Runs until `instructions` more have been delivered (UINT64_MAX: until
  // halted or the end), halt() or the end of the program. Blocks.
  RunEnd run(uint64_t instructions = UINT64_MAX);
  // Ends the current run after the step being delivered; thread-safe.
  void halt();
  // Kills and reaps QEMU; idempotent.
  void stop();

  bool running() const { return running_.load(); }
  bool ended() const { return ended_.load(); }
  uint64_t instructions() const { return instructions_.load(); }
  uint64_t timeNs() const { return timeNs_.load(); }
  const ProgramImage& image() const { return *image_; }
  const QemuRunConfig& config() const { return config_; }
  pid_t pid() const { return pid_.load(); }

  // The full path of an executable found in PATH, or empty.
  static std::string findExecutable(const std::string& name);

 private:
  void readerMain();
  void spawn(const std::vector<std::string>& args);
  void killChild();

  QemuRunConfig config_;
  StepConsumer& consumer_;
  std::unique_ptr<ProgramImage> image_;
  std::unique_ptr<QemuLogParser> parser_;
  std::string fifoDir_;
  std::thread reader_;

  std::mutex mutex_;  // guards budget_, pendingRun_, lastEnd_, error_, readerReady_, quit_
  std::condition_variable cv_;
  uint64_t budget_ = 0;
  bool pendingRun_ = false;
  RunEnd lastEnd_ = RunEnd::kLimit;
  bool readerReady_ = false;
  bool quit_ = false;
  std::exception_ptr error_;
  int wakeFd_ = -1;  // eventfd: wakes the reader's poll on halt and stop

  std::atomic<bool> halt_{false};
  std::atomic<bool> running_{false};
  std::atomic<bool> ended_{false};
  std::atomic<uint64_t> instructions_{0};
  std::atomic<uint64_t> timeNs_{0};
  std::atomic<pid_t> pid_{-1};
};

}  // namespace OstrandSim
