#include "cloud_trace/source/MtbCaptureOperation.hpp"

#include <mutex>
#include <stdexcept>
#include <utility>

#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHemlock.hpp"

using Mtb = LocalOpManager::MtbCaptureOperation;

namespace {

Json::Value property(const char* name, const char* type, Json::Value value) {
  Json::Value p(Json::objectValue);
  p["name"] = name;
  p["type"] = type;
  p["value"] = std::move(value);
  return p;
}

}  // namespace

Mtb::MtbCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                         Json::Value sessionSettings)
    : CaptureOperation(clientId, tools, std::move(target), std::move(sessionSettings), kFeatureMTB,
                       "LocalOpManager::MtbCaptureOperation", "mtb_data.json") {}

void Mtb::createDefaultSettings() {
  // The tool reads these by position: a user property replaces its entry in
  // place, so the order here is the order the tool sees.
  Json::Value list(Json::arrayValue);
  list.append(property("Trace Buffer Type", "String", "Circular"));
  list.append(property("Trace On", "Boolean", true));
  list.append(property("Start triggers", "Boolean", false));
  list.append(property("Stop triggers", "Boolean", false));
  list.append(property("Buffer Size", "String", "32 Bytes"));
  list.append(property("Watermark level", "Number", 0));
  list.append(property("Stop at watermark", "Boolean", false));
  list.append(property("Halt at watermark", "Boolean", false));
  list.append(property("Synchronize with target", "Boolean", true));
  list.append(property("Hierarchical Decode", "Boolean", true));
  setReceiverSettings("MTB", list);
}

uint32_t Mtb::createHlOperation() {
  QX_TRACE_FUNCTION("LocalOpManager::MtbCaptureOperation::createHlOperation");
  createMainOperation("MTB");
  created = true;
  return operationHandle;
}

int32_t Mtb::enableImpl(bool on) { return switchToolOperations(on, DecoderUse::kSymbols); }

void Mtb::onDataReady() {
  QX_TRACE_FUNCTION("LocalOpManager::MtbCaptureOperation::onDataReady");
  if (!endCollecting()) return;
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  // The compact row form belongs to the cores whose names carry "Dsa"; the
  // match is case-sensitive as the tool names them.
  bool compact = target.find("Dsa") != std::string::npos;
  uint32_t count = 0;
  if (tools->decodeMTBTrace(operationHandle, count, data, compact) != 0) {
    throw std::runtime_error("DecodeMTBTrace failed: " + tools->getLastError());
  }
  publishDecoded();
}
