// LocalOpManager: the one object between the command layer and everything
// that captures. It owns the capture operations (by target, then feature),
// the user's settings, the trace server's life and the deferred event queue,
// and raises four signals, of which the command layer connects the trace
// event to the host.
//
// One live instance per process, from instance(); a new session after a full
// shutdown makes a new manager with the next id.
//
// Threads and locks:
// - Commands come on the WorkQueue worker holding `commandMutex`.
// - Tool events come on the tool library's threads through EventHandler:
//   onTargetEvent, doRunSetup and hlTargetEvent take `eventMutex`, which
//   EventHandler only tries for channel events (busy: the event is queued).
// - `stateMutex` (recursive) guards what both roads share: `operations` and
//   the operations in it, `settings`, `dataLocations`, `tspServer`,
//   `sessionTargets` and the flags. Order: commandMutex or eventMutex, then
//   stateMutex, then the tool lock. Trace events raised while this thread
//   holds stateMutex are held back and raised, in order, when it lets go:
//   the host's slot takes the command layer's lock, which a configure holds
//   while it waits for stateMutex.
// - `queueMutex` guards `deferredEvents`. A channel event's test of
//   eventMutex and its append are one step under it, and a run setup keeps
//   eventMutex until it finds the queue empty under it, so no event is left
//   in the queue and none overtakes the run's recording event.
// - The TDF thread of enableTDFTrace takes stateMutex like any other road.
#pragma once

#include <json/json.h>

#include <atomic>
#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "json_interface/promise.hpp"

class CloudHemlock;
class EventHandler;

namespace VSKTspServer {
class TspServer;
class DataBroker;
}  // namespace VSKTspServer

// The feature strings that key settings, operations and capture directories.
inline constexpr const char* kFeatureMTB = "MTB";
inline constexpr const char* kFeatureETB = "ETB";
inline constexpr const char* kFeatureWattline = "Wattline";
inline constexpr const char* kFeatureTDF = "TDF";

struct TraceRoute {
  std::string source;
  std::string receiver;
};

struct DeferredEvent {
  std::string target;
  std::string event;
  std::string desc;
};

class LocalOpManager : public std::enable_shared_from_this<LocalOpManager> {
 public:
  class CaptureOperation;
  class WLCaptureOperation;
  class MtbCaptureOperation;
  class EtbCaptureOperation;
  class TdfCaptureOperation;

  using TargetEventFn =
      std::function<void(const std::string&, const std::string&, const std::string&)>;
  using SystemEventFn = std::function<void(const std::string&, const Json::Value&)>;
  using TableSizeFn = std::function<void(unsigned int, unsigned int, bool, unsigned int)>;
  using TraceEventFn = std::function<void(const std::string&, const std::string&,
                                          const std::string&, const std::string&)>;

  // Makes the capture operation of one feature: (clientId, tools, target,
  // session settings, owner). Null when the feature cannot be captured here.
  using OperationMaker = std::function<std::unique_ptr<CaptureOperation>(
      int32_t, CloudHemlock*, const std::string&, const Json::Value&, LocalOpManager*)>;

  static std::shared_ptr<LocalOpManager> instance();
  // The capture kinds that exist: "Wattline" is built in; the instruction
  // and file captures register theirs here. Thread-safe.
  static void registerCaptureOperation(const std::string& feature, OperationMaker maker);
  // The trace server's port: 1239, or OSTRAND_TSP_PORT when it holds one.
  static int tspPort();
  // The install base (".../vsk_base/") for a program that links the capture
  // libraries itself; the module finds its own. Empty: find it.
  static void setInstallBase(const std::string& base);

  LocalOpManager();
  ~LocalOpManager();
  LocalOpManager(const LocalOpManager&) = delete;
  LocalOpManager& operator=(const LocalOpManager&) = delete;

  // --- commands (caller holds commandMutex) ---
  std::vector<boost::signals2::connection> connect(TargetEventFn target, SystemEventFn system,
                                                   TableSizeFn tableSize, TraceEventFn trace);
  void configure(const std::string& target, const Json::Value& config);
  void shutdown();
  void startTspServer();
  void terminateTspServer();
  void enableLiveTraces(const std::string& target);
  void disableLiveTraces(const std::string& target);
  int32_t enableFeature(const std::string& target, const std::string& feature, bool enable);
  uint32_t enableMTB(const std::string& target);
  uint32_t enableETB(const std::string& target);
  uint32_t enableWL(const std::string& target);
  uint32_t disableMTB(const std::string& target);
  uint32_t disableETB(const std::string& target);
  uint32_t disableWL(const std::string& target);
  uint32_t disableTDF(const std::string& target);
  void enableTDFTrace(const std::string& target);
  low::promise<void> exportCaptureToCSV(const std::string& target, const std::string& feature,
                                        const std::string& file);
  // The route objects of a target ("dataLocation" of a configure reply).
  Json::Value dataLocation(const std::string& target);
  // The one route object of a file target.
  Json::Value tdfDataLocation(const std::string& target) { return getFileRoutes(target); }

  // --- events (tool threads, through EventHandler) ---
  void onTargetEvent(const char* target, int32_t state);
  void onSessionEvent(const std::string& eventName, const Json::Value& info);
  int32_t doRunSetup(const std::string& target);
  void hlTargetEvent(const DeferredEvent& event);
  void onDataCollecting(const std::string& target);
  void onDataReady(const std::string& target, const std::string& reason);
  void processTraceData(const std::string& target);
  void showStatusMsg(const std::string& target, const std::string& handle, bool show,
                     const std::string& text);
  // A channel event from EventHandler: handled at once when eventMutex is
  // free, else queued behind the run setup that holds it.
  void deliverChannelEvent(const DeferredEvent& event);

  // --- routes, directories, placeholders ---
  std::vector<TraceRoute> getAllRoutes();
  std::vector<TraceRoute> getLiveTraceRoutes(const std::string& target);
  static std::string getTargetDir(const std::string& target, const std::string& feature);
  static std::string getFileTargetDir(const std::string& target, const std::string& feature);
  static std::string getScratchDir(const std::string& name);
  static void removeTargetDir(const std::string& target, const std::string& feature);
  static std::string directoryUri(const std::string& path);
  static void copyDirFiles(const std::string& from, const std::string& to);
  static bool isFeatureEnabled(const Json::Value& settings, const std::string& target,
                               const std::string& feature);
  static bool isCreateExperiment(const Json::Value& settings);
  // Merges `src` into `dst`: objects member by member, arrays of one size
  // element by element; anything else leaves `dst` as it is.
  static void mergeSettings(Json::Value& dst, const Json::Value& src);
  Json::Value getFileRoutes(const std::string& target);
  void exportPlaceholders(const std::string& target);
  void exportExprPlaceholderMetaData(const std::string& target, const std::string& feature);

  // --- for tests and the command layer ---
  uint32_t getId() const { return id; }
  CloudHemlock* getTools() const { return tools; }
  EventHandler* getEventHandler() const { return eventHandler.get(); }
  VSKTspServer::TspServer* getTspServer();
  // The state of the operation of target and feature, or -1 without one.
  int32_t captureState(const std::string& target, const std::string& feature);
  bool hasOperationEntry(const std::string& target);
  size_t deferredCount();

  std::mutex commandMutex;  // taken by the command layer around the operations above
  std::mutex eventMutex;    // taken by onTargetEvent, doRunSetup and hlTargetEvent

 private:
  // Holds stateMutex; on the outermost release raises the trace events
  // held back meanwhile.
  class StateLock {
   public:
    explicit StateLock(LocalOpManager& m);
    ~StateLock();
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;

   private:
    LocalOpManager& m;
  };
  using HeldTraceEvent = std::tuple<std::string, std::string, std::string, std::string>;

  void init();
  void trackTargets();
  void stopTrackingTargets();
  void raiseTraceEvent(const std::string& target, const std::string& handle,
                       const std::string& event, const std::string& desc);
  std::unique_ptr<CaptureOperation> makeOperation(const std::string& target,
                                                  const std::string& feature);
  VSKTspServer::DataBroker* broker();
  void addDataLocation(const std::string& target, const CaptureOperation& op);
  bool targetConnected(const std::string& target);
  void enableTDF(const std::string& target);
  // hlTargetEvent with eventMutex already held.
  void handleEvent(const DeferredEvent& event);

  uint32_t id;
  std::string basePath;
  CloudHemlock* tools = nullptr;
  std::unique_ptr<EventHandler> eventHandler;
  std::unique_ptr<VSKTspServer::TspServer> tspServer;  // guarded by stateMutex
  // Guarded by stateMutex, with the operations they hold.
  std::map<std::string, std::map<std::string, std::unique_ptr<CaptureOperation>>> operations;
  Json::Value dataLocations{Json::objectValue};  // guarded by stateMutex
  std::deque<DeferredEvent> deferredEvents;      // guarded by queueMutex
  std::list<std::string> sessionTargets;         // guarded by stateMutex
  Json::Value settings{Json::objectValue};       // guarded by stateMutex
  bool haveBufferNode = false;                   // guarded by stateMutex
  bool registered = false;                       // guarded by stateMutex
  std::atomic<bool> pendingRefresh{false};

  std::recursive_mutex stateMutex;
  std::atomic<std::thread::id> stateOwner{};
  int stateDepth = 0;                      // guarded by stateMutex
  std::vector<HeldTraceEvent> heldEvents;  // guarded by stateMutex
  std::mutex queueMutex;                   // guards deferredEvents

  boost::signals2::signal<void(const std::string&, const std::string&, const std::string&)>
      targetEventSignal;
  boost::signals2::signal<void(const std::string&, const Json::Value&)> systemEventSignal;
  boost::signals2::signal<void(unsigned int, unsigned int, bool, unsigned int)> tableSizeSignal;
  boost::signals2::signal<void(const std::string&, const std::string&, const std::string&,
                               const std::string&)>
      traceEventSignal;
};
