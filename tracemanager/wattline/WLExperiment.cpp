#include "wattline/WLExperiment.hpp"

#include <sys/stat.h>

#include <fstream>

#include "experiments/DataTree.hpp"
#include "source_utilities/Logger.hpp"
#include "tsp_server/models/TspRequests.hpp"
#include "wattline/WLStateDecoders.hpp"

namespace VSKTspServer {

namespace {

bool isRegularFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

WLExperiment::WLExperiment(std::string name, DataBroker* broker)
    : VSKExperiment(std::move(name), broker) {}

WLExperiment::~WLExperiment() = default;

void WLExperiment::open() {
  QX_TRACE_FUNCTION("VSKTspServer::WLExperiment::open");
  if (traceFiles.empty()) return;
  loadData(false);
  outputs.clear();
  auto enlist = [this](VSKDataProvider* provider) {
    // The first provider under an id stays.
    outputs.emplace(provider->id, provider);
  };
  table = std::make_unique<WLTable>(dataNode.get());
  table->name = "Records";
  enlist(table.get());
  summary = std::make_unique<WLSummary>(dataNode.get());
  summary->name = "Summary";
  enlist(summary.get());
  lineGraph = std::make_unique<WLLineGraph>(dataNode.get());
  lineGraph->name = "Current";
  lineGraph->id = WLLineGraph::kHistogramId;
  enlist(lineGraph.get());
  if (dataNode->recordType != WLDataNode::kTypeWithStates) return;
  nlohmann::json description;
  if (supplement.is_object() && supplement.contains("StateGraph")) {
    description = supplement["StateGraph"];
  }
  stateGraph = std::make_unique<WLStateGraph>(dataNode.get(), std::move(description));
  stateGraph->name = "States";
  enlist(stateGraph.get());
}

void WLExperiment::loadSupMetaData() {
  QX_TRACE_FUNCTION("VSKTspServer::WLExperiment::loadSupMetaData");
  const bool confined = !traceFiles.empty() && traceFiles.front().confined;
  std::ifstream in(captureFilePath(dataFolder, supplementFile, confined), std::ios::binary);
  if (!in.good()) return;
  // A broken supplement keeps what an earlier load read.
  nlohmann::json parsed = nlohmann::json::parse(in, nullptr, false);
  if (!parsed.is_discarded()) supplement = std::move(parsed);
}

void WLExperiment::loadData(bool reread) {
  QX_TRACE_FUNCTION("VSKTspServer::WLExperiment::loadData");
  // Only a refresh gets here without a trace; there is nothing to load.
  if (traceFiles.empty()) return;
  loadFirstTrace(reread, [this](VSKTrace& trace) { loadTrace(trace); });
}

void WLExperiment::loadTrace(VSKTrace& trace) {
  if (!dataNode) dataNode = std::make_unique<WLDataNode>();
  dataFolder = trace.path;
  loadSupMetaData();
  QX_TRACE_ARG("path", dataFolder.c_str());

  // The capture side writes "unknown"; a name that is no file in the
  // directory cannot be the stream either.
  std::string fileName = dataFileName(trace, dataFile);
  if (fileName == "unknown" || !isRegularFile(dataFolder + "/" + fileName)) fileName = dataFile;
  // Throws for a name that leaves the capture directory or a link out of
  // the data tree, before anything is read.
  captureFilePath(dataFolder, fileName, trace.confined);

  WLDataNode& node = *dataNode;
  node.dsr.reset();
  if (trace.metadata.is_object() && trace.metadata.contains("typeId")) {
    const std::string typeId = trace.metadata["typeId"].get<std::string>();
    if (typeId == "WL+" || typeId == "WLplus") {
      node.recordType = WLDataNode::kTypeWithStates;
      const nlohmann::json jstate =
          supplement.is_object() && supplement.contains("JState") ? supplement["JState"]
                                                                  : nlohmann::json();
      if (jstate.is_object() && jstate.contains("version")) {
        node.dsr = makeStateDecoder(node, saturatingNumber<int64_t>(jstate["version"]));
        if (node.dsr) {
          node.dsr->initDefaults();
          node.dsr->loadBitFields(jstate);
        }
      }
    }
  }

  if (node.readFile(dataFolder, fileName)) {
    node.decode();
    node.evaluateStates();
  }
  node.computeStats(0, node.recordCount);
  start = node.times.empty() ? 0 : static_cast<int64_t>(node.times.front());
  end = node.times.empty() ? 0 : static_cast<int64_t>(node.times.back());
  nbEvents = static_cast<int64_t>(node.recordCount);
  if (table) table->setData(dataNode.get());
  if (summary) summary->setData(dataNode.get());
  if (lineGraph) lineGraph->setData(dataNode.get());
  if (stateGraph) stateGraph->init(dataNode.get());
}

void WLExperiment::refresh() {
  QX_TRACE_FUNCTION("VSKTspServer::WLExperiment::refresh");
  loadData(true);
}

void WLExperiment::close() {
  QX_TRACE_FUNCTION("VSKTspServer::WLExperiment::close");
  table.reset();
  lineGraph.reset();
  summary.reset();
  stateGraph.reset();
  dataNode.reset();
  outputs.clear();
  markerSets.clear();
  indexingStatus = kIndexingClosed;
}

int WLExperiment::exportCsv(std::string path, std::string outputName) {
  QX_TRACE_FUNCTION("VSKTspServer::WLExperiment::exportCsv");
  if (outputName.empty() && table) {
    outputName = table->name;
    if (path.empty()) path = dataFolder + "/" + table->name + ".csv";
  }
  if (path.empty()) return -1;
  if (table && outputName == table->name) return table->exportInSlices(path);
  if (summary && outputName == summary->name) return summary->exportCsv(path);
  return -1;
}

}  // namespace VSKTspServer
