// libqx_xevt_setup_manager.so of the simulation. The module only checks that
// it is there; the setup it stands for is the scenario.
#include "SimHemlock.hpp"
#include "hemlock/ToolEntryPoints.hpp"

extern "C" OSTRAND_SIM_API void* XEVT_GetSetupManager() { return OstrandSim::presenceToken("setup manager"); }
static_assert(std::is_same_v<decltype(&XEVT_GetSetupManager), XEVT_GetSetupManager_t>);
