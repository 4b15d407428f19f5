#include "PowerRecorder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "ExecTestSupport.hpp"
#include "TestSupport.hpp"
#include "wattline/WLDataNode.hpp"
#include "wattline/WLStateDecoders.hpp"

namespace OstrandSim {
namespace {

using VSKTspServer::WLDataNode;

class PowerRecorderTest : public ::testing::TestWithParam<test::Board> {};

// The test programs sleep 5 of every 8 ticks of 200 us. A capture read back
// with the module's own decoder shows that duty cycle, energy that is the
// integral of the power it records, PCs in the program's code, and the UART
// drawing current while it is on.
TEST_P(PowerRecorderTest, CaptureShowsTheProgramsDutyCycle) {
  const ostrand_test::TempDir tmp("power");
  const std::string dir = tmp / "capture";
  PowerConfig config;
  config.directory = dir;
  config.model = defaultPowerModel(GetParam().machine);
  {
    PowerRecorder power(config);
    test::runBoard(GetParam(), 80000, power);
    power.finish();
    EXPECT_GT(power.samples(), 600u);
  }

  const auto sup = nlohmann::json::parse(ostrand_test::readFile(dir + "/metadataSup.json"));
  WLDataNode node;
  node.dsr = VSKTspServer::makeStateDecoder(node, sup["JState"]["version"].get<int>());
  node.dsr->initDefaults();
  node.dsr->loadBitFields(sup["JState"]);
  ASSERT_TRUE(node.readFile(dir, "WLData.bin"));
  node.decode();
  node.evaluateStates();
  ASSERT_TRUE(std::filesystem::exists(dir + "/metadata"));

  // Sleep share over whole cycles of 1.6 ms, from the decoder's mode lists.
  const auto& modes = node.dsr->powerModes;
  const auto sleep = std::find_if(modes.begin(), modes.end(),
                                  [](const auto& m) { return m.name == "CPU.Sleep"; });
  ASSERT_NE(sleep, modes.end());
  const size_t k = static_cast<size_t>(sleep - modes.begin());
  std::vector<bool> asleep(node.recordCount, false);
  const auto& changes = node.dsr->modeChanges[k];
  for (size_t i = 0; i < changes.size(); ++i) {
    const uint64_t end = i + 1 < changes.size() ? changes[i + 1] : node.recordCount;
    for (uint64_t r = changes[i]; r < end; ++r) asleep[r] = node.dsr->modeBits[k][i];
  }
  uint64_t inWindow = 0, sleeping = 0;
  double recorded = 0.0, uartMa = 0.0, otherMa = 0.0;
  uint64_t uartSamples = 0, otherSamples = 0;
  ProgramImage image(test::programPath(GetParam()));
  for (uint64_t r = 1; r < node.recordCount; ++r) {
    const uint64_t t = node.times[r];
    if (t >= 1600 && t < 6400) {
      ++inWindow;
      sleeping += asleep[r];
    }
    recorded += node.currents[r] * 1e-9 * node.voltages[r] * 1e-3 *
                static_cast<double>(t - node.times[r - 1]) * 1e-6;
    const uint32_t pc = node.stateWords[1][r];
    EXPECT_TRUE(pc >= image.codeStart() && pc < image.codeEnd()) << std::hex << pc;
    const bool uart = (node.stateWords[0][r] >> 11 & 1u) != 0;
    (uart ? uartMa : otherMa) += node.currents[r] * 1e-6;
    ++(uart ? uartSamples : otherSamples);
  }
  ASSERT_GT(inWindow, 400u);
  EXPECT_NEAR(static_cast<double>(sleeping) / static_cast<double>(inWindow), 5.0 / 8.0, 0.03);
  const double counted =
      (static_cast<double>(node.energies[node.recordCount - 1]) - node.energies[0]) * 1e-7;
  EXPECT_NEAR(counted, recorded, recorded * 0.001 + 2e-7);
  ASSERT_GT(uartSamples, 0u);
  EXPECT_GT(uartMa / uartSamples, otherMa / otherSamples + 0.5);
}

INSTANTIATE_TEST_SUITE_P(Boards, PowerRecorderTest, ::testing::ValuesIn(test::kBoards), test::boardName);

TEST(PowerRecorderErrors, RateAndDirectory) {
  PowerConfig config;
  config.directory = ::testing::TempDir() + "/power-bad";
  config.sampleRateHz = 0;
  EXPECT_THROW(PowerRecorder{config}, std::invalid_argument);
  config.sampleRateHz = 1000;
  config.directory = "/proc/no-such-place";
  EXPECT_THROW(PowerRecorder{config}, std::runtime_error);
}


// State words laid out by a description (testdata/state_word_layouts.json):
// the mode field, a bit per peripheral on (named by the field's Description),
// the interrupt field and the PC in place; version 2 without a mode field
// uses its own mode table.
struct LayoutCase {
  const char* name;
  bool asleep;
  bool uartOn;
  uint32_t irq;
  uint32_t word0;
  uint32_t word1;
};

class StateWordLayoutTest : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(StateWordLayoutTest, FieldsShowTheDeviceState) {
  const LayoutCase& c = GetParam();
  static const nlohmann::json layouts = nlohmann::json::parse(
      ostrand_test::readFile(std::string(OSTRAND_SOURCE_DIR) + "/toolsim/exec/tests/testdata/state_word_layouts.json"));
  const std::vector<PeripheralSwitch> peripherals = {{"UART", 0x40002500u, 0xFu, 0.3, 0},
                                                     {"TIMER", 0xE000E010u, 1u, 0.05, 0}};
  StateWordLayout layout(layouts.at(c.name), peripherals);
  uint32_t words[2] = {0xDEAD, 0xBEEF};
  layout.encode(c.asleep, {c.uartOn, true}, c.irq, 0x000001F4u, words);
  EXPECT_EQ(words[0], c.word0) << std::hex << words[0];
  EXPECT_EQ(words[1], c.word1) << std::hex << words[1];
}

INSTANTIATE_TEST_SUITE_P(Descriptions, StateWordLayoutTest,
                         ::testing::Values(LayoutCase{"v4_asleep", true, false, 15, 2u | 15u << 2 | 1u << 9, 0x1F4u},
                                           LayoutCase{"v5_running", false, true, 0, 1u << 8, 0x1F4u},
                                           LayoutCase{"v5_asleep", true, true, 0, 1u, 0u},
                                           LayoutCase{"v2_default_table", true, true, 0, 0x80000002u,
                                                      0x82400000u | 0xFAu}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace OstrandSim
