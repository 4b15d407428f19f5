// libhemlock.so of the simulation: the job manager, the manager, the cleanup
// registry, and the control entry point hosts use to drive the simulation.
#include <cstring>
#include <string>

#include "SimHemlock.hpp"
#include "SimWorld.hpp"
#include "hemlock/ToolEntryPoints.hpp"
#include "sim/SimControl.hpp"

using OstrandSim::SimWorld;

namespace {

thread_local std::string lastError;

// Every control call ends here: exceptions stop at the C border.
template <typename Call>
int32_t control(Call call) {
  lastError.clear();
  try {
    return call(lastError);
  } catch (const std::exception& e) {
    lastError = e.what();
  } catch (...) {
    lastError = "unexpected failure in the simulation";
  }
  return -99;
}

std::string text(const char* s) { return s != nullptr ? s : ""; }

}  // namespace

extern "C" {

OSTRAND_SIM_API void GetHemlockJobMgrIF(Qx::Nlv::Hemlock::IHemlockJobManager** manager) {
  if (manager != nullptr) *manager = OstrandSim::jobManager();
}
OSTRAND_SIM_API void GetHemlockMgrIF(Qx::Nlv::Hemlock::IHemlockManager** manager) {
  if (manager != nullptr) *manager = OstrandSim::hemlockManager();
}
OSTRAND_SIM_API void GetHemlockDBMgrIF(void** manager) {
  if (manager != nullptr) *manager = OstrandSim::presenceToken("hemlock database");
}
OSTRAND_SIM_API void GetHemlockCleanupRegistryIF(Qx::Nlv::Hemlock::ICleanupRegistry** registry) {
  if (registry != nullptr) *registry = OstrandSim::cleanupRegistry();
}

OSTRAND_SIM_API int32_t OstrandSim_LoadScenario(const char* path) {
  return control([&](std::string& e) { return SimWorld::instance().loadScenario(text(path), e); });
}
OSTRAND_SIM_API int32_t OstrandSim_Connect(const char* cpu) {
  return control([&](std::string& e) { return SimWorld::instance().connect(text(cpu), e); });
}
OSTRAND_SIM_API int32_t OstrandSim_Disconnect(const char* cpu) {
  return control([&](std::string& e) { return SimWorld::instance().disconnect(text(cpu), e); });
}
OSTRAND_SIM_API int32_t OstrandSim_Run(const char* cpu, uint64_t instructions) {
  return control([&](std::string& e) { return SimWorld::instance().run(text(cpu), instructions, e); });
}
OSTRAND_SIM_API int32_t OstrandSim_Halt(const char* cpu) {
  return control([&](std::string& e) { return SimWorld::instance().halt(text(cpu), e); });
}
OSTRAND_SIM_API int32_t OstrandSim_WaitHalted(const char* cpu, uint32_t timeoutMs) {
  return control([&](std::string& e) { return SimWorld::instance().waitHalted(text(cpu), timeoutMs, e); });
}
OSTRAND_SIM_API int32_t OstrandSim_State(char* buffer, size_t size) {
  return control([&](std::string&) {
    std::string state = SimWorld::instance().stateJson();
    if (buffer != nullptr && size > 0) {
      size_t n = std::min(size - 1, state.size());
      std::memcpy(buffer, state.data(), n);
      buffer[n] = '\0';
    }
    return static_cast<int32_t>(state.size());
  });
}
OSTRAND_SIM_API int32_t OstrandSim_Save(const char* cpu, const char* tdfFile) {
  return control([&](std::string& e) { return SimWorld::instance().saveRecording(text(cpu), text(tdfFile), e); });
}
OSTRAND_SIM_API const char* OstrandSim_LastError() { return lastError.c_str(); }

}  // extern "C"

// The declarations the module and hosts compile against must match.
static_assert(std::is_same_v<decltype(&GetHemlockJobMgrIF), GetHemlockJobMgrIF_t>);
static_assert(std::is_same_v<decltype(&GetHemlockCleanupRegistryIF), GetHemlockCleanupRegistryIF_t>);
static_assert(std::is_same_v<decltype(&OstrandSim_Run), OstrandSim_Run_t>);
static_assert(std::is_same_v<decltype(&OstrandSim_State), OstrandSim_State_t>);
