// The manager over the simulated debug environment as the module runs it:
// the tool library loaded, the default scenario's CPUs connected, the
// manager's tools seeing them, and every status event it sends kept.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CaptureTestDirs.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "json_interface/WorkQueue.hpp"
#include "sim/SimControl.hpp"
#include "tool_access/CloudHemlock.hpp"

class SimManagerTest : public ::testing::Test {
 protected:
  static inline const std::string kBase = std::string(OSTRAND_BUILD_DIR) + "/vsk_base/";

  // No configure: the manager holds the tools; a trace server only starts
  // with a configuration.
  void connectManager(const std::vector<std::string>& cpus) {
    handle = dlopen((kBase + "emulation/analysis/bin/libhemlock.so").c_str(), RTLD_NOW);
    ASSERT_NE(handle, nullptr) << dlerror();
    ASSERT_EQ(sim<OstrandSim_LoadScenario_t>("OstrandSim_LoadScenario")(""), 0);
    for (const auto& cpu : cpus)
      ASSERT_EQ(sim<OstrandSim_Connect_t>("OstrandSim_Connect")(cpu.c_str()), 0);
    LocalOpManager::setInstallBase(kBase);
    manager = LocalOpManager::instance();
    tools = manager->getTools();
    ASSERT_NE(tools, nullptr);
    connections = manager->connect(nullptr, nullptr, nullptr,
                                   [this](const std::string& t, const std::string&,
                                          const std::string& e, const std::string& d) {
                                     std::lock_guard<std::mutex> guard(eventsMutex);
                                     events.push_back(t + " " + e + " " + d);
                                   });
    for (const auto& cpu : cpus) waitConnected(cpu);
  }
  void TearDown() override {
    for (auto& c : connections) c.disconnect();
    if (manager) {
      std::lock_guard<std::mutex> guard(manager->commandMutex);
      manager->shutdown();
    }
    manager.reset();
    WorkQueue::instance().drain();
    if (handle != nullptr) dlclose(handle);
  }
  template <typename F>
  F sim(const char* name) {
    return reinterpret_cast<F>(dlsym(handle, name));
  }
  void waitConnected(const std::string& cpu) {
    for (int i = 0; i < 200; ++i) {
      bool connected = false;
      {
        std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
        tools->isTargetConnected(cpu, connected);
      }
      if (connected) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    FAIL() << cpu << " never connected";
  }
  std::vector<std::string> takeEvents() {
    std::lock_guard<std::mutex> guard(eventsMutex);
    return std::exchange(events, {});
  }

  TempUserDir home;
  void* handle = nullptr;
  std::shared_ptr<LocalOpManager> manager;
  CloudHemlock* tools = nullptr;
  std::vector<boost::signals2::connection> connections;
  std::mutex eventsMutex;
  std::vector<std::string> events;  // guarded by eventsMutex
};
