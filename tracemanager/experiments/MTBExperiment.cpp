#include "experiments/MTBExperiment.hpp"

#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

MTBExperiment::MTBExperiment(std::string name, DataBroker* broker)
    : VSKExperiment(std::move(name), broker) {}

MTBExperiment::~MTBExperiment() = default;

void MTBExperiment::open() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::MTBExperiment::open");
  if (traceFiles.empty()) return;
  loadData(false);
  outputs.clear();
  // The flags are set after construction on purpose: the rows stay those of
  // the constructor (one per run, capture order) until the next setData.
  traceTable = std::make_unique<MTBTable>(&data);
  traceTable->name = "Trace";
  traceTable->expandRows = false;
  traceTable->reversed = true;
  discontinuityTable = std::make_unique<MTBTable>(&data);
  discontinuityTable->name = "Discontinuity Trace";
  discontinuityTable->expandRows = true;
  discontinuityTable->reversed = false;
  outputs[discontinuityTable->id] = discontinuityTable.get();
}

void MTBExperiment::loadData(bool reread) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::MTBExperiment::loadData");
  loadFirstTrace(reread, [this](VSKTrace& trace) {
    dataDir = trace.path;
    data = nlohmann::json::parse(readDataText(dataDir, dataFileName(trace, dataFile)));
    if (traceTable) traceTable->setData(&data);
    if (discontinuityTable) discontinuityTable->setData(&data);
  });
}

void MTBExperiment::refresh() { loadData(true); }

void MTBExperiment::close() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::MTBExperiment::close");
  traceTable.reset();
  discontinuityTable.reset();
  outputs.clear();
  markerSets.clear();
  indexingStatus = kIndexingClosed;
}

int MTBExperiment::exportCsv(std::string path, std::string outputName) {
  return exportTable(std::move(path), std::move(outputName), discontinuityTable.get(),
                     {discontinuityTable.get(), traceTable.get()}, dataDir);
}

}  // namespace VSKTspServer
