// CloudHemlock: process-wide access to the debug tool libraries.
//
// Acquire() loads the tool libraries from <base>emulation/analysis/bin and
// gives the shared instance, or null when they cannot be had; Release()
// gives one reference back. Every operation answers 0 or a negative code,
// with the reason in getLastError(). Callers hold toolMutex around queries.
//
// The tool client that talks to a loaded tool library is not built yet, so
// Acquire() gives null in this build: the module runs exactly as it does on
// a machine without tool libraries (commands that need tools report
// "Failed to acquire hemlock"; sessions cannot start).
#pragma once

#include <json/json.h>

#include <mutex>
#include <string>
#include <vector>

class CloudHemlock {
 public:
  static CloudHemlock* Acquire(const std::string& basePath);
  static void Release(CloudHemlock* instance);

  // Devices of the live targets (live true) or of a TDF file (name).
  int getDevices(bool live, const std::string& tdfName, Json::Value& devices);
  int getCpuNames(std::vector<std::string>& names);
  int isTargetConnected(const std::string& target, bool& connected);
  std::string getLastError() const;

  std::recursive_mutex toolMutex;

 private:
  CloudHemlock() = default;
  std::string lastError;
};
