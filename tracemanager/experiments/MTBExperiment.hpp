// MTBExperiment: the experiment of an MTB capture.
//
// Owns the parsed `mtb_data.json` (or the metadata's `dataFile`) and two
// tables over it: "Discontinuity Trace", the main table and the one output,
// and "Trace", which only the CSV export reaches by name. Both tables build
// their rows in their constructors, before their flags are set, so until the
// first refresh "Discontinuity Trace" has one line per run in capture order;
// from the first refresh on it has one line per instruction, and "Trace" one
// line per run, newest first. The capture side relies on that refresh: it
// writes a placeholder `metadata` first and refreshes when the data is in.
//
// Threads and errors as VSKExperiment; a data file that is not JSON throws
// from open or refresh and leaves "RUNNING".
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "experiments/MTBTable.hpp"
#include "experiments/VSKExperiment.hpp"

namespace VSKTspServer {

class MTBExperiment : public VSKExperiment {
 public:
  MTBExperiment(std::string name, DataBroker* broker);
  ~MTBExperiment() override;

  void open() override;
  void close() override;
  void refresh() override;
  int exportCsv(std::string path, std::string outputName) override;

  void loadData(bool reread);

  std::string dataFile = "mtb_data.json";
  std::string dataDir;
  std::unique_ptr<MTBTable> traceTable;
  std::unique_ptr<MTBTable> discontinuityTable;
  nlohmann::json data;
};

}  // namespace VSKTspServer
