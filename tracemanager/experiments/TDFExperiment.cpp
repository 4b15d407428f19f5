#include "experiments/TDFExperiment.hpp"

#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

TDFExperiment::TDFExperiment(std::string name, DataBroker* broker)
    : VSKExperiment(std::move(name), broker) {}

TDFExperiment::~TDFExperiment() = default;

void TDFExperiment::open() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TDFExperiment::open");
  if (traceFiles.empty()) return;
  loadData(false);
  table = std::make_unique<GenericTable>();
  table->setData(&data);
  table->name = "Trace";
  outputs[table->id] = table.get();
}

void TDFExperiment::loadData(bool reread) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TDFExperiment::loadData");
  loadFirstTrace(reread, [this](VSKTrace& trace) {
    dataDir = trace.path;
    data = nlohmann::json::parse(readDataText(dataDir, dataFileName(trace, dataFile)));
    if (table) table->setData(&data);
  });
}

void TDFExperiment::refresh() { loadData(true); }

void TDFExperiment::close() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TDFExperiment::close");
  // The map would otherwise point at the freed table.
  outputs.clear();
  table.reset();
  indexingStatus = kIndexingClosed;
}

int TDFExperiment::exportCsv(std::string path, std::string outputName) {
  return exportTable(std::move(path), std::move(outputName), table.get(), {table.get()}, dataDir);
}

}  // namespace VSKTspServer
