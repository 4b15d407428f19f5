// ETBExperiment: the experiment of an ETB capture.
//
// Reads no file: its two tables show the records that the decoder left in
// the router's `etbRecords` store. "Discontinuity Trace" is the main table
// and the one output; "Trace" is reached only by the CSV export. Until the
// first refresh "Discontinuity Trace" has a single line, which an empty
// store cannot answer (the request fails); from the first refresh on it has
// one line per record. `close` empties the store, under every ETB
// experiment of the router.
//
// Threads and errors as VSKExperiment. A broker that is not a
// DataBrokerRouter gives the tables no store.
#pragma once

#include <memory>
#include <string>

#include "experiments/ETBTable.hpp"
#include "experiments/VSKExperiment.hpp"

namespace VSKTspServer {

class ETBExperiment : public VSKExperiment {
 public:
  ETBExperiment(std::string name, DataBroker* broker);
  ~ETBExperiment() override;

  void open() override;
  void close() override;
  void refresh() override;
  int exportCsv(std::string path, std::string outputName) override;

  void loadData(bool reread);

  std::string dataDir;
  std::unique_ptr<ETBTable> traceTable;
  std::unique_ptr<ETBTable> discontinuityTable;

 private:
  EtbRecordStore* store();
};

}  // namespace VSKTspServer
