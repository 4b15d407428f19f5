// The hemlock and target adapter side of the simulation: the job manager,
// the manager of client registrations, the cleanup registry, and target
// adapters. Every object lives as long as the process; all are thread-safe.
#pragma once

#include "hemlock/CleanupRegistry.hpp"
#include "hemlock/HLClient.hpp"
#include "hemlock/TargetAdapter.hpp"

#define OSTRAND_SIM_API __attribute__((visibility("default")))

namespace OstrandSim {

OSTRAND_SIM_API Qx::Nlv::Hemlock::IHemlockJobManager* jobManager();
OSTRAND_SIM_API Qx::Nlv::Hemlock::IHemlockManager* hemlockManager();
OSTRAND_SIM_API Qx::Nlv::Hemlock::ICleanupRegistry* cleanupRegistry();
// The adapter of a CPU of the active scenario, or null. The pointer stays
// valid for the life of the process.
OSTRAND_SIM_API Qx::Nlv::Hemlock::ITargetAdapter* targetAdapter(const char* name);
// An opaque object that stands for a library that only has to be there
// (setup manager, database): non-null, never dereferenced by callers.
OSTRAND_SIM_API void* presenceToken(const char* library);

}  // namespace OstrandSim
