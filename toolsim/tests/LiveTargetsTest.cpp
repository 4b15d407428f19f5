// The simulated targets really run: the default scenario's CPUs under QEMU
// (the trace holds what ran, the emulator ends with its scenario, a missing
// emulator is named with its package) and their power probes' captures.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "SimTestSupport.hpp"
#include "TestSupport.hpp"

namespace {

using namespace ostrand_sim_test;

// The default scenario's CPUs run under QEMU: what the trace holds is what
// ran, and the emulator lives no longer than the scenario.
TEST_F(SimulationTest, CpusRunUnderQemuAndTheEmulatorEndsWithTheScenario) {
  ASSERT_EQ(simConnect("mps2/CM4"), 0) << lastError();
  ASSERT_EQ(simRun("mps2/CM4", 300), 0) << lastError();
  ASSERT_EQ(waitHalted("mps2/CM4", 20000), 0) << lastError();
  EXPECT_EQ(qemuChildren(), 1u);
  size_t instructions = 0;
  for (const auto& row : Channels().decode("mps2/CM4", "ETB", 1000).cells) instructions += row[1].empty() ? 0 : 1;
  // The default 4 KiB buffer holds them all, up to the last branch (the
  // stream places instructions at the waypoints that end them).
  EXPECT_LE(instructions, 300u);
  EXPECT_GE(instructions, 280u);
  ASSERT_EQ(loadScenario(""), 0);
  EXPECT_EQ(qemuChildren(), 0u);
}

TEST_F(SimulationTest, WithoutTheEmulatorARunIsRefusedWithWhatToInstall) {
  const std::string path = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
  setenv("PATH", (dir() + "/no-such-dir").c_str(), 1);
  ASSERT_EQ(simConnect("microbit/CM0P"), 0) << lastError();
  EXPECT_EQ(simRun("microbit/CM0P", 100), -5);
  setenv("PATH", path.c_str(), 1);
  EXPECT_NE(std::string(lastError()).find("install the Debian package qemu-system-arm"), std::string::npos)
      << lastError();
  std::string state(4096, '\0');
  state.resize(static_cast<size_t>(entry<OstrandSim_State_t>("hemlock", "OstrandSim_State")(state.data(), state.size())));
  EXPECT_NE(state.find(R"("name":"microbit/CM0P","receiver":"MTB","runs":0,"state":"halted")"), std::string::npos) << state;
}

// An armed power probe writes the capture of what the program does: the
// program sleeps 5 of every 8 ticks, the UART is on through its first awake
// tick, and the PC field holds the program's own addresses. The words
// follow each CPU's description: version 4 (the processor modes' Sleep is
// 2, SysTick shown as TIMER) and version 5 (the PowerMode enum's Sleep, 1).
struct PowerCase {
  const char* cpu;
  const char* elf;
  const char* description;
  uint32_t sleepMode;
  bool timerBit;
};

class PowerProbe : public SimulationTest, public ::testing::WithParamInterface<PowerCase> {};

TEST_P(PowerProbe, AnArmedProbeCapturesWhatTheProgramDoes) {
  const PowerCase& c = GetParam();
  Xevt::IOperationServer* s = operations(c.cpu);
  ASSERT_NE(s, nullptr);
  const std::string capture = dir() + "/power";
  auto* op = configure(s, tree(s, "WL", {s->makeBoolean("WLplus", true), s->makeString("DataDir", capture.c_str())}));
  ASSERT_EQ(simConnect(c.cpu), 0) << lastError();
  ASSERT_EQ(simRun(c.cpu, 60000), 0) << lastError();
  ASSERT_EQ(waitHalted(c.cpu, 20000), 0) << lastError();
  op->release();
  s->release();

  const std::string text = ostrand_test::readFile(capture + "/metadataSup.json");
  EXPECT_NE(text.find(c.description), std::string::npos) << text;
  const std::string bytes = ostrand_test::readFile(capture + "/WLData.bin");
  ASSERT_EQ(bytes.size() % 26, 0u);
  const size_t records = bytes.size() / 26;
  ASSERT_GT(records, 40u);  // 100 us apart over several ms of virtual time
  const Symbols program(std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/" + c.elf);
  size_t asleep = 0, uart = 0;
  auto field = [&](size_t at, size_t size) {  // little-endian
    uint64_t v = 0;
    std::memcpy(&v, &bytes[at], size);
    return v;
  };
  for (size_t r = 1; r < records; ++r) {
    const size_t at = r * 26;
    EXPECT_EQ(bytes[at], 0x27);
    EXPECT_EQ(field(at + 1, 7), 100u * r);  // the time in us
    const auto w0 = static_cast<uint32_t>(field(at + 8, 4)), pc = static_cast<uint32_t>(field(at + 12, 4));
    asleep += (w0 & 3u) == c.sleepMode;
    uart += (w0 >> 8) & 1u;
    EXPECT_FALSE(program.image.functionAt(pc).empty()) << std::hex << pc;
    if (c.timerBit) {
      EXPECT_EQ(w0 >> 9 & 1u, 1u);  // SysTick on from the start of main
    }
  }
  EXPECT_NEAR(static_cast<double>(asleep) / static_cast<double>(records - 1), 5.0 / 8.0, 0.12);
  EXPECT_GT(uart, 0u);
  EXPECT_LT(uart, records / 4);
}

INSTANTIATE_TEST_SUITE_P(Sim, PowerProbe,
                         ::testing::Values(PowerCase{"microbit/CM0P", "run_microbit.elf", "\"M0PLUS_STATES\"", 2, true},
                                           PowerCase{"mps2/CM4", "run_mps2.elf", "\"M4_STATES\"", 1, false}),
                         [](const auto& info) { return std::filesystem::path(info.param.cpu).filename().string(); });

}  // namespace
