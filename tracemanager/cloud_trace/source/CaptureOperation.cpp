#include "cloud_trace/source/CaptureOperation.hpp"

#include <ctime>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "experiments/DataBroker.hpp"
#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHemlock.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

using Op = LocalOpManager::CaptureOperation;

Op::CaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                     Json::Value sessionSettings, const char* feature, std::string writer,
                     const char* dataFile)
    : type(feature),
      clientId(clientId),
      tools(tools),
      target(std::move(target)),
      captureDir(getTargetDir(this->target, feature)),
      sessionSettings(std::move(sessionSettings)),
      writer(std::move(writer)),
      dataFile(dataFile) {}

// dataReady is dropped, not settled: a CSV export chained on it stays
// pending, as the capture it waited for never ended.
Op::~CaptureOperation() = default;

const char* Op::stateText(State s) {
  switch (s) {
    case Armed:
      return "Armed";
    case Collecting:
      return "Collecting";
    default:
      return "Idle";
  }
}

void Op::configure(const Json::Value& opProp, VSKTspServer::DataBroker* b) {
  QX_TRACE_FUNCTION("LocalOpManager::CaptureOperation::configure");
  broker = b;
  createDefaultSettings();
  applyOpProp(opProp);
}

int32_t Op::enable(bool on) {
  if (on) {
    state = Armed;
    // A promise that a CSV export chained on before the first arming is the
    // one this capture settles; only a settled one is replaced.
    if (dataReady.status() != low::promise<void>::pending) dataReady = low::promise<void>();
    return enableImpl(true);
  }
  state = Idle;
  int32_t result = enableImpl(false);
  resolveDataReady();
  return result;
}

void Op::onDataCollecting() {
  if (state == Armed) {
    state = Collecting;
  } else if (state == Idle) {
    QX_LOG_MESSAGE("Error: onDataCollecting(), current state (%s) is not ARMED", stateText(state));
  }
}

void Op::resolveDataReady() { low::resolveDeferred(dataReady); }

int32_t Op::findIndex(const Json::Value& array, const std::string& key, const std::string& value) {
  if (!array.isArray()) return -1;
  for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
    const Json::Value& member = array[i].isObject() ? array[i][key] : Json::Value::nullSingleton();
    if (member.isConvertibleTo(Json::stringValue) && member.asString() == value) {
      return static_cast<int32_t>(i);
    }
  }
  return -1;
}

void Op::applyOpProp(const Json::Value& opProp) {
  int32_t a = findIndex(opProp, "name", "Receiver Settings");
  int32_t b = findIndex(settings, "name", "Receiver Settings");
  if (a < 0 || a != b) return;
  const Json::Value& userOuter = opProp[a]["sub_properties"];
  Json::Value& ownOuter = settings[b]["sub_properties"];
  int32_t c = findIndex(userOuter, "name", "Receiver");
  int32_t d = findIndex(ownOuter, "name", "Receiver");
  if (c < 0 || c != d) return;
  const Json::Value& user = userOuter[c]["sub_properties"];
  Json::Value& own = ownOuter[d]["sub_properties"];
  if (!user.isArray()) return;
  for (const auto& e : user) {
    std::string name = e.isObject() && e["name"].isConvertibleTo(Json::stringValue)
                           ? e["name"].asString()
                           : std::string();
    int32_t at = findIndex(own, "name", name);
    // Whole replacement: a property sent without sub_properties loses the
    // default ones.
    if (at >= 0) {
      own[at] = e;
    } else {
      own.append(e);
    }
  }
}

Json::Value Op::getReceiverProperty(const std::string& name) const {
  int32_t b = findIndex(settings, "name", "Receiver Settings");
  if (b < 0) return Json::Value();
  const Json::Value& outer = settings[b]["sub_properties"];
  int32_t d = findIndex(outer, "name", "Receiver");
  if (d < 0) return Json::Value();
  const Json::Value& own = outer[d]["sub_properties"];
  int32_t at = findIndex(own, "name", name);
  return at < 0 ? Json::Value() : own[at];
}

void Op::setReceiverSettings(const std::string& receiver, const Json::Value& properties) {
  Json::Value inner(Json::objectValue);
  inner["name"] = "Receiver";
  inner["type"] = "String";
  inner["value"] = receiver;
  inner["sub_properties"] = properties;
  Json::Value outer(Json::objectValue);
  outer["name"] = "Receiver Settings";
  outer["sub_properties"] = Json::Value(Json::arrayValue);
  outer["sub_properties"].append(inner);
  settings = Json::Value(Json::arrayValue);
  settings.append(outer);
}

std::string Op::timeStamp() {
  std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char buffer[21] = {0};
  std::strftime(buffer, sizeof buffer, "%FT%TZ", &utc);
  return buffer;
}

void Op::deliver(const std::string& name, const Json::Value& content, const std::string& writer,
                 bool reportWriteFailure) {
  Json::StyledWriter styled;
  if (broker != nullptr) {
    Json::Value header(Json::objectValue);
    header["path"] = captureDir;
    header["name"] = name;
    broker->writeText(VSKTspServer::kTopicFile, styled.write(header), styled.write(content));
    return;
  }
  std::string path = captureDir + "/" + name;
  std::ofstream file(path, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!file.is_open()) {
    QX_LOG_ERROR("%s(): Failed to open file %s", writer.c_str(), path.c_str());
    return;
  }
  file << styled.write(content);
  file.close();
  if (reportWriteFailure && file.fail()) {
    QX_LOG_ERROR("%s(): Failed to write file %s", writer.c_str(), path.c_str());
  }
}

// ---------------------------------------------------------------- tool side

void Op::createMainOperation(const char* word) {
  created = false;
  if (tools == nullptr) {
    throw std::runtime_error(std::string("Cannot enable ") + word + ": No target selected");
  }
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  createToolOperation(operationHandle, settings, 2);
}

void Op::createToolOperation(uint32_t& handle, const Json::Value& props, uint32_t kind) {
  if (tools->createTraceOperation(clientId, target, handle, kind) != 0) {
    throw std::runtime_error("Failed to create operation: " + tools->getLastError());
  }
  if (tools->setOperationProperties(handle, props) != 0) {
    throw std::runtime_error("Failed to set properties: " + tools->getLastError());
  }
}

int32_t Op::switchToolOperations(bool on, DecoderUse use) {
  enabled = on;
  if (tools == nullptr) return -1;
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  // Disables the main operation and the first `subs` sub-operations, in
  // that order; gives the last result.
  auto disable = [this](uint32_t subs) {
    int32_t r = tools->enableOperation(operationHandle, false, false);
    for (uint32_t i = 0; i < subs; ++i)
      r = tools->enableOperation(subOperationHandles[i], false, false);
    return r;
  };
  if (!on) {
    int32_t r = disable(subOperationCount);
    tools->destroyTraceApp(operationHandle);
    return r;
  }
  int32_t r = tools->enableOperation(operationHandle, true, false);
  if (r != 0) return r;
  for (uint32_t i = 0; i < subOperationCount; ++i) {
    r = tools->enableOperation(subOperationHandles[i], true, false);
    if (r != 0) {
      disable(i);
      return r;
    }
  }
  r = tools->createTraceApp(operationHandle);
  switch (use) {
    case DecoderUse::kSymbols:
      if (r != 0) break;
      // Without an object file the rows still decode, only without
      // symbols; the attach step reports whether the decoder got one.
      tools->loadObjectInfo(operationHandle);
      return tools->attachObjectInfo(operationHandle);
    case DecoderUse::kSymbolsAllOrNothing:
      if (r != 0) break;
      tools->loadObjectInfo(operationHandle);
      r = tools->attachObjectInfo(operationHandle);
      break;
    case DecoderUse::kOptional:
      // -3 and -4: the power channel has no instruction decoder, which a
      // power capture does not need.
      if (r == -3 || r == -4) r = 0;
      break;
  }
  if (r == 0) return 0;
  disable(subOperationCount);
  return r;
}

// ---------------------------------------------------------------- export

void Op::exportMetaData() {
  QX_TRACE_FUNCTION((writer + "::exportMetaData").c_str());
  metadata = Json::Value(Json::objectValue);
  metadata["typeId"] = type;
  metadata["time"] = timeStamp();
  metadata["source"] = "VSK Vireo";
  metadata["device"] = target;
  metadata["deviceId"] = "unknown";
  metadata["dataFile"] = dataFile != nullptr ? dataFile : "unknown";
  deliver("metadata", metadata, writer + "::exportMetaData");
}

void Op::exportData() {
  QX_TRACE_FUNCTION((writer + "::exportData").c_str());
  if (dataFile != nullptr) deliver(dataFile, data, writer + "::exportData");
}

bool Op::endCollecting() {
  if (state != Collecting) {
    QX_LOG_MESSAGE("Error: onDataReady(), current state (%s) is not COLLECTING", stateText(state));
    return false;
  }
  state = Idle;
  return tools != nullptr;
}

void Op::publishDecoded() {
  resolveDataReady();
  exportMetaData();
  exportData();
}
