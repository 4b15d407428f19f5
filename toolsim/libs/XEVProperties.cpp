// libXEVProperties.so of the simulation: interfaces by name.
#include <cstring>

#include "SimHemlock.hpp"
#include "SimSession.hpp"
#include "hemlock/ToolEntryPoints.hpp"

extern "C" OSTRAND_SIM_API int32_t QueryInterface(const char* name, void** object) {
  if (object == nullptr) return -1;
  *object = nullptr;
  if (name != nullptr && std::strcmp(name, "ISessionManager") == 0) *object = OstrandSim::sessionManager();
  return *object != nullptr ? 0 : -1;
}
static_assert(std::is_same_v<decltype(&QueryInterface), QueryInterface_t>);
