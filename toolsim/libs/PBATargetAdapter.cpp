// libPBATargetAdapter.so of the simulation: the CPUs of the debug session,
// their adapters, and the adapter and target-state listeners.
#include <cstring>
#include <string>

#include "SimHemlock.hpp"
#include "SimWorld.hpp"
#include "hemlock/ToolEntryPoints.hpp"

using OstrandSim::SimWorld;

extern "C" {

OSTRAND_SIM_API int32_t GetNumCpu() { return SimWorld::instance().numCpu(); }

OSTRAND_SIM_API int32_t GetCpuName(int32_t index, char* buffer, int32_t size) {
  std::string name;
  if (buffer == nullptr || size <= 0) return -1;
  if (!SimWorld::instance().cpuName(index, name)) {
    buffer[0] = '\0';
    return -1;
  }
  size_t n = std::min(static_cast<size_t>(size) - 1, name.size());
  std::memcpy(buffer, name.data(), n);
  buffer[n] = '\0';
  return 0;
}

OSTRAND_SIM_API void NewTargetAdapter(const char* name, Qx::Nlv::Hemlock::ITargetAdapter** adapter) {
  if (adapter != nullptr) *adapter = OstrandSim::targetAdapter(name);
}
// Adapters live as long as the process; giving one back changes nothing.
OSTRAND_SIM_API void FreeTargetAdapter(Qx::Nlv::Hemlock::ITargetAdapter*) {}

OSTRAND_SIM_API void AddTargetEventConsumer(Qx::Nlv::Trace::CTargetStateNotification* consumer) {
  SimWorld::instance().addTargetListener(consumer);
}
OSTRAND_SIM_API void RemoveTargetEventConsumer(Qx::Nlv::Trace::CTargetStateNotification* consumer) {
  SimWorld::instance().removeTargetListener(consumer);
}
OSTRAND_SIM_API void ClearTargetEventConsumer() { SimWorld::instance().clearTargetListeners(); }
OSTRAND_SIM_API void AddAdapterEventConsumer(Qx::Nlv::Hemlock::PBATargetAdapterEventListener* consumer) {
  SimWorld::instance().addAdapterListener(consumer);
}
OSTRAND_SIM_API void RemoveAdapterEventConsumer(Qx::Nlv::Hemlock::PBATargetAdapterEventListener* consumer) {
  SimWorld::instance().removeAdapterListener(consumer);
}
OSTRAND_SIM_API void ClearAdapterEventConsumer() { SimWorld::instance().clearAdapterListeners(); }

}  // extern "C"

static_assert(std::is_same_v<decltype(&GetCpuName), GetCpuName_t>);
static_assert(std::is_same_v<decltype(&NewTargetAdapter), NewTargetAdapter_t>);
static_assert(std::is_same_v<decltype(&AddAdapterEventConsumer), AddAdapterEventConsumer_t>);
