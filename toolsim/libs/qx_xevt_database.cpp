// libqx_xevt_database.so of the simulation. The module only checks that it
// is there; the device database it stands for is the scenario.
#include "SimHemlock.hpp"
#include "hemlock/ToolEntryPoints.hpp"

extern "C" OSTRAND_SIM_API void* GetDatabase() { return OstrandSim::presenceToken("database"); }
static_assert(std::is_same_v<decltype(&GetDatabase), GetDatabase_t>);
