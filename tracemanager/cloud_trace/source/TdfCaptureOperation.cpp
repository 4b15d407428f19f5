#include "cloud_trace/source/TdfCaptureOperation.hpp"

#include <cctype>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "xevt/Session.hpp"

using Tdf = LocalOpManager::TdfCaptureOperation;

namespace {

// A file URI's path of a drive-letter system comes as "/C:/dir/a.tdf"; its
// leading "/" is not part of the path. A path of this system keeps it, or
// it would no longer be absolute.
bool isDriveLetterUriPath(const std::string& path) {
  return path.size() >= 3 && path[0] == '/' && std::isalpha(static_cast<unsigned char>(path[1])) &&
         path[2] == ':';
}

}  // namespace

Tdf::TdfCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                         Json::Value sessionSettings)
    : CaptureOperation(clientId, tools, std::move(target), std::move(sessionSettings), kFeatureTDF,
                       "LocalOpManager::TdfCaptureOperation", "tdf_data.json") {}

// A recording carries its own configuration: there is nothing to set.
void Tdf::createDefaultSettings() {
  QX_TRACE_FUNCTION("LocalOpManager::TdfCaptureOperation::createDefaultSettings");
}

std::string Tdf::pathFromOpProp(const Json::Value& opProp) {
  if (opProp.isObject() && opProp.isMember("File")) {
    QX_LOG_MESSAGE("Fetch TDF file path from TDF.opProp.File");
    const Json::Value& file = opProp["File"];
    return file.isConvertibleTo(Json::stringValue) ? file.asString() : std::string();
  }
  QX_LOG_MESSAGE("Fetch TDF file path from TDF.opProp.File Settings.File");
  int32_t outer = findIndex(opProp, "name", "File Settings");
  if (outer < 0) return {};
  const Json::Value& subs = opProp[static_cast<Json::ArrayIndex>(outer)]["sub_properties"];
  int32_t inner = findIndex(subs, "name", "File");
  if (inner < 0) return {};
  const Json::Value& value = subs[static_cast<Json::ArrayIndex>(inner)]["value"];
  return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

bool Tdf::normalizePath(std::string& path) {
  if (isDriveLetterUriPath(path)) path.erase(0, 1);
  std::filesystem::path p(path);
  bool absolute = p.is_absolute();
  path = p.lexically_normal().string();
  QX_LOG_MESSAGE("Normalized TDF file path: %s", path.c_str());
  // exists() throws for a status query that fails otherwise than "no such
  // file": that is a fault of the system, not of the name.
  return !path.empty() && absolute && std::filesystem::exists(path);
}

uint32_t Tdf::createHlOperation() {
  QX_TRACE_FUNCTION("LocalOpManager::TdfCaptureOperation::createHlOperation");
  created = false;
  Json::Value opProp = sessionSettings[target][kFeatureTDF]["opProp"];
  tdfPath = pathFromOpProp(opProp);
  QX_LOG_MESSAGE("TDF file path: %s", tdfPath.c_str());
  if (!normalizePath(tdfPath)) {
    std::string text = "Invalid TDF file name: " + tdfPath;
    QX_LOG_ERROR("%s", text.c_str());
    throw std::runtime_error(text);
  }
  if (tools == nullptr) throw std::runtime_error("Cannot enable TDF: No target selected");
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  // Loads the recording's device description; the list itself is not used.
  Json::Value devices;
  tools->getDevices(false, tdfPath, devices);
  if (tools->createTraceOperation(clientId, tdfPath, operationHandle, 3) != 0) {
    std::string text = tools->getLastError();
    QX_LOG_ERROR("%s", text.c_str());
    throw std::runtime_error("Failed to create operation: " + text);
  }
  created = true;
  return operationHandle;
}

int32_t Tdf::enableImpl(bool on) {
  enabled = on;
  if (tools == nullptr) return -1;
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  Qx::Nlv::Xevt::ISessionManager* manager = tools->sessionManager();
  if (!on) {
    int32_t r = tools->enableOperation(operationHandle, false, false);
    tools->destroyTraceApp(operationHandle);
    if (session != nullptr && manager != nullptr) manager->releaseSession(session);
    return r;
  }
  if (manager != nullptr) {
    char errorText[512] = {};
    session = manager->openFileSession(tdfPath.c_str(), errorText, sizeof errorText);
    if (session == nullptr) QX_LOG_ERROR("openFileSession: %s", errorText);
  }
  int32_t r = tools->enableOperation(operationHandle, true, false);
  if (r != 0) return r;
  r = tools->createTraceApp(operationHandle);
  if (r != 0) tools->enableOperation(operationHandle, false, false);
  return r;
}

void Tdf::onDataReady() {
  QX_TRACE_FUNCTION("LocalOpManager::TdfCaptureOperation::onDataReady");
  if (!endCollecting()) return;
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  // A failure the reader reports by its result has been logged, and the
  // session ends with what was read. A cell it cannot parse is thrown as a
  // logic error; it becomes the status text of the file session, which the
  // file capture thread shows before it disables the operation.
  Json::Value out;
  try {
    tools->readTdfTable(session, operationHandle, out, data);
  } catch (const std::logic_error& e) {
    QX_LOG_ERROR("LocalOpManager::TdfCaptureOperation::onDataReady: %s", e.what());
    throw std::runtime_error(std::string("Cannot read the TDF table: ") + e.what());
  }
  exportMetaData();
  exportData();
}
