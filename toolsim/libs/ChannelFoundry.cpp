// libChannelFoundry.so of the simulation: the decoder library's foundry.
#include "SimChannel.hpp"
#include "SimHemlock.hpp"
#include "hemlock/ToolEntryPoints.hpp"

extern "C" {
OSTRAND_SIM_API Qx::Nlv::Trace::IChannelFoundry* CreateChannelFoundry() { return OstrandSim::createFoundry(); }
OSTRAND_SIM_API void DestroyChannelFoundry(Qx::Nlv::Trace::IChannelFoundry* foundry) {
  OstrandSim::destroyFoundry(foundry);
}
}
static_assert(std::is_same_v<decltype(&CreateChannelFoundry), CreateChannelFoundry_t>);
static_assert(std::is_same_v<decltype(&DestroyChannelFoundry), DestroyChannelFoundry_t>);
