// libmarlfile9.so of the simulation: the probe host library has no entry
// points the module calls; it only has to load.
#include "SimHemlock.hpp"

extern "C" OSTRAND_SIM_API const char* OstrandSim_ProbeHostOf() { return "ostrand simulation"; }
