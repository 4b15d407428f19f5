// Live execution: a CPU whose scenario asks for it ("execution": "qemu")
// runs its program under qemu-system-arm.
#pragma once

#include <memory>

#include "SimStep.hpp"

namespace OstrandSim {

std::unique_ptr<CpuExecutor> makeQemuExecutor(const CpuSpec& cpu);

}  // namespace OstrandSim
