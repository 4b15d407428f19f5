// The C entry points of the tool libraries, by library, in the order the
// module resolves them. Each library exports these plain names (a loader
// also tries them with a leading "_").
//
// Library files (a name X is the file libX.so):
//   <base>emulation/analysis/bin/: hemlock, XEVProperties, XEVPropertyHelper,
//   PBATargetAdapter, qx_xevt_session, qx_xevt_setup_manager,
//   qx_xevt_database, ChannelFoundry; <base>ProbeHost/bin/: marlfile9.
#pragma once

#include <cstdint>

#include "hemlock/CleanupRegistry.hpp"
#include "hemlock/HLClient.hpp"
#include "hemlock/TargetAdapter.hpp"
#include "trace/ChannelFoundry.hpp"
#include "xevt/Session.hpp"

extern "C" {

// hemlock
typedef void (*GetHemlockJobMgrIF_t)(Qx::Nlv::Hemlock::IHemlockJobManager** manager);
typedef void (*GetHemlockMgrIF_t)(Qx::Nlv::Hemlock::IHemlockManager** manager);
typedef void (*GetHemlockDBMgrIF_t)(void** manager);
typedef void (*GetHemlockCleanupRegistryIF_t)(Qx::Nlv::Hemlock::ICleanupRegistry** registry);

// XEVProperties
typedef int32_t (*QueryInterface_t)(const char* name, void** object);

// PBATargetAdapter
typedef int32_t (*GetNumCpu_t)();
typedef int32_t (*GetCpuName_t)(int32_t index, char* buffer, int32_t size);
typedef void (*NewTargetAdapter_t)(const char* name, Qx::Nlv::Hemlock::ITargetAdapter** adapter);
typedef void (*FreeTargetAdapter_t)(Qx::Nlv::Hemlock::ITargetAdapter* adapter);
typedef void (*AddTargetEventConsumer_t)(Qx::Nlv::Trace::CTargetStateNotification* consumer);
typedef void (*RemoveTargetEventConsumer_t)(Qx::Nlv::Trace::CTargetStateNotification* consumer);
typedef void (*ClearTargetEventConsumer_t)();
typedef void (*AddAdapterEventConsumer_t)(
    Qx::Nlv::Hemlock::PBATargetAdapterEventListener* consumer);
typedef void (*RemoveAdapterEventConsumer_t)(
    Qx::Nlv::Hemlock::PBATargetAdapterEventListener* consumer);
typedef void (*ClearAdapterEventConsumer_t)();

// qx_xevt_session, qx_xevt_setup_manager, qx_xevt_database
typedef Qx::Nlv::Xevt::ISessionManager* (*XEVT_GetSessionManager_t)();
typedef void* (*XEVT_GetSetupManager_t)();
typedef void* (*GetDatabase_t)();

// ChannelFoundry
typedef Qx::Nlv::Trace::IChannelFoundry* (*CreateChannelFoundry_t)();
typedef void (*DestroyChannelFoundry_t)(Qx::Nlv::Trace::IChannelFoundry* foundry);

}  // extern "C"
