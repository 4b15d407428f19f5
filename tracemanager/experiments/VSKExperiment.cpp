#include "experiments/VSKExperiment.hpp"

#include <stdexcept>

#include <nlohmann/json.hpp>

#include "experiments/DataTree.hpp"

namespace VSKTspServer {

VSKExperiment::VSKExperiment(std::string name_, DataBroker* broker) : dataBroker(broker) {
  name = std::move(name_);
  UUID = makeUuid();
}

std::vector<DataProvider*> VSKExperiment::getOutputs() {
  std::vector<DataProvider*> result;
  result.reserve(outputs.size());
  for (const auto& [id, provider] : outputs) result.push_back(provider);
  return result;
}

VSKDataProvider* VSKExperiment::getOutput(std::string id) {
  auto it = outputs.find(id);
  if (it == outputs.end()) throw std::invalid_argument("Invalid OutputId");
  return it->second;
}

void VSKExperiment::addTrace(const VSKTrace& trace) {
  traceFiles.push_back(trace);
  traces.push_back(static_cast<const Trace&>(trace));
}

int VSKExperiment::exportTable(std::string path, std::string outputName,
                               VSKTableProvider* mainTable,
                               std::initializer_list<VSKTableProvider*> tables,
                               const std::string& dataDir) {
  if (outputName.empty() && mainTable) {
    outputName = mainTable->name;
    if (path.empty()) path = dataDir + "/" + mainTable->name + ".csv";
  }
  if (path.empty()) return -1;
  for (VSKTableProvider* table : tables) {
    if (table && table->name == outputName) return table->exportCsv(path);
  }
  return -1;
}

void VSKExperiment::loadFirstTrace(bool reread, const std::function<void(VSKTrace&)>& parse) {
  indexingStatus = kIndexingRunning;
  VSKTrace& trace = traceFiles.at(0);
  if (reread) trace.readMetadata();
  parse(trace);
  indexingStatus = kIndexingCompleted;
}

std::string VSKExperiment::readDataText(const std::string& dataDir, const std::string& fileName) {
  if (!dataBroker) throw std::logic_error("experiment '" + name + "' has no data broker");
  // The broker joins the path itself; the name is checked here, where the
  // capture's confinement is known.
  captureFilePath(dataDir, fileName, !traceFiles.empty() && traceFiles.front().confined);
  const nlohmann::json header = {{"path", dataDir}, {"name", fileName}};
  return dataBroker->readText(kTopicFile, header.dump());
}

}  // namespace VSKTspServer
