// The manager over the simulated debug environment as the module runs it:
// the tool library loaded, the default scenario's CPUs connected, the
// manager's tools seeing them, and every status event it sends kept.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "CaptureTestDirs.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "json_interface/WorkQueue.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tool_access/tests/ToolInstall.hpp"

class SimManagerTest : public ::testing::Test {
 protected:
  // No configure: the manager holds the tools; a trace server only starts
  // with a configuration.
  void connectManager(const std::vector<std::string>& cpus) {
    ASSERT_NE(sim<OstrandSim_LoadScenario_t>("OstrandSim_LoadScenario"), nullptr);
    ASSERT_EQ(sim<OstrandSim_LoadScenario_t>("OstrandSim_LoadScenario")(""), 0);
    for (const auto& cpu : cpus)
      ASSERT_EQ(sim<OstrandSim_Connect_t>("OstrandSim_Connect")(cpu.c_str()), 0);
    LocalOpManager::setInstallBase(toolinstall::base());
    manager = LocalOpManager::instance();
    tools = manager->getTools();
    ASSERT_NE(tools, nullptr);
    connections = manager->connect(nullptr, nullptr, nullptr,
                                   [this](const std::string& t, const std::string&,
                                          const std::string& e, const std::string& d) {
                                     std::lock_guard<std::mutex> guard(eventsMutex);
                                     events.push_back(t + " " + e + " " + d);
                                   });
    for (const auto& cpu : cpus) {
      ASSERT_TRUE(toolinstall::eventually([&] {
        bool connected = false;
        std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
        return tools->isTargetConnected(cpu, connected) == 0 && connected;
      })) << cpu << " never connected";
    }
  }
  void TearDown() override {
    for (auto& c : connections) c.disconnect();
    if (manager) {
      std::lock_guard<std::mutex> guard(manager->commandMutex);
      manager->shutdown();
    }
    manager.reset();
    WorkQueue::instance().drain();
  }
  // A control entry point of the simulation the manager's tools run on.
  template <typename F>
  static F sim(const char* name) {
    return toolinstall::control<F>(name);
  }
  std::vector<std::string> takeEvents() {
    std::lock_guard<std::mutex> guard(eventsMutex);
    return std::exchange(events, {});
  }

  TempUserDir home;
  std::shared_ptr<LocalOpManager> manager;
  CloudHemlock* tools = nullptr;
  std::vector<boost::signals2::connection> connections;
  std::mutex eventsMutex;
  std::vector<std::string> events;  // guarded by eventsMutex
};
