// The module's exported entry points, with plain C names.
//
// Load order of the module-wide state matters: the connection list is built
// before the WorkQueue, so at unload the queue stops first (tasks not yet
// started are dropped) and the connections still open are destroyed after,
// each telling its host closed() once; the decoder library's objects go
// last.
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include "json_interface/TraceManagerConnection.hpp"
#include "json_interface/WorkQueue.hpp"
#include "source_utilities/HostApis.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/OstrandExport.hpp"
#include "tool_access/CTraceApp.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tsp_server/ExperimentKinds.hpp"
#include "tsp_server/TspServer.hpp"
#include "wattline/WLExperimentKind.hpp"

namespace {

const char* const moduleNames[] = {"trace"};

// Built before the state below, so destroyed after it: once the connections
// are gone, and with them the tool gate, what the gate left in the decoder
// library goes back to it, so unloading the module leaves nothing behind.
struct ToolRelease {
  ToolRelease() = default;
  ToolRelease(const ToolRelease&) = delete;
  ToolRelease& operator=(const ToolRelease&) = delete;
  ~ToolRelease() {
    if (CloudHemlock::current() == nullptr) CTraceApp::releaseAtUnload();
  }
};
ToolRelease toolRelease;

// Runs at load, in this order.
struct ModuleState {
  ModuleState() {
    TraceManagerConnection::all();
    WorkQueue::instance();
  }
};
ModuleState moduleState;

}  // namespace

OSTRAND_C_EXPORT const char* const* ListJSONInterfaceModules(uint32_t* count) {
  if (count != nullptr) *count = 1;
  return moduleNames;
}

OSTRAND_C_EXPORT JSONInterface::ExternalModule::ModuleConnection* CreateJSONInterfaceModule(
    const char* name, HostConnection* host) {
  if (name == nullptr || std::strcmp(name, moduleNames[0]) != 0) return nullptr;
  // The log starts with the first connection, so that everything the
  // connection does (loading the tool libraries first of all) can be traced.
  Logger::bootstrap();
  try {
    auto connection = std::make_unique<TraceManagerConnection>(host);
    auto* raw = connection.get();
    TraceManagerConnection::all().push_back(std::move(connection));
    return raw;
  } catch (const std::exception& e) {
    // Nothing may leave the module; a host sees a failed creation as null.
    QX_LOG_ERROR("CreateJSONInterfaceModule: %s", e.what());
    return nullptr;
  }
}

OSTRAND_C_EXPORT void InitializeSymbolManagerAPI(void* api) { QX_NLV::setSymbolManagerApi(api); }

OSTRAND_C_EXPORT void InitializeDisAsmManagerAPI(void* api) { QX_NLV::setDisAsmManagerApi(api); }

// A trace server object on port 1239, owned by the caller; null when it
// cannot be made. Power captures become experiments through the Wattline
// library, whose kinds are handed to the server's kind table once, before
// any server can scan.
OSTRAND_C_EXPORT void* CreateServer() {
  try {
    static std::once_flag kindsRegistered;
    std::call_once(kindsRegistered,
                   [] { VSKTspServer::registerWattlineKinds(VSKTspServer::registerExperimentKind); });
    return VSKTspServer::createServer();  // port 1239 unless the owner sets another
  } catch (...) {
    return nullptr;
  }
}
