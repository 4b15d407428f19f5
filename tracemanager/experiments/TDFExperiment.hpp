// TDFExperiment: the experiment of a TDF capture, one generic table named
// "Trace" over the document `tdf_data.json` (or the metadata's `dataFile`).
//
// Owns the table and the parsed document; the table points into `data`,
// which stays put across loads. A missing data file reads as "{}", an empty
// table. Threads and errors as VSKExperiment; a data file that is not JSON
// throws from open or refresh and leaves "RUNNING".
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "experiments/GenericTable.hpp"
#include "experiments/VSKExperiment.hpp"

namespace VSKTspServer {

class TDFExperiment : public VSKExperiment {
 public:
  TDFExperiment(std::string name, DataBroker* broker);
  ~TDFExperiment() override;

  void open() override;
  void close() override;
  void refresh() override;
  int exportCsv(std::string path, std::string outputName) override;

  // Reads the data file again; `reread` reads the trace's metadata first.
  void loadData(bool reread);

  std::string dataFile = "tdf_data.json";
  std::string dataDir;
  std::unique_ptr<GenericTable> table;
  nlohmann::json data;
};

}  // namespace VSKTspServer
