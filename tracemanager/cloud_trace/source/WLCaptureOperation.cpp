#include "cloud_trace/source/WLCaptureOperation.hpp"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHemlock.hpp"

using WL = LocalOpManager::WLCaptureOperation;

namespace {

// Power state formats by core: these cores report the older word layout.
bool hasLynxFormat(std::string target) {
  std::transform(target.begin(), target.end(), target.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const char* key : {"armv6m0", "lynxm2", "cortex_m0", "lynx16"}) {
    if (target.find(key) != std::string::npos) return true;
  }
  return false;
}

Json::Value property(const char* name, const char* type, Json::Value value) {
  Json::Value p(Json::objectValue);
  p["name"] = name;
  p["type"] = type;
  p["value"] = std::move(value);
  return p;
}

}  // namespace

WL::WLCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                       Json::Value sessionSettings)
    : CaptureOperation(clientId, tools, std::move(target), std::move(sessionSettings),
                       kFeatureWattline, "LocalOpManager::WLCaptureOperation") {}

void WL::createDefaultSettings() {
  Json::Value list(Json::arrayValue);
  list.append(property("Trace On", "String", "WL"));
  list.append(property("WLplus", "Boolean", false));
  list.append(property("Duration", "Number", 20000));
  list.append(property("DataDir", "String", ""));
  list.append(property("Synchronize with target", "Boolean", true));
  list.append(property("Format", "String", hasLynxFormat(target) ? "LYNX" : "LPRF"));
  list.append(property("HDRRangeHi", "Boolean", false));
  setReceiverSettings("WL", list);
}

uint32_t WL::createHlOperation() {
  QX_TRACE_FUNCTION("LocalOpManager::WLCaptureOperation::createHlOperation");
  createMainOperation("WL");
  created = true;
  return operationHandle;
}

int32_t WL::enableImpl(bool on) { return switchToolOperations(on, DecoderUse::kOptional); }

void WL::onDataReady() {
  QX_TRACE_FUNCTION("LocalOpManager::WLCaptureOperation::onDataReady");
  if (state != Collecting) {
    QX_LOG_MESSAGE("Error: onDataReady(), current state (%s) is not COLLECTING",
                   state == Armed ? "Armed" : "Idel");
    return;
  }
  state = Idle;
  copyDirFiles(getScratchDir(".Wattline"), getTargetDir(target, kFeatureWattline));
  resolveDataReady();
}

void WL::exportMetaData() {
  QX_TRACE_FUNCTION("LocalOpManager::WLCaptureOperation::exportMetaData");
  metadata = Json::Value(Json::objectValue);
  metadata["typeId"] = "WL";
  Json::Value prop = getReceiverProperty("WLplus");
  Json::Value jstate;
  if (prop["value"].isBool() && prop["value"].asBool()) {
    metadata["typeId"] = "WL+";
    jstate = Json::Value(Json::objectValue);
    if (tools != nullptr) {
      std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
      tools->getJState(target, jstate);
    }
  }
  metadata["time"] = timeStamp();
  metadata["source"] = "VSK Vireo";
  metadata["deviceId"] = "unknown";
  metadata["device"] = target;
  metadata["cpu"] = "unknown";
  metadata["dataFile"] = "unknown";
  metadata["dFormat"] = "unknown";
  Json::Value sup(Json::objectValue);
  if (jstate.isObject() && jstate["name"].isString() && !jstate["name"].asString().empty()) {
    sup["JState"] = jstate;
  }
  deliver("metadata", metadata, "LocalOpManager::WLCaptureOperation::exportMetaData");
  deliver("metadataSup.json", sup, "LocalOpManager::WLCaptureOperation::exportMetaData", false);
}
