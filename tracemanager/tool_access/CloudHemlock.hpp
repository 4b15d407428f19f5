// CloudHemlock: the one gate between the module and the debug tool
// libraries.
//
// Acquire() loads the tool libraries from <base>emulation/analysis/bin (and
// marlfile9 from <base>ProbeHost/bin) and gives the process-wide instance,
// or null when a required library or entry point is missing; the module then
// runs without tools. Release() gives one reference back. The count is not a
// plain count of Acquire calls: the first Acquire adds nothing, a debug
// session present at construction (or appearing later, adapterAdded) adds
// one, and each further Acquire adds one; the instance is deleted when the
// count falls to 0 (Release, or adapterRemoved of the last CPU).
//
// Every operation answers 0 or a negative code, with the reason in
// lastError (getLastError). An operation that succeeds leaves lastError as
// it was. No tool error (hemlockErrorIF) leaves an operation.
//
// Operation records (CloudOperation) are named by handle; a record of kind 3
// stands for a .tdf file and has no tool operation. Each record may hold one
// slot of the trace table (CTraceApp) with its decoder.
//
// Threads: no thread of its own. Callers hold toolMutex around whole call
// sequences; cleanup() takes it itself; the adapter events take no lock.
// `listeners` changes under toolMutex and listenerMutex, in that order.
// Lock order on the tool side: CloudTraceEventHandler's lock, the event
// handler's locks, toolMutex, listenerMutex.
#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "hemlock/CleanupRegistry.hpp"
#include "hemlock/TargetAdapter.hpp"
#include "hemlock/ToolEntryPoints.hpp"
#include "logging/ILoggerContext.hpp"
#include "tool_access/CloudHemlockNotificationIF.hpp"
#include "tool_access/TraceLookupCaches.hpp"
#include "xevt/Session.hpp"

class CloudOperation;
namespace VSKTspServer {
class EtbRecordStore;
}

class CloudHemlock : public Qx::Nlv::Hemlock::CleanupCallbackIF,
                     public CloudHemlockNotificationIF,
                     public Qx::Nlv::Hemlock::PBATargetAdapterEventListener {
 public:
  // Record kinds.
  static constexpr uint32_t kSubOperation = 1;
  static constexpr uint32_t kLiveOperation = 2;
  static constexpr uint32_t kTdfOperation = 3;
  // The result of an operation whose tool call raised a tool error where no
  // other result is told; the tool's text is in lastError.
  static constexpr int32_t kToolError = -9;
  // createTraceApp with every slot of the trace table taken.
  static constexpr int32_t kTraceTableFull = -6;

  // The context of the tool gate's log records.
  class HLLoggerContext : public Logging::ILoggerContext {
   public:
    const char* name() const override { return "CloudHL"; }
  };

  // The instance (made on first use) or null when the tool libraries cannot
  // be had. `basePath` is the install base with its trailing separator.
  static CloudHemlock* Acquire(const std::string& basePath);
  // Gives one reference back; see the count rules above.
  static void Release();
  // The instance or null, and its count; for diagnostics and tests.
  static CloudHemlock* current();
  static uint32_t count();

  // Loads the libraries; throws CloudHemlockException naming what is
  // missing. Use Acquire().
  explicit CloudHemlock(const std::string& basePath);
  ~CloudHemlock() override;
  CloudHemlock(const CloudHemlock&) = delete;
  CloudHemlock& operator=(const CloudHemlock&) = delete;

  int32_t getLastError(std::string& text) const;
  std::string getLastError() const { return lastError; }

  // The tool side's session manager (file sessions of recordings), or null
  // when the libraries offer none. The caller holds toolMutex.
  Qx::Nlv::Xevt::ISessionManager* sessionManager() {
    return xevtAvailable ? xevtGetSessionManager() : nullptr;
  }

  // Devices of the debug session (live) or of the stored configuration of a
  // .tdf file, as a JSON array of {name, id, device_info}.
  int32_t getDevices(bool live, const std::string& fileName, Json::Value& devices);
  // The state word description of a target: {name, version, bitFields}.
  int32_t getJState(const std::string& target, Json::Value& json);
  int32_t isTargetConnected(const std::string& target, bool& flag);
  int32_t getCpuNames(std::vector<std::string>& list);

  int32_t createTraceOperation(uint32_t clientId, const std::string& target, uint32_t& handle,
                               uint32_t kind);
  // `tree`: the property tree, a non-empty JSON array.
  int32_t setOperationProperties(uint32_t handle, const Json::Value& tree);
  int32_t enableOperation(uint32_t handle, bool enable, bool keep);
  int32_t releaseOperation(uint32_t handle);

  int32_t createTraceApp(uint32_t handle);
  int32_t destroyTraceApp(uint32_t handle);
  int32_t loadObjectInfo(uint32_t handle);
  int32_t attachObjectInfo(uint32_t handle);
  int32_t stopRecording(uint32_t handle);
  bool lookupSymbol(uint32_t handle, const std::string& name, uint64_t& address);

  // Trace table reading (CloudHemlockTables.cpp): the readers on a record.
  int32_t readTraceColumnNames(CloudOperation& record);
  int32_t setupColumnProcessing(uint32_t handle, const Json::Value& columns);
  int32_t fetchTraceData(uint32_t handle);
  int32_t getReducedGraphData(uint32_t handle, uint32_t ignored, Json::Value& rows);
  // Failures after the record was found are thrown.
  int32_t readTdfTable(Qx::Nlv::Xevt::ISession* session, uint32_t handle, Json::Value& out,
                       Json::Value& data);
  int32_t decodeMTBTrace(uint32_t handle, uint32_t& count, Json::Value& data, bool compact);
  int32_t decodeETBTrace(uint32_t handle, uint32_t& count, Json::Value& data,
                         VSKTspServer::EtbRecordStore& store);
  void clearLookupCaches();
  // Per-address symbol, line and disassembly answers of the readers.
  TraceLookupCaches lookupCaches;

  // The first node of a device tree (an element of `children` or a
  // `device_info`) that has an `out_file_name`, depth first; null for none
  // and for an array.
  static const Json::Value* findOutFileNode(const Json::Value& node);
  // The processor id of a device kind (family bits 31..22, variant bits
  // 21..10); 0 for a kind without one.
  static uint32_t processorId(uint32_t deviceKind);

  // Listeners of notify(). The caller holds toolMutex. A walk that begins
  // after removeListener returns never calls the listener; a call already
  // under way may still be running.
  void addListener(CloudHemlockNotificationIF* listener);
  void removeListener(CloudHemlockNotificationIF* listener);
  // Returns once no channel event is being handled (one that comes later
  // is not waited for). A listener's owner calls it after removeListener and
  // before destroying the listener, holding no lock of the tool side.
  static void waitForChannelEvents();

  // CleanupCallbackIF: the tool side ends its connection. Releases every
  // operation, trace application and operation server, and the channel
  // server and foundry; the next getDevices sets them up again.
  void cleanup() override;

  // CloudHemlockNotificationIF.
  void tableSizeChanged(uint32_t handle, uint32_t size, bool final, uint32_t gaps) override;
  // Passes the three texts to every listener in set order.
  void notify(const std::string& target, const std::string& event,
              const std::string& desc) override;
  void setAdapterPresent(bool present) override;

  // PBATargetAdapterEventListener: a CPU joined or left the debug session.
  void adapterAdded(const char* name) override;
  void adapterRemoved(const char* name) override;

  // Outer tool lock, taken by callers around every call sequence.
  std::recursive_mutex toolMutex;
  // Guards `listeners`; the innermost lock, nothing is called under it.
  std::mutex listenerMutex;
  // Not owned; added and removed under toolMutex and listenerMutex.
  std::set<CloudHemlockNotificationIF*> listeners;

 private:
  void loadLibraries();
  void registerCleanup();
  void unregister();
  // Gives every cached operation server back to the tool and empties both
  // caches; at cleanup() and when the gate goes without one.
  void releaseOperationServers();
  Qx::Nlv::Xevt::IOperationServer* operationServer(Qx::Nlv::Xevt::ISession* session,
                                                    const std::string& target, uint32_t kind);
  void fillDevice(Qx::Nlv::Xevt::IDevice* device, Json::Value& entry);
  void fillTree(Qx::Nlv::Xevt::IDevice* device, const char* node, Json::Value& parent);
  void setupXmlDatabase();
  void traceSetup();
  int32_t fail(int32_t code, const std::string& text);
  CloudOperation* record(uint32_t handle);
  // Attaches the program of a .tdf file's only device to the record.
  void attachTdfProgram(Qx::Nlv::Xevt::ISession* session, CloudOperation& operation);

  std::string basePath;
  std::string binDir;
  // Atomic: the adapter events read and set them on tool threads without a
  // lock, while operations under toolMutex do the same.
  std::atomic<bool> sessionAvailable{false};
  std::atomic<bool> needsTraceInit{false};

  GetHemlockJobMgrIF_t getHemlockJobMgrIF = nullptr;
  GetHemlockMgrIF_t getHemlockMgrIF = nullptr;
  GetHemlockDBMgrIF_t getHemlockDBMgrIF = nullptr;
  GetHemlockCleanupRegistryIF_t getHemlockCleanupRegistryIF = nullptr;
  QueryInterface_t queryInterface = nullptr;
  GetNumCpu_t getNumCpu = nullptr;
  GetCpuName_t getCpuName = nullptr;
  NewTargetAdapter_t newTargetAdapter = nullptr;
  FreeTargetAdapter_t freeTargetAdapter = nullptr;
  AddTargetEventConsumer_t addTargetEventConsumer = nullptr;
  ClearTargetEventConsumer_t clearTargetEventConsumer = nullptr;
  AddAdapterEventConsumer_t addAdapterEventConsumer = nullptr;
  RemoveAdapterEventConsumer_t removeAdapterEventConsumer = nullptr;
  ClearAdapterEventConsumer_t clearAdapterEventConsumer = nullptr;
  XEVT_GetSessionManager_t xevtGetSessionManager = nullptr;
  XEVT_GetSetupManager_t xevtGetSetupManager = nullptr;
  GetDatabase_t getDatabase = nullptr;
  bool xevtAvailable = false;
  bool adapterListenerAdded = false;

  std::string lastError;
  std::map<std::string, uint32_t> formatNames;
  std::map<std::string, uint32_t> dataTypeNames;
  std::map<std::string, int32_t> transformNames;
  // Operation servers by target, cached until cleanup() or the end of the
  // gate, whichever comes first.
  std::map<std::string, Qx::Nlv::Xevt::IOperationServer*> subOperationServers;
  std::map<std::string, Qx::Nlv::Xevt::IOperationServer*> operationServers;
  bool xmlDbChecked = false;
};
