// LocalOpManager::CaptureOperation: one capture of one feature on one target.
//
// The base keeps what every capture shares: the settings tree handed to the
// tool library (the defaults of createDefaultSettings, overlaid by the
// user's properties), the tool handle, the three states, the promise a CSV
// export waits on, the capture directory, and the delivery of exported JSON
// to the data broker or, without a server, to disk. Subclasses decide the
// tree, how the tool operation is made and started, and what happens when
// data is ready.
//
// Ownership: LocalOpManager owns every operation. Threads: the caller holds
// the manager's state lock (commands and tool events), or the operation is a
// file capture driven by its own thread. Calls into CloudHemlock hold its
// tool lock. `dataReady` is only settled on the WorkQueue worker.
//
// Failures: createHlOperation throws std::runtime_error with a fixed prefix
// and the tool's last error; file delivery failures are logged only.
#pragma once

#include <json/json.h>

#include <array>
#include <cstdint>
#include <string>

#include "cloud_trace/source/LocalOpManager.hpp"
#include "json_interface/promise.hpp"

class LocalOpManager::CaptureOperation {
 public:
  enum State : int32_t { Idle = 0, Armed = 1, Collecting = 2 };

  // `feature` is the capture's type and names its directory below the
  // target's; `writer`, the qualified class name, names it in trace and
  // failure records; `dataFile` is the file its decoded document goes to,
  // null for a capture that decodes nothing.
  CaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                   Json::Value sessionSettings, const char* feature, std::string writer,
                   const char* dataFile = nullptr);
  virtual ~CaptureOperation();
  CaptureOperation(const CaptureOperation&) = delete;
  CaptureOperation& operator=(const CaptureOperation&) = delete;

  // Creates the tool operation and hands it its settings; gives the handle.
  virtual uint32_t createHlOperation() = 0;
  // The capture has stopped: take the data, end the capture, export.
  virtual void onDataReady() = 0;
  // The six members of an instruction or file capture's metadata,
  // delivered as "metadata".
  virtual void exportMetaData();
  // Starts or stops the tool side; 0 on success.
  virtual int32_t enableImpl(bool enable) = 0;
  virtual void createDefaultSettings() = 0;

  void configure(const Json::Value& opProp, VSKTspServer::DataBroker* broker);
  int32_t enable(bool enable);
  void applyOpProp(const Json::Value& opProp);
  // The manager's Armed -> Collecting step, with the message for Idle.
  void onDataCollecting();
  // Delivers the decoded document as the data file; nothing without one.
  void exportData();

  static int32_t findIndex(const Json::Value& array, const std::string& key,
                           const std::string& value);
  Json::Value getReceiverProperty(const std::string& name) const;

  bool isCreated() const { return created; }
  bool isEnabled() const { return enabled; }
  bool isSyncWithTarget() const { return syncWithTarget; }
  uint32_t getOperationHandle() const { return operationHandle; }
  const std::string& getType() const { return type; }
  const std::string& getTarget() const { return target; }
  const std::string& getCaptureDir() const { return captureDir; }
  low::promise<void> getDataReady() const { return dataReady; }
  State getState() const { return state; }
  const Json::Value& getSettings() const { return settings; }
  const Json::Value& getMetadata() const { return metadata; }
  const Json::Value& getData() const { return data; }

  static const char* stateText(State state);

 protected:
  // Delivers `content` as the file `name` of the capture directory: through
  // the broker when there is one, else written to disk. `writer` names the
  // class and function in failure records.
  void deliver(const std::string& name, const Json::Value& content, const std::string& writer,
               bool reportWriteFailure = true);
  // The receiver's default properties inside the outer "Receiver Settings"
  // tree.
  void setReceiverSettings(const std::string& receiver, const Json::Value& properties);
  // The time stamp of metadata: UTC, "%FT%TZ".
  static std::string timeStamp();
  // Posts the task that resolves dataReady on the worker.
  void resolveDataReady();

  // The tool side of a live capture. `word` names the capture in the
  // failure "Cannot enable <word>: No target selected". Makes the main
  // operation (kind 2) with `settings`; throws with the fixed prefixes.
  // Leaves `created` false: the caller sets it when all its operations
  // exist. Takes the tool lock (recursive: a caller may hold it already).
  void createMainOperation(const char* word);
  // Makes one tool operation of `kind` for the target and hands it `props`.
  // The caller holds the tool lock.
  void createToolOperation(uint32_t& handle, const Json::Value& props, uint32_t kind);

  // What a capture needs of the decoder once its operations are enabled.
  enum class DecoderUse {
    // The decoder and the object file; a failed attach is returned as it
    // is and the operations stay enabled.
    kSymbols,
    // The decoder and the object file, all or nothing: any failure
    // disables every operation again.
    kSymbolsAllOrNothing,
    // A power capture: a channel without an instruction decoder (-3, -4)
    // is no failure.
    kOptional,
  };
  // enableImpl of a live capture: the main operation, then the
  // sub-operations in order (a failing one disables those enabled before
  // it and the main operation), then the trace application. Disabling
  // goes main first, then the sub-operations, and returns the last result.
  int32_t switchToolOperations(bool on, DecoderUse use);

  // The manager's Collecting -> Idle step of onDataReady: false (logged)
  // outside Collecting, and false without tools, when there is nothing to
  // decode.
  bool endCollecting();
  // The end of a decoded capture: dataReady settled, then the metadata and
  // the data file delivered.
  void publishDecoded();

  std::string type;
  int32_t clientId = -1;
  CloudHemlock* tools = nullptr;
  std::string target;
  uint32_t subOperationCount = 0;
  std::array<Json::Value, 5> subOperationProps;
  Json::Value settings;
  std::string captureDir;
  VSKTspServer::DataBroker* broker = nullptr;
  bool syncWithTarget = true;
  bool created = false;
  bool enabled = false;
  uint32_t operationHandle = 0;
  std::array<uint32_t, 5> subOperationHandles{};
  State state = Idle;
  Json::Value sessionSettings;
  low::promise<void> dataReady;
  Json::Value metadata{Json::objectValue};
  Json::Value data{Json::objectValue};  // the decoded document, empty until data is ready
  const std::string writer;
  const char* const dataFile;
};
