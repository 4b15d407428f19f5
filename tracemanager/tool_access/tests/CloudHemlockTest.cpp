// The tool gate on the simulated tool libraries of the build: what a broken
// install tree gives (each required library and entry point missing in
// turn, each in a process of its own, as a death test), and the gate's operations on the
// default scenario.
#include "tool_access/CloudHemlock.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "TestSupport.hpp"
#include "ToolInstall.hpp"
#include "source_utilities/SourceUtilitiesError.hpp"

namespace fs = std::filesystem;

namespace {

// What the gate makes of the tree at `base`: the refusal's text, or
// "loaded" and the answer of a device query on a file.
std::string gateOn(const std::string& base) {
  try {
    CloudHemlock gate(base);
    Json::Value devices;
    int32_t result = gate.getDevices(false, base + "none.tdf", devices);
    return "loaded " + std::to_string(result) + " " + gate.getLastError();
  } catch (const CloudHemlockException& e) {
    // Acquire turns the same refusal into null (unless an instance of the
    // parent process came along into the child).
    bool refused = CloudHemlock::current() != nullptr || CloudHemlock::Acquire(base) == nullptr;
    return std::string(e.what()) + (refused ? "" : " (acquired)");
  }
}

// Expects `expected` of gateOn in a process of its own: the libraries a
// broken tree loads stay loaded, so no case sees another's.
void expectGateAnswer(const std::string& base, const std::string& expected) {
  EXPECT_EXIT(
      {
        std::fprintf(stderr, "[%s]", gateOn(base).c_str());
        std::fflush(stderr);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), ::testing::HasSubstr("[" + expected + "]"));
}

// Each required library removed in turn: the refusal naming it ("{}"
// stands for the removed file's path).
TEST(BrokenTrees, GateAnswer) {
  const char* const cases[][2] = {
      {"emulation/analysis/bin/libhemlock.so", "Unable to load hemlock library: {}"},
      {"ProbeHost/bin/libmarlfile9.so", "Unable to load marlfile9 library: {}"},
      {"emulation/analysis/bin/libXEVProperties.so", "Unable to load XEVProperties library: {}"},
      {"emulation/analysis/bin/libXEVPropertyHelper.so",
       "Unable to load XEVPropertyHelper library: {}"},
      {"emulation/analysis/bin/libPBATargetAdapter.so",
       "Unable to load PbaTargetAdapter library: {}"},
      {"emulation/analysis/bin/libqx_xevt_setup_manager.so", "Unable to load qx_xevt libraries"},
      {"emulation/analysis/bin/libqx_xevt_database.so", "Unable to load qx_xevt libraries"},
      // Optional: the gate loads, without devices.
      {"emulation/analysis/bin/libqx_xevt_session.so",
       "loaded -1 Cannot get devices, qx_xevt_setup_manager not available"}};
  for (const auto& [removedFile, answer] : cases) {
    SCOPED_TRACE(removedFile);
    ostrand_test::TempDir dir("gate");
    const std::string base = toolinstall::copyTree(dir.path());
    const std::string removed = base + removedFile;
    ASSERT_TRUE(fs::remove(removed)) << removed;
    expectGateAnswer(base, ostrand_test::replaceAll(answer, "{}", removed));
  }
}

// An adapter library without one of its entry points is refused.
TEST(MissingEntryPoint, AdapterRefused) {
  for (const char* entry : {"GetNumCpu", "GetCpuName", "NewTargetAdapter", "FreeTargetAdapter",
                            "AddTargetEventConsumer", "ClearTargetEventConsumer",
                            "AddAdapterEventConsumer", "RemoveAdapterEventConsumer",
                            "ClearAdapterEventConsumer"}) {
    SCOPED_TRACE(entry);
    ostrand_test::TempDir dir("gate");
    const std::string base = toolinstall::copyTree(dir.path());
    fs::copy_file(std::string(OSTRAND_FIXTURE_DIR) + "/" + entry + "/libPBATargetAdapter.so",
                  base + "emulation/analysis/bin/libPBATargetAdapter.so",
                  fs::copy_options::overwrite_existing);
    expectGateAnswer(base, "Unable to load function from PbaTargetAdapter library");
  }
}

using toolinstall::eventually;

TEST(CloudHemlockOnTheSimulation, DefaultScenarioThroughTheGate) {
  unsetenv("OSTRAND_SIM_SCENARIO");
  CloudHemlock* gate = CloudHemlock::Acquire(toolinstall::base());
  ASSERT_NE(gate, nullptr);
  std::lock_guard<std::recursive_mutex> tools(gate->toolMutex);
  // No session: the first user is not counted, so its Release changes
  // nothing; a second user is counted.
  EXPECT_EQ(CloudHemlock::count(), 0u);
  CloudHemlock::Release();
  EXPECT_EQ(CloudHemlock::current(), gate);
  EXPECT_EQ(CloudHemlock::Acquire(toolinstall::base()), gate);
  EXPECT_EQ(CloudHemlock::count(), 1u);
  Json::Value devices;
  EXPECT_EQ(gate->getDevices(true, "", devices), -1);
  EXPECT_EQ(gate->getLastError(), "Debug session not available");
  bool connected = true;
  EXPECT_EQ(gate->isTargetConnected("mps2/CM4", connected), -1);
  EXPECT_EQ(gate->getLastError(), "Failed to obtain target adapter for: mps2/CM4");

  auto load = toolinstall::control<OstrandSim_LoadScenario_t>("OstrandSim_LoadScenario");
  ASSERT_NE(load, nullptr);
  ASSERT_EQ(load(nullptr), 0);
  std::vector<std::string> cpus;
  ASSERT_TRUE(eventually([&] { return gate->getCpuNames(cpus) == 0 && cpus.size() == 2; }));

  ASSERT_EQ(gate->getDevices(true, "", devices), 0) << gate->getLastError();
  const Json::Value* program = CloudHemlock::findOutFileNode(devices[1]["device_info"]);
  ASSERT_NE(program, nullptr);
  EXPECT_EQ((*program)["name"].asString(), "mps2/CM4");

  EXPECT_EQ(gate->isTargetConnected("mps2/CM4", connected), 0);
  EXPECT_FALSE(connected);
  auto connect = toolinstall::control<OstrandSim_Connect_t>("OstrandSim_Connect");
  ASSERT_EQ(connect("mps2/CM4"), 0);
  EXPECT_TRUE(eventually([&] { return gate->isTargetConnected("mps2/CM4", connected) == 0 && connected; }));

  // The devices and the connected CPU's state description; program files
  // are named from the install tree, wherever it lies.
  Json::Value document;
  document["devices"] = devices;
  ASSERT_EQ(gate->getJState("mps2/CM4", document["jstate"]), 0) << gate->getLastError();
  EXPECT_TRUE(ostrand_test::matchesGolden(
      ostrand_test::replaceAll(document.toStyledString(), toolinstall::base(), "<base>/"),
      ostrand_test::sourcePath("tracemanager/tool_access/tests/golden/default_devices.json")));
}

TEST(CloudHemlockOnTheSimulation, OperationRecordsAndProperties) {
  unsetenv("OSTRAND_SIM_SCENARIO");
  CloudHemlock* gate = CloudHemlock::Acquire(toolinstall::base());
  ASSERT_NE(gate, nullptr);
  ASSERT_EQ(toolinstall::control<OstrandSim_LoadScenario_t>("OstrandSim_LoadScenario")(nullptr), 0);
  std::vector<std::string> cpus;
  ASSERT_TRUE(eventually([&] { return gate->getCpuNames(cpus) == 0 && !cpus.empty(); }));
  std::lock_guard<std::recursive_mutex> tools(gate->toolMutex);

  uint32_t handle = 0;
  ASSERT_EQ(gate->createTraceOperation(7, "mps2/CM4", handle, CloudHemlock::kLiveOperation), 0)
      << gate->getLastError();
  Json::Value tree;
  const std::string treeFile =
      ostrand_test::sourcePath("tracemanager/tool_access/tests/golden/etb_properties.json");
  ASSERT_TRUE(Json::Reader().parse(ostrand_test::readFile(treeFile), tree));
  EXPECT_EQ(gate->setOperationProperties(handle, tree), 0) << gate->getLastError();
  EXPECT_EQ(gate->setOperationProperties(handle, Json::Value(Json::arrayValue)), -6);
  Json::Value unknown = tree;
  unknown[0]["type"] = "Colour";
  EXPECT_EQ(gate->setOperationProperties(handle, unknown), -7);
  EXPECT_EQ(gate->getLastError(), "Unable to create property for: " + tree[0]["name"].asString());
  EXPECT_EQ(gate->enableOperation(handle, true, true), 0);  // keep: nothing is sent
  EXPECT_EQ(gate->enableOperation(handle, true, false), 0) << gate->getLastError();
  EXPECT_EQ(gate->releaseOperation(handle), 0);
  EXPECT_EQ(gate->enableOperation(handle, true, false), -1);
  EXPECT_EQ(gate->getLastError(), "Invalid operation handle");

  uint32_t file = 0;
  ASSERT_EQ(gate->createTraceOperation(7, "/nowhere/x.tdf", file, CloudHemlock::kTdfOperation), 0);
  EXPECT_EQ(gate->getLastError(), "Cannot open tdf file '/nowhere/x.tdf'");
  EXPECT_EQ(gate->setOperationProperties(file, tree), 0);  // nothing to send for a file
  EXPECT_EQ(gate->enableOperation(file, true, true), -1);  // keep still tests the file
  EXPECT_EQ(gate->createTraceApp(file), -5);
  EXPECT_EQ(gate->createTraceApp(file), -2);
  EXPECT_EQ(gate->getLastError(), "Trace already exists for operation");
  EXPECT_EQ(gate->destroyTraceApp(file), 0);
  EXPECT_EQ(gate->destroyTraceApp(file), -1);
}

}  // namespace
