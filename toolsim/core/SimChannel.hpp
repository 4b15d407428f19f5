// The decoder library of the simulation: the foundry, the channel server
// over the active scenario's receivers, the channel drivers of its CPUs,
// and decoders that hand out a CPU's trace rows through the column model.
#pragma once

#include "trace/ChannelFoundry.hpp"

namespace OstrandSim {

__attribute__((visibility("default"))) Qx::Nlv::Trace::IChannelFoundry* createFoundry();
__attribute__((visibility("default"))) void destroyFoundry(Qx::Nlv::Trace::IChannelFoundry* foundry);

}  // namespace OstrandSim
