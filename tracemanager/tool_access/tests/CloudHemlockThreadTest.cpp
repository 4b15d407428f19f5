// The tool gate under threads: channel events walking the listeners while
// another thread changes them, tool events while commands run, and a full
// trace table. Runs under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "FakeDecoderLibrary.hpp"
#include "NotificationRecorder.hpp"
#include "TdfWriter.hpp"
#include "TestSupport.hpp"
#include "ToolInstall.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/CTraceApp.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tool_access/CloudTraceEventHandler.hpp"

namespace {

using Qx::Nlv::Trace::ChannelEvent;

class GateThreads : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("OSTRAND_SIM_SCENARIO");
    gate = CloudHemlock::Acquire(toolinstall::base());
    ASSERT_NE(gate, nullptr);
    ASSERT_NE(CTraceApp::eventHandler(), nullptr);
  }
  CloudHemlock* gate = nullptr;
};

// One thread raises channel events while another adds and removes
// listeners; a listener that stays hears every event, and one removed
// before an event does not hear it.
TEST_F(GateThreads, ListenersChangeWhileEventsWalkThem) {
  constexpr int kEvents = 2000;
  NotificationRecorder stable;
  std::vector<std::unique_ptr<NotificationRecorder>> passing(8);
  for (auto& p : passing) p = std::make_unique<NotificationRecorder>();
  {
    std::lock_guard<std::recursive_mutex> tools(gate->toolMutex);
    gate->addListener(&stable);
  }
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    for (size_t i = 0; !stop; ++i) {
      std::lock_guard<std::recursive_mutex> tools(gate->toolMutex);
      gate->addListener(passing[i % passing.size()].get());
      gate->removeListener(passing[(i + 3) % passing.size()].get());
    }
  });
  std::thread raiser([&] {
    for (int i = 0; i < kEvents; ++i) {
      CTraceApp::eventHandler()->OnChannelEvent("mps2/CM4", ChannelEvent{6, "sim"});
    }
  });
  raiser.join();
  stop = true;
  changer.join();
  EXPECT_EQ(stable.lines().size(), size_t{kEvents});

  {
    std::lock_guard<std::recursive_mutex> tools(gate->toolMutex);
    for (auto& p : passing) gate->removeListener(p.get());
    gate->removeListener(&stable);
  }
  CloudHemlock::waitForChannelEvents();
  const size_t before = stable.lines().size();
  CTraceApp::eventHandler()->OnChannelEvent("mps2/CM4", ChannelEvent{6, "sim"});
  EXPECT_EQ(stable.lines().size(), before);
}

// The simulation's threads report connections while this thread queries
// the gate under its lock.
TEST_F(GateThreads, ToolEventsWhileCommandsRun) {
  ASSERT_EQ(toolinstall::control<OstrandSim_LoadScenario_t>("OstrandSim_LoadScenario")(nullptr), 0);
  auto connect = toolinstall::control<OstrandSim_Connect_t>("OstrandSim_Connect");
  auto disconnect = toolinstall::control<OstrandSim_Disconnect_t>("OstrandSim_Disconnect");
  std::atomic<bool> stop{false};
  std::thread driver([&] {
    while (!stop) {
      connect("microbit/CM0P");
      disconnect("microbit/CM0P");
    }
  });
  int answered = 0;
  for (int i = 0; i < 200; ++i) {
    std::lock_guard<std::recursive_mutex> tools(gate->toolMutex);
    Json::Value devices;
    std::vector<std::string> cpus;
    bool connected = false;
    gate->getCpuNames(cpus);
    if (gate->getDevices(true, "", devices) == 0 && devices.size() == 2) ++answered;
    gate->isTargetConnected("microbit/CM0P", connected);
  }
  stop = true;
  driver.join();
  EXPECT_GT(answered, 0);
}

void keepFoundry(Qx::Nlv::Trace::IChannelFoundry*) {}

// Every one of the 1024 slots can hold a decoder; the next asks for a free
// one and is refused without a change, until one is given back.
TEST_F(GateThreads, FullTraceTable) {
  fake::Foundry foundry;
  Qx::Nlv::Trace::IChannelFoundry* saved = CTraceApp::foundry();
  CTraceApp::useFoundry(&foundry, keepFoundry);
  ostrand_test::TempDir dir("full");
  const std::string path = dir.writeText("full.tdf", TdfHeader().bytes());

  std::lock_guard<std::recursive_mutex> tools(gate->toolMutex);
  std::vector<uint32_t> handles(CTraceApp::kTraceTableSize + 1);
  for (uint32_t& handle : handles) {
    ASSERT_EQ(gate->createTraceOperation(1, path, handle, CloudHemlock::kTdfOperation), 0);
  }
  for (size_t i = 0; i < CTraceApp::kTraceTableSize; ++i) {
    ASSERT_EQ(gate->createTraceApp(handles[i]), 0) << i << gate->getLastError();
  }
  EXPECT_EQ(gate->createTraceApp(handles.back()), CloudHemlock::kTraceTableFull);
  EXPECT_EQ(gate->getLastError(),
            "No free trace slot: all 1024 trace applications are in use");
  EXPECT_EQ(gate->destroyTraceApp(handles.back()), -2);  // it got no slot
  EXPECT_EQ(gate->destroyTraceApp(handles[300]), 0);
  EXPECT_EQ(gate->createTraceApp(handles.back()), 0);
  EXPECT_EQ(CTraceApp::freeSlot(), -1);
  for (size_t i = 0; i < handles.size(); ++i) {
    if (i != 300) {
      EXPECT_EQ(gate->destroyTraceApp(handles[i]), 0);
    }
  }
  EXPECT_EQ(CTraceApp::freeSlot(), 0);
  EXPECT_EQ(foundry.decodersDestroyed, static_cast<int>(CTraceApp::kTraceTableSize) + 1);
  CTraceApp::useFoundry(saved, nullptr);
}

}  // namespace
