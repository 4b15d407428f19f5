// EventHandler: where everything the debug tool libraries report comes in.
//
// It loads the tool library and the target adapter library, subscribes to
// target states and adapter changes, owns the tool client, and turns what it
// hears into calls of its LocalOpManager (which decide what happens to
// captures) and into four events through the functions the manager gives it.
// One EventHandler belongs to one LocalOpManager.
//
// Threads: every entry comes on a thread of the tool libraries, in no given
// order. `eventLock` (non-recursive) covers all event handling and is held
// across the calls into the manager, so the order is eventLock, then the
// manager's eventMutex. onRunSetup takes no lock here. Nothing called under
// eventLock may come back into an operation that takes it.
// addTarget and removeTarget come from commands, which may hold the command
// layer's lock that a trace event raised under eventLock waits for; so they
// do not take eventLock. The tool library delivers events holding a lock of
// its own that its registration calls take too, so no lock of the event
// road may be held across a call into the client: `clientMutex` (the client
// and its interfaces) is held across those calls and never waited for on
// the event road; `targetsMutex` (the sets) is held only briefly and across
// no call out.
//
// Failures: the constructor throws EventHandlerException when a library
// cannot be loaded. Entries from the tool side never let an exception out.
#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

#include "hemlock/ToolEntryPoints.hpp"
#include "source_utilities/uDll.hpp"
#include "tool_access/CloudHLClientEventIf.hpp"
#include "tool_access/CloudHemlockNotificationIF.hpp"

class CloudHLClientBase;
class LocalOpManager;

class EventHandlerException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class EventHandler : public CloudHemlockNotificationIF,
                     public Qx::Nlv::Trace::CTargetStateNotification,
                     public CloudHLClientEventIf,
                     public Qx::Nlv::Hemlock::CleanupCallbackIF,
                     public Qx::Nlv::Hemlock::PBATargetAdapterEventListener {
 public:
  using TargetEventFn =
      std::function<void(const std::string&, const std::string&, const std::string&)>;
  using SystemEventFn = std::function<void(const std::string&, const Json::Value&)>;
  using TableSizeFn = std::function<void(uint32_t, uint32_t, bool, uint32_t)>;
  using TraceEventFn = std::function<void(const std::string&, const std::string&,
                                          const std::string&, const std::string&)>;

  EventHandler(const std::string& basePath, TargetEventFn targetEvent, SystemEventFn systemEvent,
               TableSizeFn tableSizeEvent, TraceEventFn traceEvent, LocalOpManager* owner);
  ~EventHandler() override;
  EventHandler(const EventHandler&) = delete;
  EventHandler& operator=(const EventHandler&) = delete;

  void createClient();
  void addTarget(const std::string& name);
  void removeTarget(const std::string& name);
  void resolveAdapter(const std::string& name);
  void raiseSessionEvent(uint32_t kind, const Json::Value& info);

  // CloudHemlockNotificationIF
  void tableSizeChanged(uint32_t handle, uint32_t size, bool final, uint32_t gaps) override;
  void notify(const std::string& target, const std::string& event,
              const std::string& desc) override;
  void setAdapterPresent(bool present) override { adapterPresent = present; }

  // CTargetStateNotification
  void OnTargetStateChanged(const char* target, int32_t state) override;
  void reservedTargetSlot() override {}
  void OnTargetListChanged() override;

  // CloudHLClientEventIf
  int32_t onRunSetup(const char* target) override;
  void onSessionChanged(const char* target) override;

  // CleanupCallbackIF: the tool library ends its connection.
  void cleanup() override { onCleanup(); }
  void onCleanup();

  // PBATargetAdapterEventListener
  void adapterAdded(const char* name) override { onAdapterAdded(name); }
  void adapterRemoved(const char* name) override { onAdapterRemoved(name); }
  void onAdapterAdded(const char* name);
  void onAdapterRemoved(const char* name);

  bool isAdapterPresent() const { return adapterPresent; }
  bool hasToolClient() const { return hasClient; }
  // Forwarded targets, for tests.
  bool isForwarded(const std::string& target);

 private:
  void raiseSessionEventLocked(const char* name, const Json::Value& info);
  bool forwarded(const std::string& target);
  void createClientLocked();
  void dropClientLocked();
  bool inSet(const std::set<std::string>& set, const std::string& name);

  uint32_t instance;
  std::unique_ptr<CloudHLClientBase> client;  // guarded by clientMutex
  QX_NLV::uDll hemlockModule;
  QX_NLV::uDll adapterModule;
  GetHemlockMgrIF_t getHemlockMgrIF = nullptr;
  GetHemlockJobMgrIF_t getHemlockJobMgrIF = nullptr;
  GetHemlockCleanupRegistryIF_t getHemlockCleanupRegistryIF = nullptr;
  GetNumCpu_t getNumCpu = nullptr;
  GetCpuName_t getCpuName = nullptr;
  NewTargetAdapter_t newTargetAdapter = nullptr;
  FreeTargetAdapter_t freeTargetAdapter = nullptr;
  AddTargetEventConsumer_t addTargetEventConsumer = nullptr;
  RemoveTargetEventConsumer_t removeTargetEventConsumer = nullptr;
  ClearTargetEventConsumer_t clearTargetEventConsumer = nullptr;
  AddAdapterEventConsumer_t addAdapterEventConsumer = nullptr;
  RemoveAdapterEventConsumer_t removeAdapterEventConsumer = nullptr;
  ClearAdapterEventConsumer_t clearAdapterEventConsumer = nullptr;
  std::atomic<bool> hasClient{false};
  std::atomic<bool> adapterPresent{false};
  std::set<uint32_t> watchedHandles;       // guarded by targetsMutex
  std::set<std::string> forwardedTargets;  // guarded by targetsMutex
  std::set<std::string> clientTargets;     // guarded by targetsMutex
  TargetEventFn targetEvent;
  SystemEventFn systemEvent;
  TableSizeFn tableSizeEvent;
  TraceEventFn traceEvent;
  Qx::Nlv::Hemlock::IHemlockManager* manager = nullptr;        // guarded by clientMutex
  Qx::Nlv::Hemlock::IHemlockJobManager* jobManager = nullptr;  // guarded by clientMutex
  std::mutex eventLock;    // serialises event handling
  std::mutex clientMutex;   // guards the client and its interfaces
  std::mutex targetsMutex;  // guards the three sets
  // A cleanup came while a command used the client; the command drops the
  // client when it is done.
  std::atomic<bool> cleanupPending{false};
  LocalOpManager* owner;
  std::atomic<bool> consumersAdded{false};
};
