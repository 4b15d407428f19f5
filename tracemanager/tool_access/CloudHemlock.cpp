#include "CloudHemlock.hpp"

#include "Logger.hpp"
#include "uDll.hpp"

CloudHemlock* CloudHemlock::Acquire(const std::string& basePath) {
  QX_TRACE_FUNCTION("CloudHemlock::Acquire");
  // Until the tool client exists there is nothing to drive a loaded tool
  // library with; say so once in the log so a user sees why no target
  // appears.
  QX_LOG_ERROR("CloudHemlock::Acquire(%s): tool access is not available in this build",
               basePath.c_str());
  return nullptr;
}

void CloudHemlock::Release(CloudHemlock*) {}

// No instance can exist in this build (Acquire gives none); these answer as
// a tool layer without tools does.
int CloudHemlock::getDevices(bool, const std::string&, Json::Value& devices) {
  devices = Json::Value(Json::arrayValue);
  lastError = "no tool libraries";
  return -1;
}

int CloudHemlock::getCpuNames(std::vector<std::string>& names) {
  names.clear();
  return 0;
}

int CloudHemlock::isTargetConnected(const std::string&, bool& connected) {
  connected = false;
  lastError = "no tool libraries";
  return -1;
}

std::string CloudHemlock::getLastError() const { return lastError; }
