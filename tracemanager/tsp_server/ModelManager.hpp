// ModelManager: the trace server's model.
//
// The single owner of all traces and experiments, and of the data broker
// through which their data files are reached. It decides what a capture
// directory on disk becomes (which experiment class, under which name) and
// keeps the model in step with the live-target tree on every scan.
//
// Ownership: the maps hold shared pointers. `deleteTrace` and
// `deleteExperiment` hand the removed object back as a shared pointer, so a
// route can still serialise it, and it is freed when the last holder lets
// go. Raw pointers from the lookups stay valid until the object leaves its
// map.
//
// Threads: no locks inside. Every caller holds `tspMutex` (requests through
// the pre-routing handler, the capture side through TspServer's operations).
// Errors: exceptions of the JSON library and the file system travel to the
// caller; a scan that throws keeps the traces it opened before.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace httplib {
class Server;
}

namespace VSKTspServer {

class DataBroker;
class DataBrokerRouter;
class VSKExperiment;
class VSKTrace;

class ModelManager {
 public:
  explicit ModelManager(httplib::Server* server);
  ModelManager(const ModelManager&) = delete;
  ModelManager& operator=(const ModelManager&) = delete;
  ~ModelManager();

  // A path holding "LiveTarget" scans below it and gives the last new trace
  // (null if none is new); any other path opens that one directory.
  VSKTrace* openTrace(std::string path, std::string name, std::string type);
  std::shared_ptr<VSKTrace> deleteTrace(std::string uuid);
  VSKTrace* getTrace(std::string uuid);
  VSKTrace* getTraceByPath(std::string path);
  VSKTrace* getTraceBySubPath(std::string path);
  std::vector<std::string> getTraceUUIDs();

  // A name holding "LiveTarget" makes the model match the disk below the
  // scan root; any other name finds or creates an experiment of `traces`.
  // Gives the last experiment created, null if none was.
  VSKExperiment* openExperiment(std::string name, std::vector<std::string> traces);
  std::shared_ptr<VSKExperiment> deleteExperiment(std::string uuid);
  VSKExperiment* getExperiment(std::string uuid);
  VSKExperiment* getExperimentByName(std::string name);
  std::vector<VSKExperiment*> getExperiments();
  void refreshExperiment(std::string uuid);

  // Exports the tables of a capture; 0 on success.
  int exportCaptureToCSV(std::string target, std::string type, std::string file);

  // All `metadata` files below the live-target tree, or below `root` in it.
  std::vector<std::string> findMetadataFiles(std::string root);

  // <stem>_<suffix>, stem from the trace's device. Throws when the metadata
  // has no `device` string.
  static std::string experimentName(std::string name, const VSKTrace& trace);

  DataBroker* getDataBroker();
  DataBrokerRouter* getDataBrokerRouter() { return dataBroker.get(); }
  httplib::Server* getServer() const { return server; }
  const std::string& getStatus() const { return status; }
  void setStatus(std::string value) { status = std::move(value); }

 private:
  VSKExperiment* createExperiments(const std::string& name,
                                   const std::vector<std::string>& traceIds);
  void removeStale(const std::string& root, const std::vector<std::string>& known,
                   const std::vector<std::string>& present);

  std::unique_ptr<DataBrokerRouter> dataBroker;
  httplib::Server* server;
  std::string status;
  std::map<std::string, std::shared_ptr<VSKExperiment>> experiments;
  std::map<std::string, std::shared_ptr<VSKTrace>> traces;
};

}  // namespace VSKTspServer
