// The control entry point of the simulated debug environment: what a host
// (the `ostrand` program, tests) uses to play the part of a debugger
// driving targets. Exported with C names by libhemlock.so of the
// simulation; a host finds it with dlopen(<tool dir>/libhemlock.so,
// RTLD_NOLOAD or RTLD_NOW) and dlsym.
//
// All calls are thread-safe and return at once; what they cause (adapter,
// target state, job and channel events) happens on threads of the
// simulation, in the order a real debug session reports it. Results: 0 on
// success, negative on failure with the reason in OstrandSim_LastError()
// (a thread-local text, valid until the next call on that thread).
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// Activates a scenario file (null or "": the default scenario installed
// beside the libraries). Replaces an active one (its CPUs disconnect first).
typedef int32_t (*OstrandSim_LoadScenario_t)(const char* path);
// Connects or disconnects a CPU of the active scenario (adapter and target
// state events).
typedef int32_t (*OstrandSim_Connect_t)(const char* cpu);
typedef int32_t (*OstrandSim_Disconnect_t)(const char* cpu);
// Runs a connected CPU: until halted, until `instructions` more have
// executed (0: no limit), or until its program ends.
typedef int32_t (*OstrandSim_Run_t)(const char* cpu, uint64_t instructions);
typedef int32_t (*OstrandSim_Halt_t)(const char* cpu);
// Blocks until the CPU is halted or `timeoutMs` passed; 0 if halted.
typedef int32_t (*OstrandSim_WaitHalted_t)(const char* cpu, uint32_t timeoutMs);
// The state of the simulation as JSON text (scenario, CPUs with state,
// instruction count and virtual time), copied into `buffer`. Returns the
// length the whole text needs (excluding the NUL); call again with a bigger
// buffer if it was cut.
typedef int32_t (*OstrandSim_State_t)(char* buffer, size_t size);
// Saves the last run of a CPU as a .tdf recording: the header (CPU,
// receiver, program file, clock), the configuration the run was made with
// and the trace bytes its trace unit held. -1 unknown CPU, -2 no run with a
// trace yet, -3 the CPU is running, -4 the file cannot be written.
typedef int32_t (*OstrandSim_Save_t)(const char* cpu, const char* tdfFile);
typedef const char* (*OstrandSim_LastError_t)();

}  // extern "C"
