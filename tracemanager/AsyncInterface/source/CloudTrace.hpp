// AsyncInterface::CloudTrace: the root object behind the cloudTrace.*
// commands and events. A handler takes the positional arguments, takes the
// needed lock, calls the local operation manager or the tool access, and
// turns the result into a reply.
//
// Threads: commands run on the WorkQueue worker. traceEvent is raised on the
// tool's thread with `lock` held; the host's receive runs inside it.
// Lock order: lock, then the manager's commandMutex, then the tool mutex.
//
// A session that merely cannot start is not an error: the configure commands
// answer {} and the client tells success by "dataLocation".
#pragma once

#include <json/json.h>

#include <boost/signals2/signal.hpp>
#include <boost/thread/mutex.hpp>
#include <memory>
#include <string>
#include <vector>

class CloudHemlock;
class LocalOpManager;

namespace JSONInterface {
class Translator;
}

namespace AsyncInterface {

class CloudTrace {
 public:
  CloudTrace();
  virtual ~CloudTrace();
  CloudTrace(const CloudTrace&) = delete;
  CloudTrace& operator=(const CloudTrace&) = delete;

  // Writes the cloudTrace.* handlers into the translator's table and wires
  // the four event signals to it.
  void registerCommands(JSONInterface::Translator& translator);

  std::string getTestString(const std::string& text);
  Json::Value GetDevices(bool live, const std::string& tdfName);
  static Json::Value GetListOfUsecases(const std::string& device);
  Json::Value GetLiveTraceReceivers(const std::string& filter);
  Json::Value ConfigureTargetSession(const std::string& target, const std::string& configuration);
  Json::Value ConfigureTDFSession(const std::string& target, const std::string& configuration);
  Json::Value configureSession(const std::string& configuration);
  // Ends the session (under `lock` when a command asks); the manager is
  // released by releaseRetired, called without `lock`.
  void shutdown();
  void releaseRetired();

  // The manager, raising "Trace has not been configured" when there is none.
  LocalOpManager& manager();
  bool hasManager() const { return localOpManager != nullptr; }

  boost::signals2::signal<void(const std::string&, const std::string&, const std::string&)> targetEvent;
  boost::signals2::signal<void(const std::string&, const Json::Value&)> systemEvent;
  boost::signals2::signal<void(unsigned int, unsigned int, bool, unsigned int)> traceTableSizeEvent;
  boost::signals2::signal<void(const std::string&, const std::string&, const std::string&,
                               const std::string&)>
      traceEvent;

 protected:
  void startup(const std::string& target);
  void enableLiveTrace(const std::string& target, const std::vector<std::string>& kinds,
                       bool enable);

  // Held while a session is set up or stopped and while a trace event
  // passes through.
  boost::mutex lock;
  // The tool gate as last seen; read it through tools().
  CloudHemlock* hemlock = nullptr;
  CloudHemlock* tools();
  std::shared_ptr<LocalOpManager> localOpManager;
  std::shared_ptr<LocalOpManager> retired;  // ended, to be let go of outside `lock`
  Json::Value sessions;
  std::vector<boost::signals2::connection> connections;
};

}  // namespace AsyncInterface
