// CTraceApp: the process-wide layer over the decoder library: the loaded
// library, its one foundry, its one channel server (none in stand-alone
// mode, where only files decode), the channel event handler and the table
// of 1024 trace decoders.
//
// Not a class: a set of process-wide values and functions. They are set
// during TraceInit (in CloudHemlock's constructor), in getDevices and in
// cleanup(), under CloudHemlock's toolMutex; callers hold that lock. Nothing
// the library throws leaves these functions; failures are logged and give
// false or null.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "hemlock/ToolEntryPoints.hpp"
#include "tool_access/CloudHemlockNotificationIF.hpp"
#include "trace/ChannelFoundry.hpp"

class CTRACE;
class CloudTraceEventHandler;

namespace CTraceApp {

inline constexpr size_t kTraceTableSize = 1024;
using TraceTable = std::array<CTRACE*, kTraceTableSize>;

// Loads <directory>ChannelFoundry (once per process), makes the event
// handler for `listener`, the foundry and the channel server. True if the
// library is loaded.
bool TraceInit(const std::string& directory, CloudHemlockNotificationIF* listener);
void CreateChannelFoundry();
void DestroyChannelFoundry();
// The channel server, made if needed; null in stand-alone mode.
Qx::Nlv::Trace::IChannelServer* getChannelServer();
void DestroyChannelServer();
// True, with `name`, if a receiver serves `cpu`.
bool GetReceiverName(const char* cpu, std::string& name);

// The foundry, or null.
Qx::Nlv::Trace::IChannelFoundry* foundry();
// The foundry, made first if the library is loaded and there is none.
Qx::Nlv::Trace::IChannelFoundry* obtainFoundry();
Qx::Nlv::Trace::IChannelServer* channelServer();
CloudTraceEventHandler* eventHandler();
TraceTable& traceTable();
// The first empty slot of the trace table, or -1 when all are taken.
int32_t freeSlot();

// At unload of the module, once no CloudHemlock is left: the decoders still
// in the table, the channel server and the foundry go back to the library,
// and the event handler and the library's handle are freed. The library
// stays loaded. TraceInit starts over from nothing after it.
void releaseAtUnload();

// A foundry that does not come from a loaded library (a host's own decoder,
// tests): it is used, and given to `destroy` by DestroyChannelFoundry.
void useFoundry(Qx::Nlv::Trace::IChannelFoundry* foundry, DestroyChannelFoundry_t destroy);

}  // namespace CTraceApp
