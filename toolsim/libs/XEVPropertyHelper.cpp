// libXEVPropertyHelper.so of the simulation: has no entry points; it is
// loaded for the other libraries, and names the simulation it belongs to.
#include "SimHemlock.hpp"

extern "C" OSTRAND_SIM_API const char* OstrandSim_PropertyHelperOf() { return "ostrand simulation"; }
