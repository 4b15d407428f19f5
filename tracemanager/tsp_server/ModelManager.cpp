#include "tsp_server/ModelManager.hpp"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "experiments/DataBrokerRouter.hpp"
#include "experiments/DataTree.hpp"
#include "experiments/VSKExperiment.hpp"
#include "experiments/VSKTrace.hpp"
#include "source_utilities/Logger.hpp"
#include "tsp_server/ExperimentKinds.hpp"
#include "tsp_server/MetadataDiscovery.hpp"

namespace VSKTspServer {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kLiveTarget = "LiveTarget";

// The scan root of a name or path that holds "LiveTarget": the text after
// the word and its "/". Nothing after the word means the whole tree.
std::string scanRootAfterLiveTarget(const std::string& text) {
  const size_t begin = text.find(kLiveTarget) + kLiveTarget.size() + 1;
  return begin < text.size() ? text.substr(begin) : std::string();
}

// One capture that could not be loaded: logged with its directory and told
// on the console beside "New experiment:", so the user knows which one to
// repair. The scan goes on with the others.
void reportCaptureFailure(const std::string& dir, const std::exception& error) {
  QX_LOG_ERROR("VSKTspServer::ModelManager: capture %s not loaded: %s", dir.c_str(), error.what());
  std::cout << "Capture not loaded: " << dir << ": " << error.what() << std::endl;
}

// The trace directory of a metadata file, and the trace's name: the last
// element of that directory.
std::pair<std::string, std::string> traceDirOf(const std::string& metadataFile) {
  fs::path dir = fs::path(metadataFile).parent_path();
  return {dir.string(), dir.filename().string()};
}

// An experiment whose first load failed: listed with the status a failed
// load leaves ("RUNNING") and no outputs, so a viewer shows the capture as
// not loaded instead of not there. The reason is in the log.
bool isFailedLoad(const VSKExperiment& experiment) {
  return experiment.indexingStatus == kIndexingRunning && experiment.outputs.empty();
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

ModelManager::ModelManager(httplib::Server* server)
    : dataBroker(std::make_unique<DataBrokerRouter>()), server(server) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::ModelManager");
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::start");
}

// Experiments go first: they hold a pointer to the broker.
ModelManager::~ModelManager() {
  experiments.clear();
  traces.clear();
}

std::string ModelManager::experimentName(std::string name, const VSKTrace& trace) {
  std::string suffix = trace.type;
  if (suffix == "MTB" || suffix == "ETB") suffix = "CoreTrace";
  if (suffix == "WL+") suffix = "WL++";
  // A missing key reads as null, so its conversion throws the same type
  // error ("type must be string, but is null") as a device of another type.
  static const nlohmann::json kMissing;
  const nlohmann::json& metadata = trace.metadata;
  const nlohmann::json* value = &kMissing;
  if (metadata.is_object()) {
    if (auto it = metadata.find("device"); it != metadata.end()) value = &*it;
  } else if (!metadata.is_null()) {
    value = &metadata.at("device");  // type error: not an object
  }
  const std::string device = value->get<std::string>();
  const auto slash = device.rfind('/');
  const std::string stem = slash == std::string::npos ? name : device.substr(slash + 1);
  return stem + "_" + suffix;
}

std::vector<std::string> ModelManager::findMetadataFiles(std::string root) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::findMetadataFiles");
  QX_TRACE_ARG("root", root.c_str());
  std::vector<std::string> parts = {".QX-trace", "data", "live-targets"};
  size_t begin = 0;
  while (begin <= root.size()) {
    size_t end = root.find('/', begin);
    if (end == std::string::npos) end = root.size();
    if (end > begin) parts.push_back(root.substr(begin, end - begin));
    begin = end + 1;
  }
  std::vector<std::string> result;
  const std::string dir = getUserDir(parts);
  requireInsideDataTree(dir, "scan root");
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) return result;
  recursiveFindMetadataFile(dir, result);
  return result;
}

VSKTrace* ModelManager::openTrace(std::string path, std::string name, std::string type) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::openTrace");
  QX_TRACE_ARG("path", path.c_str());
  QX_TRACE_ARG("name", name.c_str());
  QX_TRACE_ARG("type", type.c_str());
  if (path.find(kLiveTarget) != std::string::npos) {
    VSKTrace* last = nullptr;
    for (const auto& file : findMetadataFiles(scanRootAfterLiveTarget(path))) {
      auto [dir, traceName] = traceDirOf(file);
      if (getTraceByPath(dir)) continue;
      try {
        last = openTrace(dir, traceName, "");
      } catch (const std::exception& error) {
        reportCaptureFailure(dir, error);
      }
    }
    return last;
  }
  // A client names this path: nothing outside the data tree is opened.
  requireInsideDataTree(path, "trace directory");
  if (VSKTrace* known = getTraceByPath(path)) return known;
  if (auto pos = path.find("live-targets"); pos != std::string::npos) {
    if (VSKTrace* known = getTraceBySubPath(path.substr(pos))) return known;
  }
  // The constructor reads the metadata; a `typeId` there replaces `type`.
  auto trace = std::make_shared<VSKTrace>(name, path, type, /*confined=*/true);
  VSKTrace* raw = trace.get();
  traces.emplace(trace->UUID, std::move(trace));
  return raw;
}

std::shared_ptr<VSKTrace> ModelManager::deleteTrace(std::string uuid) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::deleteTrace");
  QX_TRACE_ARG("name", uuid.c_str());
  auto it = traces.find(uuid);
  if (it == traces.end()) return nullptr;
  auto trace = std::move(it->second);
  traces.erase(it);
  return trace;
}

VSKTrace* ModelManager::getTrace(std::string uuid) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::getTrace");
  QX_TRACE_ARG("name", uuid.c_str());
  auto it = traces.find(uuid);
  return it == traces.end() ? nullptr : it->second.get();
}

VSKTrace* ModelManager::getTraceByPath(std::string path) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::getTraceByPath");
  QX_TRACE_ARG("path", path.c_str());
  for (const auto& [uuid, trace] : traces) {
    if (trace->path == path) return trace.get();
  }
  return nullptr;
}

VSKTrace* ModelManager::getTraceBySubPath(std::string path) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::getTraceBySubPath");
  QX_TRACE_ARG("path", path.c_str());
  for (const auto& [uuid, trace] : traces) {
    if (trace->path.find(path) != std::string::npos) return trace.get();
  }
  return nullptr;
}

std::vector<std::string> ModelManager::getTraceUUIDs() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::getTraceUUIDs");
  std::vector<std::string> uuids;
  uuids.reserve(traces.size());
  for (const auto& [uuid, trace] : traces) uuids.push_back(uuid);
  return uuids;
}

VSKExperiment* ModelManager::openExperiment(std::string name, std::vector<std::string> traceIds) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::openExperiment");
  QX_TRACE_ARG("name", name.c_str());
  if (name.find(kLiveTarget) == std::string::npos) {
    if (VSKExperiment* found = getExperimentByName(name)) return found;
    if (traceIds.size() == 1 && getTrace(traceIds.front())) {
      for (const auto& [uuid, experiment] : experiments) {
        if (!experiment->traces.empty() && experiment->traces.front().UUID == traceIds.front())
          return experiment.get();
      }
    }
    return createExperiments(name, traceIds);
  }

  // A live name: make the model match the disk below the scan root.
  const std::vector<std::string> known = getTraceUUIDs();
  const std::string root = name.size() > kLiveTarget.size() ? scanRootAfterLiveTarget(name) : "";
  std::vector<std::string> present;
  std::vector<std::string> added;
  for (const auto& file : findMetadataFiles(root)) {
    auto [dir, traceName] = traceDirOf(file);
    if (VSKTrace* trace = getTraceByPath(dir)) {
      present.push_back(trace->UUID);
      continue;
    }
    // Each capture loads or fails on its own; a broken one is tried again
    // by the next scan.
    try {
      if (VSKTrace* opened = openTrace(dir, traceName, "")) added.push_back(opened->UUID);
    } catch (const std::exception& error) {
      reportCaptureFailure(dir, error);
    }
  }
  removeStale(root, known, present);
  for (const auto& uuid : present) {
    VSKTrace* trace = getTrace(uuid);
    if (!trace) continue;
    try {
      VSKExperiment* experiment = getExperimentByName(experimentName(root, *trace));
      if (experiment != nullptr && isFailedLoad(*experiment)) {
        // Made again from the start: the capture may be repaired.
        deleteExperiment(experiment->UUID);
        added.push_back(uuid);
      } else if (experiment != nullptr) {
        experiment->refresh();
        std::cout << "Refresh experiment: " << experiment->name << std::endl;
      } else {
        // Its experiment failed to open before; the capture may be repaired.
        added.push_back(uuid);
      }
    } catch (const std::exception& error) {
      reportCaptureFailure(trace->path, error);
    }
  }
  return createExperiments(root, added);
}

void ModelManager::removeStale(const std::string& root, const std::vector<std::string>& known,
                               const std::vector<std::string>& present) {
  for (const auto& uuid : known) {
    if (std::find(present.begin(), present.end(), uuid) != present.end()) continue;
    VSKTrace* trace = getTrace(uuid);
    if (!trace) continue;
    try {
      if (VSKExperiment* experiment = getExperimentByName(experimentName(root, *trace))) {
        std::string experimentLabel = experiment->name;
        deleteExperiment(experiment->UUID);
        std::cout << "Delete experiment: " << experimentLabel << std::endl;
      }
    } catch (const std::exception& error) {
      // A trace without a device never had an experiment; it goes alone.
      reportCaptureFailure(trace->path, error);
    }
    auto removed = deleteTrace(uuid);
    std::cout << "Delete trace: " << removed->name << std::endl;
  }
}

VSKExperiment* ModelManager::createExperiments(const std::string& name,
                                               const std::vector<std::string>& traceIds) {
  VSKExperiment* last = nullptr;
  for (const auto& uuid : traceIds) {
    VSKTrace* trace = getTrace(uuid);
    if (!trace) continue;
    // One capture that cannot become an experiment (no device, a kind
    // without a class, data that does not load) hides none of the others.
    std::shared_ptr<VSKExperiment> experiment;
    try {
      const std::string en = experimentName(name, *trace);
      std::unique_ptr<VSKExperiment> made = makeExperiment(trace->type, en, dataBroker.get());
      if (!made)
        throw std::invalid_argument("capture kind '" + trace->type + "' has no experiment");
      experiment = std::move(made);
      experiment->addTrace(*trace);
      experiment->open();
      last = experiment.get();
      experiments.emplace(experiment->UUID, experiment);
      std::cout << "New experiment: " << experiment->name << std::endl;
    } catch (const std::exception& error) {
      reportCaptureFailure(trace->path, error);
      // A capture that has a name and a kind but does not load stays in the
      // list as a failed load, without the outputs a partial load made.
      if (experiment) {
        experiment->close();
        experiment->indexingStatus = kIndexingRunning;
        experiments.emplace(experiment->UUID, experiment);
      }
    }
  }
  return last;
}

std::shared_ptr<VSKExperiment> ModelManager::deleteExperiment(std::string uuid) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::deleteExperiment");
  QX_TRACE_ARG("name", uuid.c_str());
  auto it = experiments.find(uuid);
  if (it == experiments.end()) return nullptr;
  auto experiment = std::move(it->second);
  experiments.erase(it);
  experiment->close();
  return experiment;
}

VSKExperiment* ModelManager::getExperiment(std::string uuid) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::getExperiment");
  QX_TRACE_ARG("name", uuid.c_str());
  auto it = experiments.find(uuid);
  return it == experiments.end() ? nullptr : it->second.get();
}

VSKExperiment* ModelManager::getExperimentByName(std::string name) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::getExperimentByName");
  QX_TRACE_ARG("name", name.c_str());
  for (const auto& [uuid, experiment] : experiments) {
    if (experiment->name == name) return experiment.get();
  }
  return nullptr;
}

std::vector<VSKExperiment*> ModelManager::getExperiments() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::getExperiments");
  std::vector<VSKExperiment*> all;
  all.reserve(experiments.size());
  for (const auto& [uuid, experiment] : experiments) all.push_back(experiment.get());
  return all;
}

void ModelManager::refreshExperiment(std::string uuid) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::refreshExperiment");
  QX_TRACE_ARG("name", uuid.c_str());
  if (uuid.empty()) {
    for (const auto& [key, experiment] : experiments) experiment->refresh();
    return;
  }
  if (auto it = experiments.find(uuid); it != experiments.end()) it->second->refresh();
}

DataBroker* ModelManager::getDataBroker() { return dataBroker.get(); }

int ModelManager::exportCaptureToCSV(std::string target, std::string type, std::string file) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::exportCaptureToCSV");
  QX_TRACE_ARG("name", target.c_str());
  const auto slash = target.rfind('/');
  const std::string stem = slash == std::string::npos ? target : target.substr(slash + 1);

  if (experiments.empty()) {
    VSKExperiment* opened = nullptr;
    if (type == "TDF") {
      const std::string dir =
          getUserDir({".QX-trace", "data", "file-targets", "file", stem, "TDF"});
      if (VSKTrace* trace = openTrace(dir, target, "TDF"))
        opened = openExperiment("TDF", {trace->UUID});
    } else {
      opened = openExperiment("LiveTarget/" + target, {});
    }
    if (opened) opened->refresh();
  }

  int exported = 0;
  for (const auto& experiment : getExperiments()) {
    if (isFailedLoad(*experiment)) continue;
    if (!stem.empty() && !startsWith(experiment->name, target) &&
        !startsWith(experiment->name, stem))
      continue;
    const std::vector<VSKTrace> traceCopy = experiment->traceFiles;
    for (const auto& trace : traceCopy) {
      if (!type.empty() && trace.type != type) continue;
      if (int rc = experiment->exportCsv(file, ""); rc != 0) return rc;
      ++exported;
    }
  }
  if (exported > 0) return 0;

  // Nothing matched by prefix: try the names the experiments are given.
  if (stem.empty() || type.empty()) return 0;
  std::vector<std::string> names = {stem + "_" + type, target + "_" + type};
  if (type == "Wattline") {
    names.insert(names.end(),
                 {stem + "_WL", target + "_WL", stem + "_WL++", target + "_WL++"});
  }
  for (const auto& candidate : names) {
    if (VSKExperiment* experiment = getExperimentByName(candidate))
      return experiment->exportCsv(file, "");
  }
  return 0;
}

}  // namespace VSKTspServer
