#include "experiments/ETBExperiment.hpp"

#include "experiments/DataBrokerRouter.hpp"
#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

ETBExperiment::ETBExperiment(std::string name, DataBroker* broker)
    : VSKExperiment(std::move(name), broker) {}

ETBExperiment::~ETBExperiment() = default;

EtbRecordStore* ETBExperiment::store() {
  auto* router = dynamic_cast<DataBrokerRouter*>(dataBroker);
  return router ? &router->etbRecords : nullptr;
}

void ETBExperiment::open() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ETBExperiment::open");
  if (traceFiles.empty()) return;
  loadData(false);
  outputs.clear();
  // Flags after construction, as in the MTB experiment: the rows stay the
  // constructor's single line until the first refresh.
  traceTable = std::make_unique<ETBTable>(store());
  traceTable->name = "Trace";
  traceTable->expandRows = false;
  traceTable->reversed = true;
  discontinuityTable = std::make_unique<ETBTable>(store());
  discontinuityTable->name = "Discontinuity Trace";
  discontinuityTable->expandRows = true;
  discontinuityTable->reversed = false;
  outputs[discontinuityTable->id] = discontinuityTable.get();
}

void ETBExperiment::loadData(bool reread) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ETBExperiment::loadData");
  loadFirstTrace(reread, [this](VSKTrace& trace) {
    dataDir = trace.path;
    if (traceTable) traceTable->setData();
    if (discontinuityTable) discontinuityTable->setData();
  });
}

void ETBExperiment::refresh() { loadData(true); }

void ETBExperiment::close() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ETBExperiment::close");
  traceTable.reset();
  discontinuityTable.reset();
  outputs.clear();
  markerSets.clear();
  if (EtbRecordStore* records = store()) records->clear();
  indexingStatus = kIndexingClosed;
}

int ETBExperiment::exportCsv(std::string path, std::string outputName) {
  return exportTable(std::move(path), std::move(outputName), discontinuityTable.get(),
                     {discontinuityTable.get(), traceTable.get()}, dataDir);
}

}  // namespace VSKTspServer
