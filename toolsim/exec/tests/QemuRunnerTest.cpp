#include "QemuRunner.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "ExecTestSupport.hpp"

namespace OstrandSim {
namespace {

using test::Board;
using test::Recorder;

class QemuRunnerTest : public ::testing::TestWithParam<Board> {};

// The steps of two bounded runs are exactly what QEMU's own log shows, in
// order, with SysTick entries and returns, sleeps that end in a wake, time
// that never goes back, and the emulator gone after stop.
TEST_P(QemuRunnerTest, StepsMatchTheEmulatorsOwnLog) {
  const std::string log = ::testing::TempDir() + "/runner-" + GetParam().machine + "-" +
                          std::to_string(::getpid()) + ".log";
  Recorder rec;
  QemuRunner runner(test::runConfig(GetParam(), log), rec);
  runner.start();
  const pid_t pid = runner.pid();
  ASSERT_TRUE(test::processAlive(pid));
  EXPECT_EQ(runner.run(15000), RunEnd::kLimit);
  EXPECT_EQ(runner.instructions(), 15000u);
  EXPECT_EQ(runner.run(5000), RunEnd::kLimit);
  EXPECT_EQ(runner.instructions(), 20000u);
  runner.stop();
  EXPECT_FALSE(test::processAlive(pid));

  const std::vector<uint32_t> executed = rec.instructionAddresses();
  ASSERT_EQ(executed.size(), 20000u);
  std::vector<uint32_t> fromLog = test::executedFromLog(log);
  ASSERT_GE(fromLog.size(), executed.size());
  fromLog.resize(executed.size());
  EXPECT_EQ(executed, fromLog);

  int entries = 0, returns = 0, sleeps = 0, wakes = 0;
  uint64_t lastTime = 0;
  for (const ExecStep& s : rec.steps) {
    EXPECT_GE(s.timeNs, lastTime);
    lastTime = s.timeNs;
    entries += s.kind == StepKind::kExceptionEntry && s.value == 15;
    returns += s.kind == StepKind::kExceptionReturn && s.value == 15;
    sleeps += s.kind == StepKind::kSleep;
    wakes += s.kind == StepKind::kWake;
    EXPECT_FALSE(s.kind == StepKind::kExceptionEntry && s.value == 3) << "hard fault";
  }
  // Every entry names where the preempted code went on: the first
  // instruction after its return.
  for (size_t i = 0; i < rec.steps.size(); ++i) {
    if (rec.steps[i].kind != StepKind::kExceptionReturn) continue;
    EXPECT_EQ(rec.steps[i].address & 0xFFFFFFF0u, 0xFFFFFFF0u) << "EXC_RETURN";
    size_t entry = i, next = i;
    while (entry > 0 && rec.steps[entry].kind != StepKind::kExceptionEntry) --entry;
    while (next < rec.steps.size() && rec.steps[next].kind != StepKind::kInstruction) ++next;
    if (next < rec.steps.size()) {
      EXPECT_EQ(rec.steps[entry].address, rec.steps[next].address);
    }
  }
  EXPECT_GT(entries, 1);
  EXPECT_GE(entries, returns);
  EXPECT_LE(entries - returns, 1);
  EXPECT_GT(sleeps, 0);
  EXPECT_EQ(sleeps, wakes);
  // Slept time: the clock runs ahead of the instruction count.
  EXPECT_GT(lastTime, rec.steps.back().instructions * 32);
}

TEST_P(QemuRunnerTest, HaltEndsAnOpenRunAndDestructionEndsTheEmulator) {
  Recorder rec;
  pid_t pid = -1;
  {
    QemuRunner runner(test::runConfig(GetParam()), rec);
    runner.start();
    pid = runner.pid();
    std::thread halter([&] {
      while (runner.instructions() < 2000) std::this_thread::sleep_for(std::chrono::milliseconds(2));
      runner.halt();
    });
    EXPECT_EQ(runner.run(), RunEnd::kHalted);
    halter.join();
    const uint64_t atHalt = runner.instructions();
    EXPECT_GE(atHalt, 2000u);
    EXPECT_EQ(runner.run(100), RunEnd::kLimit);
    EXPECT_EQ(runner.instructions(), atHalt + 100);
  }
  EXPECT_FALSE(test::processAlive(pid));
}

INSTANTIATE_TEST_SUITE_P(Boards, QemuRunnerTest, ::testing::ValuesIn(test::kBoards), test::boardName);

TEST(QemuRunnerErrors, SayWhatIsMissing) {
  Recorder rec;
  QemuRunConfig config = test::runConfig(test::kBoards[1]);
  config.qemu = "qemu-system-arm-not-here";
  QemuRunner noQemu(config, rec);
  try {
    noQemu.start();
    FAIL() << "started without an emulator";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("install the Debian package qemu-system-arm"),
              std::string::npos);
  }

  config.qemu = "qemu-system-arm";
  config.program = "/nonexistent.elf";
  QemuRunner noProgram(config, rec);
  EXPECT_THROW(noProgram.start(), std::runtime_error);

  config.program = test::runConfig(test::kBoards[1]).program;
  config.machine = "no-such-board";
  QemuRunner noBoard(config, rec);
  EXPECT_THROW(noBoard.start(), std::runtime_error);
}

}  // namespace
}  // namespace OstrandSim
