// LocalOpManager: the one object between the command layer and everything
// that captures (capture operations, settings, the trace server's life, the
// deferred event queue). One live instance per process, from instance().
//
// The command layer calls these operations holding commandMutex, on the
// WorkQueue worker. The capture side is not built yet: instance() raises
// "Trace capture is not available in this build", so no session starts and
// every command that needs a session answers "Trace has not been configured".
// This class states what the command layer relies on.
#pragma once

#include <json/json.h>

#include <boost/signals2/connection.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "promise.hpp"

class LocalOpManager {
 public:
  using TargetEventFn = std::function<void(const std::string&, const std::string&, const std::string&)>;
  using SystemEventFn = std::function<void(const std::string&, const Json::Value&)>;
  using TableSizeFn = std::function<void(unsigned int, unsigned int, bool, unsigned int)>;
  using TraceEventFn = std::function<void(const std::string&, const std::string&,
                                          const std::string&, const std::string&)>;
  using TraceRoute = std::pair<std::string, std::string>;  // source, receiver

  static std::shared_ptr<LocalOpManager> instance();

  virtual ~LocalOpManager() = default;

  // Connects each function that is not empty to its signal.
  virtual std::vector<boost::signals2::connection> connect(TargetEventFn target,
                                                           SystemEventFn system,
                                                           TableSizeFn tableSize,
                                                           TraceEventFn trace) = 0;
  virtual void configure(const std::string& target, const Json::Value& sessions) = 0;
  virtual void shutdown() = 0;
  virtual void startTspServer() = 0;
  virtual void terminateTspServer() = 0;
  virtual void enableLiveTraces(const std::string& target) = 0;
  virtual void disableLiveTraces(const std::string& target) = 0;
  virtual uint32_t enableMTB(const std::string& target) = 0;
  virtual uint32_t enableETB(const std::string& target) = 0;
  virtual uint32_t enableWL(const std::string& target) = 0;
  virtual uint32_t disableMTB(const std::string& target) = 0;
  virtual uint32_t disableETB(const std::string& target) = 0;
  virtual uint32_t disableWL(const std::string& target) = 0;
  virtual void enableTDFTrace(const std::string& target) = 0;
  virtual low::promise<void> exportCaptureToCSV(const std::string& target,
                                                const std::string& feature,
                                                const std::string& file) = 0;
  virtual std::vector<TraceRoute> getLiveTraceRoutes(const std::string& filter) = 0;
  // The route objects of a target, handed to the host as "dataLocation".
  virtual Json::Value dataLocation(const std::string& target) = 0;
  virtual Json::Value tdfDataLocation(const std::string& target) = 0;

  std::mutex commandMutex;  // taken by the command layer around the operations above
};
