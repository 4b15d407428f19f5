// The power probe of a simulated CPU: made from the scenario's power model
// and state word description, capturing into the user's trace data tree.
#pragma once

#include <memory>
#include <string>

namespace OstrandSim {

struct CpuSpec;
class PowerRecorder;

// $QX_TRACE_DATA_DIR, else .QX-trace/data in $USERPROFILE, else in $HOME.
std::string traceDataDir();

// The probe of `spec`: its power model on its board, the state words laid
// out as its `jstate` says.
std::shared_ptr<PowerRecorder> makePowerProbe(const CpuSpec& spec);

}  // namespace OstrandSim
