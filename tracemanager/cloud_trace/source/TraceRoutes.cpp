// LocalOpManager: which trace routes the hardware offers, where a capture
// lives on disk, and the placeholder metadata written ahead of any data.
// The disk layout is the contract with the trace server, which opens what a
// capture leaves under <data>/live-targets and <data>/file-targets.
#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>
#include <mutex>

#include "cloud_trace/source/CaptureOperation.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/uEnvironment.hpp"
#include "tool_access/CloudHemlock.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace fs = boost::filesystem;

namespace {

std::string dataDir(const char* tree) {
  std::string path;
  QX_NLV::dataDirectory(path);
  QX_NLV::joinPath(path, tree);
  return path;
}

// `<root>/<target pieces>/<feature>`, created, with forward slashes.
std::string captureDirUnder(const char* tree, const std::string& target,
                            const std::string& feature) {
  std::string path = dataDir(tree);
  if (!target.empty()) {
    std::vector<std::string> pieces;
    boost::split(pieces, target, boost::is_any_of("/"));
    for (const auto& piece : pieces) {
      if (!piece.empty()) QX_NLV::joinPath(path, piece.c_str());
    }
    if (!feature.empty()) QX_NLV::joinPath(path, feature.c_str());
  }
  QX_NLV::makeDirectories(path.c_str());
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

const char* featureOfReceiver(const std::string& receiver) {
  if (receiver == "WL") return kFeatureWattline;
  if (receiver == "MTB") return kFeatureMTB;
  if (receiver == "ETB") return kFeatureETB;
  return nullptr;
}

}  // namespace

std::vector<TraceRoute> LocalOpManager::getAllRoutes() {
  std::vector<TraceRoute> routes;
  if (tools == nullptr) return routes;
  std::lock_guard<std::recursive_mutex> tool(tools->toolMutex);
  Json::Value devices;
  tools->getDevices(true, "", devices);  // no devices, no routes
  if (!devices.isArray()) return routes;
  for (const auto& device : devices) {
    const Json::Value& list = device["device_info"]["trace_routes"];
    if (!list.isArray()) continue;
    for (const auto& route : list) {
      routes.push_back({route["source"].asString(), route["receiver"].asString()});
    }
  }
  return routes;
}

std::vector<TraceRoute> LocalOpManager::getLiveTraceRoutes(const std::string& target) {
  std::vector<TraceRoute> routes;
  if (tools == nullptr) return routes;
  std::lock_guard<std::recursive_mutex> tool(tools->toolMutex);
  for (auto route : getAllRoutes()) {
    if (!target.empty() && route.source != target) continue;
    if (route.receiver == "WL") {
      Json::Value jstate(Json::objectValue);
      tools->getJState(target, jstate);
      if (jstate.isObject() && jstate["version"].isNumeric() && jstate["version"].asInt() > 0 &&
          jstate["name"].isString() && !jstate["name"].asString().empty()) {
        route.receiver = "WLplus";
      }
    }
    routes.push_back(route);
  }
  return routes;
}

std::string LocalOpManager::getTargetDir(const std::string& target, const std::string& feature) {
  if (feature == kFeatureTDF) return getFileTargetDir(target, feature);
  std::string::size_type file = target.rfind("file/");
  if (file == 0) return getFileTargetDir(target, feature);
  return captureDirUnder("live-targets", target, feature);
}

std::string LocalOpManager::getFileTargetDir(const std::string& target,
                                             const std::string& feature) {
  return captureDirUnder("file-targets", target, feature);
}

std::string LocalOpManager::getScratchDir(const std::string& name) {
  std::string path = dataDir(name.c_str());
  QX_NLV::makeDirectories(path.c_str());
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

void LocalOpManager::removeTargetDir(const std::string& target, const std::string& feature) {
  fs::remove_all(getTargetDir(target, feature));
}

std::string LocalOpManager::directoryUri(const std::string& path) {
  return (!path.empty() && path[0] == '/' ? "file://" : "file:///") + path;
}

Json::Value LocalOpManager::getFileRoutes(const std::string& target) {
  Json::Value location(Json::objectValue);
  location["target"] = target;
  location["traceType"] = kFeatureTDF;
  location["uri"] = directoryUri(getFileTargetDir(target, kFeatureTDF));
  Json::Value list(Json::arrayValue);
  list.append(location);
  return list;
}

void LocalOpManager::addDataLocation(const std::string& target, const CaptureOperation& op) {
  Json::Value location(Json::objectValue);
  location["target"] = op.getTarget();
  location["traceType"] = op.getType();
  location["uri"] = directoryUri(op.getCaptureDir());
  if (dataLocations[target].isNull()) dataLocations[target] = Json::Value(Json::arrayValue);
  dataLocations[target].append(location);
}

bool LocalOpManager::isFeatureEnabled(const Json::Value& settings, const std::string& target,
                                      const std::string& feature) {
  if (!settings.isObject() || !settings[target].isObject() ||
      !settings[target][feature].isObject()) {
    return false;
  }
  const Json::Value& enable = settings[target][feature]["enable"];
  return enable.isConvertibleTo(Json::booleanValue) && enable.asBool();
}

bool LocalOpManager::isCreateExperiment(const Json::Value& settings) {
  if (!settings.isObject()) return false;
  const Json::Value& flag = settings["createExperiment"];
  return flag.isConvertibleTo(Json::booleanValue) && flag.asBool();
}

void LocalOpManager::exportPlaceholders(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::exportPlaceholders");
  StateLock state(*this);
  if (!target.empty()) {
    dataLocations[target] = Json::Value(Json::arrayValue);
    for (const char* feature : {kFeatureWattline, kFeatureMTB, kFeatureETB, kFeatureTDF}) {
      if (isFeatureEnabled(settings, target, feature)) {
        exportExprPlaceholderMetaData(target, feature);
      }
    }
    return;
  }
  dataLocations = Json::Value(Json::objectValue);
  for (const auto& route : getAllRoutes()) {
    const char* feature = featureOfReceiver(route.receiver);
    if (feature != nullptr && isFeatureEnabled(settings, route.source, feature)) {
      exportExprPlaceholderMetaData(route.source, feature);
    }
  }
}

void LocalOpManager::exportExprPlaceholderMetaData(const std::string& target,
                                                   const std::string& feature) {
  QX_TRACE_FUNCTION("LocalOpManager::exportExprPlaceholderMetaData");
  if (feature != kFeatureMTB && feature != kFeatureETB && feature != kFeatureWattline &&
      feature != kFeatureTDF) {
    QX_LOG_ERROR("Unsupported Trace type: %s", feature.c_str());
    return;
  }
  StateLock state(*this);
  if (feature == kFeatureTDF) fs::remove_all(getFileTargetDir(target, kFeatureTDF));
  std::unique_ptr<CaptureOperation> op = makeOperation(target, feature);
  if (!op) {
    QX_LOG_ERROR("Cannot write the placeholder of %s: no capture of this kind", feature.c_str());
    return;
  }
  op->configure(settings[target][feature]["opProp"], broker());
  op->exportMetaData();
  addDataLocation(target, *op);
}

void LocalOpManager::copyDirFiles(const std::string& from, const std::string& to) {
  QX_TRACE_FUNCTION("LocalOpManager::copyDirFiles");
  QX_TRACE_ARG("from", from.c_str());
  QX_TRACE_ARG("to", to.c_str());
  if (from == to) return;
  try {
    boost::system::error_code ec;
    if (!fs::exists(to, ec) || ec) fs::create_directories(to);
    for (const auto& entry : fs::directory_iterator(from)) {
      fs::path target = fs::path(to) / entry.path().filename();
      fs::copy_file(entry.path(), target, fs::copy_options::overwrite_existing);
      fs::remove(entry.path());
    }
  } catch (const fs::filesystem_error& e) {
    QX_LOG_ERROR("%s", e.what());
  }
}
