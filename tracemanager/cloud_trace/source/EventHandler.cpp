#include "cloud_trace/source/EventHandler.hpp"

#include <cstdio>
#include <exception>

#include "cloud_trace/source/LocalOpManager.hpp"
#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHLClientBase.hpp"

namespace {

std::atomic<uint32_t> nextInstance{0};

template <typename Fn>
Fn lookup(const QX_NLV::uDll& library, const char* name) {
  return reinterpret_cast<Fn>(library.symbol(name));
}

// Runs a tool-side entry; nothing may leave it towards the tool library.
template <typename Body>
void guarded(const char* where, Body&& body) {
  try {
    body();
  } catch (const std::exception& e) {
    QX_LOG_ERROR("EventHandler::%s: %s", where, e.what());
  } catch (const Qx::Nlv::Hemlock::hemlockErrorIF& e) {
    QX_LOG_ERROR("EventHandler::%s: tool error %s", where, e.GetErrorText());
  } catch (...) {
    QX_LOG_ERROR("EventHandler::%s: unknown exception", where);
  }
}

const char* sessionEventName(uint32_t kind) {
  switch (kind) {
    case 0:
      return "DebugSessionStarted";
    case 1:
      return "DebugSessionStopped";
    case 2:
      return "DebugSessionUpdated";
    case 3:
      return "DebugSessionContextChanged";
    default:
      return nullptr;
  }
}

}  // namespace

EventHandler::EventHandler(const std::string& basePath, TargetEventFn targetEventFn,
                           SystemEventFn systemEventFn, TableSizeFn tableSizeFn,
                           TraceEventFn traceEventFn, LocalOpManager* ownerManager)
    : instance(nextInstance++),
      targetEvent(std::move(targetEventFn)),
      systemEvent(std::move(systemEventFn)),
      tableSizeEvent(std::move(tableSizeFn)),
      traceEvent(std::move(traceEventFn)),
      owner(ownerManager) {
  QX_TRACE_FUNCTION("EventHandler::EventHandler");
  const std::string path = basePath + "emulation/analysis/bin/";
  if (!hemlockModule.FindAndLoad((path + "hemlock").c_str(), 0)) {
    throw EventHandlerException("Unable to load hemlock library: " + path + "hemlock");
  }
  getHemlockJobMgrIF = lookup<GetHemlockJobMgrIF_t>(hemlockModule, "GetHemlockJobMgrIF");
  getHemlockMgrIF = lookup<GetHemlockMgrIF_t>(hemlockModule, "GetHemlockMgrIF");
  getHemlockCleanupRegistryIF =
      lookup<GetHemlockCleanupRegistryIF_t>(hemlockModule, "GetHemlockCleanupRegistryIF");
  if (!adapterModule.FindAndLoad((path + "PBATargetAdapter").c_str(), 0)) {
    throw EventHandlerException("Unable to load PbaTargetAdapter library: " + path +
                                "PBATargetAdapter");
  }
  getNumCpu = lookup<GetNumCpu_t>(adapterModule, "GetNumCpu");
  getCpuName = lookup<GetCpuName_t>(adapterModule, "GetCpuName");
  newTargetAdapter = lookup<NewTargetAdapter_t>(adapterModule, "NewTargetAdapter");
  freeTargetAdapter = lookup<FreeTargetAdapter_t>(adapterModule, "FreeTargetAdapter");
  addTargetEventConsumer =
      lookup<AddTargetEventConsumer_t>(adapterModule, "AddTargetEventConsumer");
  removeTargetEventConsumer =
      lookup<RemoveTargetEventConsumer_t>(adapterModule, "RemoveTargetEventConsumer");
  clearTargetEventConsumer =
      lookup<ClearTargetEventConsumer_t>(adapterModule, "ClearTargetEventConsumer");
  addAdapterEventConsumer =
      lookup<AddAdapterEventConsumer_t>(adapterModule, "AddAdapterEventConsumer");
  removeAdapterEventConsumer =
      lookup<RemoveAdapterEventConsumer_t>(adapterModule, "RemoveAdapterEventConsumer");
  clearAdapterEventConsumer =
      lookup<ClearAdapterEventConsumer_t>(adapterModule, "ClearAdapterEventConsumer");
  if (addAdapterEventConsumer != nullptr) addAdapterEventConsumer(this);
  if (addTargetEventConsumer != nullptr) addTargetEventConsumer(this);
  consumersAdded = true;
  if (getNumCpu != nullptr && getNumCpu() > 0) adapterPresent = true;
}

EventHandler::~EventHandler() {
  QX_TRACE_FUNCTION("EventHandler::~EventHandler");
  guarded("~EventHandler", [&] {
    // Unsubscribe first, so that no tool thread starts an entry into a
    // handler that is going away.
    if (removeAdapterEventConsumer != nullptr) removeAdapterEventConsumer(this);
    if (removeTargetEventConsumer != nullptr) removeTargetEventConsumer(this);
    consumersAdded = false;
    {
      std::lock_guard<std::mutex> lock(clientMutex);
      client.reset();
    }
    if (adapterPresent && getHemlockCleanupRegistryIF != nullptr) {
      Qx::Nlv::Hemlock::ICleanupRegistry* registry = nullptr;
      getHemlockCleanupRegistryIF(&registry);
      if (registry != nullptr) registry->remove(this);
    }
    std::lock_guard<std::mutex> lock(targetsMutex);
    watchedHandles.clear();
    forwardedTargets.clear();
    clientTargets.clear();
  });
}

void EventHandler::createClient() {
  if (!adapterPresent) return;
  std::lock_guard<std::mutex> lock(clientMutex);
  createClientLocked();
}

void EventHandler::createClientLocked() {
  if (getHemlockCleanupRegistryIF != nullptr) {
    Qx::Nlv::Hemlock::ICleanupRegistry* registry = nullptr;
    getHemlockCleanupRegistryIF(&registry);
    if (registry != nullptr) registry->add(this);
  }
  if (getHemlockJobMgrIF != nullptr) getHemlockJobMgrIF(&jobManager);
  if (getHemlockMgrIF != nullptr) getHemlockMgrIF(&manager);
  client = std::make_unique<CloudHLClientBase>(this);
  char name[32];
  std::snprintf(name, sizeof name, "CloudClient%u", instance);
  client->init(name, 0, manager, jobManager);
  hasClient = true;
}

void EventHandler::resolveAdapter(const std::string& name) {
  if (!adapterPresent || newTargetAdapter == nullptr) return;
  Qx::Nlv::Hemlock::ITargetAdapter* adapter = nullptr;
  newTargetAdapter(name.c_str(), &adapter);
  if (adapter != nullptr || getNumCpu == nullptr || getCpuName == nullptr) return;
  if (getNumCpu() > 0) {
    char buffer[256] = {0};
    getCpuName(0, buffer, sizeof buffer);
    Qx::Nlv::Hemlock::ITargetAdapter* first = nullptr;
    newTargetAdapter(buffer, &first);
    if (first != nullptr) first->findTarget(name.c_str());
  }
}

bool EventHandler::inSet(const std::set<std::string>& set, const std::string& name) {
  std::lock_guard<std::mutex> lock(targetsMutex);
  return set.count(name) != 0;
}

void EventHandler::dropClientLocked() {
  hasClient = false;
  manager = nullptr;
  jobManager = nullptr;
  client.reset();
  consumersAdded = false;
}

void EventHandler::addTarget(const std::string& name) {
  if (!adapterPresent) return;
  std::lock_guard<std::mutex> lock(clientMutex);
  if (cleanupPending.exchange(false)) dropClientLocked();
  if (!hasClient) createClientLocked();
  if (!client) return;
  // The client registers a target once; the second attach only confirms.
  if (!inSet(forwardedTargets, name)) {
    resolveAdapter(name);
    client->attachTarget(name.c_str(), false);
    std::lock_guard<std::mutex> targets(targetsMutex);
    forwardedTargets.insert(name);
  }
  if (!inSet(clientTargets, name)) {
    resolveAdapter(name);
    client->attachTarget(name.c_str(), false);
    std::lock_guard<std::mutex> targets(targetsMutex);
    clientTargets.insert(name);
  }
}

void EventHandler::removeTarget(const std::string& name) {
  if (!adapterPresent) return;
  std::lock_guard<std::mutex> lock(clientMutex);
  if (cleanupPending.exchange(false)) dropClientLocked();
  if (!hasClient) createClientLocked();
  if (!client) return;
  {
    std::lock_guard<std::mutex> targets(targetsMutex);
    forwardedTargets.erase(name);
    clientTargets.erase(name);
  }
  // Out of both sets now: the client lets go of the target once.
  client->detachTarget(name.c_str());
}

bool EventHandler::isForwarded(const std::string& target) { return forwarded(target); }

bool EventHandler::forwarded(const std::string& target) { return inSet(forwardedTargets, target); }

void EventHandler::OnTargetStateChanged(const char* target, int32_t state) {
  static const char* const kEvents[][2] = {
      {nullptr, nullptr},
      {"PreConnect", "PreConnect"},
      {"Connected", "Connected"},
      {"PreDisconnect", "PreDisconnect"},
      {"Disconnected", "Disconnected"},
      {nullptr, nullptr},
      {"Running", "Running"},
      {"Halt", "Halted"},
      {"BreakpointHit", "Target hit breakpoint"},
      {"ChangedPc", "PC changed on target"},
  };
  if (target == nullptr || state < 1 || state > 9 || state == 5) return;
  guarded("OnTargetStateChanged", [&] {
    std::lock_guard<std::mutex> lock(eventLock);
    owner->onTargetEvent(target, state);
    if (!forwarded(target) || !targetEvent) return;
    targetEvent(target, kEvents[state][0], kEvents[state][1]);
    if (state == 6 && traceEvent) traceEvent(target, "", "Collecting", "Collecting data");
  });
}

void EventHandler::notify(const std::string& target, const std::string& event,
                          const std::string& desc) {
  guarded("notify", [&] {
    std::lock_guard<std::mutex> lock(eventLock);
    owner->deliverChannelEvent({target, event, desc});
    // The channel word goes out at once, even when the manager's handling
    // waits in the queue.
    if (targetEvent && forwarded(target)) targetEvent(target, event, desc);
  });
}

void EventHandler::tableSizeChanged(uint32_t handle, uint32_t size, bool final, uint32_t gaps) {
  guarded("tableSizeChanged", [&] {
    std::lock_guard<std::mutex> lock(eventLock);
    bool watched = false;
    {
      std::lock_guard<std::mutex> targets(targetsMutex);
      watched = watchedHandles.count(handle) != 0;
    }
    if (watched && tableSizeEvent) tableSizeEvent(handle, size, final, gaps);
  });
}

int32_t EventHandler::onRunSetup(const char* target) {
  if (owner == nullptr) return 0;
  int32_t result = 0;
  guarded("onRunSetup", [&] { result = owner->doRunSetup(target != nullptr ? target : ""); });
  return result;
}

void EventHandler::raiseSessionEventLocked(const char* name, const Json::Value& info) {
  owner->onSessionEvent(name, info);
  if (systemEvent) systemEvent(name, info);
}

void EventHandler::raiseSessionEvent(uint32_t kind, const Json::Value& info) {
  const char* name = sessionEventName(kind);
  if (name == nullptr) return;
  std::lock_guard<std::mutex> lock(eventLock);
  raiseSessionEventLocked(name, info);
}

void EventHandler::onSessionChanged(const char*) {
  guarded("onSessionChanged", [&] { raiseSessionEvent(2, Json::Value()); });
}

void EventHandler::OnTargetListChanged() {
  guarded("OnTargetListChanged", [&] { raiseSessionEvent(2, Json::Value()); });
}

void EventHandler::onAdapterAdded(const char* name) {
  guarded("onAdapterAdded", [&] {
    Json::Value info(Json::objectValue);
    info["added"] = Json::Value(Json::arrayValue);
    info["added"].append(name != nullptr ? name : "");
    if (adapterPresent) {
      raiseSessionEvent(2, info);
      return;
    }
    adapterPresent = true;
    raiseSessionEvent(0, info);
  });
}

void EventHandler::onAdapterRemoved(const char* name) {
  guarded("onAdapterRemoved", [&] {
    Json::Value info(Json::objectValue);
    info["removed"] = Json::Value(Json::arrayValue);
    info["removed"].append(name != nullptr ? name : "");
    if (adapterPresent && getNumCpu != nullptr && getNumCpu() == 0) {
      adapterPresent = false;
      raiseSessionEvent(1, info);
      return;
    }
    raiseSessionEvent(2, info);
  });
}

void EventHandler::onCleanup() {
  guarded("onCleanup", [&] {
    {
      std::lock_guard<std::mutex> targets(targetsMutex);
      watchedHandles.clear();
      clientTargets.clear();
    }
    // The cleanup comes on the tool's event road: it must not wait for a
    // command that is inside the client, which may be waiting for the tool.
    if (clientMutex.try_lock()) {
      dropClientLocked();
      clientMutex.unlock();
    } else {
      cleanupPending = true;
    }
  });
}
