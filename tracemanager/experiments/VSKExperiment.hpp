// VSKExperiment: the base of every experiment kind (a capture as the viewer
// sees it: one entry in the experiments list with a set of outputs).
//
// The `Experiment` base is what the protocol shows. The kind creates its
// providers in `open`, owns them, and lists them in `outputs` (which does not
// own them); `close` frees them and leaves "CLOSED". Loads are synchronous:
// `indexingStatus` is "RUNNING" during a load, "COMPLETED" after it, and a
// load that throws stays at "RUNNING".
//
// Owned by the model manager. Threads: called under the server's request
// lock only; no lock of its own. The broker is not owned and outlives the
// experiment.
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "experiments/DataBroker.hpp"
#include "experiments/VSKDataProvider.hpp"
#include "experiments/VSKTrace.hpp"
#include "tsp_server/models/TspObjects.hpp"

namespace VSKTspServer {

inline constexpr const char* kIndexingRunning = "RUNNING";
inline constexpr const char* kIndexingCompleted = "COMPLETED";
inline constexpr const char* kIndexingClosed = "CLOSED";

class VSKExperiment : public Experiment {
 public:
  VSKExperiment(std::string name, DataBroker* broker);
  VSKExperiment(const VSKExperiment&) = delete;
  VSKExperiment& operator=(const VSKExperiment&) = delete;
  virtual ~VSKExperiment() = default;

  virtual void open() {}
  virtual void close() { indexingStatus = kIndexingClosed; }
  virtual void refresh() = 0;
  // Writes the table named `outputName` (the main table when empty) to
  // `path` (a default file beside the data when both are empty). 0 on
  // success, -1 otherwise.
  virtual int exportCsv(std::string path, std::string outputName) { return -1; }

  // The descriptors of all outputs, in ascending id order.
  std::vector<DataProvider*> getOutputs();
  // Throws std::invalid_argument("Invalid OutputId") for an unknown id.
  VSKDataProvider* getOutput(std::string id);

  // Adds a trace to both lists: the full record and the part the protocol
  // shows.
  void addTrace(const VSKTrace& trace);

  DataBroker* dataBroker;
  std::map<std::string, VSKDataProvider*> outputs;
  std::vector<std::pair<std::string, std::string>> markerSets;  // (name, id)
  std::vector<VSKTrace> traceFiles;

 protected:
  // The export rule shared by the table kinds: an empty `outputName` means
  // `mainTable`, and with it an empty `path` means `dataDir`/<name>.csv; an
  // empty `path` beside a given name fails. `tables` are the candidates by
  // name (null entries are skipped).
  static int exportTable(std::string path, std::string outputName, VSKTableProvider* mainTable,
                         std::initializer_list<VSKTableProvider*> tables,
                         const std::string& dataDir);
  // The load every capture kind shares, on the first trace file: the status
  // is "RUNNING" while `parse` reads the capture and "COMPLETED" after it; a
  // refresh (`reread`) first reads the trace's metadata again. Without a
  // trace file it throws std::out_of_range; an exception from `parse` leaves
  // "RUNNING" and goes to the caller.
  void loadFirstTrace(bool reread, const std::function<void(VSKTrace& trace)>& parse);
  // The text the broker gives for `dataDir`/`fileName` on the file topic.
  std::string readDataText(const std::string& dataDir, const std::string& fileName);
};

}  // namespace VSKTspServer
