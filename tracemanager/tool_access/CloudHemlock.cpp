#include "tool_access/CloudHemlock.hpp"

#include <atomic>
#include <cstdio>
#include <exception>
#include <memory>
#include <type_traits>

#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/HostApis.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/Platform.hpp"
#include "source_utilities/SourceUtilitiesError.hpp"
#include "source_utilities/uDll.hpp"
#include "source_utilities/uEnvironment.hpp"
#include "symbols/CloudDisasm.hpp"
#include "symbols/ObjectFileInfo.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/CTraceApp.hpp"
#include "tool_access/CloudOperation.hpp"
#include "tool_access/CloudTraceEventHandler.hpp"


namespace {

// The one instance and the count of its users. Atomic so that the adapter
// events of tool threads and the host's Acquire/Release read whole values;
// the count rules themselves are not made atomic as a whole.
std::atomic<CloudHemlock*> theInstance{nullptr};
std::atomic<uint32_t> instanceCount{0};

// Loaded libraries stay loaded until the process ends: the tool libraries
// keep threads and objects of their own. Each is pinned when loaded, so the
// handles can go with this module (a host may unload it) while the
// libraries stay.
std::vector<std::unique_ptr<QX_NLV::uDll>>& loadedLibraries() {
  static std::vector<std::unique_ptr<QX_NLV::uDll>> libraries;
  return libraries;
}

}  // namespace

// ---- Instance and count -------------------------------------------------

CloudHemlock* CloudHemlock::Acquire(const std::string& basePath) {
  QX_TRACE_FUNCTION("CloudHemlock::Acquire");
  if (CloudHemlock* existing = theInstance.load()) {
    ++instanceCount;
    return existing;
  }
  try {
    theInstance = new CloudHemlock(basePath);
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CloudHemlock::Acquire(%s): %s", basePath.c_str(), e.what());
    theInstance = nullptr;
  } catch (...) {
    theInstance = nullptr;
  }
  return theInstance.load();
}

void CloudHemlock::Release() {
  QX_TRACE_FUNCTION("CloudHemlock::Release");
  if (instanceCount.load() == 0) return;
  if (--instanceCount == 0) delete theInstance.exchange(nullptr);
}

CloudHemlock* CloudHemlock::current() { return theInstance.load(); }
uint32_t CloudHemlock::count() { return instanceCount.load(); }

void CloudHemlock::adapterAdded(const char*) {
  if (sessionAvailable) return;
  ++instanceCount;
  sessionAvailable = true;
  needsTraceInit = true;
}

void CloudHemlock::adapterRemoved(const char*) {
  if (getNumCpu() != 0 || !sessionAvailable) return;
  sessionAvailable = false;
  if (instanceCount.load() == 0) return;
  // The debug session's own reference goes; the instance goes with it when
  // nobody else holds one.
  if (--instanceCount == 0) {
    CloudHemlock* expected = this;
    if (theInstance.compare_exchange_strong(expected, nullptr)) delete this;
  }
}

// ---- Construction -------------------------------------------------------

CloudHemlock::CloudHemlock(const std::string& base) : basePath(base) {
  QX_TRACE_FUNCTION("CloudHemlock::CloudHemlock");
  binDir = basePath;
  QX_NLV::joinPath(binDir, "emulation/analysis/bin/");
  formatNames = {{"unsigned", 0}, {"hex", 1}, {"default", 2}};
  dataTypeNames = {{"Number", 0}, {"String", 1}};
  transformNames = {{"functionInfoIndex", 0}, {"functionName", 1}, {"fileName", 2},
                    {"directoryName", 3},     {"disassemble", 4},  {"lineNumber", 5},
                    {"rowNumber", 6},         {"timeMs", 7},       {"none", 8}};
  // The registrations made while loading point at this object: a
  // construction that fails takes them back before the object is gone.
  try {
    loadLibraries();
  } catch (...) {
    unregister();
    throw;
  }
  if (!xevtAvailable) return;
  int32_t n = getNumCpu();
  sessionAvailable = n >= 1;
  needsTraceInit = n >= 1;
  if (n >= 1) ++instanceCount;
  CTraceApp::TraceInit(binDir, this);
}

void CloudHemlock::loadLibraries() {
  auto load = [](const std::string& name) -> QX_NLV::uDll* {
    auto library = std::make_unique<QX_NLV::uDll>();
    if (!library->FindAndLoad(name.c_str(), 0)) return nullptr;
    library->pin();
    loadedLibraries().push_back(std::move(library));
    return loadedLibraries().back().get();
  };
  auto require = [&](const std::string& name, const char* failure) {
    QX_NLV::uDll* library = load(name);
    if (library == nullptr) {
      throw CloudHemlockException(failure + QX_NLV::platform::libraryFileName(name));
    }
    return library;
  };
  auto resolve = [](QX_NLV::uDll* library, auto& entry, const char* name) {
    entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(library->symbol(name));
  };

  QX_NLV::uDll* hemlock = require(binDir + "hemlock.dll", "Unable to load hemlock library: ");
  resolve(hemlock, getHemlockJobMgrIF, "GetHemlockJobMgrIF");
  resolve(hemlock, getHemlockMgrIF, "GetHemlockMgrIF");
  resolve(hemlock, getHemlockDBMgrIF, "GetHemlockDBMgrIF");
  resolve(hemlock, getHemlockCleanupRegistryIF, "GetHemlockCleanupRegistryIF");
  registerCleanup();

  std::string marlfile = basePath;
  QX_NLV::joinPath(marlfile, "ProbeHost/bin/marlfile9.dll");
  require(marlfile, "Unable to load marlfile9 library: ");
  QX_NLV::uDll* properties =
      require(binDir + "XEVProperties.dll", "Unable to load XEVProperties library: ");
  resolve(properties, queryInterface, "QueryInterface");
  require(binDir + "XEVPropertyHelper.dll", "Unable to load XEVPropertyHelper library: ");

  QX_NLV::uDll* adapter =
      require(binDir + "PBATargetAdapter.dll", "Unable to load PbaTargetAdapter library: ");
  resolve(adapter, getNumCpu, "GetNumCpu");
  resolve(adapter, getCpuName, "GetCpuName");
  resolve(adapter, newTargetAdapter, "NewTargetAdapter");
  resolve(adapter, freeTargetAdapter, "FreeTargetAdapter");
  resolve(adapter, addTargetEventConsumer, "AddTargetEventConsumer");
  resolve(adapter, clearTargetEventConsumer, "ClearTargetEventConsumer");
  resolve(adapter, addAdapterEventConsumer, "AddAdapterEventConsumer");
  resolve(adapter, removeAdapterEventConsumer, "RemoveAdapterEventConsumer");
  resolve(adapter, clearAdapterEventConsumer, "ClearAdapterEventConsumer");
  if (getNumCpu == nullptr || getCpuName == nullptr || newTargetAdapter == nullptr ||
      freeTargetAdapter == nullptr || addTargetEventConsumer == nullptr ||
      clearTargetEventConsumer == nullptr || addAdapterEventConsumer == nullptr ||
      removeAdapterEventConsumer == nullptr || clearAdapterEventConsumer == nullptr) {
    throw CloudHemlockException("Unable to load function from PbaTargetAdapter library");
  }
  addAdapterEventConsumer(this);
  adapterListenerAdded = true;

  // The session library is optional: without it the module has the
  // adapter's CPUs but no devices.
  QX_NLV::uDll* session = load(binDir + "qx_xevt_session.dll");
  if (session == nullptr) return;
  resolve(session, xevtGetSessionManager, "XEVT_GetSessionManager");
  xevtAvailable = xevtGetSessionManager != nullptr;
  QX_NLV::uDll* setup = load(binDir + "qx_xevt_setup_manager.dll");
  if (setup == nullptr) throw CloudHemlockException("Unable to load qx_xevt libraries");
  resolve(setup, xevtGetSetupManager, "XEVT_GetSetupManager");
  QX_NLV::uDll* database = load(binDir + "qx_xevt_database.dll");
  if (database == nullptr) throw CloudHemlockException("Unable to load qx_xevt libraries");
  resolve(database, getDatabase, "GetDatabase");
}

void CloudHemlock::registerCleanup() {
  if (getHemlockCleanupRegistryIF == nullptr) return;
  Qx::Nlv::Hemlock::ICleanupRegistry* registry = nullptr;
  getHemlockCleanupRegistryIF(&registry);
  if (registry != nullptr) registry->add(this);
}

void CloudHemlock::unregister() {
  try {
    if (getHemlockCleanupRegistryIF != nullptr) {
      Qx::Nlv::Hemlock::ICleanupRegistry* registry = nullptr;
      getHemlockCleanupRegistryIF(&registry);
      if (registry != nullptr) registry->remove(this);
    }
    if (adapterListenerAdded && removeAdapterEventConsumer != nullptr) {
      removeAdapterEventConsumer(this);
    }
  } catch (...) {
    QX_LOG_ERROR("CloudHemlock: removing the tool registrations failed");
  }
  adapterListenerAdded = false;
}

CloudHemlock::~CloudHemlock() {
  QX_TRACE_FUNCTION("CloudHemlock::~CloudHemlock");
  unregister();
  // Servers the tool side never cleaned up are the gate's to give back; the
  // tool libraries stay loaded, so their release is still there to call.
  releaseOperationServers();
  // Channel events that come after this object is gone are only stored.
  if (CloudTraceEventHandler* handler = CTraceApp::eventHandler()) {
    handler->setNotifications(nullptr);
  }
}

// ---- Small helpers ------------------------------------------------------

int32_t CloudHemlock::fail(int32_t code, const std::string& reason) {
  lastError = reason;
  return code;
}

int32_t CloudHemlock::getLastError(std::string& out) const {
  out = lastError;
  return 0;
}

uint32_t CloudHemlock::processorId(uint32_t deviceKind) {
  switch (deviceKind) {
    case 7: return 0x75803800;
    case 8: return 0x75801C00;
    case 10: return 0x75814C00;
    case 11: return 0x7580CC00;
    case 12: return 0x5001D7F8;
    case 13: return 0x50019BF8;
    case 36: return 0x75802800;
    case 39: return 0x5000A3F8;
    case 40: return 0x5000A7F8;
    default: return 0;
  }
}

const Json::Value* CloudHemlock::findOutFileNode(const Json::Value& node) {
  if (node.isArray() || !node.isObject()) return nullptr;
  if (node.isMember("out_file_name") && !node["out_file_name"].isNull()) return &node;
  const Json::Value& children = node["children"];
  if (!children.isArray()) return nullptr;
  for (const auto& child : children) {
    if (const Json::Value* found = findOutFileNode(child)) return found;
  }
  return nullptr;
}

// ---- Listeners ----------------------------------------------------------

void CloudHemlock::addListener(CloudHemlockNotificationIF* listener) {
  std::lock_guard<std::mutex> guard(listenerMutex);
  listeners.insert(listener);
}

void CloudHemlock::removeListener(CloudHemlockNotificationIF* listener) {
  std::lock_guard<std::mutex> guard(listenerMutex);
  listeners.erase(listener);
}

void CloudHemlock::waitForChannelEvents() {
  // Channel events hold the channel client's lock across the whole walk.
  if (CloudTraceEventHandler* handler = CTraceApp::eventHandler()) {
    handler->Lock();
    handler->Unlock();
  }
}

void CloudHemlock::notify(const std::string& target, const std::string& event,
                          const std::string& desc) {
  // A listener takes locks that come before listenerMutex (its own event
  // lock, the capture side's), so none is called under it. The walk goes
  // over a copy and calls a member only if it is still in the set at its
  // turn: one removed meanwhile hears nothing more from this walk.
  std::vector<CloudHemlockNotificationIF*> snapshot;
  {
    std::lock_guard<std::mutex> guard(listenerMutex);
    snapshot.assign(listeners.begin(), listeners.end());
  }
  for (CloudHemlockNotificationIF* listener : snapshot) {
    {
      std::lock_guard<std::mutex> guard(listenerMutex);
      if (listeners.count(listener) == 0) continue;
    }
    listener->notify(target, event, desc);
  }
}

void CloudHemlock::tableSizeChanged(uint32_t, uint32_t, bool, uint32_t) {}
void CloudHemlock::setAdapterPresent(bool) {}
