// The ETB capture: which sub-operations the use cases make (the
// configuration matrix and its bounds), the form of their trees, the
// reading of address texts, and on the simulated debug environment the
// resolution of symbols, the failures of an address that reads as nothing,
// and a capture decoded without a trace server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <stdexcept>

#include "HostKitApis.hpp"
#include "SimManagerTest.hpp"
#include "TestSupport.hpp"
#include "cloud_trace/source/EtbCaptureOperation.hpp"
#include "experiments/EtbRecordStore.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using Etb = LocalOpManager::EtbCaptureOperation;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

struct Range {
  std::string start, end;
};
struct Trigger {
  std::string address, type;
};

// One use case with the properties (id, value) in order.
Json::Value useCase(const std::vector<std::pair<std::string, std::string>>& properties) {
  Json::Value c(Json::objectValue);
  c["properties"] = Json::Value(Json::arrayValue);
  for (const auto& [id, value] : properties) {
    Json::Value& p = c["properties"].append(Json::Value(Json::objectValue));
    p["id"] = id;
    p["value"] = value;
  }
  return c;
}

// Session settings of `target` with the use cases in their usual order:
// the buffer type, trace on, the ranges, then the triggers (a trigger
// without a type has no type property).
Json::Value useCases(const std::string& target, const std::vector<Range>& ranges,
                     const std::vector<Trigger>& triggers, const std::string& buffer = "Circular") {
  Json::Value settings(Json::objectValue);
  Json::Value& cases = settings[target]["useCases"]["properties"];
  cases.append(
      useCase({{"Hardware Configuration.Receiver Settings.Receiver.Buffer Type", buffer}}));
  cases.append(useCase({}));
  for (const auto& r : ranges) {
    cases.append(useCase({{"Range.Start", r.start}, {"Range.End", r.end}}));
  }
  for (const auto& t : triggers) {
    cases.append(t.type.empty() ? useCase({{"Trigger.Address", t.address}})
                                : useCase({{"Trigger.Address", t.address},
                                           {"Trigger.Address.Type", t.type}}));
  }
  return settings;
}

std::vector<std::string> actionsOf(const Etb& op) {
  std::vector<std::string> out;
  for (uint32_t i = 0; i < op.getSubOperationCount(); ++i) {
    const Json::Value& tree = op.getSubOperationProps(i);
    EXPECT_EQ(tree.size(), 1u);
    EXPECT_EQ(tree[0]["name"].asString(), "Type");
    EXPECT_EQ(tree[0]["value"].asString(), "Trace");
    int32_t at = Etb::findIndex(tree[0]["sub_properties"], "name", "Actions");
    out.push_back(at < 0 ? "?" : tree[0]["sub_properties"][at]["value"].asString());
  }
  return out;
}

struct MatrixCase {
  const char* name;
  std::string target;
  std::vector<Range> ranges;
  std::vector<Trigger> triggers;
  std::vector<std::string> actions;
  bool traceOn, range, startStop;
};

using M = MatrixCase;
const std::string kM4 = "mps2/CM4";
const std::string kOn = "Trace On", kIn = "Trace in Range", kStart = "Start Trace",
                  kEnd = "End Trace";

// Columns: name, target, ranges, triggers, the sub-operations' actions, and
// whether trace on, a range and start/stop evaluate as valid.
// clang-format off
const MatrixCase kMatrix[] = {
    M{"Nothing", kM4, {}, {}, {kOn}, true, false, false},
    M{"ARange", kM4, {{"main", "fir_step"}}, {}, {kOn, kIn}, true, true, false},
    M{"ARangeOnTriggerFormCore", "xDsby", {{"a", "b"}}, {}, {kIn}, false, true, false},
    M{"CaseMattersInTheCoreName", "xdsby", {{"a", "b"}}, {}, {kOn, kIn}, true, true, false},
    M{"EndTriggerOnly", kM4, {}, {{"0x100", kEnd}}, {kOn, kEnd}, true, false, true},
    M{"StartTrigger", kM4, {}, {{"0x100", kStart}}, {kStart}, false, false, true},
    M{"RangeAndStart", kM4, {{"a", "b"}}, {{"c", kStart}}, {kIn, kStart}, false, true, true},
    // A range with one end empty counts as a range use case, so the
    // trigger is looked for one use case later, but makes no tree.
    M{"HalfRangeThenTrigger", kM4, {{"a", ""}}, {{"c", kEnd}}, {kOn, kEnd}, true, false, true},
    M{"BlankTriggerIsEmpty", kM4, {}, {{"   ", kEnd}}, {kOn}, true, false, false},
    M{"TriggerWithoutTypeMakesNoTree", kM4, {}, {{"0x10", ""}}, {kOn}, true, false, true},
    // Trace on, two ranges and two triggers: the fifth tree is not made.
    M{"FourTreesAtMost", kM4, {{"a", "b"}, {"c", "d"}}, {{"e", kEnd}, {"f", kEnd}},
      {kOn, kIn, kIn, kEnd}, true, true, true},
    // Two ranges at most: a third is left out, and the triggers after
    // it are still found.
    M{"ThirdRangeLeftOut", kM4, {{"a", "b"}, {"c", "d"}, {"e", "f"}}, {{"g", kStart}},
      {kIn, kIn, kStart}, false, true, true},
    M{"ThirdTriggerLeftOut", kM4, {}, {{"a", kEnd}, {"b", kEnd}, {"c", kStart}},
      {kOn, kEnd, kEnd}, true, false, true}};
// clang-format on

TEST(EtbMatrixTest, UseCasesGiveTheseSubOperationsInOrder) {
  TempUserDir home;
  for (const MatrixCase& c : kMatrix) {
    SCOPED_TRACE(c.name);
    Etb op(0, nullptr, c.target, useCases(c.target, c.ranges, c.triggers), nullptr);
    op.configure(Json::Value(), nullptr);
    EXPECT_EQ(actionsOf(op), c.actions);
    Etb::Evaluation e = op.evaluation();
    EXPECT_EQ(e.traceOnValid, c.traceOn);
    EXPECT_EQ(e.rangeValid, c.range);
    EXPECT_EQ(e.startStopValid, c.startStop);
  }
}

// The settings tree and every sub-operation tree, of a plain core (one-shot
// buffer, trace on, a range, an end trigger), of a trigger-form core, and
// of settings without use cases (a circular buffer, trace on).
TEST(EtbSettingsTest, ReceiverTreeAndTreesOfEachFormGolden) {
  TempUserDir home;
  Etb plain(0, nullptr, "mps2/CM4",
            useCases("mps2/CM4", {{" main ", "fir_step"}}, {{"0x100", kEnd}}, "One-shot"), nullptr);
  Etb dsc(0, nullptr, "cpu_Dsc", useCases("cpu_Dsc", {}, {{"0x100", kEnd}}), nullptr);
  Etb none(0, nullptr, "mps2/CM4", Json::Value(), nullptr);
  Json::Value document;
  for (Etb* op : {&plain, &dsc, &none}) {
    op->configure(Json::Value(), nullptr);
    Json::Value& entry = document.append(Json::Value(Json::objectValue));
    entry["settings"] = op->getSettings();
    for (uint32_t i = 0; i < op->getSubOperationCount(); ++i)
      entry["subOperations"].append(op->getSubOperationProps(i));
  }
  EXPECT_FALSE(plain.hasTriggerForm());
  EXPECT_EQ(plain.getSubOperationCount(), 3u);
  EXPECT_EQ(dsc.getSubOperationCount(), 2u);
  EXPECT_TRUE(ostrand_test::matchesGolden(
      document.toStyledString(),
      ostrand_test::sourcePath("tracemanager/cloud_trace/source/tests/golden/etb_trees.json")));
}

// Digits up to the first character that is none; refused when no digit
// reads or the number does not fit 32 bits.
TEST(EtbHexTest, ReadsDigitsUpToTheFirstOther) {
  const struct {
    const char* text;
    bool ok;
    uint32_t address;
    bool overflow;
  } cases[] = {{"1000", true, 0x1000, false},       {"0x1000zz", true, 0x1000, false},
               {"0XfF", true, 0xFF, false},         {"FFFFFFFF", true, 0xFFFFFFFF, false},
               {"00000000000e4", true, 0xE4, false}, {"zz", false, 0, false},
               {"0x", false, 0, false},             {"", false, 0, false},
               {"-1", false, 0, false},             {"100000000", false, 0, true},
               {"0x123456789", false, 0, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    uint32_t address = 0;
    bool overflow = false;
    EXPECT_EQ(Etb::parseHexAddress(c.text, address, overflow), c.ok);
    EXPECT_EQ(overflow, c.overflow);
    EXPECT_EQ(c.ok ? address : 0u, c.address);
  }
}

// ---------------------------------------------------------------- on the simulation

const std::string kFirmware = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/m4.elf";

// The host's symbol and disassembly managers, as a debug host hands them in,
// with the firmware the scenario runs on mps2/CM4.
class EtbSimTest : public SimManagerTest {
 protected:
  static void SetUpTestSuite() {
    ostrand_test::HostKitApis::symbols().addProgram("mps2/CM4", kFirmware);
    ostrand_test::HostKitApis::install();
  }
  static void TearDownTestSuite() { ostrand_test::HostKitApis::uninstall(); }
  void SetUp() override { connectManager({"mps2/CM4"}); }
  std::unique_ptr<Etb> make(const std::vector<Range>& ranges,
                            const std::vector<Trigger>& triggers) {
    auto op = std::make_unique<Etb>(static_cast<int32_t>(manager->getId()), tools, "mps2/CM4",
                                    useCases("mps2/CM4", ranges, triggers), manager.get());
    op->configure(Json::Value(), nullptr);
    return op;
  }
};

TEST_F(EtbSimTest, AddressesResolveAsSymbolsThenHexadecimalAndEveryTreeBecomesAnOperation) {
  auto op = make({{"fir_step", " fir_gain "}}, {{"1000", kStart}});
  const uint32_t made = op->createHlOperation();
  EXPECT_EQ(made, op->getOperationHandle());
  ASSERT_TRUE(op->isCreated());
  ASSERT_EQ(op->getSubOperationCount(), 2u);
  const Json::Value& range = op->getSubOperationProps(0)[0]["sub_properties"][1]["sub_properties"];
  const Json::Value& trigger =
      op->getSubOperationProps(1)[0]["sub_properties"][1]["sub_properties"];
  if (uint32_t step = ostrand_test::nmAddress(kFirmware, "fir_step")) {
    EXPECT_EQ(range[0]["value"]["address"].asUInt(), step);
    EXPECT_EQ(range[1]["value"]["address"].asUInt(),
              ostrand_test::nmAddress(kFirmware, "fir_gain"));
  }
  EXPECT_GT(range[1]["value"]["address"].asUInt(), range[0]["value"]["address"].asUInt());
  EXPECT_EQ(trigger[0]["value"]["address"].asUInt(), 0x1000u) << "no symbol: hexadecimal";
  EXPECT_NE(op->getSubOperationHandle(0), op->getOperationHandle());
  EXPECT_NE(op->getSubOperationHandle(0), op->getSubOperationHandle(1));

  EXPECT_EQ(op->enable(true), 0);
  EXPECT_EQ(op->getState(), LocalOpManager::CaptureOperation::Armed);
  EXPECT_EQ(op->enable(false), 0);
  EXPECT_EQ(op->getState(), LocalOpManager::CaptureOperation::Idle);
}

// A sub-operation the tool no longer knows fails its enable: the tool's
// number comes back, the capture stays Armed for the manager to handle, and
// what was enabled before it is disabled again, so a second try starts
// from nothing enabled.
TEST_F(EtbSimTest, FailedSubOperationEnableGivesTheToolsNumber) {
  auto op = make({{"main", "fir_step"}}, {{"0xe4", kEnd}});
  op->createHlOperation();
  ASSERT_EQ(op->getSubOperationCount(), 3u);
  {
    std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
    tools->releaseOperation(op->getSubOperationHandle(1));
  }
  EXPECT_EQ(op->enable(true), -1);
  EXPECT_EQ(tools->getLastError(), "Invalid operation handle");
  EXPECT_EQ(op->getState(), LocalOpManager::CaptureOperation::Armed);
  EXPECT_TRUE(op->isEnabled());
  // No trace application was made, so the main operation can have one now.
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  EXPECT_EQ(tools->createTraceApp(op->getOperationHandle()), 0);
  tools->destroyTraceApp(op->getOperationHandle());
}

// An address that reads neither as a symbol nor as hexadecimal: the status
// names the field, the error the failure, and nothing is created.
TEST_F(EtbSimTest, BadAddressShowsAStatusAndCreatesNothing) {
  const char* const setFailed = "Failed to set properties: ";
  const struct {
    std::vector<Range> ranges;
    std::vector<Trigger> triggers;
    const char* status;
    const char* error;
  } cases[] = {
      // clang-format off
      {{{"zz", "main"}}, {}, "Failed to evaluate Range: Start: as a hex address", setFailed},
      {{{"0x150", "no_such_function"}}, {}, "Failed to evaluate Range: End: as a hex address",
       setFailed},
      {{}, {{"zz", kEnd}}, "Failed to evaluate Start/Stop: Address: as a hex address", setFailed},
      {{}, {{"0x123456789", kStart}}, "Failed to evaluate Start/Stop: Address: as a hex address",
       "Start/Stop: Address: '0x123456789' is beyond the 32-bit address range"}};
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    auto op = make(c.ranges, c.triggers);
    takeEvents();
    EXPECT_THAT([&] { op->createHlOperation(); },
                ThrowsMessage<std::runtime_error>(HasSubstr(c.error)));
    EXPECT_FALSE(op->isCreated());
    EXPECT_THAT(takeEvents(), Contains(HasSubstr(c.status)));
  }
}

// Without a trace server there is no record store of the server's: the
// records go into the operation's own, and etb_data.json onto disk.
TEST_F(EtbSimTest, WithoutATraceServerTheCaptureDecodesIntoItsOwnStore) {
  auto op = make({}, {});
  op->createHlOperation();
  ASSERT_EQ(op->enable(true), 0);
  op->onDataCollecting();
  ASSERT_EQ(sim<OstrandSim_Run_t>("OstrandSim_Run")("mps2/CM4", 2000), 0);
  ASSERT_EQ(sim<OstrandSim_WaitHalted_t>("OstrandSim_WaitHalted")("mps2/CM4", 20000), 0);
  {
    std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
    tools->stopRecording(op->getOperationHandle());
  }
  op->onDataReady();
  EXPECT_EQ(op->getState(), LocalOpManager::CaptureOperation::Idle);
  ASSERT_NE(op->ownRecordStore(), nullptr);
  EXPECT_GT(op->ownRecordStore()->size(), 0u);
  const std::string dir = home.data() + "/live-targets/mps2/CM4/ETB";
  EXPECT_TRUE(parse(readFile(dir + "/etb_data.json"))["data"].isArray());
  EXPECT_TRUE(std::filesystem::exists(dir + "/metadata"));
  op->enable(false);
}

}  // namespace
